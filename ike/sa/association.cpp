#include "ike/sa/association.h"

#include <algorithm>
#include <numeric>

#include "ike/wire/bytes.h"

namespace ikeauth {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstInterval{500};  // doubled at each repetition
constexpr std::size_t kUdpBytes = 8;
constexpr std::size_t kIp4HeaderBytes = 20;
constexpr std::size_t kIp6HeaderBytes = 40;
constexpr std::size_t kMarkerBytes = 4;

std::size_t TotalBytes(const std::vector<std::string>& datagrams) {
    return std::accumulate(datagrams.begin(), datagrams.end(), std::size_t{0},
                           [](std::size_t sum, const std::string& datagram) { return sum + datagram.size(); });
}

std::string Fragments(const std::vector<std::string>& datagrams) {
    return datagrams.size() > 1 ? " in " + std::to_string(datagrams.size()) + " fragments" : "";
}

}  // namespace

std::uint64_t MakeSpi() {
    std::uint64_t spi = 0;
    while (spi >> 32U == 0) {
        const std::string bytes = RandomBytes(sizeof spi);
        ByteReader(bytes).Read(spi);
    }
    return spi;
}

std::string DescribeMessage(const Header& header, std::size_t bytes, const Payloads& payloads) {
    return ExchangeName(header.exchange) + (header.is_response() ? " response " : " request ") +
           std::to_string(header.message_id) + ", " + std::to_string(bytes) + " bytes: " + DescribePayloads(payloads);
}

Association::Association(const ExchangeSettings& settings, const Endpoints& endpoints, Report& report, bool initiator,
                         std::uint64_t initiator_spi, std::uint64_t responder_spi)
    : settings_(settings),
      report_(report),
      authenticator_(settings, initiator, initiator_spi, report),
      initiator_spi_(initiator_spi),
      responder_spi_(responder_spi),
      limit_(settings.time_limit),
      endpoints_(endpoints),
      initiator_(initiator) {}

// --- IKE_SA_INIT ---

std::string Association::NatHash(const std::string& endpoint) const {
    return Sha1(NetworkOrder(initiator_spi_) + NetworkOrder(responder_spi_) + endpoint);
}

void Association::AddInitNotifies(Payloads& out) const {
    out.push_back(MakeNotify(kNatSourceIp, NatHash(endpoints_.local)));
    out.push_back(MakeNotify(kNatDestinationIp, NatHash(endpoints_.remote)));
    out.push_back(MakeNotify(kFragmentationSupported));
    const HashSet hashes = authenticator_.hashes();
    if (!hashes.empty()) out.push_back(MakeNotify(kSignatureHashes, EncodeHashes(hashes)));
}

void Association::ReadInitNotifies(const Payloads& in) {
    Notify notify;
    peer_fragments_ = FindNotify(in, kFragmentationSupported, notify);
    bool source_seen = false;
    bool source_right = false;
    bool destination_right = true;
    for (const Notify& candidate : Notifies(in)) {
        if (candidate.type == kNatSourceIp) {
            source_seen = true;  // there may be several, of hosts with several addresses
            source_right = source_right || candidate.data == NatHash(endpoints_.remote);
        } else if (candidate.type == kNatDestinationIp) {
            destination_right = candidate.data == NatHash(endpoints_.local);
        }
    }
    nat_detected_ = !destination_right || (source_seen && !source_right);
    if (nat_detected_) report_.Add("detected", "address translation on the way");
    authenticator_.ReadRequests(in);
}

bool Association::ComputeKeys(const KeyExchange& own, const std::string& peer_value) {
    vpnfc::SecretString shared;
    if (!own.Agree(peer_value, shared)) return false;
    keys_ = DeriveKeys(suite_, shared,
                       {context_.initiator_nonce, context_.responder_nonce, initiator_spi_, responder_spi_});
    context_.suite = &suite_;
    context_.keys = &*keys_;
    return true;
}

// --- Sending ---

void Association::Send(const std::vector<std::string>& datagrams) {
    outgoing_.insert(outgoing_.end(), datagrams.begin(), datagrams.end());
}

std::vector<std::string> Association::TakeOutgoing() {
    return std::exchange(outgoing_, {});
}

