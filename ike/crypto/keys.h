// Pseudo-random functions and the keys of an IKE SA (RFC 7296, 2.13 and 2.14).
#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "ike/crypto/suites.h"
#include "platform/base.h"

namespace ikeauth {

/// HMAC with the algorithm's digest, whole.
std::string KeyedDigest(const Algorithm& algorithm, std::string_view key, std::string_view data);
std::string KeyedDigest(const EVP_MD* digest, std::string_view key, std::string_view data);
std::string RandomBytes(std::size_t count);
/// SHA-1 over data: authorities and addresses are named by it.
std::string Sha1(std::string_view data);
/// Compares in a time that does not depend on where the difference is.
bool EqualSecret(std::string_view a, std::string_view b);

struct SessionKeys {
    vpnfc::SecretString initiator_integrity;
    vpnfc::SecretString responder_integrity;
    vpnfc::SecretString initiator_encryption;
    vpnfc::SecretString responder_encryption;
    vpnfc::SecretString initiator_identity;  // SK_pi
    vpnfc::SecretString responder_identity;
};

struct KeyInput {
    std::string initiator_nonce;
    std::string responder_nonce;
    std::uint64_t initiator_spi = 0;
    std::uint64_t responder_spi = 0;
};

SessionKeys DeriveKeys(const Suite& suite, const vpnfc::SecretString& shared, const KeyInput& input);

}  // namespace ikeauth
