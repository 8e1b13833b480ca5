#include "platform/asn1/alg_table.h"

#include <p11-kit/pkcs11.h>
#include <p11-kit/pkcs11x.h>

#include <algorithm>
#include <array>
#include <numeric>

namespace asn1 {
namespace {

enum class Parameter : bool { kAbsent, kNull };

constexpr AlgRow Key(pki_alg_t code, const char* name, std::string_view oid, unsigned char uses, Parameter parameter,
                     KeyMechanisms mechanisms) {
    return {code, name, Oid(oid), uses, parameter == Parameter::kNull, 0, mechanisms, {}};
}

constexpr AlgRow Hash(pki_alg_t code, const char* name, std::string_view oid, HashMechanisms mechanisms,
                      unsigned char write_variants = 0) {
    return {code, name, Oid(oid), kReadHash | kWrite, true, write_variants, {}, mechanisms};
}

constexpr AlgRow Signature(pki_alg_t code, const char* name, std::string_view oid, Parameter parameter,
                           unsigned char write_variants = 0) {
    return {code, name, Oid(oid), kReadSignature | kWrite, parameter == Parameter::kNull, write_variants, {}, {}};
}

/// A further identifier that certificates name the algorithm by; never written.
constexpr AlgRow Alias(pki_alg_t code, std::string_view oid, AlgUse use) {
    return {code, nullptr, Oid(oid), use, false, 0, {}, {}};
}

/// RSASSA-PSS names its hash in the parameters; such a code is never written.
constexpr AlgRow Pss(pki_alg_t hash, const char* name) {
    return {PKI_KEY_RSA_PSS | hash, name, {}, 0, false, 0, {}, {}};
}

constexpr auto kNull = Parameter::kNull;
constexpr auto kAbsent = Parameter::kAbsent;
constexpr unsigned char kKeyBothWays = kReadKey | kWrite;

constexpr std::array kTable = {
    // Keys.
    Key(PKI_KEY_RSA, "RSA", "1.2.840.113549.1.1.1", kKeyBothWays, kNull,
        {CKK_RSA, CKM_RSA_PKCS, CKM_RSA_PKCS_KEY_PAIR_GEN}),
    Key(PKI_KEY_RSA_PSS, "RSASSA-PSS", "1.2.840.113549.1.1.10", kReadSignature, kAbsent,
        {CKK_RSA, CKM_RSA_PKCS_PSS, kNoMechanism}),
    Key(PKI_KEY_DSA, "DSA", "1.2.840.10040.4.1", kKeyBothWays, kAbsent, {CKK_DSA, CKM_DSA, CKM_DSA_KEY_PAIR_GEN}),
    Alias(PKI_KEY_DSA, "1.3.14.3.2.12", kReadKey),
    Key(PKI_KEY_EC, "ECDSA", "1.2.840.10045.2.1", kReadKey, kAbsent, {CKK_EC, CKM_ECDSA, CKM_EC_KEY_PAIR_GEN}),
    Key(PKI_KEY_ED25519, "Ed25519", "1.3.101.112", kKeyBothWays, kAbsent,
        {CKK_EC_EDWARDS, CKM_EDDSA, CKM_EC_EDWARDS_KEY_PAIR_GEN}),
    AlgRow{PKI_KEY_512BIT, "512-bit key", {}, 0, false, 0, {}, {}},
    Key(PKI_KEY_GOST2001, "GOST R 34.10-2001", "1.2.643.2.2.19", kReadKey, kAbsent,
        {CKK_GOSTR3410, CKM_GOSTR3410, CKM_GOSTR3410_KEY_PAIR_GEN}),
    Key(PKI_KEY_GOST2012_256, "GOST R 34.10-2012-256", "1.2.643.7.1.1.1.1", kKeyBothWays, kNull,
        {CKK_GOSTR3410, CKM_GOSTR3410, CKM_GOSTR3410_KEY_PAIR_GEN}),
    Key(PKI_KEY_GOST2012_512, "GOST R 34.10-2012-512", "1.2.643.7.1.1.1.2", kKeyBothWays, kNull,
        {CKK_GOSTR3410_512, CKM_GOSTR3410_512, CKM_GOSTR3410_512_KEY_PAIR_GEN}),

    // Hashes.
    Hash(PKI_HASH_SHA, "SHA", "1.3.14.3.2.18", {kNoMechanism, kNoMechanism, 20, false}),
    Hash(PKI_HASH_SHA1, "SHA-1", "1.3.14.3.2.26", {CKM_SHA_1, CKG_MGF1_SHA1, 20, true}),
    Hash(PKI_HASH_SHA224, "SHA-224", "2.16.840.1.101.3.4.2.4", {CKM_SHA224, CKG_MGF1_SHA224, 28, true}),
    Hash(PKI_HASH_SHA256, "SHA-256", "2.16.840.1.101.3.4.2.1", {CKM_SHA256, CKG_MGF1_SHA256, 32, true}),
    Hash(PKI_HASH_SHA384, "SHA-384", "2.16.840.1.101.3.4.2.2", {CKM_SHA384, CKG_MGF1_SHA384, 48, true}),
    Hash(PKI_HASH_SHA512, "SHA-512", "2.16.840.1.101.3.4.2.3", {CKM_SHA512, CKG_MGF1_SHA512, 64, true}),
    Hash(PKI_HASH_MD2, "MD2", "1.2.840.113549.2.2", {CKM_MD2, kNoMechanism, 16, true}),
    Hash(PKI_HASH_MD5, "MD5", "1.2.840.113549.2.5", {CKM_MD5, kNoMechanism, 16, true}),
    Hash(PKI_HASH_GOST94, "GOST R 34.11-94", "1.2.643.2.2.9",
         {CKM_GOSTR3411, kNoMechanism, 32, false, PKI_KEY_GOST2001, CKM_GOSTR3410_WITH_GOSTR3411}, 0x07),
    Hash(
        PKI_HASH_GOST2012_256, "GOST R 34.11-2012-256", "1.2.643.7.1.1.2.2",
        {CKM_GOSTR3411_2012_256, kNoMechanism, 32, false, PKI_KEY_GOST2012_256, CKM_GOSTR3410_WITH_GOSTR3411_2012_256}),
    Hash(
        PKI_HASH_GOST2012_512, "GOST R 34.11-2012-512", "1.2.643.7.1.1.2.3",
        {CKM_GOSTR3411_2012_512, kNoMechanism, 64, false, PKI_KEY_GOST2012_512, CKM_GOSTR3410_WITH_GOSTR3411_2012_512}),
    AlgRow{PKI_HASH_NONE, "no digest", {}, 0, false, 0, {}, {}},

    // Signatures.
    Signature(PKI_HASH_SHA | PKI_KEY_RSA, "RSA with SHA", "1.3.14.3.2.15", kNull),
    Signature(PKI_HASH_SHA1 | PKI_KEY_RSA, "RSA with SHA-1", "1.2.840.113549.1.1.5", kNull),
    Alias(PKI_HASH_SHA1 | PKI_KEY_RSA, "1.3.14.3.2.29", kReadSignature),
    Signature(PKI_HASH_SHA224 | PKI_KEY_RSA, "RSA with SHA-224", "1.2.840.113549.1.1.14", kNull),
    Signature(PKI_HASH_SHA256 | PKI_KEY_RSA, "RSA with SHA-256", "1.2.840.113549.1.1.11", kNull),
    Signature(PKI_HASH_SHA384 | PKI_KEY_RSA, "RSA with SHA-384", "1.2.840.113549.1.1.12", kNull),
    Signature(PKI_HASH_SHA512 | PKI_KEY_RSA, "RSA with SHA-512", "1.2.840.113549.1.1.13", kNull),
    Signature(PKI_HASH_MD2 | PKI_KEY_RSA, "RSA with MD2", "1.2.840.113549.1.1.2", kNull),
    Signature(PKI_HASH_MD5 | PKI_KEY_RSA, "RSA with MD5", "1.2.840.113549.1.1.4", kNull),
    Alias(PKI_HASH_MD5 | PKI_KEY_RSA, "1.3.14.3.2.3", kReadSignature),
    Pss(PKI_HASH_SHA1, "RSASSA-PSS with SHA-1"),
    Pss(PKI_HASH_SHA224, "RSASSA-PSS with SHA-224"),
    Pss(PKI_HASH_SHA256, "RSASSA-PSS with SHA-256"),
    Pss(PKI_HASH_SHA384, "RSASSA-PSS with SHA-384"),
    Pss(PKI_HASH_SHA512, "RSASSA-PSS with SHA-512"),
    Signature(PKI_HASH_SHA | PKI_KEY_DSA, "DSA with SHA", "1.3.14.3.2.13", kAbsent),
    Signature(PKI_HASH_SHA1 | PKI_KEY_DSA, "DSA with SHA-1", "1.2.840.10040.4.3", kAbsent),
    Alias(PKI_HASH_SHA1 | PKI_KEY_DSA, "1.3.14.3.2.27", kReadSignature),
    Signature(PKI_HASH_SHA224 | PKI_KEY_DSA, "DSA with SHA-224", "2.16.840.1.101.3.4.3.1", kAbsent),
    Signature(PKI_HASH_SHA256 | PKI_KEY_DSA, "DSA with SHA-256", "2.16.840.1.101.3.4.3.2", kAbsent),
    Signature(PKI_HASH_SHA1 | PKI_KEY_EC, "ECDSA with SHA-1", "1.2.840.10045.4.1", kAbsent),
    Signature(PKI_HASH_SHA224 | PKI_KEY_EC, "ECDSA with SHA-224", "1.2.840.10045.4.3.1", kAbsent),
    Signature(PKI_HASH_SHA256 | PKI_KEY_EC, "ECDSA with SHA-256", "1.2.840.10045.4.3.2", kAbsent),
    Signature(PKI_HASH_SHA384 | PKI_KEY_EC, "ECDSA with SHA-384", "1.2.840.10045.4.3.3", kAbsent),
    Signature(PKI_HASH_SHA512 | PKI_KEY_EC, "ECDSA with SHA-512", "1.2.840.10045.4.3.4", kAbsent),
    Signature(PKI_HASH_NONE | PKI_KEY_ED25519, "Ed25519", "1.3.101.112", kAbsent),
    Signature(PKI_HASH_GOST94 | PKI_KEY_GOST2001, "GOST R 34.10-2001 with GOST R 34.11-94", "1.2.643.2.2.3", kNull,
              0x06),
    Signature(PKI_HASH_GOST2012_256 | PKI_KEY_GOST2012_256, "GOST R 34.10-2012-256 with GOST R 34.11-2012-256",
              "1.2.643.7.1.1.3.2", kNull),
    Signature(PKI_HASH_GOST2012_512 | PKI_KEY_GOST2012_512, "GOST R 34.10-2012-512 with GOST R 34.11-2012-512",
              "1.2.643.7.1.1.3.3", kNull),
};

constexpr std::array kCurves = {
    CurveRow{Oid("1.3.132.0.33"), "P-224", 224},
    CurveRow{Oid("1.2.840.10045.3.1.7"), "P-256", 256},
    CurveRow{Oid("1.3.132.0.34"), "P-384", 384},
    CurveRow{Oid("1.3.132.0.35"), "P-521", 521},
    CurveRow{Oid("1.2.840.10045.3.1.1"), "P-192", 192},
    CurveRow{Oid("1.3.132.0.10"), "secp256k1", 256},
    CurveRow{Oid("1.3.36.3.3.2.8.1.1.5"), "brainpoolP224r1", 224},
    CurveRow{Oid("1.3.36.3.3.2.8.1.1.7"), "brainpoolP256r1", 256},
    CurveRow{Oid("1.3.36.3.3.2.8.1.1.9"), "brainpoolP320r1", 320},
    CurveRow{Oid("1.3.36.3.3.2.8.1.1.11"), "brainpoolP384r1", 384},
    CurveRow{Oid("1.3.36.3.3.2.8.1.1.13"), "brainpoolP512r1", 512},
};

using Index = std::array<unsigned char, kTable.size()>;

/// Positions in kTable in the order of `key_of`; rows with equal keys keep the table's order.
template <typename KeyOf>
constexpr Index SortedIndex(KeyOf key_of) {
    Index index{};
    std::iota(index.begin(), index.end(), static_cast<unsigned char>(0));
    std::sort(index.begin(), index.end(), [&](unsigned char a, unsigned char b) {
        const auto key_a = key_of(kTable[a]);
        const auto key_b = key_of(kTable[b]);
        return key_a != key_b ? key_a < key_b : a < b;
    });
    return index;
}

constexpr auto kCodeOf = [](const AlgRow& row) { return row.code; };
constexpr auto kOidOf = [](const AlgRow& row) { return std::string_view(row.oid); };
constexpr Index kByCode = SortedIndex(kCodeOf);
constexpr Index kByOid = SortedIndex(kOidOf);

const AlgRow* FindCode(pki_alg_t code) noexcept {
    const auto* const found = std::lower_bound(kByCode.begin(), kByCode.end(), code,
                                               [](unsigned char row, pki_alg_t c) { return kTable[row].code < c; });
    return code != 0 && found != kByCode.end() && kTable[*found].code == code ? &kTable[*found] : nullptr;
}

}  // namespace

std::span<const AlgRow> AlgTable() noexcept {
    return kTable;
}

const AlgRow* FindAlg(pki_alg_t alg) noexcept {
    return FindCode(alg & PKI_ALG_MASK);
}

const AlgRow* FindKeyAlg(pki_alg_t alg) noexcept {
    return FindCode(alg & PKI_KEY_MASK);
}

const AlgRow* FindHashAlg(pki_alg_t alg) noexcept {
    return FindCode(alg & PKI_HASH_MASK);
}

const AlgRow* FindHashOfKey(pki_alg_t key_alg) noexcept {
    const auto* const found = std::find_if(kTable.begin(), kTable.end(), [key_alg](const AlgRow& row) {
        return row.hash.key != 0 && row.hash.key == key_alg;
    });
    return found == kTable.end() ? nullptr : &*found;
}

const AlgRow* FindAlgByOid(std::string_view oid, AlgUse use) noexcept {
    const auto* found = std::lower_bound(kByOid.begin(), kByOid.end(), oid, [](unsigned char row, std::string_view o) {
        return std::string_view(kTable[row].oid) < o;
    });
    for (; !oid.empty() && found != kByOid.end() && std::string_view(kTable[*found].oid) == oid; ++found) {
        if ((kTable[*found].uses & use) != 0) {
            return &kTable[*found];
        }
    }
    return nullptr;
}

std::span<const CurveRow> CurveTable() noexcept {
    return kCurves;
}

const CurveRow* FindCurve(std::string_view oid) noexcept {
    const auto* const found = std::find_if(kCurves.begin(), kCurves.end(),
                                           [&](const CurveRow& row) { return std::string_view(row.oid) == oid; });
    return found == kCurves.end() ? nullptr : &*found;
}

const CurveRow* FindCurveByBits(unsigned bits) noexcept {
    const auto* const found =
        std::find_if(kCurves.begin(), kCurves.end(), [&](const CurveRow& row) { return row.bits == bits; });
    return found == kCurves.end() ? nullptr : &*found;
}

}  // namespace asn1
