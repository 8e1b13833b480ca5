#include "ike/udp/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>

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

/// Room for what goes with a datagram: the address of this host.
struct Control {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> bytes{};
};

/// Has the system tell the address of this host that a datagram came to.
bool AskForLocalAddress(int fd, bool ip6) {
    const int on = 1;
    return setsockopt(fd, ip6 ? IPPROTO_IPV6 : IPPROTO_IP, ip6 ? IPV6_RECVPKTINFO : IP_PKTINFO, &on, sizeof on) == 0;
}

/// Puts the address into `local`, whose port stays.
void ReadLocalAddress(msghdr& message, Address& local) {
    for (cmsghdr* entry = CMSG_FIRSTHDR(&message); entry != nullptr; entry = CMSG_NXTHDR(&message, entry)) {
        if (entry->cmsg_level == IPPROTO_IP && entry->cmsg_type == IP_PKTINFO) {
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(entry), sizeof info);
            reinterpret_cast<sockaddr_in*>(local.get())->sin_addr = info.ipi_addr;
        } else if (entry->cmsg_level == IPPROTO_IPV6 && entry->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(entry), sizeof info);
            reinterpret_cast<sockaddr_in6*>(local.get())->sin6_addr = info.ipi6_addr;
        }
    }
}

template <typename Info>
void WriteControl(msghdr& message, Control& control, int level, int type, const Info& info) {
    message.msg_control = control.bytes.data();
    message.msg_controllen = CMSG_SPACE(sizeof info);
    cmsghdr* entry = CMSG_FIRSTHDR(&message);
    entry->cmsg_level = level;
    entry->cmsg_type = type;
    entry->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(entry), &info, sizeof info);
}

void WriteLocalAddress(const Address& from, msghdr& message, Control& control) {
    if (from.get()->sa_family == AF_INET) {
        WriteControl(message, control, IPPROTO_IP, IP_PKTINFO, in_pktinfo{0, AsIp4(from.get()).sin_addr, {}});
    } else if (from.get()->sa_family == AF_INET6) {
        WriteControl(message, control, IPPROTO_IPV6, IPV6_PKTINFO, in6_pktinfo{AsIp6(from.get()).sin6_addr, 0});
    }
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
    // On a socket of IPv6 that takes IPv4 too, the peer knows the address as one of IPv4.
    const bool mapped = ip6 && IN6_IS_ADDR_V4MAPPED(&AsIp6(get()).sin6_addr);
    if (mapped) address += sizeof(in6_addr) - sizeof(in_addr);
    return std::string(address, ip6 && !mapped ? sizeof(in6_addr) : sizeof(in_addr)) +
           std::string(port, sizeof(in_port_t));
}

std::string Address::text() const {
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    const bool ip6 = storage_.ss_family == AF_INET6;
    const void* address = ip6 ? static_cast<const void*>(&AsIp6(get()).sin6_addr) : &AsIp4(get()).sin_addr;
    inet_ntop(storage_.ss_family, address, buffer.data(), buffer.size());
    const std::string host = buffer.data();
    return (ip6 ? "[" + host + "]" : host) + ":" + std::to_string(port());
}

bool UdpSocket::Open(const Address& address, std::string& error) {
    fd_ = vpnfc::Descriptor(socket(address.get()->sa_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd_) error = Failure("no UDP socket");
    return static_cast<bool>(fd_);
}

bool UdpSocket::Bind(const Address& local, std::string& error) {
    if (!Open(local, error)) return false;
    if (AskForLocalAddress(fd_.get(), local.get()->sa_family == AF_INET6) &&
        bind(fd_.get(), local.get(), local.size()) == 0) {
        return true;
    }
    error = Failure(local.text().c_str());
    return false;
}

bool UdpSocket::Connect(const Address& peer, std::string& error) {
    if (!Open(peer, error)) return false;
    connected_ = connect(fd_.get(), peer.get(), peer.size()) == 0;
    if (!connected_) error = Failure(peer.text().c_str());
    return connected_;
}

Address UdpSocket::local() const {
    Address address;
    socklen_t size = sizeof(sockaddr_storage);
    getsockname(fd_.get(), address.get(), &size);
    return address;
}

bool UdpSocket::Send(const Address& from, const Address& to, bool marked, const std::string& datagram) const {
    std::string bytes = marked ? kMarker + datagram : datagram;
    Address target = to;
    Control control;
    iovec piece{bytes.data(), bytes.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    if (!connected_) {
        message.msg_name = target.get();
        message.msg_namelen = target.size();
        WriteLocalAddress(from, message, control);
    }
    return sendmsg(fd_.get(), &message, MSG_NOSIGNAL) >= 0;
}

ReceiveResult UdpSocket::Receive(Received& received) const {
    std::array<char, kMaxDatagramBytes> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    Control control;
    iovec piece{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = received.from.get();
    message.msg_namelen = sizeof(sockaddr_storage);
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes.data();
    message.msg_controllen = control.bytes.size();
    const ssize_t n = recvmsg(fd_.get(), &message, 0);
    if (n < 0) return errno == EAGAIN || errno == EINTR ? ReceiveResult::kNothing : ReceiveResult::kRefused;
    received.to = local();
    ReadLocalAddress(message, received.to);
    received.datagram.assign(buffer.data(), static_cast<std::size_t>(n));
    received.marked = received.datagram.starts_with(kMarker);
    if (received.marked) received.datagram.erase(0, kMarker.size());
    return ReceiveResult::kDatagram;
}

void UdpSocket::Wait(const std::vector<const UdpSocket*>& sockets,
                     std::optional<std::chrono::steady_clock::time_point> until) {
    int timeout = -1;
    if (until) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(*until - std::chrono::steady_clock::now()).count();
        timeout = static_cast<int>(std::max<long>(0, left));
    }
    std::vector<pollfd> entries;
    entries.reserve(sockets.size());
    for (const UdpSocket* socket : sockets) entries.push_back({socket->fd_.get(), POLLIN, 0});
    poll(entries.data(), entries.size(), timeout);
}

}  // namespace ikeauth
