#include "platform/bridge/socket_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

namespace bridge {
namespace {

namespace fs = std::filesystem;

constexpr int kBacklog = 128;

std::string ErrnoText() {
    return std::strerror(errno);
}

bool MakeAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.front() != '/') {
        error = "the socket's path must be absolute";
    } else if (path.size() >= sizeof address.sun_path) {
        error = path + ": a socket's path has at most " + std::to_string(sizeof address.sun_path - 1) + " bytes";
    } else {
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        return true;
    }
    return false;
}

/// Who can write the folder can put another socket in the place of this one.
const char* WhyNotSafe(const struct stat& status) {
    if (!S_ISDIR(status.st_mode)) return " is not a directory";
    if (status.st_uid != geteuid() && status.st_uid != 0) return " belongs to another user";
    const bool others_write = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (others_write && (status.st_mode & S_ISVTX) == 0) return " can be written by others; chmod go-w";
    return nullptr;
}

/// A missing folder is made, open to those that may use the socket.
bool PrepareFolder(const fs::path& folder, std::uint32_t socket_mode, std::string& error) {
    std::error_code code;
    fs::create_directories(folder.parent_path(), code);
    const mode_t mode = (socket_mode & 077) == 0 ? 0700 : 0755;
    struct stat status {};
    const bool usable = (mkdir(folder.c_str(), mode) == 0 || errno == EEXIST) && stat(folder.c_str(), &status) == 0;
    if (!usable) {
        error = folder.string() + ": " + ErrnoText();
        return false;
    }
    const char* const fault = WhyNotSafe(status);
    if (fault != nullptr) error = folder.string() + fault;
    return fault == nullptr;
}

/// Whether somebody listens at the address.
bool IsServed(const sockaddr_un& address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) return false;
    const int result = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const bool served = result == 0 || errno == EAGAIN;
    close(probe);
    return served;
}

}  // namespace

bool SocketFile::Open(const std::string& path, std::uint32_t mode, std::string& error) {
    path_ = path;
    sockaddr_un address{};
    if (MakeAddress(path, address, error) && PrepareFolder(fs::path(path).parent_path(), mode, error) && Lock(error) &&
        RemoveStale(error) && Listen(mode, error)) {
        return true;
    }
    Close();
    return false;
}

int SocketFile::TakeSocket() {
    return std::exchange(socket_, -1);
}

void SocketFile::Close() {
    if (made_) unlink(path_.c_str());
    made_ = false;
    for (int* const fd : {&socket_, &lock_}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

bool SocketFile::Lock(std::string& error) {
    const std::string name = path_ + ".lock";
    lock_ = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock_ < 0) {
        error = name + ": " + ErrnoText();
        return false;
    }
    if (flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        std::array<char, 32> holder{};
        const ssize_t count = read(lock_, holder.data(), holder.size() - 1);
        error = path_ + " is served by another process" + (count > 0 ? " (" + std::string(holder.data()) + ")" : "") +
                "; stop it, or name another socket";
        return false;
    }
    const std::string self = "process " + std::to_string(getpid());
    const bool noted = ftruncate(lock_, 0) == 0 && write(lock_, self.data(), self.size()) > 0;
    static_cast<void>(noted);  // it is only for the message above
    return true;
}

bool SocketFile::RemoveStale(std::string& error) const {
    struct stat status {};
    if (lstat(path_.c_str(), &status) != 0) return true;
    sockaddr_un address{};
    if (!MakeAddress(path_, address, error)) return false;
    if (!S_ISSOCK(status.st_mode)) {
        error = path_ + " is there and is no socket; move it away, or name another socket";
    } else if (IsServed(address)) {
        error = path_ + " is served by another process; stop it, or name another socket";
    } else if (unlink(path_.c_str()) != 0) {
        error = path_ + ": cannot be replaced: " + ErrnoText();
    } else {
        return true;
    }
    return false;
}

/// Nobody can connect before the mode is set: the socket does not listen yet.
bool SocketFile::Listen(std::uint32_t mode, std::string& error) {
    sockaddr_un address{};
    if (!MakeAddress(path_, address, error)) return false;
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    made_ = socket_ >= 0 && bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (made_ && chmod(path_.c_str(), mode) == 0 && listen(socket_, kBacklog) == 0) return true;
    error = path_ + ": " + ErrnoText();
    return false;
}

}  // namespace bridge
