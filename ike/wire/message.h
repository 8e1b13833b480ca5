// An IKEv2 message: the header and its chain of payloads (RFC 7296, 3.1 and 3.2).
//
// Limits stand before everything: kMaxDatagramBytes is what UDP carries, kMaxInnerBytes what fragments may add up to,
// kMaxPayloads bounds the work on one message. What is read refers to no bytes of the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ike/wire/codes.h"

namespace ikeauth {

inline constexpr std::size_t kHeaderBytes = 28;
inline constexpr std::size_t kPayloadHeaderBytes = 4;
inline constexpr std::size_t kMaxDatagramBytes = 65535;
inline constexpr std::size_t kMaxBodyBytes = 65535 - kPayloadHeaderBytes;
inline constexpr std::size_t kMaxInnerBytes = 256U << 10;  // dozens of large certificates
inline constexpr std::size_t kMaxPayloads = 128;

struct Header {
    std::uint64_t initiator_spi = 0;
    std::uint64_t responder_spi = 0;
    std::uint8_t version = kVersion2;
    std::uint8_t exchange = 0;
    std::uint8_t flags = 0;
    std::uint32_t message_id = 0;

    bool from_initiator() const { return (flags & kFromInitiator) != 0; }
    bool is_response() const { return (flags & kIsResponse) != 0; }
};

struct Payload {
    std::uint8_t type = 0;
    bool critical = false;
    std::uint8_t next = 0;  // of SK and SKF: the first payload inside
    std::string body{};
};

using Payloads = std::vector<Payload>;

struct Message {
    Header header;
    Payloads payloads;
};

/// What is wrong with a message and where, and the error notification that says so (RFC 7296, 3.10.1).
struct Flaw {
    std::string text{};
    std::uint16_t notify = kInvalidSyntax;
    std::string data{};  // of the notification
};

/// Reads the header alone. False when there are fewer bytes, or the length says something else.
bool ParseHeader(std::string_view bytes, Header& header, std::uint8_t& first_payload, Flaw& flaw);
/// Reads a chain of payloads that fills the bytes. An encrypted payload ends the chain.
bool ParsePayloads(std::uint8_t first, std::string_view bytes, Payloads& payloads, Flaw& flaw);
/// Both. On failure the message holds what was read so far.
bool ParseMessage(std::string_view bytes, Message& message, Flaw& flaw);

/// A chain of payloads as it stands after a header, or inside an encrypted payload. Throws std::length_error when a payload
/// is larger than kMaxBodyBytes.
std::string EncodePayloads(const Payloads& payloads);
std::string EncodeHeader(const Header& header, std::uint8_t first_payload, std::size_t message_bytes);
std::string EncodeMessage(const Message& message);
/// The generic header of a payload.
std::string EncodePayloadHeader(std::uint8_t next, bool critical, std::size_t body_bytes);

/// The first payload of a type, or null.
const Payload* FindPayload(const Payloads& payloads, std::uint8_t type);

/// "SA, KE, Nonce, N(COOKIE)".
std::string DescribePayloads(const Payloads& payloads);

}  // namespace ikeauth
