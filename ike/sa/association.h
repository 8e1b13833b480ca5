// An IKE SA, what initiator and responder have in common: message numbers, protection, fragments, retransmission.
//
// Bytes in, bytes out; the time is that of the settings' clock. Nothing here waits or opens a socket. Used by one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ike/crypto/key_exchange.h"
#include "ike/crypto/protection.h"
#include "ike/sa/authenticator.h"
#include "ike/sa/fragments.h"
#include "ike/sa/report.h"
#include "ike/sa/settings.h"
#include "ike/wire/message.h"

namespace ikeauth {

class Association {
  public:
    /// All borrowed.
    Association(const ExchangeSettings& settings, const Endpoints& endpoints, Report& report, bool initiator,
                std::uint64_t initiator_spi, std::uint64_t responder_spi);
    virtual ~Association() = default;
    Association(const Association&) = delete;
    Association& operator=(const Association&) = delete;

    /// A datagram of the peer, without marker.
    void Receive(std::string_view datagram);
    /// To be called at wake().
    void Tick();
    std::optional<Time> wake() const;
    /// Datagrams to send now.
    std::vector<std::string> TakeOutgoing();

    /// Nothing more will be sent or expected. The outcome is final before that.
    bool finished() const { return finished_; }
    /// There when the verdict on both sides has fallen.
    const std::optional<Outcome>& outcome() const { return outcome_; }
    /// Authentic messages that were no repetition. Only where such a one comes from is where the peer is now.
    unsigned accepted() const { return accepted_; }
    /// A message with a right check value came: the peer is who did the key exchange.
    bool peer_has_keys() const { return peer_has_keys_; }
    bool nat_detected() const { return nat_detected_; }
    const std::string& peer_name() const { return authenticator_.peer_name(); }
    const std::string& own_name() const { return authenticator_.own_name(); }
    std::chrono::nanoseconds module_time() const { return authenticator_.module_time(); }
    const Suite& suite() const { return suite_; }
    /// Null before the keys are there.
    const SessionKeys* keys() const { return keys_ ? &*keys_ : nullptr; }
    std::uint64_t initiator_spi() const { return initiator_spi_; }
    std::uint64_t responder_spi() const { return responder_spi_; }

  protected:
    /// An IKE_SA_INIT message; what it looks like on the wire is authenticated later.
    virtual void OnInit(const Message& message, std::string_view datagram) = 0;
    virtual void OnResponse(const Message& message) = 0;
    /// Answers with Respond.
    virtual void OnRequest(const Message& message) = 0;
    /// The peer did not answer in time.
    virtual void OnSilence() = 0;
    /// What StartTimer was asked for.
    virtual void OnTimer() = 0;
    /// A datagram that is no message of this SA.
    virtual void OnStranger(const std::string& why);
    /// An IKE_SA_INIT message of this SA that cannot be read. Anybody may have sent it.
    virtual void OnMalformedInit(const Flaw& flaw);

    // Of IKE_SA_INIT, for both sides.
    void AddInitNotifies(Payloads& out) const;
    void ReadInitNotifies(const Payloads& in);
    bool ComputeKeys(const KeyExchange& own, const std::string& peer_value);

    /// Sends a request and sends it again until the answer comes or the limit has passed.
    void SendPlainRequest(const Message& message);
    void Request(std::uint8_t exchange, const Payloads& payloads);
    void Respond(const Message& request, const Payloads& payloads);
    /// Whether a protected message of these payloads can be sent; else the outcome is filled.
    bool Fits(const Payloads& payloads, Outcome& outcome) const;
    void SendPlainResponse(const Message& message);
    void StartTimer(std::chrono::milliseconds delay) { timer_ = settings_.clock() + delay; }
    void StopWaiting() { pending_.reset(); }
    bool waiting() const { return pending_.has_value(); }
    /// How often the request that waits for its answer was sent.
    unsigned times_sent() const { return pending_ ? pending_->sent : 0; }
    /// Answers requests that come after authentication. True when the peer closes the SA.
    bool RespondAfterwards(const Message& request, const Payloads& payloads = {});

