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

#include "platform/base/files.h"
#include "platform/base/socket_address.h"

namespace bridge {
namespace {

namespace fs = std::filesystem;

constexpr int kBacklog = 128;

std::string ErrnoText() {
    return std::strerror(errno);
}

bool MakeAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    if (path.starts_with('/')) return vpnfc::MakeSocketAddress(path, address, error);
    error = "the socket's path must be absolute";
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
    struct stat status {};
    if (!vpnfc::MakeFolder(folder, (socket_mode & 077) == 0 ? 0700 : 0755, status, error)) return false;
    const char* const fault = WhyNotSafe(status);
    if (fault != nullptr) error = folder.string() + fault;
    return fault == nullptr;
}

/// Whether somebody listens at the address.
bool IsServed(const sockaddr_un& address) {
    const vpnfc::Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return probe &&
           (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN);
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
    return socket_.Release();
}

void SocketFile::Close() {
    if (made_) unlink(path_.c_str());
    made_ = false;
    socket_.Close();
    lock_.Close();
}

bool SocketFile::Lock(std::string& error) {
    const std::string name = path_ + ".lock";
    lock_ = vpnfc::Descriptor(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_) {
        error = name + ": " + ErrnoText();
        return false;
    }
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
        std::array<char, 32> holder{};
        const ssize_t count = read(lock_.get(), holder.data(), holder.size() - 1);
        error = path_ + " is served by another process" + (count > 0 ? " (" + std::string(holder.data()) + ")" : "") +
                "; stop it, or name another socket";
        return false;
    }
    const std::string self = "process " + std::to_string(getpid());
    const bool noted = ftruncate(lock_.get(), 0) == 0 && vpnfc::WriteAll(lock_.get(), self);
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
    socket_ = vpnfc::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    made_ = socket_ && bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (made_ && chmod(path_.c_str(), mode) == 0 && listen(socket_.get(), kBacklog) == 0) return true;
    error = path_ + ": " + ErrnoText();
    return false;
}

}  // namespace bridge
