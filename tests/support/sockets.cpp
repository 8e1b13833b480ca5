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

void Check(bool ok, const char* call) {
    if (!ok) throw std::system_error(errno, std::generic_category(), call);
}

}  // namespace

ReservedPort::ReservedPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Check(setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 && bind(socket_, generic, size) == 0 &&
              getsockname(socket_, generic, &size) == 0,
          "bind");
    number_ = ntohs(address.sin_port);
}

ReservedPort::~ReservedPort() {
    close(socket_);
}

void ReservedPort::Listen() const {
    constexpr int kBacklog = 512;
    Check(listen(socket_, kBacklog) == 0, "listen");
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

bool Receive(int fd, std::string& text) {
    std::array<char, 4096> buffer{};
    ssize_t got = -1;
    do got = recv(fd, buffer.data(), buffer.size(), 0);
    while (got == -1 && errno == EINTR);
    if (got > 0) text.append(buffer.data(), static_cast<std::size_t>(got));
    return got > 0;
}

}  // namespace test_support
