// Many responders on one port: finds the SA of a datagram, and keeps strangers from costing much.
//
// A peer costs nothing but a digest until it has shown that it receives at its address (RFC 7296, 2.6): cookies are asked
// for when many SAs are half-open. Beyond kMaxHalfOpen, and kMaxHalfOpenOfOne of one address, there are no new ones. What
// cannot be read is answered without protection, kMaxRefusals times a second. As pure as associations are.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ike/sa/responder.h"

namespace ikeauth {

inline constexpr std::size_t kCookieThreshold = 16;  // half-open SAs
inline constexpr std::size_t kMaxHalfOpen = 256;
inline constexpr std::size_t kMaxHalfOpenOfOne = 64;  // address, of IPv6 network: many hosts may share one
inline constexpr std::size_t kMaxAssociations = 4096;
inline constexpr unsigned kMaxRefusals = 20;
inline constexpr std::chrono::seconds kRefusedLife{10};  // a refused IKE_SA_INIT counts as half-open that long
inline constexpr std::chrono::seconds kCookieLife{60};  // a cookie is good for one to two of these

/// A datagram and where it came from or goes to, which the server does not look into.
struct Packet {
    std::string peer;
    std::string datagram;
};

class Server {
  public:
    struct Listener {
        /// A step of the exchange with that initiator SPI.
        std::function<void(std::uint64_t, const Step&)> on_step;
        /// An exchange has ended; the last time that the association is seen.
        std::function<void(const Responder&, const Report&)> on_ended;
    };

    /// Settings are borrowed. `always_cookies`: also when nothing else is going on.
    Server(const ExchangeSettings& settings, Listener listener, bool always_cookies);

    /// `peer` is opaque; endpoints as in Endpoints.
    void Receive(const std::string& peer, const Endpoints& endpoints, std::string_view datagram);
    void Tick();
    std::optional<Time> wake() const;
    std::vector<Packet> TakeOutgoing();
    std::size_t size() const { return entries_.size(); }
    /// Those that got to IKE_AUTH.
    std::size_t established() const { return entries_.size() - half_open_; }

  private:
    static constexpr std::size_t kSecretBytes = 32;

    struct Entry {
        std::string peer;  // where to send: a peer may go on from another port than it began
        Endpoints endpoints;
        Report report;
        std::unique_ptr<Responder> responder;
        bool told = false;
        bool half_open = true;
    };
    using Key = std::pair<std::uint64_t, std::string>;  // the initiator's SPI and the peer as it began
    using Entries = std::map<Key, std::unique_ptr<Entry>>;

    /// The SA of a datagram, or the end.
    Entries::iterator Find(const Header& header, const Key& key);
    bool Admit(const Key& key, const Endpoints& endpoints, std::string_view datagram);
    bool HasRoom(const Endpoints& endpoints) const;
    /// Tells the sender of a request that is no use why, unless that was done often in this second.
    void Refuse(const Header& header, const std::string& peer, const Flaw& flaw);
    void AskForCookie(const Message& message, const Key& key);
    bool HasCookie(const Message& message, const Key& key) const;
    static std::string Cookie(const std::string& secret, const std::string& nonce, const Key& key);
    void RenewSecret();
    void Make(const Key& key, const Endpoints& endpoints);
    void NoteProgress(Entry& entry);
    void ForgetRefused();
    void LeaveOrigin(const std::string& origin);
    std::size_t load() const { return half_open_ + refused_.size(); }
    /// Collects what an entry sends, to `peer`, and tells of its end. The iterator is the next one's.
    Entries::iterator Settle(Entries::iterator entry, const std::string& peer);

    const ExchangeSettings& settings_;
    Listener listener_;
    const bool always_cookies_;
    std::string secret_ = RandomBytes(kSecretBytes);  // of cookies
    std::string previous_secret_ = RandomBytes(kSecretBytes);
    Time renewed_;
    Time refusals_since_{};
    unsigned refusals_ = 0;
    Entries entries_;
    std::map<std::uint64_t, Key> by_spi_;  // of ours
    std::size_t half_open_ = 0;
    std::deque<std::pair<Time, std::string>> refused_;  // until when, and the origin; their SAs are gone
    std::map<std::string, std::size_t> half_open_of_;  // by Endpoints::Origin; with the refused ones
    std::vector<Packet> outgoing_;
};

}  // namespace ikeauth
