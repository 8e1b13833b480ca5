// Datagrams of IKE over UDP, with the marker that tells them from ESP (RFC 3948, 2.2).
//
// Datagrams carry the marker unless one of the ports is 500. What comes in is taken either way.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/descriptor.h"

namespace ikeauth {

inline constexpr std::uint16_t kIkePort = 500;
inline constexpr std::uint16_t kNatPort = 4500;

/// An address of IPv4 or IPv6 with its port.
class Address {
  public:
    Address() = default;
    /// What Raw gave.
    explicit Address(std::string_view raw) { raw.copy(reinterpret_cast<char*>(&storage_), sizeof storage_); }
    /// As the system takes it.
    std::string Raw() const { return {reinterpret_cast<const char*>(&storage_), size()}; }
    /// The first address of a name; false, with the reason in `error`.
    static bool Resolve(const std::string& host, std::uint16_t port, Address& address, std::string& error);

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage_); }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage_); }
    socklen_t size() const { return storage_.ss_family == AF_INET6 ? kIp6Size : kIp4Size; }
    std::uint16_t port() const;
    void set_port(std::uint16_t port);
    /// Address bytes and port in network order; an IPv4 address within IPv6 as what it is.
    std::string bytes() const;
    /// "192.0.2.1:500", "[2001:db8::1]:500".
    std::string text() const;

  private:
    static const socklen_t kIp4Size;
    static const socklen_t kIp6Size;

    sockaddr_storage storage_{};
};

/// One received datagram, without its marker.
struct Received {
    Address from;
    Address to;  // of this host: where it came in, also on a socket of all addresses
    bool marked = false;
    std::string datagram;
};

enum class ReceiveResult : std::uint8_t { kDatagram, kNothing, kRefused };

/// Owns its descriptor. Used by one thread.
class UdpSocket {
  public:
    /// Port 0: any free one. An address of zeros: all.
    bool Bind(const Address& local, std::string& error);
    /// To one peer alone; learns when nobody listens there.
    bool Connect(const Address& peer, std::string& error);
    /// From that address of this host; one without a family leaves the choice to the system. False with errno.
    bool Send(const Address& from, const Address& to, bool marked, const std::string& datagram) const;
    /// What has come, without waiting. Keep-alives of address translators are left out.
    ReceiveResult Receive(Received& received) const;
    /// Waits until something has come to one of the sockets or the time is there; without one for ever, until a signal.
    static void Wait(const std::vector<const UdpSocket*>& sockets,
                     std::optional<std::chrono::steady_clock::time_point> until);
    Address local() const;

  private:
    bool Open(const Address& address, std::string& error);

    vpnfc::Descriptor fd_;
    bool connected_ = false;
};

}  // namespace ikeauth
