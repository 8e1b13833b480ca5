// The file by which clients find the server.
#pragma once

#include <cstdint>
#include <string>

#include "platform/base/descriptor.h"

namespace bridge {

/// A listening socket and its file. A lock file beside it ("PATH.lock"), held as long as the process lives, tells a
/// living server from a dead one.
class SocketFile {
  public:
    SocketFile() = default;
    ~SocketFile() { Close(); }
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    /// Makes the folder if it is missing and replaces the socket of a dead server. False, and why and what to do about
    /// it, when the path cannot be used.
    bool Open(const std::string& path, std::uint32_t mode, std::string& error);
    /// The listening socket; the caller owns it from now on.
    int TakeSocket();
    /// Removes the file and gives the lock back.
    void Close();

  private:
    bool Lock(std::string& error);
    bool RemoveStale(std::string& error) const;
    bool Listen(std::uint32_t mode, std::string& error);

    std::string path_;
    vpnfc::Descriptor lock_;
    vpnfc::Descriptor socket_;
    bool made_ = false;
};

}  // namespace bridge
