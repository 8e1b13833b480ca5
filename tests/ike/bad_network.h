// A network between two programs on this host: it takes datagrams at ports of its own and hands them on from others, as an
// address translator does. A rule decides what becomes of each.
//
//     BadNetwork network({{0, bobs_port}}, [](BadNetwork::Datagram datagram) { return Twice(datagram); });
//     alice.Probe(network.port(), {});
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace ike_test {

/// A UDP port that was free a moment ago.
std::uint16_t FreeUdpPort();

class BadNetwork {
  public:
    struct Datagram {
        bool to_responder = false;
        std::string bytes{};
        BadNetwork* network = nullptr;

        /// Of the IKE header, behind the marker if there is one.
        std::uint8_t Byte(std::size_t offset) const;
        bool is_fragment() const { return Byte(16) == 53; }
        std::uint8_t exchange() const { return Byte(18); }
        bool is_response() const { return (Byte(19) & 0x20) != 0; }
        std::size_t HeaderAt() const { return bytes.starts_with(std::string(4, '\0')) ? 4 : 0; }
    };
    /// What is handed on in place of a datagram; called on the network's thread.
    using Rule = std::function<std::vector<std::string>(const Datagram&)>;
    /// Own port (0: a free one) and the responder's (0: there is none, what would go there goes back).
    using Ports = std::pair<std::uint16_t, std::uint16_t>;

    /// `front` and `target` are IPv4 addresses of this host. Throws std::system_error when a port cannot be had.
    BadNetwork(const std::vector<Ports>& ports, Rule rule, const std::string& front = "127.0.0.1",
               const std::string& target = "127.0.0.1");
    ~BadNetwork();
    BadNetwork(const BadNetwork&) = delete;
    BadNetwork& operator=(const BadNetwork&) = delete;

    std::uint16_t port() const;
    /// What follows comes to the responder from other ports. For rules.
    void ChangePorts();
    /// Sends it to the responder from a port that nothing is read from. For rules.
    void SendFromElsewhere(const std::string& bytes);

  private:
    struct Lane {
        int front = -1;
        int back = -1;
        sockaddr_in initiator{};
        sockaddr_in responder{};
    };
    void Serve();
    void Pass(Lane& lane, bool to_responder);

    Rule rule_;
    std::vector<Lane> lanes_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace ike_test
