// Messages of IKEv2: what is read is written back the same, whole and payload by payload.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/target.h"
#include "ike/crypto/suites.h"
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    Message message;
    Flaw flaw;
    const bool read = ParseMessage(input, message, flaw);
    if (read != flaw.text.empty()) fuzz::Require("an error without a text, or the reverse");
    DescribePayloads(message.payloads);
    for (const Payload& payload : message.payloads) RequireStablePayload(payload);
    if (!read) return 0;

    const std::string written = EncodeMessage(message);
    Message again;
    if (!ParseMessage(written, again, flaw)) fuzz::Require("a written message cannot be read: " + flaw.text);
    if (EncodeMessage(again) != written || written.size() != input.size()) fuzz::Require("a message changes");
    return 0;
}
