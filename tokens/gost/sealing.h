// Keys from PINs, and what they lock up.
//
// A PIN becomes a key by scrypt (RFC 7914). Data are sealed with AES-256-GCM under a random nonce; what they belong to
// goes into the authenticated data, so that a file that was changed, cut, or put in another's place does not open.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/base.h"

namespace gost_token {

inline constexpr std::size_t kKeyBytes = 32;
inline constexpr std::size_t kSaltBytes = 16;
inline constexpr std::size_t kNonceBytes = 12;
inline constexpr std::size_t kTagBytes = 16;

/// What trying one PIN costs: 128 * 2^log_n * r bytes of memory, p times.
struct PinCost {
    std::uint64_t log_n = 15;
    std::uint64_t r = 8;
    std::uint64_t p = 1;

    /// A file may name another cost, up to a quarter of a gigabyte and some seconds.
    bool IsSane() const { return log_n >= 10 && log_n <= 18 && r == 8 && p >= 1 && p <= 4; }
};

std::string RandomBytes(std::size_t count);
vpnfc::SecretString RandomKey();
vpnfc::SecretString KeyFromPin(std::string_view pin, std::string_view salt, const PinCost& cost);

/// Nonce, ciphertext and tag.
std::string Seal(const vpnfc::SecretString& key, std::string_view belongs_to, std::string_view secret);
/// False when it was sealed with another key, for something else, or was damaged.
bool Unseal(const vpnfc::SecretString& key, std::string_view belongs_to, std::string_view sealed,
            vpnfc::SecretString& secret);

/// SHA-256, against damage alone.
std::string Checksum(std::string_view bytes);
inline constexpr std::size_t kChecksumBytes = 32;

}  // namespace gost_token
