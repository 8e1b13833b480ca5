// CRL handles: description, raw parts, entries, scope.
#include "certmgr/cert_engine_openssl_crl.h"

#include <algorithm>
#include <array>
#include <utility>

#include "certmgr/cert_engine.h"

using cert_engine::BytesOf;
using cert_engine::Crl;
using cert_engine::CrlOf;
using cert_engine::ErrorMark;

namespace {

using IntegerPtr = cert_engine::Owner<ASN1_INTEGER, ASN1_INTEGER_free>;
using PointPtr = cert_engine::Owner<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free>;

// The decoded value of an extension; null when the CRL has none, several or a bad one. `present` tells the first from
// the others.
template <typename Pointer>
Pointer Extension(const Crl& crl, int nid, bool* present = nullptr) {
    const ErrorMark mark;
    constexpr int kAbsent = -1;
    int critical = 0;
    Pointer value(static_cast<typename Pointer::pointer>(X509V3_get_d2i(crl.extensions(), nid, &critical, nullptr)));
    if (present != nullptr) *present = critical != kAbsent;
    return value;
}

std::string NameOf(const X509_EXTENSION* extension) {
    // The extension is only read: the parameter's type is libcrypto's.
    ASN1_OBJECT* const object = X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension));
    std::string name;
    ASN1_OBJECT_to_std_string(object, name, kOidName);
    return name.empty() ? "unknown extension" : name;
}

std::string NameOf(int nid) {
    std::string name;
    ASN1_OBJECT_to_std_string(OBJ_nid2obj(nid), name, kOidName);
    return name;
}

void DescribePoint(const ISSUING_DIST_POINT& point, CrlScope& scope) {
    constexpr int kFullName = 0;
    scope.onlyContainsUserCerts = point.onlyuser > 0;
    scope.onlyContainsCACerts = point.onlyCA > 0;
    scope.onlyContainsAttributeCerts = point.onlyattr > 0;
    scope.indirectCRL = point.indirectCRL > 0;
    scope.onlySomeReasons = point.onlysomereasons != nullptr;
    scope.namesPoint = point.distpoint != nullptr;
    if (!scope.namesPoint || point.distpoint->type != kFullName) return;
    const GENERAL_NAMES* const names = point.distpoint->name.fullname;
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names, i);
        if (name->type == GEN_URI) {
            scope.uris.emplace_back(BytesOf(name->d.uniformResourceIdentifier));
        } else {
            scope.otherNames.push_back(cert_engine::Encode(name, i2d_GENERAL_NAME));
        }
    }
}

// Critical extensions of a CRL that are evaluated or only inform. An authority key identifier points at the key that the
// signature is verified with anyway.
constexpr std::array kKnownCritical = {NID_issuing_distribution_point, NID_delta_crl, NID_crl_number,
                                       NID_authority_key_identifier};

bool IsKnown(const X509_EXTENSION* extension) {
    const int nid = OBJ_obj2nid(X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(extension)));
    return std::find(kKnownCritical.begin(), kKnownCritical.end(), nid) != kKnownCritical.end();
}

std::string FirstUnknownCritical(const Crl& crl) {
    for (int i = 0; i < X509v3_get_ext_count(crl.extensions()); ++i) {
        const X509_EXTENSION* const extension = X509v3_get_ext(crl.extensions(), i);
        if (X509_EXTENSION_get_critical(extension) != 0 && !IsKnown(extension)) return NameOf(extension);
    }
    return crl.unknownCriticalOfEntries();
}

}  // namespace

void* CertEngine_CreateCRLHandle(const void* der, unsigned length) {
    if (der == nullptr || length == 0 || length > kMaxCrlBytes) return nullptr;
    const ErrorMark mark;
    // What follows the CRL is not kept.
    const std::string_view crl = cert_engine::FirstElement({static_cast<const char*>(der), length});
    return cert_engine::CreateCrlHandle(std::make_shared<const std::string>(crl));
}

void CertEngine_CloseCRLHandle(void* crl) {
    delete static_cast<const Crl*>(crl);
}

bool CertEngine_RawCRL(void* crl, std::string& der) {
    der = CrlOf(crl).whole();
    return true;
}

bool CertEngine_RawCRLInfo(void* crl, std::string& der) {
    der = CrlOf(crl).toBeSigned();
    return true;
}

bool CertEngine_RawCRLSignature(void* crl, std::string& signature) {
    signature = BytesOf(CrlOf(crl).signature());
    return true;
}

bool CertEngine_HandleToCRLInfo(void* handle, CRLInfo& info) {
    const ErrorMark mark;
    const Crl& crl = CrlOf(handle);
    X509_NAME_to_utf8(crl.issuer(), info.issuer);
    info.thisUpdate = ASN1_TIME_to_time_t(crl.thisUpdate());
    info.nextUpdate = ASN1_TIME_to_time_t(crl.nextUpdate());
    info.signAlg = cert_engine::SignatureAlgorithm(crl.algorithm());
    const auto number = Extension<IntegerPtr>(crl, NID_crl_number);
    ASN1_INTEGER_to_std_string(number.get(), info.crlNumber);
    // Records of delta CRLs carry the CRL number in both members; readers rely on it.
    if (Extension<IntegerPtr>(crl, NID_delta_crl) != nullptr) {
        ASN1_INTEGER_to_std_string(number.get(), info.deltaCrlIndicator);
    }
    return true;
}

bool CertEngine_CRLRevokedCerts(void* crl, RevokedCertInfoList& entries) {
    const ErrorMark mark;
    CrlOf(crl).AppendRecords(entries);
    return true;
}

bool CertEngine_CRLFindRevoked(void* crl, const std::string& serial, const std::string& issuer, RevokedEntry& entry) {
    const ErrorMark mark;
    return CrlOf(crl).FindRevoked(serial, issuer, entry);
}

void CertEngine_CRLScope(void* handle, CrlScope& scope) {
    const ErrorMark mark;
    const Crl& crl = CrlOf(handle);
    scope = {};
    const auto point = Extension<PointPtr>(crl, NID_issuing_distribution_point, &scope.hasIssuingPoint);
    Extension<IntegerPtr>(crl, NID_delta_crl, &scope.isDelta);
    if (point != nullptr) {
        DescribePoint(*point, scope);
    } else if (scope.hasIssuingPoint) {
        scope.firstUnreadable = NameOf(NID_issuing_distribution_point);
    }
    scope.firstUnknownCritical = FirstUnknownCritical(crl);
}

namespace cert_engine {

std::string_view FirstElement(std::string_view bytes) {
    const ErrorMark mark;
    const unsigned char* const begin = Data(bytes);
    const unsigned char* content = begin;
    long size = 0;
    int tag = 0;
    int tag_class = 0;
    const int form = ASN1_get_object(&content, &size, &tag, &tag_class, static_cast<long>(bytes.size()));
    constexpr int kFailed = 0x80;
    constexpr int kIndefinite = 1;
    if ((form & (kFailed | kIndefinite)) != 0) return bytes;
    return bytes.substr(0, static_cast<std::size_t>(content - begin + size));
}

void* CreateCrlHandle(SharedBytes bytes) {
    const ErrorMark mark;
    return const_cast<Crl*>(Crl::Read(std::move(bytes)).release());
}

SharedBytes CrlBytes(void* handle) {
    const Crl& crl = CrlOf(handle);
    if (crl.whole().size() == crl.bytes()->size()) return crl.bytes();
    return std::make_shared<const std::string>(crl.whole());
}

}  // namespace cert_engine
