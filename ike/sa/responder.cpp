#include "ike/sa/responder.h"

#include "ike/wire/bytes.h"

namespace ikeauth {
namespace {

constexpr std::size_t kEspSpiBytes = 4;
constexpr std::string_view kUnconfirmedAdvice =
    "look into the peer's log: it may have refused our IKE_AUTH answer without a word, or never have got it";
constexpr std::string_view kNoAuthAdvice =
    "look into the initiator's log: it gave up, refused our answer to IKE_SA_INIT, or went on to port 4500 "
    "(--nat-port)";

}  // namespace

Responder::Responder(const ExchangeSettings& settings, const Endpoints& endpoints, Report& report,
                     std::uint64_t initiator_spi)
    : Association(settings, endpoints, report, false, initiator_spi, 0) {}

// --- IKE_SA_INIT ---

Message Responder::InitResponse(const Message& request) const {
    Message message;
    message.header = {.initiator_spi = initiator_spi_,
                      .responder_spi = responder_spi_,
                      .exchange = kSaInit,
                      .flags = kIsResponse,
                      .message_id = request.header.message_id};
    return message;
}

void Responder::RefuseInit(const Message& message, std::uint16_t notify, std::string data) {
    Message answer = InitResponse(message);
    answer.payloads.push_back(MakeNotify(notify, std::move(data)));
    SendPlainResponse(answer);
    Finish();
}

/// Suite, nonce and the peer's value; the peer is answered when they will not do.
bool Responder::ChooseSuite(const Message& message, KeyExchangeData& data) {
    const Payload* sa = FindPayload(message.payloads, kPayloadSa);
    const Payload* ke = FindPayload(message.payloads, kPayloadKe);
    const Payload* nonce = FindPayload(message.payloads, kPayloadNonce);
    SaOffer offer;
    if (sa == nullptr || ke == nullptr || nonce == nullptr || !Decode(sa->body, offer) || !Decode(ke->body, data) ||
        !IsNonce(nonce->body)) {
        Conclude(Ending::kInitInvalid, "a payload of IKE_SA_INIT is missing or malformed");
        RefuseInit(message, kInvalidSyntax);
        return false;
    }
    for (const Proposal& proposal : offer.proposals) report_.Add("proposed", "by the peer: " + Describe(proposal));
    if (!ChooseProposal(offer, settings_.offer, chosen_) || !ReadSuite(chosen_, suite_)) {
        Conclude(Ending::kProposalsRefused, "the peer proposes nothing that is allowed here");
        RefuseInit(message, kNoProposalChosen);
        return false;
    }
    context_.initiator_nonce = nonce->body;
    return true;
}

void Responder::OnInit(const Message& message, std::string_view datagram) {
    if (state_ != State::kInit || message.header.is_response()) return;
    report_.Add("received", DescribeMessage(message.header, datagram.size(), message.payloads));
    KeyExchangeData data;
    if (!ChooseSuite(message, data)) return;
    if (suite_.group->id != data.group) {
        report_.Add("chosen", std::string(suite_.group->name) + ": the peer must come with a key of it");
        return RefuseInit(message, kInvalidKePayload, NetworkOrder(suite_.group->id));
    }
    report_.Add("chosen", Describe(suite_));
    ReadInitNotifies(message.payloads);  // before there is an SPI of ours
    responder_spi_ = MakeSpi();
    context_.initiator_message = datagram;
    context_.responder_nonce = RandomBytes(kNonceBytes);
    const std::unique_ptr<KeyExchange> own = KeyExchange::Make(*suite_.group);
    if (!own || !ComputeKeys(*own, data.value)) {
        Conclude(Ending::kInitInvalid, "the peer's key exchange value is none of the group");
        return RefuseInit(message, kInvalidSyntax);
    }
    AnswerInit(message, *own);
}

void Responder::AnswerInit(const Message& message, const KeyExchange& own) {
    Message answer = InitResponse(message);
    Payloads& payloads = answer.payloads;
    payloads.push_back(MakePayload(kPayloadSa, SaOffer{.proposals = {chosen_}}));
    payloads.push_back(MakePayload(kPayloadKe, KeyExchangeData{.group = own.group().id, .value = own.public_value()}));
    payloads.push_back({.type = kPayloadNonce, .body = context_.responder_nonce});
    AddInitNotifies(payloads);
    payloads.push_back(MakeNotify(kChildlessSupported));
    authenticator_.AddRequests(payloads);
    SendPlainResponse(answer);
    context_.responder_message = last_datagram_;
    state_ = State::kAuth;
    StartTimer(settings_.time_limit);
}

// --- IKE_AUTH ---

/// The first proposal that will do; the peer's selectors as they are. There is no traffic.
void Responder::AnswerChild(const Payloads& in, Payloads& out) {
    const Payload* sa = FindPayload(in, kPayloadSa);
    const Payload* tsi = FindPayload(in, kPayloadTsi);
    const Payload* tsr = FindPayload(in, kPayloadTsr);
    if (sa == nullptr) return;
    SaOffer offer;
    Proposal chosen;
    child_spi_ = RandomBytes(kEspSpiBytes);
    if (tsi == nullptr || tsr == nullptr || !Decode(sa->body, offer) ||
        !ChooseProposal(offer, EspOffer(child_spi_), chosen)) {
        out.push_back(MakeNotify(kNoProposalChosen));
        return;
    }
    out.push_back(MakePayload(kPayloadSa, SaOffer{.proposals = {chosen}}));
    out.push_back({.type = kPayloadTsi, .body = tsi->body});
    out.push_back({.type = kPayloadTsr, .body = tsr->body});
    child_open_ = true;
    report_.Add("agreed", "a child SA, which is deleted at once");
}

void Responder::RefuseAuth(const Message& message, const Outcome& outcome) {
    report_.Add("judged", outcome.reason);
    Conclude(outcome);
    Respond(message, {MakeNotify(kAuthenticationFailed)});  // the SA ends with this answer
    StartTimer(kPatience);  // in which it may be asked for again
}

void Responder::OnAuth(const Message& message) {
    state_ = State::kFarewell;
    authenticator_.ReadRequests(message.payloads);
    Payloads payloads;
    Outcome outcome;
    if (!authenticator_.Judge(context_, message.payloads, outcome) ||
        !authenticator_.Prove(context_, payloads, outcome)) {
        return RefuseAuth(message, outcome);
    }
    AnswerChild(message.payloads, payloads);
    if (!Fits(payloads, outcome)) return RefuseAuth(message, outcome);
    Respond(message, payloads);
    StartTimer(kPatience);
    if (!child_open_) return;
    Request(kInformational, {MakePayload(kPayloadDelete, DeleteData{.protocol = kProtocolEsp, .spis = {child_spi_}})});
}

void Responder::ConcludeGood() {
    Conclude(Ending::kAuthenticated,
             authenticator_.peer_name() + " and " + authenticator_.own_name() + " authenticated each other");
}

void Responder::OnRequest(const Message& message) {
    if (state_ == State::kAuth) {
        if (message.header.exchange == kAuth) return OnAuth(message);
        return EndBroken(message.header, {.text = "another request before IKE_AUTH"});
    }
    NoteRefusal(message.payloads);
    if (RespondAfterwards(message)) ConcludeGood();
    if (outcome()) Finish();
}

void Responder::NoteRefusal(const Payloads& in) {
    for (const Notify& notify : Notifies(in)) {
        if (notify.is_error()) return Conclude(Ending::kPeerRefused, "the peer answers " + NotifyName(notify.type));
    }
}

void Responder::OnResponse(const Message& message) {
    NoteRefusal(message.payloads);
    if (goodbye_sent_) ConcludeGood();
    if (outcome()) return Finish();
    if (goodbye_due_) SayGoodbye();
}

void Responder::OnSilence() {
    Conclude({.ending = Ending::kAuthSilent,
              .reason = "the peer does not confirm our answer to IKE_AUTH",
              .advice = kUnconfirmedAdvice});
    Finish();
}

void Responder::OnTimer() {
    if (state_ == State::kAuth) {
        Conclude({.ending = Ending::kAuthSilent, .reason = "no IKE_AUTH within the time-out", .advice = kNoAuthAdvice});
    }
    if (outcome()) return Finish();
    goodbye_due_ = true;
    if (!waiting()) SayGoodbye();  // else when the answer is there: one request at a time
}

void Responder::SayGoodbye() {
    goodbye_sent_ = true;
    Request(kInformational, {MakePayload(kPayloadDelete, DeleteData{})});
}

}  // namespace ikeauth
