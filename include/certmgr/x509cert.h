// The store's objects: certificates and CRLs.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "certmgr/api.h"
#include "certmgr/records.h"
#include "platform/base.h"
#include "platform/policy.h"
#include "platform/tokens.h"

struct PBEPrivKeyHandle;
struct PKCS12_PBE_key_iv_t;

namespace CM {

/// Results of X509Cert::CanBeUsed and of an import.
enum CertImportStatus : std::uint32_t {
    ImportCertOk = 0,
    ImportCertAlreadyExist = 1,
    ImportCertUnsupportedKeyLen = 2,
    ImportCertError = 3,
    ImportCertErrorPrivKey = 4,
    ImportCertErrorPubKey = 5,
    ImportCertErrorLogin = 6,
    ImportCertErrorLoginSO = 7,
    ImportCertErrorOpenTokenSession = 8,
    ImportCertErrorNotPersonal = 9,
    ImportCertErrorNotTrusted = 10,
    ImportCertErrorUnknownCriticalExtension = 11,
    ImportCertErrorUnknownKeyAlg = 12,
    ImportCertErrorUnknownSignAlg = 13,
    ImportCertErrorInvalidTime = 14,
    ImportCertErrorInvalidValidFrom = 15,
    ImportCertErrorInvalidValidTo = 16,
    ImportCertErrorEmptySubject = 17,
    ImportCertErrorEmptyIssuer = 18,
    ImportCertWarningTrustedNotCA = 19,
};

/// Results of X509Cert_Verify.
enum SignatureCheck : int {
    kSignatureDigestError = 0,
    kSignatureWrong = 1,
    kSignatureRight = 2,
    kSignatureNoToken = 3,
    kSignatureNoSession = 4,
};

/// Results of CheckValidity and X509Cert::PrivKeyCheckValidFromTo.
enum ValidityCheck : int { kValid = 0, kNotYetValid = 1, kExpired = 2, kPrivateKeyExpired = 3 };

/// Validity of a certificate at a moment, its first and last second included (RFC 5280, 4.1.2.5).
inline ValidityCheck CheckValidity(const CertInfo& info, cert_time64_t moment) {
    if (moment < info.validFrom) return kNotYetValid;
    return info.validTo < moment ? kExpired : kValid;
}

/// A certificate, or a key pair without one, from a token, a file or a peer's payload.
///
/// Shared by reference count: born with one reference; AddRef and Release change the count under the object's own
/// mutex; the holder that releases the last reference destroys the object. Everything else is fixed once the object
/// has been published (put into a list or handed out) and is read without a lock.
class CM_API X509Cert : public vpnfc::ObjectLevelLockable {
  public:
    /// Takes over both handles (the private key may be null).
    X509Cert(void* cert_handle, void* priv_key_handle);
    /// Takes over the certificate and the encrypted key.
    explicit X509Cert(const PBEPrivKeyHandle& handle);
    /// From a token object. An object that does not parse becomes a key-pair entry.
    X509Cert(const PKCS11::TokenInfo& token, const PKCS11::CertObject& object);

    X509Cert(const X509Cert&) = delete;
    X509Cert& operator=(const X509Cert&) = delete;

    void AddRef() const;
    void Release() const;

    /// 0 usable, else the reason as an import status. Logs the reason. Does not look at the current time.
    CertImportStatus CanBeUsed() const;
    /// All set fields of the pattern must match. `alg` restricts the key algorithm when the pattern names none.
    bool MatchToPattern(const LPCFG::cert_t& pattern, pki_alg_t alg) const;
    /// Validity of the certificate and of its private key, now or at a moment.
    ValidityCheck PrivKeyCheckValidFromTo() const;
    ValidityCheck PrivKeyCheckValidFromTo(cert_time64_t moment) const;
    /// Verifies this certificate's signature with the issuer's key on a token. Wrong also when the algorithm that is
    /// signed is not the one that is named beside the signature (RFC 5280, 4.1.1.2 and 5.1.1.2 for a CRL). `definite` (may
    /// be null): whether the answer would be the same the next time; that of a token in trouble need not be.
    SignatureCheck CheckSignature(const X509Cert* issuer, bool* definite = nullptr) const;

    /// Completes a key-pair entry with its public key (SubjectPublicKeyInfo, DER): key length, by the algorithm that the
    /// token names, and SHA-1 fingerprint of the key. Only before the object is published.
    void SetKeyPairPublicKey(pki_alg_t key_alg, std::string spki);

    /// What the extensions say that every verification needs.
    const CertFacts& facts() const { return facts_; }
    /// Alternative names and distribution points. The first call reads them; any thread may make it.
    const CertNames& names() const;
    /// Of the DER; of a key pair without certificate the SHA-1 of its public key. The first call computes them; any thread
    /// may make it.
    const CertFingerprints& fingerprints() const;
    /// Fingerprints and extensions, whole. The first call renders them; any thread may make it.
    const CertExtentions& ext() const;

    // Members in declared order; the reference count and the extensions are reached through functions.
    void* certHandle = nullptr;  // null for a key pair without certificate or an unreadable object
    void* privKeyHandle = nullptr;  // a private key read from a file in the clear
    PKCS12_PBE_key_iv_t* pbeKey = nullptr;  // a private key still encrypted
    PKCS11::TokenInfo token;
    CertInfo info;
    std::string rawCert;
    std::string rawPubKey;  // SubjectPublicKeyInfo, DER
    std::string pubKeyHash;  // SHA-1 of rawPubKey, 20 bytes
    std::string rawSubject;  // DER

  private:
    CertFacts facts_;

