#include "tests/ike/bad_network.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace ike_test {
namespace {

sockaddr_in MakeAddress(const std::string& host, std::uint16_t port) {
    sockaddr_in address{AF_INET, htons(port), {}, {}};
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

int Bind(const sockaddr_in& address) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    const int code = errno;
    close(fd);
    throw std::system_error(code, std::generic_category(), "bind");
}

std::uint16_t PortOf(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

}  // namespace

std::uint16_t FreeUdpPort() {
    const int fd = Bind(MakeAddress("127.0.0.1", 0));
    const std::uint16_t port = PortOf(fd);
    close(fd);
    return port;
}

std::uint8_t BadNetwork::Datagram::Byte(std::size_t offset) const {
    const std::size_t at = HeaderAt() + offset;
    return at < bytes.size() ? static_cast<std::uint8_t>(bytes[at]) : 0;
}

BadNetwork::BadNetwork(const std::vector<Ports>& ports, Rule rule, const std::string& front, const std::string& target)
    : rule_(std::move(rule)) {
    for (const auto& [own, responder] : ports) {
        lanes_.push_back({Bind(MakeAddress(front, own)), -1, {}, MakeAddress(target, responder)});
    }
    ChangePorts();
    thread_ = std::thread([this] { Serve(); });
}

BadNetwork::~BadNetwork() {
    stopping_ = true;
    thread_.join();
    for (const Lane& lane : lanes_) {
        close(lane.front);
        close(lane.back);
    }
}

std::uint16_t BadNetwork::port() const {
    return PortOf(lanes_.front().front);
}

void BadNetwork::ChangePorts() {
    for (Lane& lane : lanes_) {
        const int before = std::exchange(lane.back, Bind(MakeAddress("127.0.0.1", 0)));
        if (before >= 0) close(before);
    }
}

void BadNetwork::SendFromElsewhere(const std::string& bytes) {
    const int fd = Bind(MakeAddress("127.0.0.1", 0));
    const sockaddr_in& to = lanes_.front().responder;
    sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    close(fd);
}

void BadNetwork::Serve() {
    constexpr int kLookAgainMs = 100;  // for the end
    while (!stopping_) {
        std::vector<pollfd> entries;
        for (const Lane& lane : lanes_) {
            entries.push_back({lane.front, POLLIN, 0});
            entries.push_back({lane.back, POLLIN, 0});
        }
        poll(entries.data(), entries.size(), kLookAgainMs);
        for (Lane& lane : lanes_) {
            Pass(lane, true);
            Pass(lane, false);
        }
    }
}

void BadNetwork::Pass(Lane& lane, bool to_responder) {
    char buffer[65536];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t n = recvfrom(to_responder ? lane.front : lane.back, buffer, sizeof buffer, 0,
                               reinterpret_cast<sockaddr*>(&from), &size);
    if (n < 0) return;
    if (to_responder) lane.initiator = from;
    const Datagram datagram{to_responder, std::string(buffer, static_cast<std::size_t>(n)), this};
    const bool forth = to_responder && lane.responder.sin_port != 0;
    for (const std::string& bytes : rule_(datagram)) {
        const sockaddr_in& to = forth ? lane.responder : lane.initiator;
        sendto(forth ? lane.back : lane.front, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
    }
}

}  // namespace ike_test
