#include "cli/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "cli/failure.h"
#include "platform/base/descriptor.h"
#include "platform/base/files.h"

namespace certmgrctl {
namespace {

/// What the daemon takes at once is less by default; it says so itself.
constexpr std::size_t kMaxFileBytes = std::size_t{1} << 30;

[[noreturn]] void FailOn(const std::string& path, ExitCode code) {
    throw Failure(code, path + ": " + std::strerror(errno));
}

mode_t ModeFor(Access access) {
    constexpr mode_t kOwner = 0600;
    constexpr mode_t kReadable = 0666;
    if (access == Access::kOwnerOnly) return kOwner;
    const mode_t mask = umask(0);
    umask(mask);
    return kReadable & ~mask;
}

/// A file beside the one to be written, which goes away unless it took that one's place.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& path) : name_(path + ".XXXXXX"), fd_(mkostemp(name_.data(), O_CLOEXEC)) {
        if (!fd_) FailOn(path, kExitFailed);
    }
    ~TemporaryFile() { unlink(name_.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool Fill(std::string_view content, mode_t mode) const {
        return fchmod(fd_.get(), mode) == 0 && vpnfc::WriteAll(fd_.get(), content) && fsync(fd_.get()) == 0;
    }
    bool MoveTo(const std::string& path, bool replace) const {
        if (renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path.c_str(), replace ? 0 : RENAME_NOREPLACE) == 0)
            return true;
        // Not every file system knows the flag. The name of the temporary file goes in the end.
        return !replace && (errno == EINVAL || errno == ENOSYS) && link(name_.c_str(), path.c_str()) == 0;
    }

  private:
    std::string name_;
    vpnfc::Descriptor fd_;
};

}  // namespace

vpnfc::SecretString ReadWholeFile(const std::string& path) {
    const bool named = path != "-";
    const vpnfc::Descriptor file(named ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1);
    if (named && !file) FailOn(path, kExitUsage);
    vpnfc::SecretString content;
    switch (vpnfc::ReadToEnd(named ? file.get() : STDIN_FILENO, kMaxFileBytes, content)) {
        case vpnfc::ReadResult::kRead:
            return content;
        case vpnfc::ReadResult::kTooLong:
            throw Failure(kExitUsage, path + " is too large");
        case vpnfc::ReadResult::kFailed:
            break;
    }
    FailOn(path, kExitUsage);
}

std::vector<std::string_view> PartsOf(std::string_view content) {
    constexpr std::string_view kBegin = "-----BEGIN ";
    constexpr std::string_view kEnd = "-----END ";
    std::vector<std::string_view> parts;
    for (std::size_t begin = content.find(kBegin); begin != std::string_view::npos;) {
        const std::size_t next = content.find(kBegin, begin + 1);
        const std::string_view part = content.substr(begin, next - begin);
        const std::size_t end = part.find(kEnd);
        parts.push_back(end == std::string_view::npos ? part : part.substr(0, part.find('\n', end)));
        begin = next;
    }
    if (parts.size() <= 1) return {content};
    return parts;
}

void RequireAbsent(const std::string& path, bool force) {
    if (path.empty() || path == "-" || force || !std::filesystem::exists(path)) return;
    throw Failure(kExitFailed, path + " is there already", {"--force replaces it."});
}

class OutputFile::Temporary : public TemporaryFile {
  public:
    using TemporaryFile::TemporaryFile;
};

OutputFile::OutputFile(const std::string& path, Access access, bool force)
    : path_(path), access_(access), force_(force), temporary_(std::make_unique<Temporary>(path)) {}

OutputFile::~OutputFile() = default;

void OutputFile::Write(std::string_view content) const {
    if (!temporary_->Fill(content, ModeFor(access_))) FailOn(path_, kExitFailed);
    if (temporary_->MoveTo(path_, force_)) return;
    if (errno == EEXIST) RequireAbsent(path_, force_);
    FailOn(path_, kExitFailed);
}

void WriteResult(const std::string& path, std::string_view content, Access access, bool force) {
    if (!path.empty() && path != "-") return OutputFile(path, access, force).Write(content);
    const bool binary = std::any_of(content.begin(), content.end(), [](char c) {
        return (c < ' ' && c != '\n' && c != '\r' && c != '\t') || c == 127;
    });
    if (binary && isatty(STDOUT_FILENO) != 0) {
        throw Failure(kExitUsage, "binary data is not written to a terminal", {"Name a file with --output FILE."});
    }
    if (!vpnfc::WriteAll(STDOUT_FILENO, content)) FailOn("standard output", kExitFailed);
}

}  // namespace certmgrctl
