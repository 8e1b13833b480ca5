// Token manager: PKCS #11 tokens as the module sees them.
//
// Standard: PKCS #11 v2.40. Two layers: Manager says which tokens there are and what they can do, TokenSession works
// on one of them. A token that is gone, hangs or fails makes its own calls fail and nothing else; device trouble is
// logged with the CK_RV by name, a wrong signature is a value.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "platform/api.h"
#include "platform/asn1.h"
#include "platform/base.h"

struct CertInfo;
struct CRLInfo;
struct PresharedKeyInfo;

namespace PKCS11 {

/// Description of a token.
struct TokenInfo {
    /// First eight bytes (big-endian) of SHA-256 over manufacturer, model, serial number and label: survives slot
    /// renumbering, reinsertion and restart.
    std::uint64_t id = 0;
    std::string label;
    std::string manufacturer;
    std::string model;
    std::string serialNumber;
    std::string slotDescription;
    std::string providerName;
    bool loggedIn = false;
    bool writeProtected = false;
    bool loginRequired = false;  // also the open type for writing public objects
    bool hardware = false;
    bool removable = false;
    bool pinPad = false;
    bool holdsTrusted = false;  // trusted certificates may be stored here
};

/// Description of a provider: a PKCS #11 module.
struct ProviderInfo {
    std::string name;
    std::string description;
    std::string manufacturer;
    bool available = false;  // loaded and initialised
};

/// A certificate object, or a key pair without one.
struct CertObject {
    std::string id;  // CKA_ID
    std::string value;  // DER; empty for a key pair without certificate
    std::uint32_t category = 0;  // CertCategory (0: not specified), or kKeyPairCategory
    bool trusted = false;  // CKA_TRUSTED
    pki_alg_t keyAlg = 0;  // of the key with that CKA_ID; 0: there is none, or no CKA_ID
    /// CKA_END_DATE of the private key, else of its public key; end of that day.
    cert_time64_t keyNotAfter = CERT_TIME_UNKNOWN;
};
/// CKA_CERTIFICATE_CATEGORY.
enum CertCategory : std::uint32_t { kTokenUserCategory = 1, kAuthorityCategory = 2, kOtherEntityCategory = 3 };
/// Category of a key pair whose CKA_ID no certificate carries.
inline constexpr std::uint32_t kKeyPairCategory = 333;

struct CRLObject {
    std::string id;
    std::string value;  // DER
};

struct PresharedKeyObject {
    std::string name;
};

struct KeyPairGenMechanism {
    pki_alg_t keyAlg = 0;
    std::uint32_t minBits = 0;
    std::uint32_t maxBits = 0;
};

/// A private key still encrypted under a password (PKCS #8 EncryptedPrivateKeyInfo).
struct EncryptedPrivateKey {
    std::string encryptedKeyInfoDer;
    vpnfc::SecretString password;
};

/// Receives what a session would otherwise write to the event log. Called on the session's thread.
class PLATFORM_API Logger {
  public:
    virtual ~Logger() = default;
    /// A PKCS #11 function failed on the token: "C_Sign", "CKR_DEVICE_ERROR".
    virtual void OnDeviceError(const TokenInfo& token, const char* function, const char* result) = 0;
};

/// The tokens of all providers.
class PLATFORM_API Manager {
  public:
    static Manager& Instance();

    /// The tokens present now: providers in the order of the settings, slots in the module's order. With an algorithm
    /// only those that verify with it: a key algorithm (with a ready digest), a hash, or a signature
    /// algorithm (its key operation; the digest may be computed on the host). The list per algorithm is computed once
    /// per change of the tokens.
    std::vector<TokenInfo> EnumTokens(pki_alg_t alg = 0) const;
    /// The same list without a copy, as it is at the call; it does not follow later changes.
    std::shared_ptr<const std::vector<TokenInfo>> EnumTokensShared(pki_alg_t alg = 0) const;