  public:
    cert_time64_t privKeyNotAfter = CERT_TIME_UNKNOWN;
    bool selfSigned = false;

  private:
    ~X509Cert();
    void init();

    mutable std::uint32_t refCount = 1;
    mutable std::once_flag names_read_;
    mutable CertNames names_;
    mutable std::once_flag fingerprints_read_;
    mutable CertFingerprints fingerprints_;
    mutable std::once_flag ext_rendered_;
    mutable std::unique_ptr<const CertExtentions> ext_;
};

/// Counted reference to a certificate: the one place outside X509Cert that calls AddRef and Release.
template <typename Cert>
class BasicCertRef {
  public:
    BasicCertRef() = default;
    /// Takes over a reference that the caller holds.
    static BasicCertRef Adopt(Cert* cert) {
        BasicCertRef ref;
        ref.cert_ = cert;
        return ref;
    }
    /// Adds a reference.
    explicit BasicCertRef(Cert* cert) : cert_(cert) {
        if (cert_ != nullptr) cert_->AddRef();
    }
    BasicCertRef(const BasicCertRef& other) : BasicCertRef(other.cert_) {}
    BasicCertRef(BasicCertRef&& other) noexcept : cert_(std::exchange(other.cert_, nullptr)) {}
    BasicCertRef& operator=(BasicCertRef other) noexcept {
        std::swap(cert_, other.cert_);
        return *this;
    }
    ~BasicCertRef() {
        if (cert_ != nullptr) cert_->Release();
    }

    Cert* get() const { return cert_; }
    Cert* operator->() const { return cert_; }
    Cert& operator*() const { return *cert_; }
    explicit operator bool() const { return cert_ != nullptr; }
    /// Hands the reference to the caller.
    [[nodiscard]] Cert* Detach() { return std::exchange(cert_, nullptr); }

  private:
    Cert* cert_ = nullptr;
};
using CertRef = BasicCertRef<const X509Cert>;
using MutableCertRef = BasicCertRef<X509Cert>;

/// A CRL from a token, a file or a download.
///
/// Shared by reference count (CrlRef). Fixed once it has been published, but for `refresh`, and read without a lock. Of
/// its entries it keeps the received bytes and an index of serial numbers; records are made for who asks for them.
class CM_API X509CRL {
  public:
    X509CRL(const PKCS11::TokenInfo& token, const PKCS11::CRLObject& object);
    X509CRL(const PKCS11::TokenInfo& token, PKCS11::CRLObject&& object);
    /// Takes over the handle; `keep_raw` offers its encoding as rawCrl.
    X509CRL(void* crl_handle, bool keep_raw);
    /// The same CRL met again on a token: shares bytes, index and what is known of its signature.
    X509CRL(const PKCS11::TokenInfo& token, const X509CRL& same);
    ~X509CRL();
    X509CRL(const X509CRL&) = delete;
    X509CRL& operator=(const X509CRL&) = delete;

    /// Verifies the CRL's signature with the issuer's key on a token. Right and wrong are remembered by the issuer's
    /// public key, so that a token is asked once; what failed otherwise is tried again. `definite` (may be null) tells
    /// which it was.
    SignatureCheck CheckSignature(const X509Cert* issuer, bool* definite = nullptr) const;

    /// The first entry with this serial number (byte-exact, as the records have it), of those that are about
    /// certificates of this CRL's own issuer. False, and `entry` unchanged, when there is none or the CRL does not parse.
    bool FindRevoked(const std::string& serial, RevokedEntry& entry) const;
    /// The same for a certificate: entries that name another certificate issuer (indirect CRLs) are not about it.
    bool FindRevoked(const X509Cert& cert, RevokedEntry& entry) const;
    /// Which certificates the CRL covers.
    const CrlScope& scope() const;
    /// Records of all entries, made at each call: for display, not for look-ups.
    RevokedCertInfoList revoked() const;
    /// DER; empty when the constructor was told not to keep it.
    const std::string& rawCrl() const;

    void* crlHandle = nullptr;  // borrowed from this object; null when it does not parse
    PKCS11::TokenInfo token;
    CRLInfo info;

    // Set by the cache of downloaded CRLs.
    std::string uri;  // address it was downloaded from; empty for a token's or a file's
    cert_time64_t downloadedAt;  // when it was downloaded or read; set by the constructors to now
    bool refresh = false;  // to be downloaded again at its next use; guarded by the cache's lock

  private:
    struct Content;
    std::shared_ptr<Content> content_;
};
using CrlRef = std::shared_ptr<X509CRL>;

/// Whether a certificate that the CRL does not list is thereby not revoked (RFC 5280, 5.2.5). `source_uri`: the address
/// the CRL came from, empty when it came from none. False for a CRL that is another issuer's, a delta, indirect, for some
/// reasons only, has an unknown critical or unreadable extension, or whose issuing distribution point does not cover the
/// certificate; `why_not` then receives the reason. What such a CRL lists is revoked all the same.
CM_API bool CrlCanClear(const X509CRL& crl, const std::string& source_uri, const X509Cert& cert, std::string& why_not);

/// Signs `data` with a key on the session's token: 0 digest failed, 1 signing failed, 2 signed.
CM_API int X509Cert_Sign(PKCS11::TokenSession& session, const std::string& key_id, pki_alg_t key_alg, pki_alg_t alg,
                         const std::string& data, std::string& signature);
/// Verifies a signature with a public key on the first token that offers `alg` and opens a session.
CM_API SignatureCheck X509Cert_Verify(pki_alg_t alg, const std::string& spki, const std::string& data,
                                      const std::string& signature);

}  // namespace CM
