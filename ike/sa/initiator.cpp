#include "ike/sa/initiator.h"

#include <stdexcept>

#include "ike/sa/identity.h"
#include "ike/wire/bytes.h"

namespace ikeauth {
namespace {

constexpr unsigned kMaxRetries = 5;  // cookies and groups that a peer may ask for
constexpr std::chrono::milliseconds kFarewellLimit{2000};
constexpr std::string_view kNoProposalAdvice =
    "allow one of the proposed algorithms at the peer, or propose what it allows with --proposal; some peers answer "
    "the "
    "same when no connection of theirs fits the addresses";
constexpr const char* kAsksForEver = "the peer asks for another cookie or group for ever";

}  // namespace

Initiator::Initiator(const ExchangeSettings& settings, const Endpoints& endpoints, Report& report)
    : Association(settings, endpoints, report, true, MakeSpi(), 0) {
    context_.initiator_nonce = RandomBytes(kNonceBytes);
}

void Initiator::Start() {
    const Algorithm* group = FirstGroup(settings_.offer);
    key_exchange_ = group != nullptr ? KeyExchange::Make(*group) : nullptr;
    if (!key_exchange_) throw std::runtime_error("no key of the first proposed group can be made");
    for (const Proposal& proposal : settings_.offer.proposals) report_.Add("proposed", Describe(proposal));
    SendInit();
}

void Initiator::SendInit() {
    Message message;
    message.header = {.initiator_spi = initiator_spi_, .exchange = kSaInit, .flags = kFromInitiator};
    Payloads& payloads = message.payloads;
    if (!cookie_.empty()) payloads.push_back(MakeNotify(kCookie, cookie_));
    payloads.push_back(MakePayload(kPayloadSa, settings_.offer));
    payloads.push_back(MakePayload(
        kPayloadKe, KeyExchangeData{.group = key_exchange_->group().id, .value = key_exchange_->public_value()}));
    payloads.push_back({.type = kPayloadNonce, .body = context_.initiator_nonce});
    AddInitNotifies(payloads);
    SendPlainRequest(message);
    context_.initiator_message = last_datagram_;
}

void Initiator::End(Ending ending, std::string reason) {
    Conclude(ending, std::move(reason));
    Finish();
}

void Initiator::Unreachable(const std::string& why, std::string_view advice) {
    unreachable_ = why;
    if (state_ != State::kInit || outcome()) return;  // an answer came before: there may be one again
    Conclude({.ending = Ending::kUnreachable, .reason = why, .advice = advice});
    Finish();
}

void Initiator::OnStranger(const std::string& why) {
    Association::OnStranger(why);
    if (state_ == State::kInit) garbage_ = why;
}

void Initiator::OnMalformedInit(const Flaw& flaw) {
    Association::OnMalformedInit(flaw);
    malformed_ = flaw.text;
}

Outcome Initiator::SilentAuth() const {
    Outcome outcome{.ending = Ending::kAuthSilent, .reason = "no answer to IKE_AUTH within the time-out"};
    if (unreachable_.empty()) return outcome;
    outcome.reason += ": " + unreachable_;
    if (nat_detected()) outcome.advice = "let UDP port 4500 through to the peer, or name its port with --nat-port";
    return outcome;
}

void Initiator::OnSilence() {
    if (state_ == State::kInit) {
        if (!malformed_.empty()) return End(Ending::kMalformed, "the answer is malformed: " + malformed_);
        if (asked_again_ > 1) return End(Ending::kInitInvalid, kAsksForEver);
        if (!garbage_.empty()) return End(Ending::kGarbage, "what came is no answer: " + garbage_);
        return End(Ending::kSilent, "no answer to IKE_SA_INIT within the time-out");
    }
    if (state_ == State::kAuth) Conclude(SilentAuth());
    Finish();
}

// --- The answer to IKE_SA_INIT ---

/// An answer to a request that was replaced since. Each sending of that may have brought one, and the network may have
/// doubled it: who began anew for each would authenticate a request that the peer did not go on with.
bool Initiator::IsStale(std::uint16_t type, std::string_view datagram) {
    if (type != retry_type_ || (stale_answers_ == 0 && datagram != retry_datagram_)) return false;
    report_.Add("ignored", "an answer to a request that was replaced");
    if (stale_answers_ == 0) ++asked_again_;
    if (stale_answers_ != 0) --stale_answers_;
    return true;
}

/// The peer may want a cookie back, or another group.
bool Initiator::Retry(const Payloads& payloads, std::string_view datagram) {
    Notify notify;
    const bool cookie = FindNotify(payloads, kCookie, notify);
    if (!cookie && !FindNotify(payloads, kInvalidKePayload, notify)) return false;
    if (IsStale(notify.type, datagram)) return true;
    retry_type_ = notify.type;
    retry_datagram_ = datagram;
    stale_answers_ = times_sent() - 1;
    if (++retries_ > kMaxRetries) {
        End(Ending::kInitInvalid, kAsksForEver);
    } else if (cookie) {
        cookie_ = notify.data;
        SendInit();
    } else if (!RetryWithGroup(notify.data)) {
        End(Ending::kProposalsRefused, "the peer wants a group that was not proposed");
    }
    return true;
}

bool Initiator::RetryWithGroup(const std::string& data) {
    std::uint16_t id = 0;
    const Transform wanted{.type = kGroup, .id = ByteReader(data).Read(id) ? id : std::uint16_t{0}};
    for (const Proposal& proposal : settings_.offer.proposals) {
        for (const Transform& transform : proposal.transforms) {
            if (transform != wanted) continue;
            key_exchange_ = KeyExchange::Make(*FindAlgorithm(transform));
            report_.Add("chosen", "by the peer: " + std::string(key_exchange_->group().name));
            SendInit();
            return true;
        }
    }
    return false;
}

bool Initiator::RefusedInit(const Payloads& payloads) {
    for (const Notify& notify : Notifies(payloads)) {
        if (!notify.is_error()) continue;
        const bool proposals = notify.type == kNoProposalChosen;
        Conclude({.ending = proposals ? Ending::kProposalsRefused : Ending::kInitRefused,
                  .reason = "the peer answers " + NotifyName(notify.type),
                  .advice = proposals ? kNoProposalAdvice : std::string_view()});
        Finish();
        return true;
    }
    return false;
}

bool Initiator::AcceptInit(const Message& message, std::string& why) {
    const Payload* sa = FindPayload(message.payloads, kPayloadSa);
    const Payload* ke = FindPayload(message.payloads, kPayloadKe);
    const Payload* nonce = FindPayload(message.payloads, kPayloadNonce);
    SaOffer answer;
    KeyExchangeData data;
    why = "a payload is missing or malformed";
    if (sa == nullptr || ke == nullptr || nonce == nullptr || !Decode(sa->body, answer) || !Decode(ke->body, data) ||
        !IsNonce(nonce->body)) {
        return false;
    }
    why = "the peer chose what was not proposed";
    Proposal chosen;
    if (answer.proposals.size() != 1 || !ChooseProposal(answer, settings_.offer, chosen) ||
        !ReadSuite(answer.proposals.front(), suite_) || suite_.group->id != data.group ||
        key_exchange_->group().id != data.group) {
        return false;
    }
    responder_spi_ = message.header.responder_spi;
    context_.responder_nonce = nonce->body;
    why = "the peer's key exchange value is none of the group";
    return responder_spi_ != 0 && ComputeKeys(*key_exchange_, data.value);
}

void Initiator::OnInit(const Message& message, std::string_view datagram) {
    if (state_ != State::kInit || !message.header.is_response() || !waiting()) return;
    report_.Add("received", DescribeMessage(message.header, datagram.size(), message.payloads));
    if (Retry(message.payloads, datagram) || RefusedInit(message.payloads)) return;
    std::string why;
    if (!AcceptInit(message, why)) return End(Ending::kInitInvalid, why);
    StopWaiting();
    context_.responder_message = datagram;
    report_.Add("chosen", "by the peer: " + Describe(suite_));
    ReadInitNotifies(message.payloads);
    Notify notify;
    childless_ = FindNotify(message.payloads, kChildlessSupported, notify) && !settings_.want_child;
    SendAuth();
}

// --- IKE_AUTH ---

void Initiator::AddChild(Payloads& out) {
    child_spi_ = RandomBytes(4);
    out.push_back(MakePayload(kPayloadSa, EspOffer(child_spi_)));
    out.push_back(MakeAnyTraffic(kPayloadTsi));
    out.push_back(MakeAnyTraffic(kPayloadTsr));
}

void Initiator::SendAuth() {
    state_ = State::kAuth;
    Payloads payloads;
    Outcome outcome;
    if (!authenticator_.Prove(context_, payloads, outcome)) {
        Conclude(outcome);
        return Finish();  // the peer forgets the half-open SA by itself
    }
    authenticator_.AddRequests(payloads);
    const std::list<LPCFG::ipsecid_t>& wanted = settings_.rule->id_remote;
    if (wanted.size() == 1 && wanted.front().any == 0) {
        payloads.push_back(MakePayload(kPayloadIdr, ToWire(wanted.front())));
    }
    if (!childless_) AddChild(payloads);
    if (!Fits(payloads, outcome)) {
        Conclude(outcome);
        return Finish();
    }
    Request(kAuth, payloads);
}

bool Initiator::RefusedAuth(const Payloads& payloads) {
    if (FindPayload(payloads, kPayloadAuth) != nullptr) return false;  // an error is then the child's
    for (const Notify& notify : Notifies(payloads)) {
        if (!notify.is_error()) continue;
        End(Ending::kPeerRefused, "the peer answers " + NotifyName(notify.type));
        return true;
    }
    return false;
}

void Initiator::NoteChild(const Payloads& payloads) {
    if (childless_) return report_.Add("agreed", "no child SA");
    child_open_ = FindPayload(payloads, kPayloadSa) != nullptr;
    if (child_open_) return report_.Add("agreed", "a child SA, which is deleted at once");
    for (const Notify& notify : Notifies(payloads)) {
        if (notify.is_error()) report_.Add("received", "no child SA: " + NotifyName(notify.type));
    }
}

void Initiator::OnAuth(const Message& message) {
    if (RefusedAuth(message.payloads)) return;
    state_ = State::kFarewell;
    limit_ = kFarewellLimit;
    Outcome outcome;
    if (!authenticator_.Judge(context_, message.payloads, outcome)) {
        report_.Add("judged", outcome.reason);
        Conclude(outcome);
        goodbye_sent_ = true;
        return Request(kInformational, {MakeNotify(kAuthenticationFailed)});
    }
    Conclude(Ending::kAuthenticated,
             authenticator_.own_name() + " and " + authenticator_.peer_name() + " authenticated each other");
    NoteChild(message.payloads);
    NextFarewell();
}

// --- The end ---

/// Deletes the child, then the SA.
void Initiator::NextFarewell() {
    if (child_open_) {
        child_open_ = false;
        Request(kInformational,
                {MakePayload(kPayloadDelete, DeleteData{.protocol = kProtocolEsp, .spis = {child_spi_}})});
    } else if (!goodbye_sent_) {
        goodbye_sent_ = true;
        Request(kInformational, {MakePayload(kPayloadDelete, DeleteData{})});
    } else {
        Finish();
    }
}

void Initiator::OnResponse(const Message& message) {
    if (state_ == State::kAuth) return OnAuth(message);
    NextFarewell();
}

/// Also when the peer closes the SA, our own farewell waits for its answer: the peer may not have got ours.
void Initiator::OnRequest(const Message& message) {
    if (state_ != State::kFarewell) return;  // the peer has not authenticated: it asks again
    const bool refused = outcome()->ending != Ending::kAuthenticated;
    RespondAfterwards(message, refused ? Payloads{MakeNotify(kAuthenticationFailed)} : Payloads{});
}

}  // namespace ikeauth
