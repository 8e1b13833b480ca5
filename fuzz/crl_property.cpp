#include "fuzz/crl_property.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "certmgr/cert_engine.h"
#include "libcrypto/libcrypto.h"

namespace fuzz {

namespace {

using Ours = libcrypto::Owner<void, CertEngine_CloseCRLHandle>;

/// Larger fields are refused, whatever libcrypto makes of them.
constexpr std::size_t kFieldLimit = 1U << 16;
/// Entries that are looked up one by one.
constexpr std::size_t kLookedUp = 64;

/// A value that libcrypto decodes to its last byte.
template <auto Free, typename T>
libcrypto::Owner<T, Free> Decoded(T* (*d2i)(T**, const unsigned char**, long), const X509_EXTENSION* extension) {
    const ASN1_OCTET_STRING* data = X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension));
    return libcrypto::DecodeWhole<Free>(d2i, {reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)),
                                              static_cast<std::size_t>(ASN1_STRING_length(data))});
}

struct Entry {
    std::string serial;
    cert_time64_t date = 0;
    int reason = 0;
    bool about_issuer = true;
};

std::string SerialOf(const X509_REVOKED* revoked) {
    std::string text;
    ASN1_INTEGER_to_std_string(const_cast<ASN1_INTEGER*>(X509_REVOKED_get0_serialNumber(revoked)), text);
    return text;
}

/// The only extension of that kind; null when there is none or there are several.
const X509_EXTENSION* Only(const X509_REVOKED* revoked, int nid, bool& present) {
    const int at = X509_REVOKED_get_ext_by_NID(revoked, nid, -1);
    present = at >= 0;
    const bool only = present && X509_REVOKED_get_ext_by_NID(revoked, nid, at) < 0;
    return only ? X509_REVOKED_get_ext(revoked, at) : nullptr;
}

int ReasonOf(const X509_REVOKED* revoked) {
    bool present = false;
    const X509_EXTENSION* extension = Only(revoked, NID_crl_reason, present);
    if (!present) return 0;
    if (extension == nullptr) return -1;
    const auto reason = Decoded<ASN1_ENUMERATED_free>(d2i_ASN1_ENUMERATED, extension);
    const long code = reason != nullptr ? ASN1_ENUMERATED_get(reason.get()) : -1;
    return code >= 0 && code <= 255 ? static_cast<int>(code) + 1 : -1;
}

/// Whether the entry names the issuer as its certificates' one; nothing when it names none.
std::optional<bool> Names(const X509_REVOKED* revoked, const std::string& issuer) {
    bool present = false;
    const X509_EXTENSION* extension = Only(revoked, NID_certificate_issuer, present);
    if (!present) return std::nullopt;
    if (extension == nullptr) return true;
    const auto names = Decoded<GENERAL_NAMES_free>(d2i_GENERAL_NAMES, extension);
    if (names == nullptr) return true;
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        std::string text;
        if (name->type == GEN_DIRNAME) X509_NAME_to_utf8(name->d.directoryName, text);
        if (!text.empty() && text == issuer) return true;
    }
    return false;
}

std::vector<Entry> EntriesOf(X509_CRL* crl, const std::string& issuer) {
    std::vector<Entry> entries;
    const STACK_OF(X509_REVOKED)* list = X509_CRL_get_REVOKED(crl);
    bool about_issuer = true;
    for (int i = 0; i < sk_X509_REVOKED_num(list); ++i) {
        const X509_REVOKED* revoked = sk_X509_REVOKED_value(list, i);
        about_issuer = Names(revoked, issuer).value_or(about_issuer);
        const ASN1_TIME* date = X509_REVOKED_get0_revocationDate(revoked);
        entries.push_back({SerialOf(revoked), ASN1_TIME_to_time_t(date), ReasonOf(revoked), about_issuer});
    }
    return entries;
}

/// Whether writing the CRL anew gives the bytes that were read: those of a CRL in DER. Names are kept as they were read.
bool IsDer(const X509_CRL* read, std::string_view whole) {
    constexpr unsigned char kSequence = 0x30;
    const unsigned char* issuer = nullptr;
    if (X509_NAME_get0_der(X509_CRL_get_issuer(read), &issuer, nullptr) != 1 || issuer[0] != kSequence) return false;
    const libcrypto::CrlPtr copy(X509_CRL_dup(read));
    if (copy == nullptr) return false;
    libcrypto::Encode(copy.get(), i2d_re_X509_CRL_tbs);
    return libcrypto::Encode(copy.get(), i2d_X509_CRL) == whole;
}

