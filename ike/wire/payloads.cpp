#include "ike/wire/payloads.h"

#include <string_view>

#include "ike/wire/bytes.h"

namespace ikeauth {
namespace {

constexpr std::uint8_t kMoreTransforms = 3;
constexpr std::uint8_t kMoreProposals = 2;
constexpr std::size_t kTransformHeaderBytes = 8;
constexpr std::size_t kProposalHeaderBytes = 8;
constexpr std::uint16_t kShortAttribute = 0x8000;  // two bytes of value follow, no length
constexpr std::uint16_t kKeyLength = 14;
constexpr std::size_t kSelectorReserved = 3;

/// Reads a piece that begins with "more follow", a zero byte and its length of the whole piece.
bool ReadPiece(ByteReader& reader, std::size_t header_bytes, std::uint8_t& more, std::string_view& rest) {
    std::uint16_t length = 0;
    constexpr std::size_t kRead = 4;
    return reader.Read(more) && reader.Skip(1) && reader.Read(length) && length >= header_bytes &&
           reader.Read(length - kRead, rest);
}

bool ReadAttributes(ByteReader reader, Transform& transform) {
    while (!reader.at_end()) {
        std::uint16_t type = 0;
        std::uint16_t value = 0;
        if (!reader.Read(type) || !reader.Read(value)) return false;
        if (type == (kShortAttribute | kKeyLength)) {
            transform.key_bits = value;
            continue;
        }
        transform.unknown_attribute = true;
        if ((type & kShortAttribute) == 0 && !reader.Skip(value)) return false;
    }
    return true;
}

bool ReadTransform(ByteReader& reader, Transform& transform, std::uint8_t& more) {
    std::string_view rest;
    if (!ReadPiece(reader, kTransformHeaderBytes, more, rest)) return false;
    ByteReader inside(rest);
    return inside.Read(transform.type) && inside.Skip(1) && inside.Read(transform.id) &&
           ReadAttributes(inside, transform);
}

bool ReadProposal(ByteReader& reader, Proposal& proposal, std::uint8_t& more) {
    std::string_view rest;
    if (!ReadPiece(reader, kProposalHeaderBytes, more, rest)) return false;
    ByteReader inside(rest);
    std::uint8_t spi_bytes = 0;
    std::uint8_t count = 0;
    std::string_view spi;
    if (!inside.Read(proposal.number) || !inside.Read(proposal.protocol) || !inside.Read(spi_bytes) ||
        !inside.Read(count) || !inside.Read(spi_bytes, spi)) {
        return false;
    }
    proposal.spi = spi;
    for (std::uint8_t i = 0; i < count; ++i) {
        std::uint8_t more_transforms = 0;
        if (!ReadTransform(inside, proposal.transforms.emplace_back(), more_transforms)) return false;
        if (more_transforms != (i + 1 < count ? kMoreTransforms : 0)) return false;
    }
    return inside.at_end();
}

std::string EncodeTransform(const Transform& transform, bool last) {
    std::string body = Byte(transform.type) + Byte(0) + NetworkOrder(transform.id);
    if (transform.key_bits != 0) {
        body +=
            NetworkOrder(static_cast<std::uint16_t>(kShortAttribute | kKeyLength)) + NetworkOrder(transform.key_bits);
    }
    return EncodePayloadHeader(last ? 0 : kMoreTransforms, false, body.size()) + body;
}

std::string EncodeProposal(const Proposal& proposal, bool last) {
    std::string body = Byte(proposal.number) + Byte(proposal.protocol) +
                       Byte(static_cast<std::uint8_t>(proposal.spi.size())) +
                       Byte(static_cast<std::uint8_t>(proposal.transforms.size())) + proposal.spi;
    for (std::size_t i = 0; i < proposal.transforms.size(); ++i) {
        body += EncodeTransform(proposal.transforms[i], i + 1 == proposal.transforms.size());
    }
    return EncodePayloadHeader(last ? 0 : kMoreProposals, false, body.size()) + body;
}

/// Bodies of one byte, some reserved ones, and a value.
bool DecodeTyped(const std::string& body, std::size_t reserved, std::uint8_t& type, std::string& value) {
    ByteReader reader(body);
    if (!reader.Read(type) || !reader.Skip(reserved)) return false;
    value = reader.rest();
    return true;
}

std::string EncodeTyped(std::uint8_t type, std::size_t reserved, const std::string& value) {
    return Byte(type) + std::string(reserved, '\0') + value;
}

}  // namespace

bool Decode(const std::string& body, SaOffer& offer) {
    ByteReader reader(body);
    std::uint8_t more = kMoreProposals;
    while (more == kMoreProposals) {
        if (offer.proposals.size() >= kMaxProposals) return false;
        if (!ReadProposal(reader, offer.proposals.emplace_back(), more)) return false;
    }
    return more == 0 && reader.at_end();
}

std::string Encode(const SaOffer& offer) {
    std::string body;
    for (std::size_t i = 0; i < offer.proposals.size(); ++i) {
        body += EncodeProposal(offer.proposals[i], i + 1 == offer.proposals.size());
    }
    return body;
}

bool Decode(const std::string& body, KeyExchangeData& data) {
    ByteReader reader(body);
    if (!reader.Read(data.group) || !reader.Skip(2)) return false;
    data.value = reader.rest();
    return true;
}

std::string Encode(const KeyExchangeData& data) {
    return NetworkOrder(data.group) + std::string(2, '\0') + data.value;
}

bool Decode(const std::string& body, Notify& notify) {
    ByteReader reader(body);
    std::uint8_t spi_bytes = 0;
    std::string_view spi;
    if (!reader.Read(notify.protocol) || !reader.Read(spi_bytes) || !reader.Read(notify.type) ||
        !reader.Read(spi_bytes, spi)) {
        return false;
    }
    notify.spi = spi;
    notify.data = reader.rest();
    return true;
}

std::string Encode(const Notify& notify) {
    return Byte(notify.protocol) + Byte(static_cast<std::uint8_t>(notify.spi.size())) + NetworkOrder(notify.type) +
           notify.spi + notify.data;
}

bool Decode(const std::string& body, Identification& id) {
    return DecodeTyped(body, 3, id.type, id.value);
}
std::string Encode(const Identification& id) {
    return EncodeTyped(id.type, 3, id.value);
}

bool Decode(const std::string& body, CertData& cert) {
    return DecodeTyped(body, 0, cert.encoding, cert.data);
}
std::string Encode(const CertData& cert) {
    return EncodeTyped(cert.encoding, 0, cert.data);
}

bool Decode(const std::string& body, AuthData& auth) {
    return DecodeTyped(body, 3, auth.method, auth.data);
}
std::string Encode(const AuthData& auth) {
    return EncodeTyped(auth.method, 3, auth.data);
}

bool Decode(const std::string& body, DeleteData& data) {
    ByteReader reader(body);
    std::uint8_t spi_bytes = 0;
    std::uint16_t count = 0;
    if (!reader.Read(data.protocol) || !reader.Read(spi_bytes) || !reader.Read(count) || count > kMaxSpis) return false;
    for (std::uint16_t i = 0; i < count; ++i) {
        std::string_view spi;
        if (!reader.Read(spi_bytes, spi)) return false;
        data.spis.emplace_back(spi);
    }
    return reader.at_end();
}

std::string Encode(const DeleteData& data) {
    const std::size_t spi_bytes = data.spis.empty() ? 0 : data.spis.front().size();
    std::string body = Byte(data.protocol) + Byte(static_cast<std::uint8_t>(spi_bytes)) +
                       NetworkOrder(static_cast<std::uint16_t>(data.spis.size()));
    for (const std::string& spi : data.spis) body += spi;
    return body;
}

Payload MakeNotify(std::uint16_t type, std::string data) {
    return MakePayload(kPayloadNotify, Notify{.type = type, .data = std::move(data)});
}

Payload MakeAnyTraffic(std::uint8_t type) {
    constexpr std::uint8_t kIp4Range = 7;
    constexpr std::uint16_t kSelectorBytes = 16;
    const std::string selector = Byte(kIp4Range) + Byte(0) + NetworkOrder(kSelectorBytes) +
                                 NetworkOrder(std::uint16_t{0}) + NetworkOrder(std::uint16_t{0xFFFF}) +
                                 NetworkOrder(std::uint32_t{0}) + NetworkOrder(std::uint32_t{0xFFFFFFFF});
    return {.type = type, .body = EncodeTyped(1, kSelectorReserved, selector)};
}

std::vector<Notify> Notifies(const Payloads& payloads) {
    std::vector<Notify> notifies;
    for (const Payload& payload : payloads) {
        Notify notify;
        if (payload.type == kPayloadNotify && Decode(payload.body, notify)) notifies.push_back(std::move(notify));
    }
    return notifies;
}

bool FindNotify(const Payloads& payloads, std::uint16_t type, Notify& notify) {
    for (Notify& candidate : Notifies(payloads)) {
        if (candidate.type != type) continue;
        notify = std::move(candidate);
        return true;
    }
    return false;
}

}  // namespace ikeauth