    void Conclude(Ending ending, std::string reason);
    void Conclude(Outcome outcome);
    /// For an authentic message that the protocol does not allow: the SA ends with it (RFC 7296, 2.21.2 and 2.21.3).
    void EndBroken(const Header& header, const Flaw& flaw);
    void Finish() { finished_ = true; }

    const ExchangeSettings& settings_;
    Report& report_;
    Authenticator authenticator_;
    std::uint64_t initiator_spi_;
    std::uint64_t responder_spi_;
    Suite suite_;
    AuthContext context_;
    std::chrono::milliseconds limit_;  // for answers; shorter when only farewells are left
    std::string last_datagram_;  // the last plain message that was sent

  private:
    struct Pending {
        std::vector<std::string> datagrams;
        std::uint32_t message_id = 0;
        std::uint8_t exchange = 0;
        Time next;
        Time deadline;
        std::chrono::milliseconds interval;
        unsigned sent = 0;
    };
    struct Answered {
        std::uint32_t message_id = 0;
        std::vector<std::string> datagrams;
        unsigned repeated = 0;
    };
    /// The inside of a protected message, or of a fragment of one, whose check value is right.
    struct Unsealed {
        std::uint8_t first = 0;
        std::string plain;
        std::optional<FragmentNumber> fragment;
    };

    void Await(std::uint8_t exchange, std::uint32_t message_id, std::vector<std::string> datagrams);
    void Send(const std::vector<std::string>& datagrams);
    void Repeat();
    void RepeatAnswer();
    Direction DirectionOf(bool from_initiator) const;
    std::vector<std::string> Seal(std::uint8_t exchange, bool response, std::uint32_t id, const Payloads& payloads);
    std::string SealOne(Header header, std::uint8_t first, const std::string& plain, const FragmentNumber* fragment);
    void ReceiveProtected(const Header& header, std::string_view datagram);
    std::optional<Unsealed> Unseal(std::string_view datagram);
    bool Open(const Header& header, std::string_view datagram, Message& message);
    bool IsAwaited(const Header& header) const;
    void Dispatch(const Message& message);
    std::size_t Room() const;
    std::size_t PieceBytes() const;
    std::string NatHash(const std::string& endpoint) const;

    const Endpoints& endpoints_;
    const bool initiator_;
    std::optional<SessionKeys> keys_;
    bool peer_fragments_ = false;
    bool peer_has_keys_ = false;
    bool nat_detected_ = false;
    bool broken_ = false;  // the answer that says so may be asked for again, nothing else
    bool finished_ = false;
    unsigned accepted_ = 0;
    std::optional<Outcome> outcome_;
    Reassembly reassembly_;
    std::optional<Pending> pending_;
    std::optional<Answered> answered_;
    std::optional<Time> timer_;
    std::uint32_t next_request_ = 0;  // ours
    std::uint32_t expected_request_ = 0;  // the peer's
    std::uint64_t sealed_ = 0;
    std::vector<std::string> outgoing_;
};

inline constexpr std::size_t kNonceBytes = 32;  // of ours
inline constexpr unsigned kMaxRepeatedAnswers = 16;  // to one request: a stranger may have seen it
inline constexpr std::chrono::milliseconds kPatience{1000};  // how long the peer has to ask again, or to delete the SA
/// Whether a nonce has a length that the protocol allows (RFC 7296, 3.9).
inline bool IsNonce(std::string_view nonce) {
    return nonce.size() >= 16 && nonce.size() <= 256;
}

/// A number for an SPI: not zero, and not beginning with four zero bytes, which mark datagrams on port 4500.
std::uint64_t MakeSpi();

/// "IKE_AUTH request 1, 1240 bytes: IDi, CERT, AUTH".
std::string DescribeMessage(const Header& header, std::size_t bytes, const Payloads& payloads);

}  // namespace ikeauth
