#include "certmgr/x509cert.h"

#include <initializer_list>
#include <string_view>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"
#include "certmgr/log.h"
#include "certmgr/verify_signature.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"
#include "platform/params.h"

namespace CM {

namespace {

void LogUnusable(const X509Cert& cert, EventCode code, std::initializer_list<std::string_view> details) {
    if (!TLogMessage::IsEnabled(code)) return;
    TLogMessage message(code);
    for (const std::string_view detail : details) message.Attr(detail);
    std::string rendering;
    ttt_X509CertToLogString(&cert, rendering);
    message.Attr(rendering).Send();
}

std::string KeyAlgOid(const X509Cert& cert) {
    std::string oid;
    if (cert.certHandle != nullptr) CertEngine_CertGetKeyAlgOid(cert.certHandle, &oid);
    return oid;
}

std::string SignAlgOid(const X509Cert& cert) {
    std::string oid;
    if (cert.certHandle != nullptr) CertEngine_CertGetSignAlgOid(cert.certHandle, &oid);
    return oid;
}

/// A signature algorithm names both a key algorithm and a hash.
bool IsSignatureAlg(pki_alg_t alg) {
    return (alg & PKI_NO_HASH_MASK) != 0 && (alg & ~PKI_KEY_MASK) != 0;
}

/// Whether the certificate's unknown critical extension, if any, is none or tolerated.
bool CriticalExtensionsPass(const X509Cert& cert) {
    const std::string& unknown = cert.facts().firstUnknownCritical;
    if (unknown.empty()) return true;
    LPARAMS::NamedSwitch permission;
    {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        permission = LPARAMS::server.cert.allow_unknown_critical_extensions;
    }
    if (!permission.on) {
        LogUnusable(cert, kMsgUnknownCriticalExtension, {unknown});
        return false;
    }
    LogUnusable(cert, kMsgUnknownCriticalExtensionTolerated, {unknown, permission.name});
    return true;
}

CertImportStatus CheckTimes(const X509Cert& cert) {
    const bool no_start = cert.info.validFrom == CERT_TIME_UNKNOWN;
    const bool no_end = cert.info.validTo == CERT_TIME_UNKNOWN;
    if (no_start && no_end) {
        LogUnusable(cert, kMsgInvalidTime, {});
        return ImportCertErrorInvalidTime;
    }
    if (no_start) {
        LogUnusable(cert, kMsgInvalidValidFrom, {});
        return ImportCertErrorInvalidValidFrom;
    }
    if (no_end) {
        LogUnusable(cert, kMsgInvalidValidTo, {});
        return ImportCertErrorInvalidValidTo;
    }
    return ImportCertOk;
}

bool NameMatches(const std::string& name, const std::string& pattern, bool exact) {
    if (pattern.empty()) return true;
    return exact ? name == pattern : printable_dn_contain_attrs(name, pattern);
}

bool TextMatches(const std::string& text, const std::string& pattern) {
    return pattern.empty() || text == pattern;
}

/// What the key operation works on: the digest of `data`, in a DigestInfo for RSA, or `data` itself where the message
/// is signed without a digest. Null when it cannot be made; else `digest` may hold the result.
const std::string* SignatureInput(PKCS11::TokenSession& session, pki_alg_t hash_alg, bool rsa, const std::string& data,
                                  std::string& digest) {
    if ((hash_alg & PKI_HASH_MASK) == PKI_HASH_NONE) return &data;
    if (!session.Digest(hash_alg, data, digest)) return nullptr;
    if (rsa && !asn_add_alg_to_digest(hash_alg, digest)) return nullptr;
    return &digest;
}

SignatureCheck VerifyOnToken(PKCS11::TokenSession& session, pki_alg_t alg, const std::string& spki,
                             const std::string& data, const std::string& signature) {
    std::string digest;
    const bool rsa = (alg & PKI_NO_HASH_MASK) == PKI_KEY_RSA;
    const std::string* input = SignatureInput(session, alg & ~PKI_KEY_MASK, rsa, data, digest);
    if (input == nullptr) return kSignatureDigestError;
    return session.Verify(alg, spki, *input, signature) ? kSignatureRight : kSignatureWrong;
}

/// Subject of an object that holds no certificate; its serial number is the identifier.
void DescribeWithoutCertificate(CertInfo& info, const char* what) {
    info.subject = what;
    info.serialNumber = "#" + TO_HEX_STD_STRING(info.id);
}

}  // namespace

X509Cert::X509Cert(void* cert_handle, void* priv_key_handle) : certHandle(cert_handle), privKeyHandle(priv_key_handle) {
    CertEngine_RawCert(certHandle, rawCert);
    init();
}

X509Cert::X509Cert(const PBEPrivKeyHandle& handle) : certHandle(handle.certHandle), pbeKey(handle.key) {
    CertEngine_RawCert(certHandle, rawCert);
    init();
}

X509Cert::X509Cert(const PKCS11::TokenInfo& on_token, const PKCS11::CertObject& object)
    : token(on_token), rawCert(object.value) {
    info.id = object.id;
    if (object.category == PKCS11::kKeyPairCategory) {
        DescribeWithoutCertificate(info, "Key Pair without Certificate");
        info.keyAlg = object.keyAlg;
        return;
    }
    if (rawCert.size() <= kMaxCertificateBytes) {
        certHandle = CertEngine_CreateCertHandle(rawCert.data(), static_cast<unsigned>(rawCert.size()));
    }
    if (certHandle == nullptr) {
        DescribeWithoutCertificate(info, "Certificate object of unknown format");
        return;
    }
    init();
    privKeyNotAfter = object.keyNotAfter;
}

X509Cert::~X509Cert() {
    CertEngine_CloseCertHandle(certHandle);
    if (privKeyHandle != nullptr) CertEngine_ClosePrivKeyHandle(privKeyHandle);
    CertEngine_ClosePBEPrivKey(pbeKey);
}

void X509Cert::init() {
    CertEngine_GetCertInfo(certHandle, info);
    CertEngine_RawPubKey(certHandle, rawPubKey, pubKeyHash);
    CertEngine_RawSubject(certHandle, rawSubject);
    CertEngine_GetCertFacts(certHandle, facts_);
    selfSigned = info.subject == info.issuer;
}

void X509Cert::SetKeyPairPublicKey(pki_alg_t key_alg, std::string spki) {
    rawPubKey = std::move(spki);
    info.keyBits = CertEngine_PubKeyBitLength(key_alg, rawPubKey.data(), rawPubKey.size());
}

const CertNames& X509Cert::names() const {
    std::call_once(names_read_, [this] {
        if (certHandle != nullptr) CertEngine_GetCertNames(certHandle, names_);
    });
    return names_;
}

const CertFingerprints& X509Cert::fingerprints() const {
    std::call_once(fingerprints_read_, [this] {
        if (certHandle != nullptr) {
            std::string der;  // without what may follow it in `rawCert`
            CertEngine_RawCert(certHandle, der);
            fingerprints_ = CertEngine_CertFingerprints(der);
        } else if (!rawPubKey.empty()) {
            CertEngine_FingerprintSHA1(rawPubKey, fingerprints_.sha1, 0);
        }
    });
    return fingerprints_;
}

const CertExtentions& X509Cert::ext() const {
    std::call_once(ext_rendered_, [this] {
        auto rendered = std::make_unique<CertExtentions>();
        if (certHandle != nullptr) {
            CertEngine_GetCertExtentions(certHandle, *rendered);
        } else {
            static_cast<CertFingerprints&>(*rendered) = fingerprints();
        }
        ext_ = std::move(rendered);
    });
    return *ext_;
}

void X509Cert::AddRef() const {
    const vpnfc::ObjectLock lock(*this);
    ++refCount;
}

void X509Cert::Release() const {
    bool last = false;
    {
        const vpnfc::ObjectLock lock(*this);
        last = --refCount == 0;
    }
    if (last) delete this;
}

CertImportStatus X509Cert::CanBeUsed() const {
    if (info.keyAlg == 0) {
        LogUnusable(*this, kMsgUnknownKeyAlg, {KeyAlgOid(*this)});
        return ImportCertErrorUnknownKeyAlg;
    }
    if (!IsSignatureAlg(info.signAlg)) {
        LogUnusable(*this, kMsgUnknownSignAlg, {SignAlgOid(*this)});
        return ImportCertErrorUnknownSignAlg;
    }
    if (!CriticalExtensionsPass(*this)) return ImportCertErrorUnknownCriticalExtension;
    if (const CertImportStatus times = CheckTimes(*this); times != ImportCertOk) return times;
    if (info.subject.empty()) return ImportCertErrorEmptySubject;
    if (info.issuer.empty()) return ImportCertErrorEmptyIssuer;
    return ImportCertOk;
}

bool X509Cert::MatchToPattern(const LPCFG::cert_t& pattern, pki_alg_t alg) const {
    const pki_alg_t wanted = pattern.keyAlg != 0 ? pattern.keyAlg : alg;
    if (wanted != 0 && wanted != info.keyAlg) return false;
    return TextMatches(info.serialNumber, pattern.serialNumber) &&
           NameMatches(info.issuer, pattern.issuer, pattern.issuerExact) &&
           NameMatches(info.subject, pattern.subject, pattern.subjectExact) &&
           (pattern.md5.empty() || fingerprints().md5 == pattern.md5) &&
           (pattern.sha1.empty() || fingerprints().sha1 == pattern.sha1);
}

ValidityCheck X509Cert::PrivKeyCheckValidFromTo() const {
    return PrivKeyCheckValidFromTo(CertTimeNow());
}

ValidityCheck X509Cert::PrivKeyCheckValidFromTo(cert_time64_t moment) const {
    const ValidityCheck of_certificate = CheckValidity(info, moment);
    return of_certificate == kValid && privKeyNotAfter < moment ? kPrivateKeyExpired : of_certificate;
}

SignatureCheck X509Cert::CheckSignature(const X509Cert* issuer, bool* definite_out) const {
    bool unused = false;
    bool& definite = definite_out != nullptr ? *definite_out : unused;
    definite = true;
    if (certHandle == nullptr || !cert_engine::SignedAlgorithmAgrees(certHandle)) return kSignatureWrong;
    std::string signed_part(cert_engine::ToBeSigned(rawCert));
    std::string signature;
    if ((signed_part.empty() && !CertEngine_RawCertInfo(certHandle, signed_part)) ||
        !CertEngine_RawCertSignature(certHandle, signature)) {
        return kSignatureWrong;
    }
    return VerifySignature(info.signAlg, issuer->rawPubKey, signed_part, signature, definite);
}

int X509Cert_Sign(PKCS11::TokenSession& session, const std::string& key_id, pki_alg_t key_alg, pki_alg_t alg,
                  const std::string& data, std::string& signature) {
    std::string digest;
    const std::string* input = SignatureInput(session, alg, key_alg == PKI_KEY_RSA, data, digest);
    if (input == nullptr) return 0;
    return session.Sign((alg & PKI_ALG_MASK) | key_alg, key_id, *input, signature) ? 2 : 1;
}

namespace {

/// Logs device trouble as a session would, and tells whether there was any.
class TroubleWatch : public PKCS11::Logger {
  public:
    void OnDeviceError(const PKCS11::TokenInfo& token, const char* function, const char* result) override {
        seen_ = true;
        TLogMessage(kMsgTokenError).Attr(asn_text_to_line(token.label) + ": " + function + " failed: " + result).Send();
    }
    bool seen() const { return seen_; }

