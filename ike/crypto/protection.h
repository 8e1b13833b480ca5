// The encrypted payload (RFC 7296, 3.14; AEAD ciphers: RFC 5282).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ike/crypto/keys.h"
#include "ike/crypto/suites.h"

namespace ikeauth {

/// One direction of an SA. Refers to the suite and the keys, which live longer.
struct Direction {
    const Suite* suite = nullptr;
    const std::string* encryption_key = nullptr;
    const std::string* integrity_key = nullptr;
};

/// Bytes that protection adds to `plain` bytes of payloads: vector, padding, check value.
std::size_t ProtectedBytes(const Suite& suite, std::size_t plain);

/// Appends the protected payloads to `message`, which holds everything before them: the header, whose length counts them
/// already, and the generic header. `counter` differs for each message of a direction. False when libcrypto refuses.
bool Protect(const Direction& direction, std::uint64_t counter, std::string_view plain, std::string& message);

/// Checks and decrypts what begins at `offset`. False when the check value is wrong.
bool Unprotect(const Direction& direction, std::string_view message, std::size_t offset, std::string& plain);

}  // namespace ikeauth
