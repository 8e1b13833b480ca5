#include "ike/udp/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "ike/wire/message.h"

namespace ikeauth {
namespace {

const std::string kMarker(4, '\0');

std::string Failure(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

const sockaddr_in& AsIp4(const sockaddr* address) {
    return *reinterpret_cast<const sockaddr_in*>(address);
}
const sockaddr_in6& AsIp6(const sockaddr* address) {
    return *reinterpret_cast<const sockaddr_in6*>(address);
}

}  // namespace

const socklen_t Address::kIp4Size = sizeof(sockaddr_in);
const socklen_t Address::kIp6Size = sizeof(sockaddr_in6);

bool Address::Resolve(const std::string& host, std::uint16_t port, Address& address, std::string& error) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    const int code = getaddrinfo(host.c_str(), nullptr, &hints, &list);
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
    if (code != 0) {
        error = host + ": " + gai_strerror(code);
        return false;
    }
    std::memcpy(&address.storage_, list->ai_addr, list->ai_addrlen);
    address.set_port(port);
    return true;
}

std::uint16_t Address::port() const {
    return ntohs(storage_.ss_family == AF_INET6 ? AsIp6(get()).sin6_port : AsIp4(get()).sin_port);
}

void Address::set_port(std::uint16_t port) {
    if (storage_.ss_family == AF_INET6) {
        reinterpret_cast<sockaddr_in6*>(&storage_)->sin6_port = htons(port);
    } else {
        reinterpret_cast<sockaddr_in*>(&storage_)->sin_port = htons(port);
    }
}

std::string Address::bytes() const {
    const bool ip6 = storage_.ss_family == AF_INET6;
    const char* address = ip6 ? reinterpret_cast<const char*>(&AsIp6(get()).sin6_addr)
                              : reinterpret_cast<const char*>(&AsIp4(get()).sin_addr);
    const char* port = ip6 ? reinterpret_cast<const char*>(&AsIp6(get()).sin6_port)
                           : reinterpret_cast<const char*>(&AsIp4(get()).sin_port);
    return std::string(address, ip6 ? sizeof(in6_addr) : sizeof(in_addr)) + std::string(port, sizeof(in_port_t));
}

std::string Address::text() const {
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    const bool ip6 = storage_.ss_family == AF_INET6;
    const void* address = ip6 ? static_cast<const void*>(&AsIp6(get()).sin6_addr) : &AsIp4(get()).sin_addr;
    inet_ntop(storage_.ss_family, address, buffer.data(), buffer.size());
    const std::string host = buffer.data();
    return (ip6 ? "[" + host + "]" : host) + ":" + std::to_string(port());
}

UdpSocket::~UdpSocket() {
    if (fd_ >= 0) close(fd_);
}

UdpSocket::UdpSocket(UdpSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)), connected_(other.connected_) {}

UdpSocket& UdpSocket::operator=(UdpSocket&& other) noexcept {
    std::swap(fd_, other.fd_);
    std::swap(connected_, other.connected_);
    return *this;
}

bool UdpSocket::Open(const Address& address, std::string& error) {
    fd_ = socket(address.get()->sa_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) error = Failure("no UDP socket");
    return fd_ >= 0;
}

bool UdpSocket::Bind(const Address& local, std::string& error) {
    if (!Open(local, error)) return false;
    if (bind(fd_, local.get(), local.size()) == 0) return true;
    error = Failure(local.text().c_str());
    return false;
}

bool UdpSocket::Connect(const Address& peer, std::string& error) {
    if (!Open(peer, error)) return false;
    connected_ = connect(fd_, peer.get(), peer.size()) == 0;
    if (!connected_) error = Failure(peer.text().c_str());
    return connected_;
}

Address UdpSocket::local() const {
    Address address;
    socklen_t size = sizeof(sockaddr_storage);
    getsockname(fd_, address.get(), &size);
    return address;
}

bool UdpSocket::Send(const Address& to, bool marked, const std::string& datagram) const {
    const std::string bytes = marked ? kMarker + datagram : datagram;
    const sockaddr* address = connected_ ? nullptr : to.get();
    return sendto(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL, address, connected_ ? 0 : to.size()) >= 0;
}

ReceiveResult UdpSocket::Receive(Received& received) const {
    std::array<char, kMaxDatagramBytes> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    socklen_t size = sizeof(sockaddr_storage);
    const ssize_t n = recvfrom(fd_, buffer.data(), buffer.size(), 0, received.from.get(), &size);
    if (n < 0) return errno == ECONNREFUSED ? ReceiveResult::kRefused : ReceiveResult::kNothing;
    received.datagram.assign(buffer.data(), static_cast<std::size_t>(n));
    received.marked = received.datagram.starts_with(kMarker);
    if (received.marked) received.datagram.erase(0, kMarker.size());
    return ReceiveResult::kDatagram;
}

void UdpSocket::Wait(std::optional<std::chrono::steady_clock::time_point> until) const {
    int timeout = -1;
    if (until) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(*until - std::chrono::steady_clock::now()).count();
        timeout = static_cast<int>(std::max<long>(0, left));
    }
    pollfd entry{fd_, POLLIN, 0};
    poll(&entry, 1, timeout);
}

}  // namespace ikeauth