  private:
    bool seen_ = false;
};

/// On the first token that offers the algorithm and opens a session.
SignatureCheck VerifyOnFirstToken(pki_alg_t alg, const std::string& spki, const std::string& data,
                                  const std::string& signature, PKCS11::Logger* logger) {
    const auto tokens = PKCS11::Manager::Instance().EnumTokensShared(alg);
    if (tokens->empty()) return kSignatureNoToken;
    for (const PKCS11::TokenInfo& token : *tokens) {
        PKCS11::TokenSession session(token, PKCS11::TokenSession::kPublic, nullptr, logger);
        if (session) return VerifyOnToken(session, alg, spki, data, signature);
    }
    return kSignatureNoSession;
}

}  // namespace

SignatureCheck VerifySignature(pki_alg_t alg, const std::string& spki, const std::string& data,
                               const std::string& signature, bool& definite) {
    TroubleWatch trouble;
    const SignatureCheck check = VerifyOnFirstToken(alg, spki, data, signature, &trouble);
    definite = check == kSignatureRight || (check == kSignatureWrong && !trouble.seen());
    return check;
}

SignatureCheck X509Cert_Verify(pki_alg_t alg, const std::string& spki, const std::string& data,
                               const std::string& signature) {
    return VerifyOnFirstToken(alg, spki, data, signature, nullptr);
}

}  // namespace CM
