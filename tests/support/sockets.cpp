#include "tests/support/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace test_support {
namespace {

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// Of a call on a socket that -1 is the failure of.
void Check(int fd, int result, const char* call) {
    if (result != -1) return;
    const int error = errno;
    if (fd != -1) close(fd);
    throw std::system_error(error, std::generic_category(), call);
}

int MakeSocket(int flags) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    Check(fd, fd, "socket");
    return fd;
}

/// Appends what has come; false at the end.
bool Receive(int fd, std::string& text) {
    std::array<char, 4096> buffer{};
    ssize_t got = -1;
    do got = recv(fd, buffer.data(), buffer.size(), 0);
    while (got == -1 && errno == EINTR);
    if (got > 0) text.append(buffer.data(), static_cast<std::size_t>(got));
    return got > 0;
}

}  // namespace

BoundSocket BindLoopback() {
    const int fd = MakeSocket(0);
    const int on = 1;
    Check(fd, setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Check(fd, bind(fd, generic, size), "bind");
    Check(fd, getsockname(fd, generic, &size), "getsockname");
    return {fd, ntohs(address.sin_port)};
}

void Listen(int fd, int backlog) {
    Check(-1, listen(fd, backlog), "listen");
}

int ConnectLoopback(std::uint16_t port, bool wait) {
    const int fd = MakeSocket(wait ? 0 : SOCK_NONBLOCK);
    const sockaddr_in address = Loopback(port);
    const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    Check(fd, result == -1 && errno == EINPROGRESS ? 0 : result, "connect");
    return fd;
}

bool SendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent == -1 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::string ReadUntil(int fd, std::string_view mark, std::size_t limit) {
    std::string text;
    while (text.find(mark) == std::string::npos && text.size() < limit && Receive(fd, text)) {
    }
    return text;
}

void WaitForHangUp(int fd) {
    std::string ignored;
    while (Receive(fd, ignored)) ignored.clear();
}

std::string LoopbackUri(const std::string& scheme, std::uint16_t port, const std::string& path) {
    return scheme + "://127.0.0.1:" + std::to_string(port) + path;
}

}  // namespace test_support
