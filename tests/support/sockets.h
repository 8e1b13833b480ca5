// TCP sockets of 127.0.0.1 for the tests' servers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace test_support {

struct BoundSocket {
    int fd;
    std::uint16_t port;
};

/// Bound to a free port with SO_REUSEADDR, not listening. Throws std::system_error.
BoundSocket BindLoopback();
/// Throws std::system_error.
void Listen(int fd, int backlog);
/// A socket that connects; without waiting, one that may be connecting still. Throws std::system_error.
int ConnectLoopback(std::uint16_t port, bool wait = true);
/// False when the other side has hung up.
bool SendAll(int fd, std::string_view bytes);
/// Reads until the mark has come or `limit` bytes have; what there was when the other side hangs up first.
std::string ReadUntil(int fd, std::string_view mark, std::size_t limit);
/// Throws away what comes until the other side, or this one's shutdown(2), ends it.
void WaitForHangUp(int fd);
/// "scheme://127.0.0.1:port/path".
std::string LoopbackUri(const std::string& scheme, std::uint16_t port, const std::string& path);

}  // namespace test_support
