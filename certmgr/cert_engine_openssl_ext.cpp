// The known extensions: one text for each, and the decoded values that the module tests; fingerprints.
#include <openssl/asn1t.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"
#include "certmgr/cert_engine_openssl_ext.h"

using cert_engine::AppendGeneralName;
using cert_engine::BytesOf;
using cert_engine::ErrorMark;
using cert_engine::ForEach;
using cert_engine::GeneralNamesText;

namespace {

struct ItemDeleter {
    const ASN1_ITEM* item = nullptr;
    template <typename T>
    void operator()(T* value) const {
        ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(value), item);
    }
};

// The decoded value of an extension; null when it is malformed. Not through X509V3_EXT_d2i: it looks the identifier up
// once more, under a lock that all threads share. libcrypto's error queue is short: the errors of a few bad extensions
// together would push out what the daemon had there.
template <typename T>
std::unique_ptr<T, ItemDeleter> Decode(X509_EXTENSION* extension, const ASN1_ITEM* item) {
    const ErrorMark mark;
    const ASN1_OCTET_STRING* const value = X509_EXTENSION_get_data(extension);
    const unsigned char* p = ASN1_STRING_get0_data(value);
    return {reinterpret_cast<T*>(ASN1_item_d2i(nullptr, &p, ASN1_STRING_length(value), item)), {item}};
}

std::string Numbered(int number, std::string_view text) {
    return std::string("[").append(std::to_string(number)).append("]").append(text);
}

std::string HexWithBlanks(const ASN1_STRING* bytes) {
    return TO_HEX_STD_STRING(BytesOf(bytes), ' ');
}

// Where the readers below write. Texts are optional.
struct Sinks {
    CertFacts& facts;
    CertNames& names;
    CertExtentions* texts;
};

// --- One function per extension. Each replaces what it fills, the texts when they are wanted; false, with nothing
// changed, when the value is bad. ---

bool CertificatePolicies(X509_EXTENSION* extension, const Sinks& out) {
    const auto policies = Decode<CERTIFICATEPOLICIES>(extension, ASN1_ITEM_rptr(CERTIFICATEPOLICIES));
    if (policies == nullptr) return false;
    if (out.texts == nullptr) return true;
    std::string text;
    int number = 0;
    ForEach<POLICYINFO>(policies.get(), [&](const POLICYINFO& policy) {
        if (number != 0) text += '\n';
        text += Numbered(++number, " Certificate Policy:\n    Policy Identifier=");
        ASN1_OBJECT_to_std_string(policy.policyid, text, kOidName);
    });
    out.texts->certificatePolicies = std::move(text);
    return true;
}

bool cert_ext_PrivateKeyUsagePeriod(X509_EXTENSION* extension, const Sinks& out) {
    const auto period = Decode<PKEY_USAGE_PERIOD>(extension, ASN1_ITEM_rptr(PKEY_USAGE_PERIOD));
    if (period == nullptr) return false;
    if (out.texts == nullptr) return true;
    out.texts->privateKeyUsageEnd = ASN1_TIME_to_time_t(period->notAfter);
    std::string text;
    if (period->notBefore != nullptr) {
        text.append("notBefore=").append(CertTimeToString(ASN1_TIME_to_time_t(period->notBefore)));
    }
    if (period->notAfter != nullptr) text.append(", notAfter=").append(CertTimeToString(out.texts->privateKeyUsageEnd));
    out.texts->privateKeyUsagePeriod = std::move(text);
    return true;
}

bool SubjectAltName(X509_EXTENSION* extension, const Sinks& out) {
    const auto names = Decode<GENERAL_NAMES>(extension, ASN1_ITEM_rptr(GENERAL_NAMES));
    if (names == nullptr) return false;
    ForEach<GENERAL_NAME>(
        names.get(), [&](const GENERAL_NAME& name) { cert_engine::KeepAlternativeName(name, out.names.altSubject); });
    if (out.texts != nullptr) out.texts->subjectAltName = GeneralNamesText(names.get());
    return true;
}

bool IssuerAltName(X509_EXTENSION* extension, const Sinks& out) {
    const auto names = Decode<GENERAL_NAMES>(extension, ASN1_ITEM_rptr(GENERAL_NAMES));
    if (names == nullptr) return false;
    if (out.texts != nullptr) out.texts->issuerAltName = GeneralNamesText(names.get());
    return true;
}

