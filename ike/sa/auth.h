// The AUTH payload: what is signed (RFC 7296, 2.15) and how a signature is written (RFC 7296 3.8, 4754, 7427, 8420).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "certmgr/x509cert.h"
#include "ike/crypto/suites.h"
#include "ike/wire/payloads.h"

namespace ikeauth {

/// Hash algorithms of SIGNATURE_HASH_ALGORITHMS, by their numbers there.
using HashSet = std::vector<std::uint16_t>;
/// SHA-256, SHA-384, SHA-512 and "identity", which Ed25519 wants. SHA-1 is left out.
HashSet AnnouncedHashes();
std::string EncodeHashes(const HashSet& hashes);
HashSet DecodeHashes(std::string_view data);
std::string Describe(const HashSet& hashes);

/// What one side authenticates.
struct AuthInput {
    std::string message{};  // its IKE_SA_INIT message, as it was sent
    std::string peer_nonce{};
    std::string identity{};  // body of its identification payload
};
std::string AuthOctets(const AuthInput& input, const Algorithm& prf, const std::string& identity_key);

/// AUTH data of a preshared key.
std::string PresharedKeyAuth(const Algorithm& prf, const std::string& key, const std::string& octets);

struct SignatureChoice {
    std::uint8_t method = kMethodSignature;
    pki_alg_t alg = 0;
};
/// How to sign with a certificate's key for a peer that announced these hashes (none: the older methods): with the hash
/// that the module signs with, or where that is SHA-1 or not announced, with the strongest that is. False, and why, when
/// there is no way.
bool ChooseSignature(const CM::X509Cert& cert, const HashSet& peer_hashes, bool pss, SignatureChoice& choice,
                     std::string& why);

/// What is taken of a peer.
struct SignaturePolicy {
    std::string public_key{};  // of its certificate, DER
    HashSet announced{};  // to it; none when only the older methods are taken
    bool newer_agreed = false;  // it announced hashes as well: no need for SHA-1
};

/// AUTH data around a token's signature. False when it is not one of the algorithm.
bool EncodeSignature(const SignatureChoice& choice, const std::string& signature, std::string& data);
/// Algorithm and signature, as Ike2Verify takes them. False, and why, when the data is malformed, the algorithm not known
/// or its hash not allowed.
bool DecodeSignature(const AuthData& auth, const SignaturePolicy& policy, pki_alg_t& alg, std::string& signature,
                     std::string& why);
/// "digital signature, ECDSA with SHA-256".
std::string Describe(const SignatureChoice& choice);

}  // namespace ikeauth
