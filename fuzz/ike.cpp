// Messages of IKEv2: what is read is written back the same, whole and payload by payload; and both sides of an SA stand it
// as the first thing that they get.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/target.h"
#include "ike/crypto/suites.h"
#include "ike/sa/initiator.h"
#include "ike/sa/server.h"
#include "ike/wire/message.h"
#include "ike/wire/payloads.h"

namespace {

using namespace ikeauth;

/// Reads a body, writes it, reads and writes that: both writings are equal.
template <typename Content>
void RequireStable(const std::string& body) {
    Content first;
    if (!Decode(body, first)) return;
    const std::string written = Encode(first);
    Content second;
    if (!Decode(written, second)) fuzz::Require("a written payload cannot be read");
    if (Encode(second) != written) fuzz::Require("a payload changes when it is written twice");
}

void RequireStableOffer(const std::string& body) {
    SaOffer offer;
    if (!Decode(body, offer)) return;
    Proposal chosen;
    if (!ChooseProposal(offer, DefaultOffer(), chosen)) return;
    Suite suite;
    if (chosen.protocol == kProtocolIke && chosen.number == 0) return;
    Proposal again;
    if (!ChooseProposal({.proposals = {chosen}}, DefaultOffer(), again) || again.transforms != chosen.transforms) {
        fuzz::Require("what was chosen is not chosen again");
    }
    ReadSuite(chosen, suite);
}

void RequireStablePayload(const Payload& payload) {
    RequireStable<SaOffer>(payload.body);
    RequireStable<KeyExchangeData>(payload.body);
    RequireStable<Notify>(payload.body);
    RequireStable<Identification>(payload.body);
    RequireStable<CertData>(payload.body);
    RequireStable<DeleteData>(payload.body);
    RequireStableOffer(payload.body);
}

/// By preshared key, without an identity: the module is not asked.
ExchangeSettings Settings(const Time& now) {
    static const LPCFG::auth_ike_t rule;
    ExchangeSettings settings;
    settings.rule = &rule;
    settings.preshared_key = "none";
    settings.clock = [&now] { return now; };
    return settings;
}

void RequireResponderStands(const std::string& input) {
    Time now = Time{} + std::chrono::hours(1);
    const ExchangeSettings settings = Settings(now);
    Server server(settings, {}, false);
    for (int i = 0; i < 2; ++i) server.Receive("peer", {"123456", "654321"}, input);
    if (server.TakeOutgoing().size() > 2) fuzz::Require("more answers than messages");
    if (server.size() > 1) fuzz::Require("more than one SA for one message");
    now += std::chrono::hours(1);
    server.Tick();
    if (server.size() != 0) fuzz::Require("an SA stays for ever");
}

/// As the answer to its request, whose SPI it gets.
void RequireInitiatorStands(std::string input) {
    Time now = Time{} + std::chrono::hours(1);
    const ExchangeSettings settings = Settings(now);
    const Endpoints endpoints{"123456", "654321"};
    Report report;
    Initiator initiator(settings, endpoints, report);
    initiator.Start();
    initiator.TakeOutgoing().front().copy(input.data(), std::min(input.size(), sizeof(std::uint64_t)));
    initiator.Receive(input);
    now += std::chrono::hours(1);
    initiator.Tick();
    if (!initiator.finished() || !initiator.outcome()) fuzz::Require("an initiator waits for ever");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    Message message;
    Flaw flaw;
    const bool read = ParseMessage(input, message, flaw);
    if (read != flaw.text.empty()) fuzz::Require("an error without a text, or the reverse");
    DescribePayloads(message.payloads);
    for (const Payload& payload : message.payloads) RequireStablePayload(payload);
    RequireResponderStands(input);
    RequireInitiatorStands(input);
    if (!read) return 0;

    const std::string written = EncodeMessage(message);
    Message again;
    if (!ParseMessage(written, again, flaw)) fuzz::Require("a written message cannot be read: " + flaw.text);
    if (EncodeMessage(again) != written || written.size() != input.size()) fuzz::Require("a message changes");
    return 0;
}
