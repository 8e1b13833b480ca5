#include "platform/tokens/key_der.h"

#include <algorithm>

namespace tokens {

using asn1::DerReader;
using asn1::kTagInteger;
using asn1::kTagOid;
using asn1::kTagSequence;

CK_KEY_TYPE KeyTypeOf(pki_alg_t alg) {
    const asn1::AlgRow* const row = asn1::FindKeyAlg(alg);
    return row == nullptr ? CK_UNAVAILABLE_INFORMATION : row->key.keyType;
}

/// Magnitude of a positive INTEGER of at most `max_bytes`.
bool ReadPositive(DerReader& reader, std::size_t max_bytes, std::string_view& magnitude) {
    DerReader ahead = reader;
    std::string_view content;
    if (!ahead.Read(kTagInteger, content) || content.empty() || (content[0] & 0x80) != 0) return false;
    return ReadUnsigned(reader, max_bytes, magnitude);
}

bool ReadUnsigned(DerReader& reader, std::size_t max_bytes, std::string_view& magnitude) {
    std::string_view content;
    if (!reader.Read(kTagInteger, content)) return false;
    magnitude = asn1::WithoutLeadingZeros(content);
    return !magnitude.empty() && magnitude.size() <= max_bytes;
}

void AppendUnsigned(std::string& der, std::string_view number) {
    const std::string_view magnitude = asn1::WithoutLeadingZeros(number);
    const bool pad = magnitude.empty() || (magnitude[0] & 0x80) != 0;
    asn1::AppendHeader(der, kTagInteger, magnitude.size() + (pad ? 1 : 0));
    if (pad) der.push_back('\0');
    der.append(magnitude);
}

std::string Tlv(unsigned char tag, std::string_view content) {
    std::string der;
    asn1::AppendTlv(der, tag, content);
    return der;
}

bool ReadKeyAlgorithm(DerReader& reader, KeyAlgorithm& algorithm) {
    std::string_view oid;
    if (!reader.Enter(kTagSequence, algorithm.parameters) || !algorithm.parameters.Read(kTagOid, oid)) return false;
    algorithm.alg = PKI_OID_TO_KEY_ALG(oid.data(), oid.size());
    return algorithm.alg != 0;
}

std::string KeyAlgorithmDer(pki_alg_t alg, std::string_view parameters) {
    return Tlv(kTagSequence, Tlv(kTagOid, asn1::FindKeyAlg(alg)->oid).append(parameters));
}

bool ReadDsaParameters(DerReader parameters, std::vector<std::string>& components) {
    DerReader numbers({});
    if (!parameters.Enter(kTagSequence, numbers) || !parameters.AtEnd()) return false;
    for (int i = 0; i < 3; ++i) {
        std::string_view number;
        if (!ReadPositive(numbers, kMaxDsaBits / 8, number)) return false;
        components.emplace_back(number);
    }
    return numbers.AtEnd();
}

std::string DsaParametersDer(std::string_view p, std::string_view q, std::string_view g) {
    std::string numbers;
    for (const std::string_view number : {p, q, g}) AppendUnsigned(numbers, number);
    return Tlv(kTagSequence, numbers);
}

const asn1::CurveRow* ReadCurve(DerReader parameters, std::string& der) {
    std::string_view oid;
    if (!parameters.Read(kTagOid, oid) || !parameters.AtEnd()) return nullptr;
    der = Tlv(kTagOid, oid);
    return asn1::FindCurve(oid);
}

std::string Ed25519Parameters() {
    return Tlv(kTagOid, asn1::FindKeyAlg(PKI_KEY_ED25519)->oid);
}

std::size_t GostKeyBytes(pki_alg_t alg) {
    return alg == PKI_KEY_GOST2012_512 ? 64 : 32;
}

bool ReadGostParameters(DerReader parameters, pki_alg_t alg, std::vector<std::string>& components) {
    DerReader sets({});
    std::string_view key_set;
    std::string_view digest;
    if (!parameters.Enter(kTagSequence, sets) || !sets.Read(kTagOid, key_set) || !sets.ReadOptional(kTagOid, digest)) {
        return false;
    }
    if (digest.empty() && alg != PKI_KEY_GOST2001) {
        digest = asn1::FindHashOfKey(alg)->oid;
    }
    components = {Tlv(kTagOid, key_set), Tlv(kTagOid, digest)};
    return !digest.empty();
}

std::string GostParametersDer(pki_alg_t alg, std::string_view key_set, std::string_view digest) {
    // Sets of 34.10-2012 go with one digest of that standard; those of 34.10-2001 are used with keys of both.
    static constexpr asn1::OidContent kSetsOf2012 = asn1::Oid("1.2.643.7.1.2.1");
    const bool implied =
        alg != PKI_KEY_GOST2001 && key_set.substr(std::min<std::size_t>(key_set.size(), 2)).starts_with(kSetsOf2012);
    return Tlv(kTagSequence, std::string(key_set).append(implied ? std::string_view() : digest));
}

}  // namespace tokens