void Association::Await(std::uint8_t exchange, std::uint32_t message_id, std::vector<std::string> datagrams) {
    Send(datagrams);
    const Time now = settings_.clock();  // what came before, a slow token's signature say, is not the peer's time
    pending_ = Pending{.datagrams = std::move(datagrams),
                       .message_id = message_id,
                       .exchange = exchange,
                       .next = now + kFirstInterval,
                       .deadline = now + limit_,
                       .interval = kFirstInterval,
                       .sent = 1};
}

void Association::SendPlainRequest(const Message& message) {
    last_datagram_ = EncodeMessage(message);
    report_.Add("sent", DescribeMessage(message.header, last_datagram_.size(), message.payloads));
    Await(message.header.exchange, message.header.message_id, {last_datagram_});
    next_request_ = message.header.message_id + 1;
}

void Association::SendPlainResponse(const Message& message) {
    last_datagram_ = EncodeMessage(message);
    report_.Add("sent", DescribeMessage(message.header, last_datagram_.size(), message.payloads));
    Send({last_datagram_});
    answered_ = Answered{.message_id = message.header.message_id, .datagrams = {last_datagram_}};
    expected_request_ = message.header.message_id + 1;
}

Direction Association::DirectionOf(bool from_initiator) const {
    const SessionKeys& keys = *keys_;
    return {&suite_, &(from_initiator ? keys.initiator_encryption : keys.responder_encryption).get(),
            &(from_initiator ? keys.initiator_integrity : keys.responder_integrity).get()};
}

std::string Association::SealOne(Header header, std::uint8_t first, const std::string& plain,
                                 const FragmentNumber* fragment) {
    const std::string numbers =
        fragment == nullptr ? std::string() : NetworkOrder(fragment->number) + NetworkOrder(fragment->count);
    const std::size_t body = numbers.size() + ProtectedBytes(suite_, plain.size());
    const std::uint8_t type = fragment == nullptr ? kPayloadSk : kPayloadSkf;
    std::string message = EncodeHeader(header, type, kHeaderBytes + kPayloadHeaderBytes + body);
    message += EncodePayloadHeader(first, false, body) + numbers;
    return Protect(DirectionOf(initiator_), sealed_++, plain, message) ? message : std::string();
}

/// What IP and UDP leave of a datagram.
std::size_t Association::Room() const {
    const std::size_t ip = endpoints_.is_ip6() ? kIp6HeaderBytes : kIp4HeaderBytes;
    return settings_.fragment_bytes - ip - kUdpBytes - kMarkerBytes;
}

std::size_t Association::PieceBytes() const {
    constexpr std::size_t kBlock = 16;  // padding may fill one
    return Room() - kHeaderBytes - kPayloadHeaderBytes - kFragmentNumberBytes - ProtectedBytes(suite_, 0) - kBlock;
}

bool Association::Fits(const Payloads& payloads, Outcome& outcome) const {
    constexpr std::size_t kAround = 256;  // headers, vector, padding, check value: more than they need
    const std::size_t most =
        peer_fragments_ ? std::min(kMaxInnerBytes, kMaxFragments * PieceBytes()) : kMaxDatagramBytes - kAround;
    std::size_t bytes = 0;
    for (const Payload& payload : payloads) {
        bytes += kPayloadHeaderBytes + payload.body.size();
        if (payload.body.size() > kMaxBodyBytes) bytes += kMaxInnerBytes;
    }
    if (bytes <= most) return true;
    outcome = {.ending = Ending::kCannotSign,
               .reason = "the message would have more than " + std::to_string(most) + " bytes, which " +
                         (peer_fragments_ ? "fragments of this size do not carry" : "one datagram does not carry"),
               .advice = "use a certificate with less above it, larger --fragment-bytes, or fragments at the peer"};
    return false;
}

