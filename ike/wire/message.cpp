#include "ike/wire/message.h"

#include <algorithm>
#include <stdexcept>

#include "ike/wire/bytes.h"
#include "ike/wire/payloads.h"
#include "platform/base/text.h"

namespace ikeauth {
namespace {

constexpr std::uint8_t kCriticalBit = 0x80;

bool IsEncrypted(std::uint8_t type) {
    return type == kPayloadSk || type == kPayloadSkf;
}

bool IsKnown(std::uint8_t type) {
    return (type >= kPayloadSa && type <= kPayloadEap) || type == kPayloadSkf;
}

bool Fail(Flaw& flaw, std::string text) {
    flaw = {.text = std::move(text)};
    return false;
}

/// Reads one payload; `type` becomes the next one's.
bool ParsePayload(ByteReader& reader, std::uint8_t& type, Payload& payload, Flaw& flaw) {
    std::uint8_t flags = 0;
    std::uint16_t length = 0;
    std::string_view body;
    payload.type = type;
    if (!reader.Read(payload.next) || !reader.Read(flags) || !reader.Read(length)) {
        return Fail(flaw, "the header of payload " + std::to_string(type) + " is cut off");
    }
    if (length < kPayloadHeaderBytes || !reader.Read(length - kPayloadHeaderBytes, body)) {
        return Fail(flaw, "payload " + std::to_string(type) + " has an impossible length of " + std::to_string(length));
    }
    payload.critical = (flags & kCriticalBit) != 0;
    if (payload.critical && !IsKnown(type)) {
        flaw = {.text = "payload " + std::to_string(type) + " is critical and not known",
                .notify = kUnsupportedCriticalPayload,
                .data = std::string(1, static_cast<char>(type))};
        return false;
    }
    payload.body = body;
    type = IsEncrypted(type) ? static_cast<std::uint8_t>(kNoPayload) : payload.next;
    return true;
}

std::string PayloadName(const Payload& payload) {
    static constexpr const char* kNames[] = {"SA", "KE",     "IDi", "IDr", "CERT", "CERTREQ", "AUTH", "Nonce",
                                             "N",  "DELETE", "V",   "TSi", "TSr",  "SK",      "CP",   "EAP"};
    if (payload.type == kPayloadSkf) return "SKF";
    if (!IsKnown(payload.type)) return "payload " + std::to_string(payload.type);
    Notify notify;
    if (payload.type == kPayloadNotify && Decode(payload.body, notify)) return "N(" + NotifyName(notify.type) + ")";
    return kNames[payload.type - kPayloadSa];
}

}  // namespace

bool ParseHeader(std::string_view bytes, Header& header, std::uint8_t& first_payload, Flaw& flaw) {
    ByteReader reader(bytes);
    std::uint32_t length = 0;
    if (!reader.Read(header.initiator_spi) || !reader.Read(header.responder_spi) || !reader.Read(first_payload) ||
        !reader.Read(header.version) || !reader.Read(header.exchange) || !reader.Read(header.flags) ||
        !reader.Read(header.message_id) || !reader.Read(length)) {
        return Fail(flaw, "shorter than an IKE header");
    }
    if (length != bytes.size()) {
        return Fail(flaw,
                    "the header says " + std::to_string(length) + " bytes, there are " + std::to_string(bytes.size()));
    }
    if (header.initiator_spi == 0) return Fail(flaw, "the initiator's SPI is zero");
    return true;
}

bool ParsePayloads(std::uint8_t first, std::string_view bytes, Payloads& payloads, Flaw& flaw) {
    if (bytes.size() > kMaxInnerBytes) return Fail(flaw, "larger than this system reads");
    ByteReader reader(bytes);
    std::uint8_t type = first;
    while (type != kNoPayload) {
        if (payloads.size() >= kMaxPayloads) return Fail(flaw, "more payloads than this system reads");
        if (!ParsePayload(reader, type, payloads.emplace_back(), flaw)) {
            payloads.pop_back();
            return false;
        }
    }
    return reader.at_end() || Fail(flaw, std::to_string(reader.rest().size()) + " bytes follow the last payload");
}

bool ParseMessage(std::string_view bytes, Message& message, Flaw& flaw) {
    std::uint8_t first = 0;
    return ParseHeader(bytes, message.header, first, flaw) &&
           ParsePayloads(first, bytes.substr(kHeaderBytes), message.payloads, flaw);
}

std::string EncodePayloadHeader(std::uint8_t next, bool critical, std::size_t body_bytes) {
    if (body_bytes > kMaxBodyBytes) throw std::length_error(std::to_string(body_bytes) + " bytes in an IKE payload");
    return Byte(next) + Byte(critical ? kCriticalBit : 0) +
           NetworkOrder(static_cast<std::uint16_t>(body_bytes + kPayloadHeaderBytes));
}

std::string EncodePayloads(const Payloads& payloads) {
    std::string bytes;
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const Payload& payload = payloads[i];
        const std::uint8_t next = i + 1 < payloads.size() ? payloads[i + 1].type : payload.next;
        bytes += EncodePayloadHeader(next, payload.critical, payload.body.size());
        bytes += payload.body;
    }
    return bytes;
}

std::string EncodeHeader(const Header& header, std::uint8_t first_payload, std::size_t message_bytes) {
    return NetworkOrder(header.initiator_spi) + NetworkOrder(header.responder_spi) + Byte(first_payload) +
           Byte(header.version) + Byte(header.exchange) + Byte(header.flags) + NetworkOrder(header.message_id) +
           NetworkOrder(static_cast<std::uint32_t>(message_bytes));
}

std::string EncodeMessage(const Message& message) {
    const std::string body = EncodePayloads(message.payloads);
    const std::uint8_t first =
        message.payloads.empty() ? static_cast<std::uint8_t>(kNoPayload) : message.payloads.front().type;
    return EncodeHeader(message.header, first, kHeaderBytes + body.size()) + body;
}

const Payload* FindPayload(const Payloads& payloads, std::uint8_t type) {
    const auto found =
        std::find_if(payloads.begin(), payloads.end(), [type](const Payload& payload) { return payload.type == type; });
    return found == payloads.end() ? nullptr : &*found;
}

std::string DescribePayloads(const Payloads& payloads) {
    return payloads.empty() ? "nothing" : vpnfc::Joined(payloads, PayloadName);
}

}  // namespace ikeauth