// A path length beyond 32 bits limits no chain.
std::int32_t PathLength(const BASIC_CONSTRAINTS& constraints) {
    constexpr std::int32_t kNone = -1;
    constexpr std::int32_t kLargest = std::numeric_limits<std::int32_t>::max();
    if (constraints.pathlen == nullptr) return kNone;
    if (constraints.ca == 0 || ASN1_STRING_type(constraints.pathlen) != V_ASN1_INTEGER) return 0;
    std::uint64_t value = 0;
    if (ASN1_INTEGER_get_uint64(&value, constraints.pathlen) != 1 || value > kLargest) return kLargest;
    return static_cast<std::int32_t>(value);
}

bool BasicConstraints(X509_EXTENSION* extension, const Sinks& out) {
    const auto constraints = Decode<BASIC_CONSTRAINTS>(extension, ASN1_ITEM_rptr(BASIC_CONSTRAINTS));
    if (constraints == nullptr) return false;
    out.facts.isCA = constraints->ca != 0;
    out.facts.pathLen = PathLength(*constraints);
    if (out.texts == nullptr) return true;
    out.texts->basicConstraints.clear();
    if (!out.facts.isCA) return true;
    out.texts->basicConstraints = "Subject Type=CA, Path Length Constraint=";
    out.texts->basicConstraints += constraints->pathlen != nullptr ? std::to_string(out.facts.pathLen) : "None";
    return true;
}

bool SubjectKeyIdentifier(X509_EXTENSION* extension, const Sinks& out) {
    const auto id = Decode<ASN1_OCTET_STRING>(extension, ASN1_ITEM_rptr(ASN1_OCTET_STRING));
    if (id == nullptr) return false;
    out.facts.subjectKeyIdHex = HexWithBlanks(id.get());
    return true;
}

std::string KeyUsageText(const std::array<std::uint8_t, 2>& bits) {
    constexpr std::array<std::string_view, 8> kFromLowestBit{
        "Encipher Only",     "CRL Sign",         "Certificate Sign", "Key Agreement",
        "Data Encipherment", "Key Encipherment", "Non Repudiation",  "Digital Signature",
    };
    constexpr std::string_view kSeparator = ", ";
    std::string text;
    for (unsigned bit = 0; bit < kFromLowestBit.size(); ++bit) {
        if ((bits[0] >> bit & 1) != 0) text.append(kFromLowestBit[bit]).append(kSeparator);
    }
    if (bits[1] != 0) text.append("Decipher Only").append(kSeparator);
    if (!text.empty()) text.resize(text.size() - kSeparator.size());
    return text;
}

bool KeyUsage(X509_EXTENSION* extension, const Sinks& out) {
    constexpr unsigned char kDecipherOnly = 0x80;
    const auto usage = Decode<ASN1_BIT_STRING>(extension, ASN1_ITEM_rptr(ASN1_BIT_STRING));
    if (usage == nullptr) return false;
    const std::string_view bytes = BytesOf(usage.get());
    out.facts.keyUsageBits = {};
    if (!bytes.empty()) out.facts.keyUsageBits[0] = static_cast<std::uint8_t>(bytes[0]);
    if (bytes.size() > 1 && (static_cast<unsigned char>(bytes[1]) & kDecipherOnly) != 0) out.facts.keyUsageBits[1] = 1;
    if (out.texts != nullptr) out.texts->keyUsage = KeyUsageText(out.facts.keyUsageBits);
    return true;
}

constexpr std::string_view kIpsecIke = "\x2B\x06\x01\x05\x05\x07\x03\x11";  // 1.3.6.1.5.5.7.3.17

bool ExtendedKeyUsage(X509_EXTENSION* extension, const Sinks& out) {
    const auto purposes = Decode<EXTENDED_KEY_USAGE>(extension, ASN1_ITEM_rptr(EXTENDED_KEY_USAGE));
    if (purposes == nullptr) return false;
    out.facts.hasExtKeyUsage = sk_ASN1_OBJECT_num(purposes.get()) > 0;
    out.facts.hasIpsecIkeEku = false;
    ForEach<ASN1_OBJECT>(purposes.get(), [&out](const ASN1_OBJECT& purpose) {
        if (BytesOf(&purpose) == kIpsecIke) out.facts.hasIpsecIkeEku = true;
    });
    if (out.texts == nullptr) return true;
    std::string names;
    std::string oids;
    ForEach<ASN1_OBJECT>(purposes.get(), [&](ASN1_OBJECT& purpose) {
        if (!oids.empty()) {
            names += ", ";
            oids += ", ";
        }
        ASN1_OBJECT_to_std_string(&purpose, names, kOidNameDotted);
        ASN1_OBJECT_to_std_string(&purpose, oids, kOidDotted);
    });
    out.texts->extKeyUsageNames = std::move(names);
    out.texts->extKeyUsageOids = std::move(oids);
    return true;
}