std::vector<std::string> Association::Seal(std::uint8_t exchange, bool response, std::uint32_t id,
                                           const Payloads& payloads) {
    const Header header{
        .initiator_spi = initiator_spi_,
        .responder_spi = responder_spi_,
        .exchange = exchange,
        .flags = static_cast<std::uint8_t>((initiator_ ? kFromInitiator : 0) | (response ? kIsResponse : 0)),
        .message_id = id};
    const std::string plain = EncodePayloads(payloads);
    const std::uint8_t first = payloads.empty() ? static_cast<std::uint8_t>(kNoPayload) : payloads.front().type;
    const std::size_t whole = kHeaderBytes + kPayloadHeaderBytes + ProtectedBytes(suite_, plain.size());
    if (!peer_fragments_ || whole <= Room()) return {SealOne(header, first, plain, nullptr)};

    const std::size_t piece = PieceBytes();
    const auto count = static_cast<std::uint16_t>((plain.size() + piece - 1) / piece);
    std::vector<std::string> datagrams;
    for (std::uint16_t i = 0; i < count; ++i) {
        const FragmentNumber fragment{.number = static_cast<std::uint16_t>(i + 1), .count = count};
        datagrams.push_back(SealOne(header, i == 0 ? first : static_cast<std::uint8_t>(kNoPayload),
                                    plain.substr(i * piece, piece), &fragment));
    }
    return datagrams;
}

void Association::Request(std::uint8_t exchange, const Payloads& payloads) {
    const std::uint32_t id = next_request_++;
    std::vector<std::string> datagrams = Seal(exchange, false, id, payloads);
    const Header header{.exchange = exchange, .message_id = id};
    report_.Add("sent", DescribeMessage(header, TotalBytes(datagrams), payloads) + Fragments(datagrams));
    Await(exchange, id, std::move(datagrams));
}

void Association::Respond(const Message& request, const Payloads& payloads) {
    const std::uint32_t id = request.header.message_id;
    answered_ = Answered{.message_id = id, .datagrams = Seal(request.header.exchange, true, id, payloads)};
    expected_request_ = id + 1;
    const Header header{.exchange = request.header.exchange, .flags = kIsResponse, .message_id = id};
    report_.Add("sent",
                DescribeMessage(header, TotalBytes(answered_->datagrams), payloads) + Fragments(answered_->datagrams));
    Send(answered_->datagrams);
}

void Association::RepeatAnswer() {
    if (++answered_->repeated <= kMaxRepeatedAnswers) Send(answered_->datagrams);
}

// --- Receiving ---

void Association::OnStranger(const std::string& why) {
    report_.Add("ignored", why);
}

void Association::OnMalformedInit(const Flaw& flaw) {
    report_.Add("ignored", "malformed IKE_SA_INIT: " + flaw.text);
}

void Association::Receive(std::string_view datagram) {
    if (finished_) return;
    Header header;
    std::uint8_t first = 0;
    Flaw flaw;
    if (!ParseHeader(datagram, header, first, flaw)) return OnStranger("not an IKE message: " + flaw.text);
    if (header.version >> 4U != kVersion2 >> 4U) {
        return OnStranger("a message of IKE version " + std::to_string(header.version >> 4U));
    }
    const bool ours = header.initiator_spi == initiator_spi_ && header.from_initiator() != initiator_ &&
                      (responder_spi_ == 0 || header.responder_spi == responder_spi_ || header.exchange == kSaInit);
    if (!ours) return OnStranger("a message of another SA");
    if (header.exchange != kSaInit) return ReceiveProtected(header, datagram);
    if (header.message_id != 0) return OnStranger("IKE_SA_INIT of number " + std::to_string(header.message_id));
    Message message;
    if (!ParseMessage(datagram, message, flaw)) return OnMalformedInit(flaw);
    if (answered_ && !header.is_response()) {  // the initiator has not seen our answer
        // Bit for bit as it came at first (RFC 7296, 2.1): others draw no large answers to an address that is not theirs.
        if (answered_->message_id == 0 && datagram == context_.initiator_message) RepeatAnswer();
        return;
    }
    OnInit(message, datagram);
}

std::optional<Association::Unsealed> Association::Unseal(std::string_view datagram) {
    Message outer;
    Flaw flaw;
    if (!ParseMessage(datagram, outer, flaw) || outer.payloads.empty()) return std::nullopt;
    const Payload& sealed = outer.payloads.back();
    const bool fragment = sealed.type == kPayloadSkf;
    if (!fragment && sealed.type != kPayloadSk) return std::nullopt;
    Unsealed inside;
    FragmentNumber number;
    if (fragment && !ReadFragmentNumber(sealed.body, number)) return std::nullopt;
    if (fragment) inside.fragment = number;
    const std::size_t offset = datagram.size() - sealed.body.size() + (fragment ? kFragmentNumberBytes : 0);
    if (!Unprotect(DirectionOf(!initiator_), datagram, offset, inside.plain)) {
        report_.Add("ignored", "a message whose check value is wrong");
        return std::nullopt;
    }
    peer_has_keys_ = true;
    inside.first = sealed.next;
    return inside;
}

