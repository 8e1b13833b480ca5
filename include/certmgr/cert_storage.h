// The certificate store: everything the module knows from the tokens.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "certmgr/api.h"
#include "certmgr/x509cert.h"
#include "platform/eventlog.h"
#include "platform/events.h"

namespace CM {

/// A list of certificates that holds one reference per entry. Not locked by itself. Move-only; copies are explicit.
class CM_API CertList {
  public:
    CertList() = default;
    ~CertList() { Clear(); }
    CertList(CertList&& other) noexcept : certs_(std::move(other.certs_)) { other.certs_.clear(); }
    CertList& operator=(CertList&& other) noexcept;
    CertList(const CertList&) = delete;
    CertList& operator=(const CertList&) = delete;

    /// Takes over the caller's reference.
    void Adopt(X509Cert* cert) { certs_.push_back(cert); }
    /// Adds a reference.
    void Append(X509Cert* cert);
    void Clear();
    void Reserve(std::size_t count) { certs_.reserve(count); }

    const std::vector<X509Cert*>& certs() const { return certs_; }
    std::size_t size() const { return certs_.size(); }
    bool empty() const { return certs_.empty(); }
    X509Cert* operator[](std::size_t i) const { return certs_[i]; }
    auto begin() const { return certs_.begin(); }
    auto end() const { return certs_.end(); }

  protected:
    std::vector<X509Cert*> certs_;
};

class CrlIndex;

/// The CRLs of the store, in its order. A copy is cheap and stays as it was: it shares what it copied, and a change makes
/// the list anew. Not locked by itself.
class CM_API CrlList {
  public:
    CrlList();
    explicit CrlList(std::vector<CrlRef> crls);
    ~CrlList() = default;
    CrlList(const CrlList&) = default;  // in place of moves, too: no list is ever without its index
    CrlList& operator=(const CrlList&) = default;

    std::size_t size() const { return crls().size(); }
    bool empty() const { return crls().empty(); }
    const CrlRef& operator[](std::size_t i) const { return crls()[i]; }
    auto begin() const { return crls().begin(); }
    auto end() const { return crls().end(); }

    /// Positions, ascending, of the CRLs whose issuer text is the given one.
    std::span<const std::uint32_t> WithIssuer(const std::string& issuer) const;
    void Append(CrlRef crl);
    void Swap(CrlList& other) noexcept { index_.swap(other.index_); }

  private:
    const std::vector<CrlRef>& crls() const;

    std::shared_ptr<const CrlIndex> index_;
};

/// A preshared key on a token: where it lives and its name. The value stays on the token.
struct PresharedKey {
    PKCS11::TokenInfo token;
    std::string name;
};

/// Bits of a reload request.
enum ReloadBits : std::uint32_t {
    kReloadCertificates = 1,
    kReloadPresharedKeys = 2,
    kReloadCRLs = 4,
    kReloadAll = 7,
    kStoreStopped = 8,
};

/// Tokens that failed half way through a reload: identifier and bit of what was read.
using ReadFailures = std::set<std::pair<std::uint64_t, std::uint32_t>>;

/// Results of CertStorage::ExportCertificate.
enum CertExportResult : std::uint32_t {
    ExportCertOk = 1,
    ExportCertNotFound = 2,
    ExportCertError = 3,
    ExportCertUnknownFormat = 4,
    ExportCertErrorPrivKey = 5,  // the token does not let the key out
    ExportCertErrorLogin = 6,
};

/// Results of CertStorage::ImportCRL.
enum CrlImportResult : std::uint32_t {
    ImportCrlOk = 0,
    ImportCrlError = 2,
    ImportCrlErrorLogin = 3,
};

/// "ImportCertOk" and its kin, by value; "ImportCertErrorUnknown" for any other value.
CM_API const char* CertImportStatusText(std::uint32_t status);

class CertIndex;
struct TokenObjectKey;

/// The process-wide store. Readers hold its read lock (vpnfc::ReadLock) while they look at a list and keep references
/// for later; lists change only inside a reload.
class CM_API CertStorage : public vpnfc::ReadWriteLockable {
  public:
    /// One list of the store, in the store's order, with its indexes.
    class CM_API X509CertsDB : public CertList {
      public:
        X509CertsDB();
        ~X509CertsDB();
        X509CertsDB(X509CertsDB&&) noexcept;
        X509CertsDB& operator=(X509CertsDB&&) noexcept;

        void Clear();

        /// First certificate of that token, identifier and DER value, with one more reference; null if none.
        X509Cert* Take(const PKCS11::TokenInfo& token, const PKCS11::CertObject& object) const;
        /// First certificate of that token with equal serial number, subject and issuer, and, when both sides have one,
        /// equal identifier; with one more reference; null if none.
        X509Cert* Find(const PKCS11::TokenInfo& token, const CertInfo& info) const;
        /// Releases every entry and takes over the other list's, which is left empty.
        void ClearAndSwap(X509CertsDB& other);
        /// Exchanges entries and indexes; releases nothing.
        void Swap(X509CertsDB& other) noexcept;

        /// Positions, ascending, of the certificates whose subject text, or whose subject key identifier (hexadecimal
        /// text, not empty), is the given one.
        std::span<const std::uint32_t> WithSubject(const std::string& subject) const;
        std::span<const std::uint32_t> WithSubjectKeyId(const std::string& key_id_hex) const;
        /// Position of the first entry that is this token object and not marked in `taken` (null: none is), or npos.
        std::size_t PositionOfObject(const TokenObjectKey& key, const std::vector<bool>* taken) const;
        /// Position of a certificate by address, or npos.
        std::size_t PositionOf(const X509Cert* cert) const;
        static constexpr std::size_t npos = static_cast<std::size_t>(-1);

