// Contents of the payloads (RFC 7296, 3.3 to 3.13).
//
// Decode reads a body: false when it is malformed, with the output half filled. Encode writes one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ike/wire/message.h"

namespace ikeauth {

inline constexpr std::size_t kMaxProposals = 64;
inline constexpr std::size_t kMaxSpis = 64;  // of one Delete

struct Transform {
    std::uint8_t type = 0;
    std::uint16_t id = 0;
    std::uint16_t key_bits = 0;  // 0: the attribute is not there
    bool unknown_attribute = false;  // has one that is not the key length: cannot be chosen

    bool operator==(const Transform&) const = default;
};

struct Proposal {
    std::uint8_t number = 1;
    std::uint8_t protocol = kProtocolIke;
    std::string spi{};
    std::vector<Transform> transforms{};
};

struct SaOffer {
    std::vector<Proposal> proposals{};
};

struct KeyExchangeData {
    std::uint16_t group = 0;
    std::string value{};
};

struct Notify {
    std::uint8_t protocol = kProtocolNone;
    std::uint16_t type = 0;
    std::string spi{};
    std::string data{};

    bool is_error() const { return type < kFirstStatus; }
};

/// Identification of either side. The body, without the generic header, is also what is authenticated.
struct Identification {
    std::uint8_t type = 0;
    std::string value{};
};

/// CERT and CERTREQ alike.
struct CertData {
    std::uint8_t encoding = 0;
    std::string data{};
};

struct AuthData {
    std::uint8_t method = 0;
    std::string data{};
};

struct DeleteData {
    std::uint8_t protocol = kProtocolIke;
    std::vector<std::string> spis{};
};

bool Decode(const std::string& body, SaOffer& offer);
bool Decode(const std::string& body, KeyExchangeData& data);
bool Decode(const std::string& body, Notify& notify);
bool Decode(const std::string& body, Identification& id);
bool Decode(const std::string& body, CertData& cert);
bool Decode(const std::string& body, AuthData& auth);
bool Decode(const std::string& body, DeleteData& data);

std::string Encode(const SaOffer& offer);
std::string Encode(const KeyExchangeData& data);
std::string Encode(const Notify& notify);
std::string Encode(const Identification& id);
std::string Encode(const CertData& cert);
std::string Encode(const AuthData& auth);
std::string Encode(const DeleteData& data);

/// A payload with that content.
template <typename Content>
Payload MakePayload(std::uint8_t type, const Content& content) {
    return {.type = type, .body = Encode(content)};
}
Payload MakeNotify(std::uint16_t type, std::string data = {});
/// All IPv4 traffic, as a selector of either side.
Payload MakeAnyTraffic(std::uint8_t type);

/// The notifies of a message that can be read.
std::vector<Notify> Notifies(const Payloads& payloads);
/// The first notify of a type; false when there is none.
bool FindNotify(const Payloads& payloads, std::uint16_t type, Notify& notify);

}  // namespace ikeauth