bool Association::Open(const Header& header, std::string_view datagram, Message& message) {
    const std::optional<Unsealed> inside = Unseal(datagram);
    if (!inside) return false;
    std::string plain = inside->plain;
    std::uint8_t first = inside->first;
    if (inside->fragment && !reassembly_.Add(header, *inside->fragment, inside->first, inside->plain, plain, first)) {
        return false;
    }
    message.header = header;
    Flaw flaw;
    if (ParsePayloads(first, plain, message.payloads, flaw)) return true;
    EndBroken(header, {"a malformed message: " + flaw.text, flaw.notify, flaw.data});
    return false;
}

void Association::EndBroken(const Header& header, const Flaw& flaw) {
    report_.Add("judged", flaw.text);
    Conclude(Ending::kAuthInvalid, "the peer sends " + flaw.text);
    if (header.is_response()) return Finish();
    Respond({.header = header, .payloads = {}}, {MakeNotify(flaw.notify, flaw.data)});
    broken_ = true;
    StopWaiting();
    StartTimer(kPatience);
}

/// Before anything else is done for it: the next request, or the answer to ours.
bool Association::IsAwaited(const Header& header) const {
    if (broken_) return false;
    if (!header.is_response()) return header.message_id == expected_request_;
    return pending_ && header.message_id == pending_->message_id && header.exchange == pending_->exchange;
}

void Association::ReceiveProtected(const Header& header, std::string_view datagram) {
    if (!keys_) return OnStranger("an " + ExchangeName(header.exchange) + " message before the keys are there");
    if (!header.is_response() && answered_ && header.message_id == answered_->message_id) {
        // Our answer was lost. Of a request in fragments the first one asks for it again (RFC 7383, 2.6.1).
        const std::optional<Unsealed> repeated = Unseal(datagram);
        if (repeated && (!repeated->fragment || repeated->fragment->number == 1)) RepeatAnswer();
        return;
    }
    Message message;
    if (IsAwaited(header) && Open(header, datagram, message)) Dispatch(message);
}

void Association::Dispatch(const Message& message) {
    ++accepted_;
    const Header& header = message.header;
    report_.Add("received", DescribeMessage(header, EncodePayloads(message.payloads).size(), message.payloads));
    if (!header.is_response()) return OnRequest(message);
    pending_.reset();
    OnResponse(message);
}

bool Association::RespondAfterwards(const Message& request, const Payloads& payloads) {
    if (request.header.exchange == kCreateChild) {
        Respond(request, {MakeNotify(kNoAdditionalSas)});
        return false;
    }
    bool closes = false;
    for (const Payload& payload : request.payloads) {
        DeleteData data;
        closes =
            closes || (payload.type == kPayloadDelete && Decode(payload.body, data) && data.protocol == kProtocolIke);
    }
    Respond(request, payloads);
    return closes;
}

// --- Time ---

void Association::Tick() {
    if (finished_) return;
    const Time now = settings_.clock();
    if (timer_ && now >= *timer_) {
        timer_.reset();
        OnTimer();
    }
    if (pending_ && now >= pending_->deadline) {
        pending_.reset();
        OnSilence();
    } else if (pending_ && now >= pending_->next) {
        Repeat();
    }
}

void Association::Repeat() {
    report_.Add("sent", ExchangeName(pending_->exchange) + " request " + std::to_string(pending_->message_id) +
                            " again, time " + std::to_string(++pending_->sent));
    Send(pending_->datagrams);
    pending_->interval *= 2;
    pending_->next = settings_.clock() + pending_->interval;
}

std::optional<Time> Association::wake() const {
    if (finished_) return std::nullopt;
    std::optional<Time> first = timer_;
    if (!pending_) return first;
    const Time next = std::min(pending_->next, pending_->deadline);
    return first ? std::min(*first, next) : next;
}

void Association::Conclude(Ending ending, std::string reason) {
    Conclude({.ending = ending, .reason = std::move(reason)});
}

void Association::Conclude(Outcome outcome) {
    if (outcome_) return;
    outcome_ = std::move(outcome);
}

}  // namespace ikeauth