std::string CompareParts(void* ours, X509_CRL* theirs, std::string_view whole, const CRLInfo& info) {
    std::string raw;
    CertEngine_RawCRL(ours, raw);
    if (raw != whole) return "the raw CRL is not what was received";
    std::string issuer;
    X509_NAME_to_utf8(X509_CRL_get_issuer(theirs), issuer);
    if (info.issuer != issuer) return "issuer: " + info.issuer + " for " + issuer;
    if (info.thisUpdate != ASN1_TIME_to_time_t(X509_CRL_get0_lastUpdate(theirs))) return "this update differs";
    if (info.nextUpdate != ASN1_TIME_to_time_t(X509_CRL_get0_nextUpdate(theirs))) return "next update differs";
    const ASN1_BIT_STRING* bits = nullptr;
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(theirs, &bits, &algorithm);
    std::string signature;
    CertEngine_RawCRLSignature(ours, signature);
    const std::string_view expected(reinterpret_cast<const char*>(ASN1_STRING_get0_data(bits)),
                                    static_cast<std::size_t>(ASN1_STRING_length(bits)));
    if (signature != expected) return "signature differs";
    std::string tbs;
    CertEngine_RawCRLInfo(ours, tbs);
    const std::string_view::size_type at = whole.find(tbs);
    if (at > 6 || tbs.size() + signature.size() >= whole.size()) return "the to-be-signed part is not in its place";
    return {};
}

std::string CompareEntries(void* ours, const std::vector<Entry>& expected, const std::string& issuer) {
    RevokedCertInfoList records;
    CertEngine_CRLRevokedCerts(ours, records);
    if (records.size() != expected.size()) return "number of entries differs";
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (records[i].serialNumber != expected[i].serial) return "serial number differs: " + records[i].serialNumber;
        if (records[i].revocationDate != expected[i].date) return "revocation date differs";
    }
    const std::size_t looked_up = std::min<std::size_t>(expected.size(), kLookedUp);
    for (std::size_t i = 0; i < looked_up; ++i) {
        const std::string& serial = expected[i].serial;
        const auto first = std::find_if(expected.begin(), expected.end(), [&serial](const Entry& entry) {
            return entry.serial == serial && entry.about_issuer;
        });
        RevokedEntry found;
        const bool is_found = CertEngine_CRLFindRevoked(ours, serial, issuer, found);
        if (is_found != (first != expected.end())) return "look-up of " + serial;
        if (!is_found) continue;
        if (found.serialNumber != serial || found.revocationDate != first->date || found.reason != first->reason) {
            return "look-up of " + serial + " finds another entry than the first";
        }
    }
    return {};
}

}  // namespace

std::string CrlProblem(std::string_view bytes) {
    ERR_clear_error();
    const Ours ours(CertEngine_CreateCRLHandle(bytes.data(), static_cast<unsigned>(bytes.size())));
    CRLInfo info;
    CrlScope scope;
    if (ours != nullptr) {
        CertEngine_HandleToCRLInfo(ours.get(), info);
        CertEngine_CRLScope(ours.get(), scope);
    }
    if (ERR_peek_error() != 0) return "errors are left behind";
    std::string_view rest;
    const auto theirs = libcrypto::Decode<X509_CRL_free>(d2i_X509_CRL, bytes, &rest);
    ERR_clear_error();
    if (theirs == nullptr) return ours == nullptr ? "" : "read, but libcrypto refuses it";
    const std::string_view whole = bytes.substr(0, bytes.size() - rest.size());
    if (ours == nullptr) {
        return bytes.size() < kFieldLimit && IsDer(theirs.get(), whole) ? "refused, but it is a CRL in DER" : "";
    }
    std::string problem = CompareParts(ours.get(), theirs.get(), whole, info);
    if (problem.empty()) problem = CompareEntries(ours.get(), EntriesOf(theirs.get(), info.issuer), info.issuer);
    ERR_clear_error();
    return problem;
}

}  // namespace fuzz
