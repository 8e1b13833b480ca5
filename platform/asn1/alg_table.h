// The one table of algorithms: code, name, identifier, DigestInfo and PKCS #11 mechanism of each. Every mapping, in
// every direction, is read from it.
#pragma once

#include <span>
#include <string_view>

#include "platform/asn1.h"
#include "platform/asn1/oid.h"

namespace asn1 {

/// Where a row's identifier is found or used.
enum AlgUse : unsigned char {
    kReadKey = 1,
    kReadHash = 2,
    kReadSignature = 4,
    kWrite = 8,
};

/// No such PKCS #11 number (CK_UNAVAILABLE_INFORMATION): 0 is a valid mechanism and key type.
inline constexpr unsigned long kNoMechanism = ~0UL;

struct KeyMechanisms {
    unsigned long keyType = kNoMechanism;  // CKK_
    unsigned long sign = kNoMechanism;  // CKM_, of a ready digest (RSA: of a DigestInfo; Ed25519: of the message)
    unsigned long generate = kNoMechanism;  // CKM_, of a key pair
};

struct HashMechanisms {
    unsigned long digest = kNoMechanism;  // CKM_
    unsigned long mgf = kNoMechanism;  // CKG_MGF1_, for RSASSA-PSS with a salt of `length` bytes
    unsigned length = 0;  // of the digest in bytes
    bool digestInfo = false;
    pki_alg_t key = 0;  // the key algorithm of its own that a hash goes with (GOST), and
    unsigned long sign = kNoMechanism;  // CKM_ that digests with the one and signs with the other
};

/// A key row has no hash part in its code and `key` filled, a hash row no key part and `hash` filled; a signature row
/// has both parts and takes its mechanisms from the rows of its parts.
struct AlgRow {
    pki_alg_t code = 0;
    const char* name = nullptr;  // null in a row that only reads a further identifier of the code
    OidContent oid{};  // empty: the code has no identifier of its own
    unsigned char uses = 0;  // AlgUse
    bool nullParameter = false;  // written beside the identifier
    unsigned char writeVariants = 0;  // bits of the variant byte that may be written, one at a time
    KeyMechanisms key{};
    HashMechanisms hash{};
};

/// A named elliptic curve.
struct CurveRow {
    OidContent oid{};
    const char* name = nullptr;
    unsigned bits = 0;
};

std::span<const AlgRow> AlgTable() noexcept;
/// The row of the whole code without its variant flags (the first one of several), or null.
const AlgRow* FindAlg(pki_alg_t alg) noexcept;
/// The row of the key part, or of the hash part, of `alg`; null when it has none.
const AlgRow* FindKeyAlg(pki_alg_t alg) noexcept;
const AlgRow* FindHashAlg(pki_alg_t alg) noexcept;
/// The hash that keys of this code go with (GOST); null for other keys.
const AlgRow* FindHashOfKey(pki_alg_t key_alg) noexcept;
/// The row with this identifier that has this use, or null.
const AlgRow* FindAlgByOid(std::string_view oid, AlgUse use) noexcept;

/// Curves of elliptic-curve keys; where several have the same size, the one to generate comes first.
std::span<const CurveRow> CurveTable() noexcept;
const CurveRow* FindCurve(std::string_view oid) noexcept;
const CurveRow* FindCurveByBits(unsigned bits) noexcept;

}  // namespace asn1