bool AuthorityKeyIdentifier(X509_EXTENSION* extension, const Sinks& out) {
    const auto authority = Decode<AUTHORITY_KEYID>(extension, ASN1_ITEM_rptr(AUTHORITY_KEYID));
    if (authority == nullptr) return false;
    out.facts.authorityKeyIdHex = HexWithBlanks(authority->keyid);
    if (out.texts == nullptr) return true;
    std::string text = out.facts.authorityKeyIdHex;
    const auto append = [&text](std::string_view label, const std::string& value) {
        if (!text.empty()) text += ", ";
        text.append(label).append(value);
    };
    if (authority->issuer != nullptr) append("authorityCertIssuer: ", GeneralNamesText(authority->issuer));
    if (authority->serial != nullptr) {
        append("authorityCertSerialNumber: ", TO_HEX_STD_STRING(BytesOf(authority->serial), 0));
    }
    out.texts->authorityKeyId = std::move(text);
    return true;
}

bool AuthorityInfoAccess(X509_EXTENSION* extension, const Sinks& out) {
    const auto accesses = Decode<AUTHORITY_INFO_ACCESS>(extension, ASN1_ITEM_rptr(AUTHORITY_INFO_ACCESS));
    if (accesses == nullptr) return false;
    if (out.texts == nullptr) return true;
    std::string text;
    int number = 0;
    ForEach<ACCESS_DESCRIPTION>(accesses.get(), [&](const ACCESS_DESCRIPTION& access) {
        text += Numbered(++number, " Access Description\n   accessMethod: ");
        ASN1_OBJECT_to_std_string(access.method, text, kOidName);
        AppendGeneralName(*access.location, text.append("\n   accessLocation: "));
    });
    out.texts->authorityInfoAccess = std::move(text);
    return true;
}

void GENERAL_SUBTREES_to_std_string(const STACK_OF(GENERAL_SUBTREE) * subtrees, std::string_view label,
                                    std::string& text) {
    if (subtrees == nullptr) return;
    text += label;
    std::string_view separator;
    ForEach<GENERAL_SUBTREE>(subtrees, [&](const GENERAL_SUBTREE& subtree) {
        AppendGeneralName(*subtree.base, text.append(separator));
        separator = ",";
    });
}

bool NameConstraints(X509_EXTENSION* extension, const Sinks& out) {
    const auto constraints = Decode<NAME_CONSTRAINTS>(extension, ASN1_ITEM_rptr(NAME_CONSTRAINTS));
    if (constraints == nullptr) return false;
    if (out.texts == nullptr) return true;
    std::string text;
    GENERAL_SUBTREES_to_std_string(constraints->permittedSubtrees, "permittedSubtrees: ", text);
    GENERAL_SUBTREES_to_std_string(constraints->excludedSubtrees, "excludedSubtrees: ", text);
    out.texts->nameConstraints = std::move(text);
    return true;
}

// The value of these two is not shown; the text says so and clients know it.
constexpr const char* kValueNotShown = "TODO";

bool PolicyMappings(X509_EXTENSION* extension, const Sinks& out) {
    const auto mappings = Decode<POLICY_MAPPINGS>(extension, ASN1_ITEM_rptr(POLICY_MAPPINGS));
    if (mappings == nullptr) return false;
    if (out.texts != nullptr) out.texts->policyMappings = kValueNotShown;
    return true;
}

bool PolicyConstraints(X509_EXTENSION* extension, const Sinks& out) {
    if (Decode<POLICY_CONSTRAINTS>(extension, ASN1_ITEM_rptr(POLICY_CONSTRAINTS)) == nullptr) return false;
    if (out.texts != nullptr) out.texts->policyConstraints = kValueNotShown;
    return true;
}

const GENERAL_NAMES* FullName(const DIST_POINT& point) {
    constexpr int kFullName = 0;
    const bool has_one = point.distpoint != nullptr && point.distpoint->type == kFullName;
    return has_one ? point.distpoint->name.fullname : nullptr;
}