    /// Whether the token offers the algorithm as a mechanism.
    bool IsTokenSupportMechanism(const TokenInfo& token, pki_alg_t alg) const;

    /// Appends the token's key-pair generation mechanisms and its digest mechanisms (hash codes), in the token's order.
    /// False when the token is not there.
    bool GetKeyPairGenMechanisms(const TokenInfo& token, std::vector<KeyPairGenMechanism>& mechanisms,
                                 std::vector<pki_alg_t>& digests) const;

    /// Drops what is remembered of the tokens' content and looks for changed slots. Wait mode 1 returns when that
    /// is done, 0 at once.
    void ReloadTokensContent(int wait_mode);

  private:
    constexpr Manager() = default;
};

/// The token with that identifier as it is listed now; of one that is not there only the identifier is set.
inline TokenInfo FindToken(std::uint64_t id) {
    const auto tokens = Manager::Instance().EnumTokensShared();
    for (const TokenInfo& token : *tokens) {
        if (token.id == id) return token;
    }
    TokenInfo absent;
    absent.id = id;
    return absent;
}

/// A session on a token. Used by one thread at a time. Opening is checked with opened(); every other operation on
/// a session that is not open fails. Sessions are pooled behind this object, so opening one is cheap.
class PLATFORM_API TokenSession {
  public:
    enum OpenType : int {
        kPublic = 0,  // no login needed
        kPrivate = 1,  // the user must be logged in already, or the PIN must do it
    };

    /// `pin` null: none (a PIN file named in the settings is used for a private session, once). The PIN of a public session
    /// is the security officer's: it is used while a trusted certificate is created. `logger` null: the event log.
    explicit TokenSession(const TokenInfo& token, OpenType type = kPublic, const std::string* pin = nullptr,
                          Logger* logger = nullptr);
    ~TokenSession();
    TokenSession(const TokenSession&) = delete;
    TokenSession& operator=(const TokenSession&) = delete;

    bool opened() const;
    explicit operator bool() const { return opened(); }
    /// The session did not open because of login: PIN missing, wrong, locked, or too few tries left.
    bool loginFailed() const;
    /// The last object creation failed because only the security officer may do it.
    bool securityOfficerRequired() const;

    // Enumerations append; false when the token failed half way (what was read so far is kept). They share one listing of
    // the token: enumerating a kind a second time, or after this session changed the token, lists anew.
    bool EnumCertificates(std::list<CertObject>& certificates);
    bool EnumCRLs(std::list<CRLObject>& crls);
    bool EnumPresharedKeys(std::list<PresharedKeyObject>& keys);

    /// SubjectPublicKeyInfo (DER) of the public key with that algorithm and identifier.
    bool GetRawPubKeyObjectData(pki_alg_t keyAlg, const std::string& id, std::string& spki);
    /// Whether a public-key object, or a private key, equal to that SubjectPublicKeyInfo is on the token; `id` (may be
    /// null) receives its identifier.
    bool ContainPubKeyObject(const std::string& spki, std::string* id = nullptr);
    /// The last look-up of a public key (the two above) failed because the token did not show its keys: it does not say
    /// that the key is not there.
    bool keyLookUpFailed() const;

    /// Digest of `data` with the hash part of `alg`, on the token where it has the mechanism, else on the host; false when
    /// neither knows the hash. The data itself for "no digest" and for a GOST token whose Sign and Verify digest.
    bool Digest(pki_alg_t alg, const std::string& data, std::string& digest);
    /// Signs with the private key of that identifier. `alg` is a key algorithm, or a signature algorithm whose digest is
    /// already made (RSA: `digest` is a ready DigestInfo; RSASSA-PSS: the hash part selects the parameters). DSA and
    /// ECDSA signatures are DER.
    bool Sign(pki_alg_t alg, const std::string& id, const std::string& digest, std::string& signature);
    /// Verifies the signature of a ready digest with a public key. False for a wrong signature and for device trouble
    /// (the latter is logged). A DSA signature's INTEGERs are taken as unsigned whatever their leading byte.
    bool Verify(pki_alg_t alg, const std::string& spki, const std::string& digest, const std::string& signature);
    /// The raw RSA public-key operation with the PKCS #1 type 1 padding removed: the block that was signed.
    bool VerifyDecrypt(const std::string& spki, const std::string& signature, std::string& block);

