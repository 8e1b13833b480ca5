// The messages of an exchange, and what both sides compute from them. They carry what IKE carries, without its
// key exchange: certificate requests and nonces first, then identity, certificate payloads and authentication data.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ike/credentials.h"

namespace ikeauth {

enum class IkeVersion : std::uint32_t { kIke1 = 1, kIke2 = 2 };

/// Most certificate requests and certificate payloads that a message may carry.
inline constexpr std::uint32_t kMaxListEntries = 4096;

struct Hello {
    std::string nonce;
    CertRequests requests;

    std::string Encode() const;
    bool Decode(const std::string& message);
};

struct Authentication {
    std::uint32_t id_type = LPCFG::ipsecid_t::kDn;
    std::string id_value;
    PayloadForm form = PayloadForm::kX509;
    std::vector<std::string> payloads;
    pki_alg_t sign_alg = 0;
    std::string signature;

    std::string Encode() const;
    bool Decode(const std::string& message);
};

/// What the signer of an authentication signs.
struct SignedInput {
    std::string own_hello;  // the signer's encoded Hello
    std::string peer_hello;  // the other side's
    std::string peer_nonce;
    std::uint32_t id_type = 0;
    std::string id_value;
};

/// IKEv2: the signed octets (own first message, the peer's nonce, a keyed digest of the identity).
std::string SignedOctets(const SignedInput& input);
/// IKEv1: the hash of the exchange, as long as the key algorithm takes it (DSA: 20 bytes, GOST keys of 512 bits: 64).
std::string ExchangeHash(const SignedInput& input, pki_alg_t key_alg);

}  // namespace ikeauth
