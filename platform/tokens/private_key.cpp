#include "platform/tokens/key_der.h"

#include <algorithm>

namespace tokens {
namespace {

using asn1::DerReader;
using asn1::kTagInteger;
using asn1::kTagNull;
using asn1::kTagOctetString;
using asn1::kTagSequence;
using vpnfc::SecretString;

/// Room for headers around a private key, so that a secret is not moved, and left behind, while its DER grows.
constexpr std::size_t kDerRoom = 512;
/// Longest private number of an elliptic curve in the table.
constexpr std::size_t kMaxEcBytes = 66;

void Add(std::vector<SecretString>& components, std::string_view component) {
    components.emplace_back(component);
}

bool ReadRsaPrivate(std::string_view der, PrivateKey& key) {
    DerReader numbers({});
    std::string_view version;
    if (!asn1::ReadWhole(der, kTagSequence, numbers) || !numbers.Read(kTagInteger, version) ||
        version != std::string_view("\0", 1)) {
        return false;
    }
    for (std::size_t i = 0; i < PrivateComponents(CKK_RSA).size(); ++i) {
        std::string_view number;
        if (!ReadPositive(numbers, kMaxRsaBits / 8, number)) return false;
        Add(key.components, number);
    }
    return numbers.AtEnd();
}

bool ReadDsaPrivate(DerReader parameters, std::string_view der, PrivateKey& key) {
    std::vector<std::string> domain;
    DerReader reader(der);
    std::string_view x;
    if (!ReadDsaParameters(parameters, domain) || !ReadPositive(reader, kMaxDsaBits / 8, x) || !reader.AtEnd()) {
        return false;
    }
    for (const std::string& number : domain) Add(key.components, number);
    Add(key.components, x);
    return true;
}

/// RFC 5915.
bool ReadEcPrivate(DerReader parameters, std::string_view der, PrivateKey& key) {
    DerReader content({});
    std::string_view version;
    std::string_view number;
    std::string curve_oid;
    if (ReadCurve(parameters, curve_oid) == nullptr || !asn1::ReadWhole(der, kTagSequence, content) ||
        !content.Read(kTagInteger, version) || version != "\1" || !content.Read(kTagOctetString, number) ||
        number.empty() || number.size() > kMaxEcBytes) {
        return false;
    }
    Add(key.components, curve_oid);
    Add(key.components, number);
    return true;
}

bool ReadEd25519Private(std::string_view der, PrivateKey& key) {
    DerReader reader(der);
    std::string_view seed;
    if (!reader.Read(kTagOctetString, seed) || !reader.AtEnd() || seed.size() != kEd25519Bytes) return false;
    Add(key.components, Ed25519Parameters());
    Add(key.components, seed);
    return true;
}

/// The number stands there as it is, least significant byte first, or so in an OCTET STRING, or in an INTEGER. Its size
/// decides first: a number as it is may begin like anything.
bool ReadGostPrivate(const KeyAlgorithm& algorithm, std::string_view der, PrivateKey& key) {
    const std::size_t size = GostKeyBytes(algorithm.alg);
    std::vector<std::string> sets;
    SecretString number;
    std::string_view content;
    DerReader reader(der);
    if (!ReadGostParameters(algorithm.parameters, algorithm.alg, sets)) return false;
    if (der.size() == size) {
        number = SecretString(der);
    } else if (reader.Read(kTagOctetString, content) && reader.AtEnd() && content.size() == size) {
        number = SecretString(content);
    } else if (ReadPositive(reader, size, content) && reader.AtEnd()) {
        number.edit().reserve(size);
        number.edit().assign(content.rbegin(), content.rend());
        number.edit().resize(size, '\0');
    } else {
        return false;
    }
    for (const std::string& set : sets) Add(key.components, set);
    key.components.push_back(std::move(number));
    return true;
}

bool ReadPrivate(const KeyAlgorithm& algorithm, std::string_view der, PrivateKey& key) {
    switch (key.type) {
        case CKK_RSA:
            return ReadRsaPrivate(der, key);
        case CKK_DSA:
            return ReadDsaPrivate(algorithm.parameters, der, key);
        case CKK_EC:
            return ReadEcPrivate(algorithm.parameters, der, key);
        case CKK_EC_EDWARDS:
            return ReadEd25519Private(der, key);
        case CKK_GOSTR3410:
        case CKK_GOSTR3410_512:
            return ReadGostPrivate(algorithm, der, key);
        default:
            return false;
    }
}

struct Pkcs8Parts {
    std::string parameters;  // of the algorithm identifier
    SecretString key;  // content of the private key's OCTET STRING
};

void WriteRsa(const std::vector<SecretString>& components, Pkcs8Parts& parts) {
    SecretString numbers;
    numbers.edit().reserve(components.size() * (kMaxRsaBits / 8 + 8));
    AppendUnsigned(numbers.edit(), {});
    for (const SecretString& number : components) AppendUnsigned(numbers.edit(), number.get());
    parts.parameters = Tlv(kTagNull, {});
    parts.key.edit().reserve(numbers.get().size() + kDerRoom);
    asn1::AppendTlv(parts.key.edit(), kTagSequence, numbers.get());
}

void WriteEc(const std::vector<SecretString>& components, Pkcs8Parts& parts) {
    std::string oid;
    const asn1::CurveRow* const curve = ReadCurve(DerReader(components[0].get()), oid);
    const std::size_t width = curve == nullptr ? 0 : (curve->bits + 7) / 8;
    const std::string_view number = asn1::WithoutLeadingZeros(components[1].get());
    SecretString content;
    content.edit().reserve(kDerRoom);
    AppendUnsigned(content.edit(), "\1");
    asn1::AppendHeader(content.edit(), kTagOctetString, std::max(width, number.size()));
    if (number.size() < width) content.edit().append(width - number.size(), '\0');
    content.edit().append(number);
    parts.parameters = components[0].get();
    asn1::AppendTlv(parts.key.edit(), kTagSequence, content.get());
}

void WriteParts(pki_alg_t alg, const std::vector<SecretString>& components, Pkcs8Parts& parts) {
    parts.key.edit().reserve(kDerRoom);
    switch (KeyTypeOf(alg)) {
        case CKK_RSA:
            return WriteRsa(components, parts);
        case CKK_DSA:
            parts.parameters = DsaParametersDer(components[0].get(), components[1].get(), components[2].get());
            return AppendUnsigned(parts.key.edit(), components[3].get());
        case CKK_EC:
            return WriteEc(components, parts);
        case CKK_EC_EDWARDS:
            return asn1::AppendTlv(parts.key.edit(), kTagOctetString, components[1].get());
        default:
            parts.parameters = GostParametersDer(alg, components[0].get(), components[1].get());
            return asn1::AppendTlv(parts.key.edit(), kTagOctetString, components[2].get());
    }
}

}  // namespace

bool PrivateKeyFromPkcs8(std::string_view pkcs8, PrivateKey& key) {
    DerReader content({});
    std::string_view version;
    KeyAlgorithm algorithm;
    std::string_view der;
    if (!asn1::ReadWhole(pkcs8, kTagSequence, content) || !content.Read(kTagInteger, version) ||
        !ReadKeyAlgorithm(content, algorithm) || !content.Read(kTagOctetString, der)) {
        return false;
    }
    key = {};
    key.alg = algorithm.alg;
    key.type = KeyTypeOf(algorithm.alg);
    return ReadPrivate(algorithm, der, key);
}

SecretString Pkcs8FromComponents(pki_alg_t alg, const std::vector<SecretString>& components) {
    const CK_KEY_TYPE type = KeyTypeOf(alg);
    const auto shape = PrivateComponents(type);
    const bool complete =
        !shape.empty() && components.size() == shape.size() &&
        std::none_of(components.begin(), components.end(), [](const SecretString& c) { return c.empty(); });
    if (!complete) return {};
    Pkcs8Parts parts;
    WriteParts(alg, components, parts);
    SecretString content;
    content.edit().reserve(parts.key.get().size() + kDerRoom + parts.parameters.size());
    AppendUnsigned(content.edit(), {});
    content.edit().append(KeyAlgorithmDer(alg, parts.parameters));
    asn1::AppendTlv(content.edit(), kTagOctetString, parts.key.get());
    SecretString pkcs8;
    pkcs8.edit().reserve(content.get().size() + kDerRoom);
    asn1::AppendTlv(pkcs8.edit(), kTagSequence, content.get());
    return pkcs8;
}

}  // namespace tokens
