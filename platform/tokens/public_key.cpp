#include <algorithm>
#include <array>

#include "platform/tokens/key_der.h"

namespace tokens {
namespace {

using asn1::DerReader;
using asn1::kTagBitString;
using asn1::kTagNull;
using asn1::kTagOctetString;
using asn1::kTagOid;
using asn1::kTagSequence;

constexpr std::array kRsaPublic = {CKA_MODULUS, CKA_PUBLIC_EXPONENT};
constexpr std::array kRsaPrivate = {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1,
                                    CKA_PRIME_2, CKA_EXPONENT_1,      CKA_EXPONENT_2,       CKA_COEFFICIENT};
constexpr std::array kDsa = {CKA_PRIME, CKA_SUBPRIME, CKA_BASE, CKA_VALUE};
constexpr std::array kEcPublic = {CKA_EC_PARAMS, CKA_EC_POINT};
constexpr std::array kEcPrivate = {CKA_EC_PARAMS, CKA_VALUE};
constexpr std::array kGost = {CKA_GOSTR3410_PARAMS, CKA_GOSTR3411_PARAMS, CKA_VALUE};

struct KeyShape {
    CK_KEY_TYPE type;
    std::span<const CK_ATTRIBUTE_TYPE> public_components;
    std::span<const CK_ATTRIBUTE_TYPE> private_components;
};

const std::array kShapes = {
    KeyShape{CKK_RSA, kRsaPublic, kRsaPrivate}, KeyShape{CKK_DSA, kDsa, kDsa},
    KeyShape{CKK_EC, kEcPublic, kEcPrivate},    KeyShape{CKK_EC_EDWARDS, kEcPublic, kEcPrivate},
    KeyShape{CKK_GOSTR3410, kGost, kGost},      KeyShape{CKK_GOSTR3410_512, kGost, kGost},
};

const KeyShape* FindShape(CK_KEY_TYPE type) {
    const auto* const found =
        std::find_if(kShapes.begin(), kShapes.end(), [&](const KeyShape& shape) { return shape.type == type; });
    return found == kShapes.end() ? nullptr : found;
}

bool IsWhole(unsigned char tag, std::string_view der) {
    DerReader inside({});
    return asn1::ReadWhole(der, tag, inside);
}

bool ReadRsaPublic(std::string_view bits, PublicKey& key) {
    DerReader numbers({});
    std::string_view modulus;
    std::string_view exponent;
    // As in a key's length: a modulus may lack its sign byte.
    if (!asn1::ReadWhole(bits, kTagSequence, numbers) || !ReadUnsigned(numbers, kMaxRsaBits / 8, modulus) ||
        !ReadPositive(numbers, kMaxRsaExponentBytes, exponent) || !numbers.AtEnd()) {
        return false;
    }
    key.components = {std::string(modulus), std::string(exponent)};
    key.size = modulus.size();
    return true;
}

bool ReadDsaPublic(DerReader parameters, std::string_view bits, PublicKey& key) {
    DerReader value(bits);
    if (!ReadDsaParameters(parameters, key.components)) return false;
    key.size = key.components[1].size();
    std::string_view y;
    if (!ReadPositive(value, kMaxDsaBits / 8, y) || !value.AtEnd()) return false;
    key.components.emplace_back(y);
    return true;
}

bool ReadEcPublic(DerReader parameters, std::string_view bits, PublicKey& key) {
    std::string curve_oid;
    const asn1::CurveRow* const curve = ReadCurve(parameters, curve_oid);
    if (curve == nullptr || bits.empty()) return false;
    key.size = (curve->bits + 7) / 8;
    const bool compressed = bits[0] == 2 || bits[0] == 3;
    if (!compressed && bits[0] != 4) return false;
    if (bits.size() != 1 + (compressed ? 1 : 2) * key.size) return false;
    key.components = {std::move(curve_oid), Tlv(kTagOctetString, bits)};
    return true;
}

bool ReadEd25519Public(std::string_view bits, PublicKey& key) {
    if (bits.size() != kEd25519Bytes) return false;
    key.components = {Ed25519Parameters(), Tlv(kTagOctetString, bits)};
    return true;
}

bool ReadGostPublic(const KeyAlgorithm& algorithm, std::string_view bits, PublicKey& key) {
    DerReader outer(bits);
    std::string_view value;
    if (!ReadGostParameters(algorithm.parameters, algorithm.alg, key.components) ||
        !outer.Read(kTagOctetString, value) || !outer.AtEnd() || value.size() != 2 * GostKeyBytes(algorithm.alg)) {
        return false;
    }
    key.components.emplace_back(value);
    return true;
}

std::string SpkiFrom(pki_alg_t alg, std::string_view parameters, std::string_view bits) {
    std::string content = KeyAlgorithmDer(alg, parameters);
    asn1::AppendHeader(content, kTagBitString, bits.size() + 1);
    content.push_back('\0');
    content.append(bits);
    return Tlv(kTagSequence, content);
}

/// CKA_EC_POINT is an OCTET STRING; some modules give its content.
std::string_view EcPointBits(std::string_view point) {
    DerReader outer(point);
    std::string_view content;
    return outer.Read(kTagOctetString, content) && outer.AtEnd() && !content.empty() ? content : point;
}

std::string EcSpki(pki_alg_t alg, const std::vector<std::string>& components) {
    const std::string_view bits = EcPointBits(components[1]);
    if (alg == PKI_KEY_ED25519) return bits.size() == kEd25519Bytes ? SpkiFrom(alg, {}, bits) : std::string();
    return IsWhole(kTagOid, components[0]) ? SpkiFrom(alg, components[0], bits) : std::string();
}

}  // namespace

std::span<const CK_ATTRIBUTE_TYPE> PublicComponents(CK_KEY_TYPE type) {
    const KeyShape* const shape = FindShape(type);
    return shape == nullptr ? std::span<const CK_ATTRIBUTE_TYPE>() : shape->public_components;
}

std::span<const CK_ATTRIBUTE_TYPE> PrivateComponents(CK_KEY_TYPE type) {
    const KeyShape* const shape = FindShape(type);
    return shape == nullptr ? std::span<const CK_ATTRIBUTE_TYPE>() : shape->private_components;
}

bool PublicKeyFromSpki(std::string_view spki, PublicKey& key) {
    DerReader content({});
    KeyAlgorithm algorithm;
    std::string_view bits;
    if (!asn1::ReadWhole(spki, kTagSequence, content) || !ReadKeyAlgorithm(content, algorithm) ||
        !content.Read(kTagBitString, bits) || !content.AtEnd() || bits.size() < 2 || bits[0] != 0) {
        return false;
    }
    bits.remove_prefix(1);
    key = {};
    key.alg = algorithm.alg;
    key.type = KeyTypeOf(algorithm.alg);
    switch (key.type) {
        case CKK_RSA:
            return ReadRsaPublic(bits, key);
        case CKK_DSA:
            return ReadDsaPublic(algorithm.parameters, bits, key);
        case CKK_EC:
            return ReadEcPublic(algorithm.parameters, bits, key);
        case CKK_EC_EDWARDS:
            return ReadEd25519Public(bits, key);
        case CKK_GOSTR3410:
        case CKK_GOSTR3410_512:
            return ReadGostPublic(algorithm, bits, key);
        default:
            return false;
    }
}

const char* WhyNoPublicKey(std::string_view spki) {
    DerReader content({});
    KeyAlgorithm algorithm;
    std::string_view null;
    const bool known = asn1::ReadWhole(spki, kTagSequence, content) && ReadKeyAlgorithm(content, algorithm);
    const bool needs_parameters = algorithm.alg != PKI_KEY_RSA && algorithm.alg != PKI_KEY_ED25519;
    // RFC 3279, RFC 4491: they are those of the issuer's key then.
    if (known && needs_parameters && (algorithm.parameters.AtEnd() || algorithm.parameters.Read(kTagNull, null))) {
        return "the public key inherits its parameters from its issuer's, which is not supported";
    }
    return "the public key is not understood";
}

std::string SpkiFromComponents(pki_alg_t alg, const std::vector<std::string>& components) {
    const CK_KEY_TYPE type = KeyTypeOf(alg);
    const auto shape = PublicComponents(type);
    if (shape.empty() || components.size() != shape.size()) return {};
    const bool complete =
        std::all_of(components.begin(), components.end(), [](const std::string& c) { return !c.empty(); });
    if (!complete && type != CKK_EC_EDWARDS) return {};
    std::string bits;
    switch (type) {
        case CKK_RSA:
            AppendUnsigned(bits, components[0]);
            AppendUnsigned(bits, components[1]);
            return SpkiFrom(alg, Tlv(kTagNull, {}), Tlv(kTagSequence, bits));
        case CKK_DSA:
            AppendUnsigned(bits, components[3]);
            return SpkiFrom(alg, DsaParametersDer(components[0], components[1], components[2]), bits);
        case CKK_EC:
        case CKK_EC_EDWARDS:
            return EcSpki(alg, components);
        default:
            return SpkiFrom(alg, GostParametersDer(alg, components[0], components[1]),
                            Tlv(kTagOctetString, components[2]));
    }
}

pki_alg_t KeyAlgOfObject(CK_KEY_TYPE type, std::string_view gost_digest) {
    DerReader reader(gost_digest);
    std::string_view digest;
    if (type == CKK_GOSTR3410 && reader.Read(kTagOid, digest) &&
        PKI_OID_TO_HASH_ALG(digest.data(), digest.size()) == PKI_HASH_GOST2012_256) {
        return PKI_KEY_GOST2012_256;
    }
    for (const asn1::AlgRow& row : asn1::AlgTable()) {
        if (row.key.keyType == type && row.key.keyType != asn1::kNoMechanism) return row.code;
    }
    return 0;
}

std::string CurveParameters(pki_alg_t alg, unsigned bits) {
    if (alg == PKI_KEY_ED25519) return Ed25519Parameters();
    const asn1::CurveRow* const curve = asn1::FindCurveByBits(bits);
    return curve == nullptr ? std::string() : Tlv(kTagOid, curve->oid);
}

}  // namespace tokens
