#include "platform/asn1/oid_map.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "platform/asn1/ascii.h"

namespace asn1 {
namespace {

constexpr OidRow Attribute(std::string_view oid, std::string_view long_name, std::string_view short_name = {},
                           Syntax syntax = Syntax::kDirectory) {
    return {Oid(oid), {long_name, short_name}, syntax};
}

constexpr OidRow Other(std::string_view oid, std::string_view preferred_name, std::string_view other_name = {}) {
    return {Oid(oid), {preferred_name, other_name}, Syntax::kNotAttribute};
}

constexpr std::array kRows = {
    // Attribute types: X.520, RFC 4519, RFC 2985, CA/Browser Forum, Russian qualified certificates.
    Attribute("2.5.4.3", "commonName", "CN"),
    Attribute("2.5.4.4", "surname", "SN"),
    Attribute("2.5.4.5", "serialNumber", {}, Syntax::kPrintable),
    Attribute("2.5.4.6", "countryName", "C", Syntax::kPrintable),
    Attribute("2.5.4.7", "localityName", "L"),
    Attribute("2.5.4.8", "stateOrProvinceName", "ST"),
    Attribute("2.5.4.9", "streetAddress", "STREET"),
    Attribute("2.5.4.10", "organizationName", "O"),
    Attribute("2.5.4.11", "organizationalUnitName", "OU"),
    Attribute("2.5.4.12", "title", "T"),
    Attribute("2.5.4.13", "description"),
    Attribute("2.5.4.15", "businessCategory"),
    Attribute("2.5.4.16", "postalAddress"),
    Attribute("2.5.4.17", "postalCode"),
    Attribute("2.5.4.18", "postOfficeBox"),
    Attribute("2.5.4.20", "telephoneNumber", {}, Syntax::kPrintable),
    Attribute("2.5.4.41", "name"),
    Attribute("2.5.4.42", "givenName", "GN"),
    Attribute("2.5.4.43", "initials"),
    Attribute("2.5.4.44", "generationQualifier"),
    Attribute("2.5.4.45", "x500UniqueIdentifier"),
    Attribute("2.5.4.46", "dnQualifier", {}, Syntax::kPrintable),
    Attribute("2.5.4.51", "houseIdentifier"),
    Attribute("2.5.4.65", "pseudonym"),
    Attribute("2.5.4.72", "role"),
    Attribute("2.5.4.97", "organizationIdentifier"),
    Attribute("0.9.2342.19200300.100.1.1", "userId", "UID"),
    Attribute("0.9.2342.19200300.100.1.3", "rfc822Mailbox", "mail", Syntax::kIa5),
    Attribute("0.9.2342.19200300.100.1.25", "domainComponent", "DC", Syntax::kIa5),
    Attribute("1.2.840.113549.1.9.1", "emailAddress", {}, Syntax::kIa5),
    Attribute("1.2.840.113549.1.9.2", "unstructuredName"),
    Attribute("1.2.840.113549.1.9.8", "unstructuredAddress"),
    Attribute("1.3.6.1.4.1.311.60.2.1.1", "jurisdictionLocalityName", "jurisdictionL"),
    Attribute("1.3.6.1.4.1.311.60.2.1.2", "jurisdictionStateOrProvinceName", "jurisdictionST"),
    Attribute("1.3.6.1.4.1.311.60.2.1.3", "jurisdictionCountryName", "jurisdictionC", Syntax::kPrintable),
    Attribute("1.2.643.3.131.1.1", "INN"),
    Attribute("1.2.643.100.1", "OGRN"),
    Attribute("1.2.643.100.3", "SNILS"),
    Attribute("1.2.643.100.4", "INNLE"),
    Attribute("1.2.643.100.5", "OGRNIP"),

    // Extensions.
    Other("2.5.29.9", "subjectDirectoryAttributes"),
    Other("2.5.29.14", "subjectKeyIdentifier"),
    Other("2.5.29.15", "keyUsage"),
    Other("2.5.29.16", "privateKeyUsagePeriod"),
    Other("2.5.29.17", "subjectAltName"),
    Other("2.5.29.18", "issuerAltName"),
    Other("2.5.29.19", "basicConstraints"),
    Other("2.5.29.20", "cRLNumber"),
    Other("2.5.29.21", "reasonCode"),
    Other("2.5.29.24", "invalidityDate"),
    Other("2.5.29.27", "deltaCRLIndicator"),
    Other("2.5.29.28", "issuingDistributionPoint"),
    Other("2.5.29.29", "certificateIssuer"),
    Other("2.5.29.30", "nameConstraints"),
    Other("2.5.29.31", "cRLDistributionPoints"),
    Other("2.5.29.32", "certificatePolicies"),
    Other("2.5.29.33", "policyMappings"),
    Other("2.5.29.35", "authorityKeyIdentifier"),
    Other("2.5.29.36", "policyConstraints"),
    Other("2.5.29.37", "extKeyUsage"),
    Other("2.5.29.46", "freshestCRL"),
    Other("2.5.29.54", "inhibitAnyPolicy"),
    Other("1.3.6.1.5.5.7.1.1", "authorityInfoAccess"),
    Other("1.3.6.1.5.5.7.1.3", "qcStatements"),
    Other("1.3.6.1.5.5.7.1.11", "subjectInfoAccess"),
    Other("1.3.6.1.5.5.7.1.24", "tlsFeature"),
    Other("1.3.6.1.4.1.11129.2.4.2", "signedCertificateTimestampList"),
    Other("2.16.840.1.113730.1.1", "netscapeCertType"),
    Other("2.16.840.1.113730.1.13", "netscapeComment"),
    Other("1.2.643.100.111", "subjectSignTool"),
    Other("1.2.643.100.112", "issuerSignTool"),

    // Access methods, other names, policies.
    Other("1.3.6.1.5.5.7.48.1", "ocsp", "id-ad-ocsp"),
    Other("1.3.6.1.5.5.7.48.2", "caIssuers", "id-ad-caIssuers"),
    Other("1.3.6.1.4.1.311.20.2.3", "userPrincipalName", "msUPN"),
    Other("2.5.29.32.0", "anyPolicy"),
    Other("2.23.140.1.2.1", "domainValidated"),
    Other("2.23.140.1.2.2", "organizationValidated"),
    Other("1.2.643.100.113.1", "classKC1"),
    Other("1.2.643.100.113.2", "classKC2"),
    Other("1.2.643.100.113.3", "classKC3"),
    Other("1.2.643.100.113.4", "classKB1"),
    Other("1.2.643.100.113.5", "classKB2"),
    Other("1.2.643.100.113.6", "classKA1"),

    // Key purposes.
    Other("2.5.29.37.0", "anyExtendedKeyUsage"),
    Other("1.3.6.1.5.5.7.3.1", "serverAuth", "id-kp-serverAuth"),
    Other("1.3.6.1.5.5.7.3.2", "clientAuth", "id-kp-clientAuth"),
    Other("1.3.6.1.5.5.7.3.3", "codeSigning", "id-kp-codeSigning"),
    Other("1.3.6.1.5.5.7.3.4", "emailProtection", "id-kp-emailProtection"),
    Other("1.3.6.1.5.5.7.3.5", "ipsecEndSystem", "id-kp-ipsecEndSystem"),
    Other("1.3.6.1.5.5.7.3.6", "ipsecTunnel", "id-kp-ipsecTunnel"),
    Other("1.3.6.1.5.5.7.3.7", "ipsecUser", "id-kp-ipsecUser"),
    Other("1.3.6.1.5.5.7.3.8", "timeStamping", "id-kp-timeStamping"),
    Other("1.3.6.1.5.5.7.3.9", "OCSPSigning", "id-kp-OCSPSigning"),
    Other("1.3.6.1.5.5.7.3.17", "ipsecIKE", "id-kp-ipsecIKE"),
    Other("1.3.6.1.5.5.8.2.2", "iKEIntermediate"),
    Other("1.3.6.1.4.1.311.20.2.2", "smartcardLogon", "msSmartcardLogin"),

    // GOST algorithms, under the names that the engine gives libcrypto.
    Other("1.2.643.2.2.9", "GOST R 34.11-94 (Russian hash algorithm)", "gostR3411-94"),
    Other("1.2.643.2.2.3", "id-GostR3411-94-with-GostR3410-2001", "gostR3411-94-with-gostR3410-2001"),
    Other("1.2.643.2.2.20", "id-GostR3410-94", "gostR3410-94"),
    Other("1.2.643.2.2.19", "id-GostR3410-2001", "gostR3410-2001"),
    Other("1.2.643.7.1.1.2.2", "id-tc26-gost3411-12-256"),
    Other("1.2.643.7.1.1.2.3", "id-tc26-gost3411-12-512"),
    Other("1.2.643.7.1.1.1.1", "id-tc26-gost3410-12-256"),
    Other("1.2.643.7.1.1.1.2", "id-tc26-gost3410-12-512"),
    Other("1.2.643.7.1.1.3.2", "id-tc26-signwithdigest-gost3410-12-256"),
    Other("1.2.643.7.1.1.3.3", "id-tc26-signwithdigest-gost3410-12-512"),
};

/// Further names that people and other programs write.
struct NameAlias {
    std::string_view name;
    std::string_view attribute;
};
constexpr std::array kAliases = {
    NameAlias{"E", "emailAddress"},         NameAlias{"email", "emailAddress"}, NameAlias{"S", "stateOrProvinceName"},
    NameAlias{"SP", "stateOrProvinceName"}, NameAlias{"G", "givenName"},        NameAlias{"street", "streetAddress"},
    NameAlias{"userid", "userId"},          NameAlias{"DNQ", "dnQualifier"},
};

constexpr unsigned char kEmpty = 0xFF;
static_assert(kRows.size() < kEmpty);

constexpr std::uint32_t kHashSeed = 2166136261U;
constexpr std::uint32_t kHashFactor = 16777619U;

template <bool kFold>
constexpr std::uint32_t HashOf(std::string_view text) {
    std::uint32_t hash = kHashSeed;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(kFold ? AsciiLower(c) : c)) * kHashFactor;
    }
    return hash ^ hash >> 15;
}

