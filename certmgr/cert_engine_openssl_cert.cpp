// Certificate handles: description, raw parts, exports; private keys.
#include <openssl/pem.h>
#include <openssl/pkcs7.h>

#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"

using cert_engine::BytesOf;
using cert_engine::ErrorMark;
using cert_engine::ExportThroughStream;
using cert_engine::kExportFailed;
using libcrypto::Pkcs7Ptr;
using libcrypto::Pkcs8Ptr;

namespace {

X509* Certificate(void* handle) {
    return static_cast<X509*>(handle);
}

const X509_ALGOR* KeyAlgorithm(const X509* cert) {
    X509_ALGOR* algorithm = nullptr;
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &algorithm, X509_get_X509_PUBKEY(cert));
    return algorithm;
}

const X509_ALGOR* OuterAlgorithm(const X509* cert) {
    const X509_ALGOR* algorithm = nullptr;
    X509_get0_signature(nullptr, &algorithm, cert);
    return algorithm;
}

// The SubjectPublicKeyInfo. i2d_X509_PUBKEY writes the same: it measures every part several times.
std::string PublicKeyDer(const X509* cert) {
    const X509_ALGOR* const algorithm = KeyAlgorithm(cert);
    const ASN1_BIT_STRING* const key = X509_get0_pubkey_bitstr(cert);
    const int algorithm_length = i2d_X509_ALGOR(algorithm, nullptr);
    const int key_length = i2d_ASN1_BIT_STRING(key, nullptr);
    if (algorithm_length <= 0 || key_length <= 0) return {};
    const int length = algorithm_length + key_length;
    std::string der(static_cast<std::size_t>(ASN1_object_size(1, length, V_ASN1_SEQUENCE)), '\0');
    unsigned char* out = libcrypto::Data(der);
    ASN1_put_object(&out, 1, length, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    i2d_X509_ALGOR(algorithm, &out);
    i2d_ASN1_BIT_STRING(key, &out);
    return der;
}

}  // namespace

void* CertEngine_CreateCertHandle(const void* der, unsigned length) {
    if (der == nullptr) return nullptr;
    const ErrorMark mark;
    return cert_engine::CertParser::FromDer({static_cast<const char*>(der), length}).release();
}

void* CertEngine_DuplicateCertHandle(void* cert) {
    if (cert == nullptr) return nullptr;
    const ErrorMark mark;
    return X509_dup(Certificate(cert));
}

void CertEngine_CloseCertHandle(void* cert) {
    X509_free(Certificate(cert));
}

bool CertEngine_GetCertInfo(void* cert, CertInfo& info) {
    const ErrorMark mark;
    X509* const x = Certificate(cert);
    ASN1_INTEGER_to_std_string(X509_get_serialNumber(x), info.serialNumber);
    X509_NAME_to_utf8(X509_get_subject_name(x), info.subject);
    X509_NAME_to_utf8(X509_get_issuer_name(x), info.issuer);
    info.validFrom = ASN1_TIME_to_time_t(X509_get0_notBefore(x));
    info.validTo = ASN1_TIME_to_time_t(X509_get0_notAfter(x));
    info.keyAlg = X509_ALGOR_to_pki_alg_t(KeyAlgorithm(x));
    info.signAlg = cert_engine::SignatureAlgorithm(OuterAlgorithm(x));
    info.isCA = cert_engine::IsCa(x);
    info.version = static_cast<std::uint32_t>(X509_get_version(x) + 1);
    const std::string spki = PublicKeyDer(x);
    info.keyBits = CertEngine_PubKeyBitLength(info.keyAlg, spki.data(), spki.size());
    return true;
}

void CertEngine_CertGetKeyAlgOid(void* cert, std::string* appended) {
    X509_ALGOR_to_std_string_(KeyAlgorithm(Certificate(cert)), appended);
}

bool CertEngine_CertGetSignAlgOid(void* cert, std::string* appended) {
    return X509_ALGOR_to_std_string_(OuterAlgorithm(Certificate(cert)), appended);
}

bool cert_engine::SignedAlgorithmAgrees(void* cert) {
    const X509* const x = Certificate(cert);
    return X509_ALGOR_cmp(X509_get0_tbs_sigalg(x), OuterAlgorithm(x)) == 0;
}

bool CertEngine_RawCert(void* cert, std::string& der) {
    const ErrorMark mark;
    return cert_engine::EncodeTo<const X509>(Certificate(cert), i2d_X509, der);
}

bool CertEngine_RawCertInfo(void* cert, std::string& der) {
    const ErrorMark mark;
    const ASN1_BIT_STRING* signature = nullptr;
    const X509_ALGOR* algorithm = nullptr;
    X509_get0_signature(&signature, &algorithm, Certificate(cert));
    const std::string whole = cert_engine::Encode<const X509>(Certificate(cert), i2d_X509);
    return cert_engine::CutToBeSigned(whole, algorithm, signature, der);
}

bool CertEngine_RawCertSignature(void* cert, std::string& signature) {
    const ASN1_BIT_STRING* bits = nullptr;
    X509_get0_signature(&bits, nullptr, Certificate(cert));
    signature = BytesOf(bits);
    return true;
}

bool CertEngine_RawSubject(void* cert, std::string& der) {
    const std::string_view name = cert_engine::NameDer(X509_get_subject_name(Certificate(cert)));
    if (name.empty()) return false;
    der = name;
    return true;
}

bool CertEngine_RawPubKey(void* cert, std::string& spki, std::string& sha1) {
    const ErrorMark mark;
    std::string key = PublicKeyDer(Certificate(cert));
    if (key.empty() || !cert_engine::Digest(cert_engine::Sha1(), key, sha1)) return false;
    spki = std::move(key);
    return true;
}

int CertEngine_ExportCertToDER(void* cert, std::string& out) {
    return ExportThroughStream(out, [cert](BIO* stream) { return i2d_X509_bio(stream, Certificate(cert)); });
}

int CertEngine_ExportCertToPEM(void* cert, std::string& out) {
    return ExportThroughStream(out, [cert](BIO* stream) { return PEM_write_bio_X509(stream, Certificate(cert)); });
}

int CertEngine_ExportCertsToPKCS7(const std::vector<void*>& certs, std::string& out) {
    const ErrorMark mark;
    const Pkcs7Ptr bundle(PKCS7_new());
    if (bundle == nullptr || PKCS7_set_type(bundle.get(), NID_pkcs7_signed) != 1 ||
        PKCS7_content_new(bundle.get(), NID_pkcs7_data) != 1) {
        return kExportFailed;
    }
    for (void* cert : certs) {
        if (cert != nullptr && PKCS7_add_certificate(bundle.get(), Certificate(cert)) != 1) return kExportFailed;
    }
    return ExportThroughStream(out, [&bundle](BIO* stream) { return i2d_PKCS7_bio(stream, bundle.get()); });
}

void CertEngine_ClosePrivKeyHandle(void* key) {
    EVP_PKEY_free(static_cast<EVP_PKEY*>(key));
}

bool CertEngine_PrivKeyToPKCS8(void* key, std::string& der) {
    const ErrorMark mark;
    const Pkcs8Ptr info(EVP_PKEY2PKCS8(static_cast<const EVP_PKEY*>(key)));
    return info != nullptr &&
           cert_engine::EncodeTo<const PKCS8_PRIV_KEY_INFO>(info.get(), i2d_PKCS8_PRIV_KEY_INFO, der);
}