bool CrlDistributionPoints(X509_EXTENSION* extension, const Sinks& out) {
    const auto points = Decode<CRL_DIST_POINTS>(extension, ASN1_ITEM_rptr(CRL_DIST_POINTS));
    if (points == nullptr) return false;
    std::string text;
    std::vector<std::string> uris;
    std::vector<std::string> others;
    int number = 0;
    ForEach<DIST_POINT>(points.get(), [&](const DIST_POINT& point) {
        const GENERAL_NAMES* const names = FullName(point);
        if (names == nullptr) return;
        if (number != 0) text += '\n';
        text += Numbered(++number, " CRL Distribution Point");
        ForEach<GENERAL_NAME>(names, [&](const GENERAL_NAME& name) {
            if (name.type != GEN_URI) {
                others.push_back(cert_engine::Encode(&name, i2d_GENERAL_NAME));
                return;
            }
            uris.emplace_back(BytesOf(name.d.uniformResourceIdentifier));
            text.append("\n    URI=").append(uris.back());
        });
    });
    out.names.crlUris = std::move(uris);
    out.names.crlOtherNames = std::move(others);
    if (out.texts != nullptr) out.texts->crlDistributionPoints = std::move(text);
    return true;
}

constexpr std::string_view kKeyUsage = "\x55\x1D\x0F";
constexpr std::string_view kBasicConstraints = "\x55\x1D\x13";
constexpr std::string_view kNsCertType = "\x60\x86\x48\x01\x86\xF8\x42\x01\x01";  // 2.16.840.1.113730.1.1

// What an extension is read for, beside its text.
enum class Use : std::uint8_t { kText, kFacts, kNames };

struct KnownExtension {
    std::string_view oid;
    Use use;
    bool (*read)(X509_EXTENSION* extension, const Sinks& out);
};
constexpr std::array<KnownExtension, 14> kKnownExtensions{{
    {"\x55\x1D\x0E", Use::kFacts, SubjectKeyIdentifier},
    {kKeyUsage, Use::kFacts, KeyUsage},
    {"\x55\x1D\x10", Use::kText, cert_ext_PrivateKeyUsagePeriod},
    {"\x55\x1D\x11", Use::kNames, SubjectAltName},
    {"\x55\x1D\x12", Use::kText, IssuerAltName},
    {kBasicConstraints, Use::kFacts, BasicConstraints},
    {"\x55\x1D\x1E", Use::kText, NameConstraints},
    {"\x55\x1D\x1F", Use::kNames, CrlDistributionPoints},
    {"\x55\x1D\x20", Use::kText, CertificatePolicies},
    {"\x55\x1D\x21", Use::kText, PolicyMappings},
    {"\x55\x1D\x23", Use::kFacts, AuthorityKeyIdentifier},
    {"\x55\x1D\x24", Use::kText, PolicyConstraints},
    {"\x55\x1D\x25", Use::kFacts, ExtendedKeyUsage},
    {"\x2B\x06\x01\x05\x05\x07\x01\x01", Use::kText, AuthorityInfoAccess},
}};

const KnownExtension* FindKnown(X509_EXTENSION* extension) {
    const std::string_view oid = BytesOf(X509_EXTENSION_get_object(extension));
    const auto* const known = std::find_if(kKnownExtensions.begin(), kKnownExtensions.end(),
                                           [oid](const KnownExtension& entry) { return entry.oid == oid; });
    return known != kKnownExtensions.end() ? known : nullptr;
}

// --- All extensions of a certificate ---

template <typename Visit>
void ForEachExtension(const X509* cert, Visit visit) {
    for (int i = 0; i < X509_get_ext_count(cert); ++i) visit(X509_get_ext(cert, i));
}

// An extension that could not be read, or is not known: a critical one must be understood.
void NoteUnknown(X509_EXTENSION* extension, CertFacts& facts) {
    if (X509_EXTENSION_get_critical(extension) == 0 || !facts.firstUnknownCritical.empty()) return;
    facts.firstUnknownCritical = cert_engine::UnknownName(extension);
}

// One that is only shown, or not known, decides nothing unless it is critical.
void ReadFacts(const X509* cert, CertFacts& facts) {
    CertNames names;
    const Sinks sinks{facts, names, nullptr};
    ForEachExtension(cert, [&](X509_EXTENSION* extension) {
        const KnownExtension* const known = FindKnown(extension);
        const bool decides = known != nullptr && known->use == Use::kFacts;
        if (!decides && X509_EXTENSION_get_critical(extension) == 0) return;
        if (known == nullptr || !known->read(extension, sinks)) NoteUnknown(extension, facts);
    });
}

