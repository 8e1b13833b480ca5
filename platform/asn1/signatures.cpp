// DigestInfo, DSA signatures and key lengths.
#include <algorithm>
#include <bit>

#include "platform/asn1.h"
#include "platform/asn1/alg_table.h"
#include "platform/asn1/der.h"

namespace {

using asn1::DerReader;
using asn1::WithoutLeadingZeros;

/// Longest r or s that is read: twice the largest group order in use.
constexpr std::size_t kMaxSignatureInteger = 132;
constexpr unsigned kEd25519KeyBytes = 32;

/// Bits of a number without a sign, 0 of nothing.
unsigned UnsignedBits(std::string_view number) {
    const std::string_view magnitude = WithoutLeadingZeros(number);
    if (magnitude.empty()) {
        return 0;
    }
    const auto top = static_cast<unsigned char>(magnitude[0]);
    return static_cast<unsigned>((magnitude.size() - 1) * 8) + static_cast<unsigned>(std::bit_width(top));
}

/// Bits of a positive INTEGER's content, 0 when it is negative, zero or not in its shortest form.
unsigned PositiveIntegerBits(std::string_view content) {
    const unsigned bits = UnsignedBits(content);
    return content.size() == bits / 8 + 1 ? bits : 0;
}

struct PublicKeyInfo {
    pki_alg_t keyAlg = 0;
    DerReader parameters{{}};
    std::string_view key;  // the BIT STRING's bytes
};

/// SubjectPublicKeyInfo (RFC 5280, 4.1).
bool ReadPublicKeyInfo(std::string_view der, PublicKeyInfo& info) {
    DerReader outer({});
    std::string_view oid;
    std::string_view bits;
    if (!asn1::ReadWhole(der, asn1::kTagSequence, outer) || !outer.Enter(asn1::kTagSequence, info.parameters) ||
        !info.parameters.Read(asn1::kTagOid, oid) || !outer.Read(asn1::kTagBitString, bits) || !outer.AtEnd() ||
        bits.size() < 2 || bits[0] != 0) {
        return false;
    }
    info.keyAlg = PKI_OID_TO_KEY_ALG(oid.data(), oid.size());
    info.key = bits.substr(1);
    return true;
}

unsigned RsaModulusBits(std::string_view key) {
    DerReader numbers({});
    std::string_view modulus;
    std::string_view exponent;
    // Some software writes the modulus without its sign byte, or pads it: libcrypto takes it all the same.
    if (!asn1::ReadWhole(key, asn1::kTagSequence, numbers) || !numbers.Read(asn1::kTagInteger, modulus) ||
        !numbers.Read(asn1::kTagInteger, exponent) || !numbers.AtEnd()) {
        return 0;
    }
    return UnsignedBits(modulus);
}

unsigned DsaPublicValueBits(std::string_view key) {
    DerReader reader(key);
    std::string_view y;
    return reader.Read(asn1::kTagInteger, y) && reader.AtEnd() ? PositiveIntegerBits(y) : 0;
}

unsigned CurveBits(DerReader parameters) {
    std::string_view oid;
    if (!parameters.Read(asn1::kTagOid, oid) || !parameters.AtEnd()) {
        return 0;
    }
    const asn1::CurveRow* const curve = asn1::FindCurve(oid);
    return curve == nullptr ? 0 : curve->bits;
}

}  // namespace

bool asn_add_alg_to_digest(pki_alg_t alg, std::string& digest) {
    const asn1::AlgRow* const hash = asn1::FindHashAlg(alg);
    if (hash == nullptr || !hash->hash.digestInfo) {
        return false;
    }
    std::string identifier;
    asn1::AppendTlv(identifier, asn1::kTagOid, hash->oid);
    asn1::AppendTlv(identifier, asn1::kTagNull, {});
    std::string content;
    asn1::AppendTlv(content, asn1::kTagSequence, identifier);
    asn1::AppendTlv(content, asn1::kTagOctetString, digest);
    digest.clear();
    asn1::AppendTlv(digest, asn1::kTagSequence, content);
    return true;
}

bool asn_read_alg_from_digest(std::string_view digest_info, std::string& oid) {
    DerReader content({});
    DerReader identifier({});
    std::string_view hash;
    std::string_view null;
    std::string_view digest;
    if (!asn1::ReadWhole(digest_info, asn1::kTagSequence, content) || !content.Enter(asn1::kTagSequence, identifier) ||
        !identifier.Read(asn1::kTagOid, hash) || hash.empty() || !identifier.ReadOptional(asn1::kTagNull, null) ||
        !null.empty() || !identifier.AtEnd() || !content.Read(asn1::kTagOctetString, digest) || !content.AtEnd()) {
        return false;
    }
    oid.assign(hash);
    return true;
}

bool asn_read_dsa_certsign(std::string_view signature_der, std::string& r, std::string& s) {
    DerReader numbers({});
    std::string_view r_content;
    std::string_view s_content;
    if (!asn1::ReadWhole(signature_der, asn1::kTagSequence, numbers) || !numbers.Read(asn1::kTagInteger, r_content) ||
        !numbers.Read(asn1::kTagInteger, s_content) || !numbers.AtEnd() || r_content.empty() || s_content.empty()) {
        return false;
    }
    const std::string_view r_number = WithoutLeadingZeros(r_content);
    const std::string_view s_number = WithoutLeadingZeros(s_content);
    std::size_t width = std::max(r_number.size(), s_number.size());
    if (width > kMaxSignatureInteger) {
        return false;
    }
    // The sizes of q in FIPS 186-4: a number with leading zeros must not shorten the concatenation of the two.
    for (const std::size_t group : {20U, 28U, 32U}) {
        if (width <= group) {
            width = group;
            break;
        }
    }
    r.clear();
    s.clear();
    asn1::AppendPadded(r, width, r_number);
    asn1::AppendPadded(s, width, s_number);
    return true;
}

unsigned asn_spki_key_bits(pki_alg_t alg, std::string_view spki_der) noexcept {
    const pki_alg_t key_alg = alg & PKI_ALG_MASK;
    switch (key_alg) {
        case PKI_KEY_512BIT:
        case PKI_KEY_GOST2001:
        case PKI_KEY_GOST2012_256:
            return 512;
        case PKI_KEY_GOST2012_512:
            return 1024;
        default:
            break;
    }
    PublicKeyInfo info;
    if (!ReadPublicKeyInfo(spki_der, info) || info.keyAlg != key_alg) {
        return 0;
    }
    switch (key_alg) {
        case PKI_KEY_RSA:
            return RsaModulusBits(info.key);
        case PKI_KEY_DSA:
            return DsaPublicValueBits(info.key);
        case PKI_KEY_EC:
            return CurveBits(info.parameters);
        case PKI_KEY_ED25519:
            return info.key.size() == kEd25519KeyBytes ? kEd25519KeyBytes * 8 : 0;
        default:
            return 0;
    }
}