/// Open addressing; a quarter full at most, so that a look-up that fails ends soon.
using Index = std::array<unsigned char, 512>;

constexpr void Insert(Index& index, std::uint32_t hash, std::size_t row) {
    std::size_t slot = hash % index.size();
    while (index[slot] != kEmpty) {
        slot = (slot + 1) % index.size();
    }
    index[slot] = static_cast<unsigned char>(row);
}

constexpr Index MakeOidIndex() {
    Index index{};
    index.fill(kEmpty);
    for (std::size_t row = 0; row < kRows.size(); ++row) {
        Insert(index, HashOf<false>(kRows[row].oid), row);
    }
    return index;
}
constexpr Index kByOid = MakeOidIndex();

struct NameSlot {
    std::string_view name;
    const OidRow* row = nullptr;
};

/// Attribute names and aliases.
constexpr std::size_t kMaxNames = 128;
struct NameIndex {
    std::array<NameSlot, kMaxNames> names{};
    std::size_t count = 0;
    Index slots{};

    constexpr void Add(std::string_view name, const OidRow* row) {
        if (!name.empty()) {
            names[count] = {name, row};
            Insert(slots, HashOf<true>(name), count++);
        }
    }
};

constexpr const OidRow* RowNamed(std::string_view preferred_name) {
    return std::find_if(kRows.begin(), kRows.end(),
                        [&](const OidRow& row) { return row.names.preferred_name == preferred_name; });
}

