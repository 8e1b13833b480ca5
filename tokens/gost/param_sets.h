// The table of elliptic curves and of kinds of keys that the token knows, by the identifiers of PKCS #11 attributes.
//
// Standards: RFC 4357 (sets of 34.10-2001), RFC 9215 and RFC 7836 (sets of 34.10-2012).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tokens/gost/failure.h"

namespace gost_token {

enum class HashAlg : std::uint8_t { k94, k2012_256, k2012_512 };

/// Bytes of a digest.
constexpr std::size_t HashBytes(HashAlg alg) {
    return alg == HashAlg::k2012_512 ? 64 : 32;
}

struct KeyKind {
    CK_KEY_TYPE type;
    HashAlg hash;
    int nid;  // libcrypto's identifier of the algorithm
    std::size_t bytes;  // of a private key, of a coordinate, and of each half of a signature
};

/// A kind of key on a curve.
struct Domain {
    const KeyKind* kind = nullptr;
    const char* curve = nullptr;  // as the engine names it
};

/// From CKA_KEY_TYPE, CKA_GOSTR3410_PARAMS and CKA_GOSTR3411_PARAMS (DER identifiers). An empty identifier of the digest
/// is the one of a 512-bit key, which has no other. Fails with CKR_DOMAIN_PARAMS_INVALID.
Domain FindDomain(CK_KEY_TYPE type, std::string_view curve_der, std::string_view hash_der);

/// Every kind of key on every curve.
std::vector<Domain> AllDomains();

/// Identifier, DER, of the only digest that keys of 512 bits go with.
std::string LongHashIdentifier();

/// Whether a DER identifier names the digest, or for 34.11-94 the one set of its parameters that is offered.
bool NamesHash(HashAlg alg, std::string_view der);

}  // namespace gost_token