void ReadNames(const X509* cert, CertNames& names) {
    CertFacts facts;
    const Sinks sinks{facts, names, nullptr};
    ForEachExtension(cert, [&](X509_EXTENSION* extension) {
        const KnownExtension* const known = FindKnown(extension);
        if (known != nullptr && known->use == Use::kNames) known->read(extension, sinks);
    });
}

void ReadAll(const X509* cert, CertExtentions& out) {
    const Sinks sinks{out, out, &out};
    std::size_t printable_bytes = cert_engine::kMaxPrintedValueBytes;
    ForEachExtension(cert, [&](X509_EXTENSION* extension) {
        const KnownExtension* const known = FindKnown(extension);
        if (known != nullptr && known->read(extension, sinks)) return;
        NoteUnknown(extension, out);
        cert_engine::cert_ext_Unknown(extension, out, printable_bytes);
    });
}

// What the CA test goes by. Of several extensions of a kind the last one counts, as for the facts.
struct CaExtensions {
    CertFacts facts;
    bool has_usage = false;
    bool has_constraints = false;
    bool ns_ca = false;
};

bool NsCertTypeIsCa(X509_EXTENSION* extension) {
    const auto type = Decode<ASN1_BIT_STRING>(extension, ASN1_ITEM_rptr(ASN1_BIT_STRING));
    const std::string_view bytes = BytesOf(type.get());
    return !bytes.empty() && (static_cast<unsigned char>(bytes[0]) & NS_ANY_CA) != 0;
}

CaExtensions ReadCaExtensions(const X509* cert) {
    CaExtensions out;
    CertNames names;
    const Sinks sinks{out.facts, names, nullptr};
    ForEachExtension(cert, [&](X509_EXTENSION* extension) {
        const std::string_view oid = BytesOf(X509_EXTENSION_get_object(extension));
        if (oid == kKeyUsage && KeyUsage(extension, sinks)) out.has_usage = true;
        if (oid == kBasicConstraints && BasicConstraints(extension, sinks)) out.has_constraints = true;
        if (oid == kNsCertType) out.ns_ca = NsCertTypeIsCa(extension);
    });
    return out;
}

std::string Fingerprint(const EVP_MD* md, std::string_view der) {
    std::string digest;
    return cert_engine::Digest(md, der, digest) ? TO_HEX_STD_STRING(digest, 0) : std::string();
}

}  // namespace

void CertEngine_GetCertFacts(void* cert, CertFacts& out) {
    ReadFacts(static_cast<const X509*>(cert), out);
}

void CertEngine_GetCertNames(void* cert, CertNames& out) {
    ReadNames(static_cast<const X509*>(cert), out);
}

void CertEngine_GetCertExtentions(void* cert, CertExtentions& out) {
    const ErrorMark mark;
    const X509* const x = static_cast<const X509*>(cert);
    static_cast<CertFingerprints&>(out) = CertEngine_CertFingerprints(cert_engine::Encode(x, i2d_X509));
    ReadAll(x, out);
}

CertFingerprints CertEngine_CertFingerprints(const std::string& der) {
    return {Fingerprint(cert_engine::Md5(), der), Fingerprint(cert_engine::Sha1(), der)};
}

namespace cert_engine {

bool IsCa(const X509* cert) {
    const CaExtensions read = ReadCaExtensions(cert);
    if (read.has_usage && (read.facts.keyUsageBits[0] & kKeyUsageCertSign) == 0) return false;
    if (read.has_constraints) return read.facts.isCA;
    const bool is_self_issued = X509_NAME_cmp(X509_get_subject_name(cert), X509_get_issuer_name(cert)) == 0;
    if (X509_get_version(cert) == X509_VERSION_1 && is_self_issued) return true;
    return read.has_usage || read.ns_ca;
}

void ReadExtensions(const STACK_OF(X509_EXTENSION) * extensions, CertExtentions& out) {
    const Sinks sinks{out, out, &out};
    for (int i = 0; i < sk_X509_EXTENSION_num(extensions); ++i) {
        X509_EXTENSION* const extension = sk_X509_EXTENSION_value(extensions, i);
        if (const KnownExtension* const known = FindKnown(extension)) known->read(extension, sinks);
    }
}

}  // namespace cert_engine