constexpr NameIndex MakeNameIndex() {
    NameIndex index;
    index.slots.fill(kEmpty);
    for (const OidRow& row : kRows) {
        if (row.IsAttribute()) {
            index.Add(row.names.preferred_name, &row);
            index.Add(row.names.other_name, &row);
        }
    }
    for (const NameAlias& alias : kAliases) {
        index.Add(alias.name, RowNamed(alias.attribute));
    }
    return index;
}
constexpr NameIndex kByName = MakeNameIndex();

}  // namespace

const OidRow* FindOid(std::string_view oid) noexcept {
    if (oid.empty() || oid.size() > kRows[0].oid.bytes.size()) {
        return nullptr;
    }
    for (std::size_t slot = HashOf<false>(oid) % kByOid.size(); kByOid[slot] != kEmpty;
         slot = (slot + 1) % kByOid.size()) {
        const OidRow& row = kRows[kByOid[slot]];
        if (std::string_view(row.oid) == oid) {
            return &row;
        }
    }
    return nullptr;
}

const OidRow* FindAttributeByName(std::string_view name) noexcept {
    for (std::size_t slot = HashOf<true>(name) % kByName.slots.size(); kByName.slots[slot] != kEmpty;
         slot = (slot + 1) % kByName.slots.size()) {
        const NameSlot& candidate = kByName.names[kByName.slots[slot]];
        if (AsciiEqualIgnoringCase(candidate.name, name)) {
            return candidate.row;
        }
    }
    return nullptr;
}

}  // namespace asn1

const OidMapEntry* oid_map_find_asn(OID_MAP_HANDLE map, const void* oid, std::size_t length) noexcept {
    if (map != OID_MAP_HANDLE_DEFAULT_FILE || oid == nullptr) {
        return nullptr;
    }
    const asn1::OidRow* const row = asn1::FindOid({static_cast<const char*>(oid), length});
    return row == nullptr ? nullptr : &row->names;
}
