// Algorithm codes: names, identifiers and RSASSA-PSS parameters.
#include "platform/asn1.h"
#include "platform/asn1/alg_table.h"
#include "platform/asn1/ascii.h"
#include "platform/asn1/der.h"

namespace {

using asn1::AlgRow;
using asn1::DerReader;

pki_alg_t CodeByOid(const void* oid, std::size_t length, asn1::AlgUse use) noexcept {
    if (oid == nullptr) {
        return 0;
    }
    const AlgRow* const row = asn1::FindAlgByOid({static_cast<const char*>(oid), length}, use);
    return row == nullptr ? 0 : row->code;
}

bool IsNameFiller(char c) {
    return c == ' ' || c == '-' || c == '_';
}

/// Equal without regard to case and to fillers.
bool SameAlgName(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    for (;; ++i, ++j) {
        while (i < a.size() && IsNameFiller(a[i])) {
            ++i;
        }
        while (j < b.size() && IsNameFiller(b[j])) {
            ++j;
        }
        if (i == a.size() || j == b.size()) {
            return i == a.size() && j == b.size();
        }
        if (asn1::AsciiLower(a[i]) != asn1::AsciiLower(b[j])) {
            return false;
        }
    }
}

bool IsVariantWritable(const AlgRow& row, pki_alg_t variant) {
    const bool single_bit = (variant & (variant - 1)) == 0;
    return variant == 0 || (single_bit && (variant & row.writeVariants) == variant);
}

/// Reads AlgorithmIdentifier { hash, NULL or absent }; gives the hash's code, 0 when it is anything else.
pki_alg_t ReadHashIdentifier(DerReader& reader) {
    DerReader identifier({});
    std::string_view oid;
    std::string_view null;
    if (!reader.Enter(asn1::kTagSequence, identifier) || !identifier.Read(asn1::kTagOid, oid) ||
        !identifier.ReadOptional(asn1::kTagNull, null) || !null.empty() || !identifier.AtEnd()) {
        return 0;
    }
    return CodeByOid(oid.data(), oid.size(), asn1::kReadHash);
}

/// maskGenAlgorithm: MGF1 over a hash. Gives the hash's code, 0 when it is anything else.
pki_alg_t ReadMgf1(DerReader& reader) {
    static constexpr asn1::OidContent kMgf1 = asn1::Oid("1.2.840.113549.1.1.8");
    DerReader identifier({});
    std::string_view oid;
    if (!reader.Enter(asn1::kTagSequence, identifier) || !identifier.Read(asn1::kTagOid, oid) ||
        oid != std::string_view(kMgf1)) {
        return 0;
    }
    const pki_alg_t hash = ReadHashIdentifier(identifier);
    return identifier.AtEnd() ? hash : 0;
}

/// A non-negative INTEGER of one byte, the only size that salt lengths and trailers of this library have.
bool ReadSmallInteger(DerReader& reader, unsigned& value) {
    std::string_view content;
    if (!reader.Read(asn1::kTagInteger, content) || content.size() != 1) {
        return false;
    }
    value = static_cast<unsigned char>(content[0]);
    return value < 0x80;
}

/// Enters [number] EXPLICIT when it is the next element; `present` tells. False when it is there and malformed.
bool EnterOptional(DerReader& reader, unsigned char number, bool& present, DerReader& inside) {
    std::string_view content;
    if (!reader.ReadOptional(static_cast<unsigned char>(asn1::kTagContext0 + number), content)) {
        return false;
    }
    present = content.data() != nullptr;
    inside = DerReader(content);
    return true;
}

/// RSASSA-PSS-params with every DEFAULT of RFC 4055, 3.1. Gives the hash's code, 0 when the parameters are malformed,
/// or when mask, salt or trailer do not go with the hash.
pki_alg_t ReadPssHash(std::string_view parameters_der) {
    DerReader parameters({});
    if (!asn1::ReadWhole(parameters_der, asn1::kTagSequence, parameters)) {
        return 0;
    }
    pki_alg_t hash = PKI_HASH_SHA1;
    pki_alg_t mask_hash = PKI_HASH_SHA1;
    unsigned salt = 20;
    unsigned trailer = 1;
    bool present = false;
    bool good = true;
    DerReader field({});
    for (unsigned char number = 0; number < 4; ++number) {
        if (!EnterOptional(parameters, number, present, field)) {
            return 0;
        }
        if (!present) {
            continue;
        }
        switch (number) {
            case 0:
                hash = ReadHashIdentifier(field);
                break;
            case 1:
                mask_hash = ReadMgf1(field);
                break;
            default:
                good = ReadSmallInteger(field, number == 2 ? salt : trailer) && good;
                break;
        }
        good = good && field.AtEnd();
    }
    good = good && parameters.AtEnd() && hash == mask_hash && salt == PKI_HASH_LENGTH(hash) && trailer == 1;
    return good ? hash : 0;
}

}  // namespace

const char* IntToString::find(pki_alg_t value) const noexcept {
    const AlgRow* const row = asn1::FindAlg(value);
    return row == nullptr ? nullptr : row->name;
}

const char* IntToString::getString(pki_alg_t value, const char* otherwise) const noexcept {
    const char* const name = find(value);
    return name == nullptr ? otherwise : name;
}

constinit const IntToString I2S_PKI_ALG_T{};

pki_alg_t PKI_ALG_FROM_NAME(std::string_view name) noexcept {
    for (const AlgRow& row : asn1::AlgTable()) {
        if (row.name != nullptr && SameAlgName(row.name, name)) {
            return row.code;
        }
    }
    return 0;
}

pki_alg_t PKI_OID_TO_KEY_ALG(const void* oid, std::size_t length) noexcept {
    return CodeByOid(oid, length, asn1::kReadKey);
}

pki_alg_t PKI_OID_TO_HASH_ALG(const void* oid, std::size_t length) noexcept {
    return CodeByOid(oid, length, asn1::kReadHash);
}

pki_alg_t PKI_OID_TO_CERT_SIGN_ALG(const void* oid, std::size_t length) noexcept {
    return CodeByOid(oid, length, asn1::kReadSignature);
}

pki_alg_t asn_ike_signalg_t_to_pki_alg(std::string_view oid, std::string_view parameters_der) noexcept {
    const pki_alg_t alg = PKI_OID_TO_CERT_SIGN_ALG(oid.data(), oid.size());
    if (alg != PKI_KEY_RSA_PSS) {
        return alg;
    }
    const pki_alg_t pss = PKI_KEY_RSA_PSS | ReadPssHash(parameters_der);
    return pss != PKI_KEY_RSA_PSS && asn1::FindAlg(pss) != nullptr ? pss : 0;
}

bool asn_pki_alg_to_identifier(pki_alg_t alg, std::string& oid, bool& null_parameter) {
    const AlgRow* const row = asn1::FindAlg(alg);
    if (row == nullptr || (row->uses & asn1::kWrite) == 0 || !IsVariantWritable(*row, alg >> 24)) {
        return false;
    }
    oid.assign(row->oid);
    null_parameter = row->nullParameter;
    return true;
}

unsigned PKI_HASH_LENGTH(pki_alg_t alg) noexcept {
    const AlgRow* const row = asn1::FindHashAlg(alg);
    return row == nullptr ? 0 : row->hash.length;
}
