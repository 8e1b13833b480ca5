// A descriptor of a file or a socket.
#pragma once

#include <unistd.h>

#include <utility>

namespace vpnfc {

/// Owns a descriptor. Move-only.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) Close();
        fd_ = other.Release();
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    /// The caller owns it from now on.
    int Release() { return std::exchange(fd_, -1); }
    /// False with errno when what was written may be lost.
    bool Close() { return fd_ < 0 || close(Release()) == 0; }

  private:
    int fd_;
};

}  // namespace vpnfc
