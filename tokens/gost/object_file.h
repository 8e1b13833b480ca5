// The file of an object.
//
// A private object is sealed with the token's key. A public one is readable by whoever can read the file, as it is for
// whoever asks the token without a PIN, and carries a checksum against damage.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tokens/gost/attributes.h"

namespace gost_token {

/// A value of the longest, and some attributes around it.
inline constexpr std::size_t kMaxObjectFileBytes = kMaxValueBytes + (1U << 20);

/// Where an object stands: it is an object there and nowhere else.
struct ObjectPlace {
    std::string_view serial;  // of the token
    std::string_view file_name;
};

/// Fails with CKR_DEVICE_MEMORY for an object that is too large to be read again.
std::string EncodeObject(const Attributes& object, const ObjectPlace& place, const vpnfc::SecretString& token_key);

enum class Readable : std::uint8_t { kYes, kLocked, kDamaged };
/// `token_key` is empty when nobody is logged in: then private objects are locked.
Readable DecodeObject(std::string_view content, const ObjectPlace& place, const vpnfc::SecretString& token_key,
                      Attributes& object);

}  // namespace gost_token
