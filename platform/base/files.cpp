#include "platform/base/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/base/descriptor.h"

namespace vpnfc {
namespace {

constexpr std::size_t kChunk = std::size_t{1} << 16;

ssize_t Read(int fd, char* to, std::size_t bytes) {
    ssize_t count = 0;
    do {
        count = read(fd, to, bytes);
    } while (count < 0 && errno == EINTR);
    return count;
}

constexpr const char* kOfAnotherUser = "belongs to another user";

bool OthersMayUse(const struct stat& status) {
    return (status.st_mode & (S_IRWXG | S_IRWXO)) != 0;
}

/// Null when it may be read.
const char* WhyNotSecret(const struct stat& status, SecretFile kind) {
    const bool regular = S_ISREG(status.st_mode);
    if (kind == SecretFile::kOwn && !regular) return "is not a regular file";
    if (kind == SecretFile::kOwn && status.st_uid != geteuid()) return kOfAnotherUser;
    return regular && OthersMayUse(status) ? "can be read or written by others; its mode must be 0600" : nullptr;
}

/// A pipe of the user's is waited for; one that settings name keeps nobody waiting. None, with `error`, when it is not to
/// be read.
Descriptor OpenSecret(const std::string& path, SecretFile kind, std::string& error) {
    const int careful = kind == SecretFile::kOwn ? O_NOFOLLOW | O_NONBLOCK : 0;
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | careful));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        error = path + ": " + std::strerror(errno);
    } else if (const char* const why = WhyNotSecret(status, kind)) {
        error = path + " " + why;
    } else {
        return file;
    }
    return Descriptor();
}

const char* WhyNotPrivateFolder(const struct stat& status) {
    if (!S_ISDIR(status.st_mode)) return "is not a directory";
    if (status.st_uid != geteuid()) return kOfAnotherUser;
    return OthersMayUse(status) ? "can be read or written by others; its mode must be 0700" : nullptr;
}

}  // namespace

void Reserve(SecretString& text, std::size_t bytes) {
    if (bytes <= text.get().capacity()) return;
    SecretString larger;
    larger.edit().reserve(bytes);
    larger.edit().append(text.get());
    text = std::move(larger);
}

ReadResult ReadToEnd(int fd, std::size_t max_bytes, SecretString& content) {
    struct stat status {};
    const bool regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    if (regular) Reserve(content, std::min(static_cast<std::size_t>(status.st_size), max_bytes) + 1);
    std::string& bytes = content.edit();
    while (bytes.size() <= max_bytes) {
        const std::size_t size = bytes.size();
        if (size == bytes.capacity()) Reserve(content, 2 * size + kChunk);
        // Room is cleared before it is read into; a pipe fills little at a time.
        const std::size_t room = regular ? bytes.capacity() : size + kChunk;
        bytes.resize(std::min({bytes.capacity(), room, max_bytes + 1}));
        const ssize_t count = Read(fd, bytes.data() + size, bytes.size() - size);
        bytes.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (count <= 0) return count < 0 ? ReadResult::kFailed : ReadResult::kRead;
    }
    return ReadResult::kTooLong;
}

ReadResult ReadLine(int fd, std::size_t max_bytes, SecretString& line, bool& any) {
    Reserve(line, max_bytes + 2);
    std::string& bytes = line.edit();
    char byte = 0;
    any = false;
    while (bytes.size() < max_bytes + 2) {  // with the CR of its end
        const ssize_t count = Read(fd, &byte, 1);
        if (count < 0) return ReadResult::kFailed;
        any = any || count > 0;
        if (count == 0 || byte == '\n') break;
        bytes.push_back(byte);
    }
    if (bytes.ends_with('\r')) bytes.pop_back();
    return bytes.size() > max_bytes ? ReadResult::kTooLong : ReadResult::kRead;
}

bool ReadSecretLine(const std::string& path, SecretFile kind, std::size_t max_bytes, SecretString& line,
                    std::string& error) {
    const Descriptor file = OpenSecret(path, kind, error);
    if (!file) return false;
    bool any = false;
    switch (ReadLine(file.get(), max_bytes, line, any)) {
        case ReadResult::kRead:
            line.edit().resize(std::min(line.get().find('\r'), line.get().size()));  // the only end in some old files
            return true;
        case ReadResult::kTooLong:
            error = path + ": the first line has more than " + std::to_string(max_bytes) + " bytes";
            return false;
        case ReadResult::kFailed:
            break;
    }
    error = path + ": cannot be read: " + std::strerror(errno);
    return false;
}

bool WriteAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count = write(fd, content.data(), content.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool MakeFolder(const std::filesystem::path& folder, mode_t mode, struct stat& status, std::string& error) {
    std::error_code code;
    std::filesystem::create_directories(folder.parent_path(), code);
    const bool made = !code && (mkdir(folder.c_str(), mode) == 0 || errno == EEXIST);
    if (made && stat(folder.c_str(), &status) == 0) return true;
    error = folder.string() + ": " + (code ? code.message() : std::strerror(errno));
    return false;
}

bool MakePrivateFolder(const std::filesystem::path& folder, std::string& error) {
    struct stat status {};
    if (!MakeFolder(folder, S_IRWXU, status, error)) return false;
    const char* const why = WhyNotPrivateFolder(status);
    if (why != nullptr) error = folder.string() + ": " + why;
    return why == nullptr;
}

std::string PathFromEnvironment(const char* variable) {
    const char* const value = secure_getenv(variable);
    return value != nullptr && value[0] == '/' ? value : "";
}

std::string StateFolder() {
    if (geteuid() == 0) return "/var/lib/certmgr";
    if (const std::string state = PathFromEnvironment("XDG_STATE_HOME"); !state.empty()) return state + "/certmgr";
    const std::string home = PathFromEnvironment("HOME");
    return home.empty() ? home : home + "/.local/state/certmgr";
}

}  // namespace vpnfc
