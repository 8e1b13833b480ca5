// CRL handles: description, raw parts, revoked list.
#include <openssl/x509v3.h>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"

using cert_engine::BytesOf;
using cert_engine::ErrorMark;

namespace {

using IntegerPtr = cert_engine::Owner<ASN1_INTEGER, ASN1_INTEGER_free>;
using NamesPtr = cert_engine::Owner<GENERAL_NAMES, GENERAL_NAMES_free>;
using EnumPtr = cert_engine::Owner<ASN1_ENUMERATED, ASN1_ENUMERATED_free>;
using PointPtr = cert_engine::Owner<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free>;

bool HoldsName(const GENERAL_NAMES* names, const std::string& printable) {
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, i);
        std::string text;
        if (name->type == GEN_DIRNAME) X509_NAME_to_utf8(name->d.directoryName, text);
        if (!text.empty() && text == printable) return true;
    }
    return false;
}

X509_CRL* Crl(void* handle) {
    return static_cast<X509_CRL*>(handle);
}

// The value of an extension that holds one number; null when the CRL has none, several or a bad one.
IntegerPtr NumberExtension(const X509_CRL* crl, int nid) {
    return IntegerPtr(static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl, nid, nullptr, nullptr)));
}

}  // namespace

void* CertEngine_CreateCRLHandle(const void* der, unsigned length) {
    if (der == nullptr) return nullptr;
    const ErrorMark mark;
    return cert_engine::CrlParser::FromDer({static_cast<const char*>(der), length}).release();
}

void CertEngine_CloseCRLHandle(void* crl) {
    X509_CRL_free(Crl(crl));
}

bool CertEngine_RawCRL(void* crl, std::string& der) {
    const ErrorMark mark;
    return cert_engine::EncodeTo<const X509_CRL>(Crl(crl), i2d_X509_CRL, der);
}

bool CertEngine_RawCRLInfo(void* crl, std::string& der) {
    const ErrorMark mark;
    const ASN1_BIT_STRING* signature = nullptr;
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(Crl(crl), &signature, &algorithm);
    const std::string whole = cert_engine::Encode<const X509_CRL>(Crl(crl), i2d_X509_CRL);
    return cert_engine::CutToBeSigned(whole, algorithm, signature, der);
}

bool CertEngine_RawCRLSignature(void* crl, std::string& signature) {
    const ASN1_BIT_STRING* bits = nullptr;
    X509_CRL_get0_signature(Crl(crl), &bits, nullptr);
    signature = BytesOf(bits);
    return true;
}

bool CertEngine_HandleToCRLInfo(void* crl, CRLInfo& info) {
    const ErrorMark mark;
    const X509_CRL* const x = Crl(crl);
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(x, nullptr, &algorithm);
    X509_NAME_to_utf8(X509_CRL_get_issuer(x), info.issuer);
    info.thisUpdate = ASN1_TIME_to_time_t(X509_CRL_get0_lastUpdate(x));
    info.nextUpdate = ASN1_TIME_to_time_t(X509_CRL_get0_nextUpdate(x));
    info.signAlg = cert_engine::SignatureAlgorithm(algorithm);
    const IntegerPtr number = NumberExtension(x, NID_crl_number);
    ASN1_INTEGER_to_std_string(number.get(), info.crlNumber);
    // Records of delta CRLs carry the CRL number in both members; readers rely on it.
    if (NumberExtension(x, NID_delta_crl) != nullptr) {
        ASN1_INTEGER_to_std_string(number.get(), info.deltaCrlIndicator);
    }
    return true;
}

bool CertEngine_CRLRevokedCerts(void* crl, RevokedCertInfoList& entries) {
    const STACK_OF(X509_REVOKED)* const revoked = X509_CRL_get_REVOKED(Crl(crl));
    const int count = revoked != nullptr ? sk_X509_REVOKED_num(revoked) : 0;
    entries.reserve(entries.size() + static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const X509_REVOKED* const entry = sk_X509_REVOKED_value(revoked, i);
        RevokedCertInfo& info = entries.emplace_back();
        // The number is only read: the parameter's type is the interface's.
        ASN1_INTEGER_to_std_string(const_cast<ASN1_INTEGER*>(X509_REVOKED_get0_serialNumber(entry)), info.serialNumber);
        info.revocationDate = ASN1_TIME_to_time_t(X509_REVOKED_get0_revocationDate(entry));
    }
    return true;
}

bool CertEngine_CRLFindRevoked(void* crl, const std::string& serial, const std::string& issuer, RevokedEntry& entry) {
    const ErrorMark mark;
    const STACK_OF(X509_REVOKED)* const revoked = X509_CRL_get_REVOKED(Crl(crl));
    const int count = revoked != nullptr ? sk_X509_REVOKED_num(revoked) : 0;
    bool ours = true;
    for (int i = 0; i < count; ++i) {
        const X509_REVOKED* const found = sk_X509_REVOKED_value(revoked, i);
        const NamesPtr names(
            static_cast<GENERAL_NAMES*>(X509_REVOKED_get_ext_d2i(found, NID_certificate_issuer, nullptr, nullptr)));
        if (names != nullptr) ours = HoldsName(names.get(), issuer);
        std::string text;
        ASN1_INTEGER_to_std_string(const_cast<ASN1_INTEGER*>(X509_REVOKED_get0_serialNumber(found)), text);
        if (!ours || text != serial) continue;
        int critical = 0;
        const EnumPtr reason(
            static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(found, NID_crl_reason, &critical, nullptr)));
        entry.serialNumber = text;
        entry.revocationDate = ASN1_TIME_to_time_t(X509_REVOKED_get0_revocationDate(found));
        entry.reason = reason != nullptr ? static_cast<int>(ASN1_ENUMERATED_get(reason.get())) + 1
                       : critical == -1  ? 0
                                         : -1;
        return true;
    }
    return false;
}

void CertEngine_CRLScope(void* crl, CrlScope& scope) {
    const ErrorMark mark;
    scope.isDelta = X509_CRL_get_ext_by_NID(Crl(crl), NID_delta_crl, -1) >= 0;
    int critical = 0;
    const PointPtr point(static_cast<ISSUING_DIST_POINT*>(
        X509_CRL_get_ext_d2i(Crl(crl), NID_issuing_distribution_point, &critical, nullptr)));
    scope.hasIssuingPoint = critical != -1;
    if (point == nullptr) {
        if (scope.hasIssuingPoint) scope.firstUnreadable = "issuingDistributionPoint";
        return;
    }
    scope.onlyContainsUserCerts = point->onlyuser > 0;
    scope.onlyContainsCACerts = point->onlyCA > 0;
    scope.onlyContainsAttributeCerts = point->onlyattr > 0;
    scope.indirectCRL = point->indirectCRL > 0;
    scope.onlySomeReasons = point->onlysomereasons != nullptr;
    scope.namesPoint = point->distpoint != nullptr;
    if (!scope.namesPoint || point->distpoint->type != 0) return;
    const GENERAL_NAMES* const names = point->distpoint->name.fullname;
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, i);
        scope.names.push_back(cert_engine::Encode(name, i2d_GENERAL_NAME));
        if (name->type == GEN_URI) scope.uris.emplace_back(BytesOf(name->d.uniformResourceIdentifier));
    }
}
