// CRL objects.
#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl_crl.h"
#include "certmgr/verify_signature.h"
#include "certmgr/x509cert.h"

namespace CM {

namespace {

/// Verdicts on one signature, by the issuer's public key. Few: peers send certificates of any key under any name.
class SignatureMemory {
  public:
    std::optional<SignatureCheck> Recall(const std::string& spki) const {
        const std::lock_guard lock(mutex_);
        const auto known = std::find_if(verdicts_.begin(), verdicts_.end(),
                                        [&spki](const auto& verdict) { return verdict.first == spki; });
        return known != verdicts_.end() ? std::optional(known->second) : std::nullopt;
    }

    void Remember(const std::string& spki, SignatureCheck verdict) {
        constexpr std::size_t kMaxKeys = 8;
        const std::lock_guard lock(mutex_);
        if (verdicts_.size() == kMaxKeys) {
            const auto wrong = std::find_if(verdicts_.begin(), verdicts_.end(),
                                            [](const auto& old) { return old.second != kSignatureRight; });
            verdicts_.erase(wrong != verdicts_.end() ? wrong : verdicts_.begin());
        }
        verdicts_.emplace_back(spki, verdict);
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::pair<std::string, SignatureCheck>> verdicts_;  // oldest first
};

}  // namespace

struct X509CRL::Content {
    explicit Content(void* crl_handle) : handle(crl_handle) {
        if (handle != nullptr) CertEngine_CRLScope(handle, scope);
    }
    ~Content() {
        if (handle != nullptr) CertEngine_CloseCRLHandle(handle);
    }
    Content(const Content&) = delete;
    Content& operator=(const Content&) = delete;

    void* const handle;
    std::shared_ptr<const std::string> raw = std::make_shared<const std::string>();
    CrlScope scope;
    SignatureMemory signatures;
};

X509CRL::X509CRL(const PKCS11::TokenInfo& on_token, PKCS11::CRLObject&& object)
    : token(on_token), downloadedAt(CertTimeNow()) {
    info.id = std::move(object.id);
    const auto raw = std::make_shared<const std::string>(std::move(object.value));
    content_ = std::make_shared<Content>(cert_engine::CreateCrlHandle(raw));
    content_->raw = raw;
    crlHandle = content_->handle;
    if (crlHandle != nullptr) {
        CertEngine_HandleToCRLInfo(crlHandle, info);
    } else {
        info.issuer = "CRL object of unknown format";
    }
}

X509CRL::X509CRL(const PKCS11::TokenInfo& on_token, const PKCS11::CRLObject& object)
    : X509CRL(on_token, PKCS11::CRLObject(object)) {}

X509CRL::X509CRL(void* crl_handle, bool keep_raw)
    : crlHandle(crl_handle), downloadedAt(CertTimeNow()), content_(std::make_shared<Content>(crl_handle)) {
    if (keep_raw) content_->raw = cert_engine::CrlBytes(crlHandle);
    CertEngine_HandleToCRLInfo(crlHandle, info);
}

X509CRL::X509CRL(const PKCS11::TokenInfo& on_token, const X509CRL& same)
    : crlHandle(same.crlHandle),
      token(on_token),
      info(same.info),
      downloadedAt(same.downloadedAt),
      content_(same.content_) {}

X509CRL::~X509CRL() = default;

const CrlScope& X509CRL::scope() const {
    return content_->scope;
}

const std::string& X509CRL::rawCrl() const {
    return *content_->raw;
}

RevokedCertInfoList X509CRL::revoked() const {
    RevokedCertInfoList entries;
    if (crlHandle != nullptr) CertEngine_CRLRevokedCerts(crlHandle, entries);
    return entries;
}

bool X509CRL::FindRevoked(const std::string& serial, RevokedEntry& entry) const {
    return crlHandle != nullptr && CertEngine_CRLFindRevoked(crlHandle, serial, info.issuer, entry);
}

bool X509CRL::FindRevoked(const X509Cert& cert, RevokedEntry& entry) const {
    return crlHandle != nullptr &&
           CertEngine_CRLFindRevoked(crlHandle, cert.info.serialNumber, cert.info.issuer, entry);
}

SignatureCheck X509CRL::CheckSignature(const X509Cert* issuer, bool* definite_out) const {
    bool unused = false;
    bool& definite = definite_out != nullptr ? *definite_out : unused;
    definite = true;
    if (crlHandle == nullptr || !cert_engine::CrlOf(crlHandle).signedAlgorithmAgrees()) return kSignatureWrong;
    if (const auto known = content_->signatures.Recall(issuer->rawPubKey)) return *known;
    std::string signed_part;
    std::string signature;
    CertEngine_RawCRLInfo(crlHandle, signed_part);
    CertEngine_RawCRLSignature(crlHandle, signature);
    const SignatureCheck check = VerifySignature(info.signAlg, issuer->rawPubKey, signed_part, signature, definite);
    if (definite) content_->signatures.Remember(issuer->rawPubKey, check);
    return check;
}

}  // namespace CM