        /// Builds the indexes anew after the entries changed.
        void Reindex();

      private:
        std::unique_ptr<CertIndex> index_;
    };

    /// A snapshot of a list that outlives the read lock.
    class CM_API CopyCertificates : public CertList {
      public:
        /// Takes the read lock for the copy.
        CopyCertificates(const CertStorage& storage, const X509CertsDB& list);
    };

    static CertStorage& Instance();

    /// Leaves the stopped state and reloads everything on the calling thread.
    void Reload();
    void ReloadCertificates();
    void ReloadPresharedKeys();
    void ReloadCRLs();
    /// Queues a certificate reload without delay, whatever the state.
    void ReloadCertificatesAsync();
    /// Queues a reload of what `flags` names; ignored while the store is stopped.
    static void PutReloadEvent(std::uint32_t flags, const PKCS11::TokenInfo* token = nullptr);
    static void ReloadEventHandler(const EM_Event& event);
    /// False at once when no reload is pending, and in a hook that a reload calls; else waits for its end and returns
    /// true.
    bool WaitReloadDone();
    /// Reloads so far, whoever ran them: a search that sees it change may have looked at lists that are no more.
    std::uint64_t ReloadCount() const { return reloads; }
    /// Empties the store and stops it.
    void ClearAll();
    /// Adds a CRL unless one with the same DER is stored. Takes it over either way.
    void PutCRLToDB(CrlRef crl);

    // Changes write to a token and reload what they changed; the lists are never changed directly. The caller holds no
    // lock. `pin` may be null.

    /// The certificate in the lists other, trusted, personal and key pairs, tried in this order; none: empty.
    MutableCertRef FindCertificate(const PKCS11::TokenInfo& token, const CertInfo& info) const;
    /// A new identifier of a token object: 8 bytes, unique in this process.
    static void GenNewCertObjectId(std::string& id);

    /// Writes a certificate of a file, with its private key if it carries one (`exportable`: it may leave the token
    /// again). For a trusted import the PIN is the security officer's. ImportCertWarningTrustedNotCA: it was written, but
    /// is no CA's; the store shows it after the next reload.
    CertImportStatus ImportCertificate(const PKCS11::TokenInfo& token, const X509Cert& cert, CertImportMode mode,
                                       bool exportable, const std::string* pin);
    /// `password` (null: empty) encrypts PKCS #12. The chain goes into PKCS #7 and PKCS #12 alone, the private key into
    /// PKCS #12. `out` is unchanged on failure.
    CertExportResult ExportCertificate(const PKCS11::TokenInfo& token, const CertInfo& info, CertExportFormat format,
                                       const char* password, bool with_chain, bool with_private_key, std::string& out);
    /// Deletes a certificate and its key pair; the log says what went.
    void DeleteCertificate(const PKCS11::TokenInfo& token, const CertInfo& info);

    CrlImportResult ImportCRL(const PKCS11::TokenInfo& token, const X509CRL& crl);
    void DeleteCRL(const PKCS11::TokenInfo& token, const CRLInfo& info);

    /// False when the token refuses it: a name in use, say.
    bool CreatePresharedKey(const PKCS11::TokenInfo& token, const PresharedKeyInfo& info, const std::string& value);
    void DeletePresharedKey(const PKCS11::TokenInfo& token, const PresharedKeyInfo& info);

    // The lists, guarded by this object's read-write lock.
    X509CertsDB personalCerts;
    X509CertsDB trustedCerts;
    X509CertsDB otherCerts;
    X509CertsDB keyPairCerts;
    std::vector<std::unique_ptr<PresharedKey>> presharedKeys;
    CrlList crls;

    /// Serialises whole reloads, not token writes. Taken before the read-write lock, never while holding it.
    struct CM_API Lock : vpnfc::ObjectLevelLockable {};
    Lock tokensLock;

  private:
    CertStorage();
    ~CertStorage();
    static CertStorage instance;  // lives from loading to unloading of the library
    void ReloadTokensObjects(std::uint32_t what);
    void ReloadOne(std::uint32_t bit);
    void EndPendingReload(bool for_good);
    std::uint32_t NewFailures(std::uint32_t what, const ReadFailures& failures);
    void Stop();
    void ClearLists();

    ReadFailures lastFailures;  // guarded by tokensLock
    std::atomic<std::uint64_t> reloads = 0;

    // Guarded by reloadLock.
    std::uint32_t reloadFlags = kStoreStopped;
    mutable Lock reloadLock;
    std::condition_variable_any reloadDone;
    std::uint64_t reloadsEnded = 0;  // tells a waiter a broadcast from a spurious wake-up
    bool reloadPending = false;
};

// The store's token handlers, installed by CM::Init; they run on the token manager's threads and only queue work.
CM_API void CertStorage_OnTokenInsert(const PKCS11::TokenInfo& token);
CM_API void CertStorage_OnTokenRemove(const PKCS11::TokenInfo& token);
CM_API void CertStorage_OnTokenLogin(const PKCS11::TokenInfo& token, bool own_session);
CM_API void CertStorage_OnProviderInsert(const PKCS11::ProviderInfo& provider, unsigned long tokens);

/// Whether a preshared key of that name is in the store.
CM_API bool IsValidPresharedKey(const std::string& name, const TLogIdent& ident);
/// Reads the value of the first preshared key of that name whose token gives it out.
CM_API bool GetPresharedKeyByName(const char* name, std::string& value);

}  // namespace CM
