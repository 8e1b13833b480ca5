#include "tokens/gost/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tokens/gost/failure.h"
#include "tokens/gost/sealing.h"

namespace gost_token {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTemporaryPrefix = ".new-";
/// A folder of files that are whole, and are to be moved out of it.
constexpr std::string_view kSetPrefix = ".set-";
constexpr std::size_t kNameBytes = 8;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kFolderMode = 0700;

class Descriptor {
  public:
    Descriptor(const fs::path& path, int flags, mode_t mode = 0) : fd_(open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    bool Close() { return fd_ < 0 || close(std::exchange(fd_, -1)) == 0; }

  private:
    int fd_;
};

bool WriteAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

[[noreturn]] void FailToWrite(const fs::path& temporary) {
    const bool full = errno == ENOSPC || errno == EDQUOT;
    unlink(temporary.c_str());
    Fail(full ? CKR_DEVICE_MEMORY : CKR_DEVICE_ERROR);
}

/// What was asked for is not there, or is nothing that could be read. Everything else is a failure.
std::nullopt_t Absent() {
    switch (errno) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case ENXIO:
            return std::nullopt;
        case EMFILE:
        case ENFILE:
        case ENOMEM:
            Fail(CKR_HOST_MEMORY);
        default:
            Fail(CKR_DEVICE_ERROR);
    }
}

/// Makes the names in a folder last.
void SyncFolder(const fs::path& folder) {
    const Descriptor descriptor(folder, O_RDONLY | O_DIRECTORY);
    if (descriptor) fsync(descriptor.get());
}

void MoveInto(const fs::path& folder, const fs::path& file) {
    Require(rename(file.c_str(), (folder / file.filename()).c_str()) == 0, CKR_DEVICE_ERROR);
}

}  // namespace

std::optional<Stamp> StampOf(const fs::path& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return Absent();
    return Stamp{status.st_dev, status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_size};
}

std::optional<std::string> ReadFile(const fs::path& path, std::size_t max_bytes) {
    const Descriptor file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) return Absent();
    if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) > max_bytes) return std::nullopt;
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t got = read(file.get(), content.data() + done, content.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return Absent();
        if (got == 0) return std::nullopt;
        done += static_cast<std::size_t>(got);
    }
    return content;
}

void WriteFile(const fs::path& path, std::string_view content) {
    const fs::path temporary = TemporaryName(path.parent_path());
    Descriptor file(temporary, O_WRONLY | O_CREAT | O_EXCL, kFileMode);
    if (!file || !WriteAll(file.get(), content) || fsync(file.get()) != 0 || !file.Close() ||
        rename(temporary.c_str(), path.c_str()) != 0) {
        FailToWrite(temporary);
    }
    SyncFolder(path.parent_path());
}

void WriteFiles(const fs::path& folder, std::span<const NamedContent> files) {
    if (files.size() == 1) return WriteFile(folder / files[0].name, files[0].content);
    const fs::path fresh = TemporaryName(folder);
    const fs::path set = folder / std::string(kSetPrefix).append(RandomName());
    try {
        Require(MakePrivateFolder(fresh), CKR_DEVICE_ERROR);
        for (const NamedContent& file : files) WriteFile(fresh / file.name, file.content);
        Require(rename(fresh.c_str(), set.c_str()) == 0, CKR_DEVICE_ERROR);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(fresh, ignored);
        throw;
    }
    SyncFolder(folder);
    // From here on they count as written.
    for (const NamedContent& file : files) MoveInto(folder, set / file.name);
    SyncFolder(folder);
    rmdir(set.c_str());
}

bool MakePrivateFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder.parent_path(), error);
    if (error || (mkdir(folder.c_str(), kFolderMode) != 0 && errno != EEXIST)) return false;
    struct stat status {};
    return stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & 077) == 0;
}

void PutFolder(const fs::path& folder, const fs::path& place) {
    SyncFolder(folder);
    const bool exists = StampOf(place).has_value();
    const unsigned flags = exists ? RENAME_EXCHANGE : RENAME_NOREPLACE;
    Require(renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, place.c_str(), flags) == 0, CKR_DEVICE_ERROR);
    SyncFolder(place.parent_path());
}

void RemoveFolder(const fs::path& folder, const char* first) {
    std::error_code error;
    fs::remove(folder / first, error);
    if (!error) fs::remove_all(folder, error);
    Require(!error, CKR_DEVICE_ERROR);
    SyncFolder(folder.parent_path());
}

std::string RandomName() {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string name;
    for (const char byte : RandomBytes(kNameBytes)) {
        name.push_back(kDigits[static_cast<unsigned char>(byte) >> 4]);
        name.push_back(kDigits[static_cast<unsigned char>(byte) & 0xF]);
    }
    return name;
}

fs::path TemporaryName(const fs::path& folder) {
    return folder / std::string(kTemporaryPrefix).append(RandomName());
}

FolderLock::FolderLock(const fs::path& folder, Wait wait) : folder_(folder) {
    const int how = LOCK_EX | (wait == Wait::kNo ? LOCK_NB : 0);
    do {
        if (fd_ >= 0) close(fd_);
        fd_ = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        while (fd_ >= 0 && flock(fd_, how) != 0) {
            if (errno != EINTR) close(std::exchange(fd_, -1));
        }
    } while (fd_ >= 0 && !IsOfItsPlace());
    Require(fd_ >= 0 || wait == Wait::kNo, CKR_DEVICE_ERROR);
}

bool FolderLock::IsOfItsPlace() const {
    struct stat locked {};
    struct stat named {};
    const bool both = fstat(fd_, &locked) == 0 && stat(folder_.c_str(), &named) == 0;
    return both && locked.st_dev == named.st_dev && locked.st_ino == named.st_ino;
}

void FolderLock::Recover() const {
    std::error_code error;
    if (!held()) return;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder_, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(kTemporaryPrefix)) fs::remove_all(entry.path(), error);
        if (!name.starts_with(kSetPrefix)) continue;
        for (const fs::directory_entry& file : fs::directory_iterator(entry.path(), error))
            MoveInto(folder_, file.path());
        SyncFolder(folder_);
        rmdir(entry.path().c_str());
    }
}

FolderLock::~FolderLock() {
    if (held()) close(fd_);
}

}  // namespace gost_token