    bool SeedRandom(const std::string& seed);
    /// `exportable` makes the private key extractable.
    bool GenerateKeyPair(pki_alg_t keyAlg, std::uint32_t bits, const std::string& id, bool exportable);

    bool CreateCertObject(const CertObject& object, const std::string& subject_der);
    /// `not_after`: end of the key's usage (CKA_END_DATE, a day); unknown: none. Give it to the public key too: some
    /// tokens do not show that of a private key.
    bool CreatePrivKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& pkcs8_der, bool exportable,
                             cert_time64_t not_after = CERT_TIME_UNKNOWN);
    bool CreatePubKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& spki,
                            cert_time64_t not_after = CERT_TIME_UNKNOWN);
    /// Decrypts the key on the host, where the password is anyway, and wipes it after. False for a wrong password, too.
    bool ImportPrivKeyObject(const EncryptedPrivateKey& key, pki_alg_t keyAlg, const std::string& id, bool exportable);
    bool CreateCRLObject(const std::string& id, const std::string& crl_der);
    bool CreatePresharedKeyObject(const std::string& name, const std::string& value);

    /// The certificate of that identifier (when the record has one), serial number and issuer.
    bool DeleteCertObject(const CertInfo& info);
    // By a record: not while a certificate with the identifier is on the token, a renewed one say.
    bool DeletePrivKeyObject(const CertInfo& info);
    bool DeletePubKeyObject(const CertInfo& info);
    bool DeletePrivKeyObject(const std::string& id);
    bool DeletePubKeyObject(const std::string& id);
    bool DeleteCRLObject(const CRLInfo& info);
    bool DeletePresharedKeyObject(const PresharedKeyInfo& info);

    bool GetPresharedKeyPrivateData(const std::string& name, std::string& value);
    /// The private key as PKCS #8 PrivateKeyInfo DER, where the token lets it out. The caller wipes it.
    bool ExportPrivateKey(const std::string& id, std::string& pkcs8_der);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// One slot of the token manager's callback table: a function pointer that may be replaced while the manager's
/// threads call it. Replacing waits for a call in progress, so that the code behind the old pointer may be unloaded
/// afterwards; a callback must not replace its own slot.
template <typename... Args>
class CallbackSlot {
  public:
    using Function = void (*)(Args...);

    constexpr CallbackSlot() = default;
    CallbackSlot& operator=(Function function) {
        const std::unique_lock lock(mutex_);
        function_ = function;
        return *this;
    }
    bool operator==(Function function) const {
        const std::shared_lock lock(mutex_);
        return function_ == function;
    }
    /// Calls the function, if one is set.
    void operator()(Args... args) const {
        const std::shared_lock lock(mutex_);
        if (function_ != nullptr) function_(args...);
    }

  private:
    mutable std::shared_mutex mutex_;
    Function function_ = nullptr;
};

/// What the token manager reports, on its own threads.
struct CallbackTable {
    CallbackSlot<const TokenInfo&> tokenInserted;
    CallbackSlot<const TokenInfo&> tokenRemoved;
    /// The user logged in or, with `loggedIn` clear, out. The flag: true when a session of the module itself logged in.
    CallbackSlot<const TokenInfo&, bool> tokenLogin;
    CallbackSlot<const ProviderInfo&, unsigned long> providerInserted;  // number of tokens it came with
};
extern PLATFORM_API CallbackTable Callbacks;

}  // namespace PKCS11
