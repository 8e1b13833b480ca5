// One reload of the store from the tokens: reads them and prepares new lists without a lock of the store, so that the
// write lock is held for a few pointer exchanges whatever the number of certificates.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "certmgr/cert_storage.h"

namespace CM {

class KeyLookUps;

/// Used once, by a thread that holds the store's tokensLock from construction to destruction (so that nobody else
/// changes the lists meanwhile): ReadTokens, Prepare, Swap under the write lock, Report without it.
class ReloadPass {
  public:
    /// `what` is a mask of ReloadBits.
    ReloadPass(CertStorage& storage, std::uint32_t what);

    /// Reads the objects of every token that opens a session. What one that fails half way does not show stays as it was.
    void ReadTokens();
    /// The tokens that failed, and the kinds of objects that they did not show to the end.
    const ReadFailures& failures() const { return failures_; }
    /// Builds the lists to come.
    void Prepare();
    /// Puts them in. Under the store's write lock.
    void Swap();
    /// Tells log and hooks what appeared and disappeared. True when anything did.
    bool Report();

  private:
    struct ListChange {
        explicit ListChange(CertStorage::X509CertsDB& stored);
        bool Any() const { return !appeared.empty() || !disappeared.empty(); }
        void KeepAllOf(const PKCS11::TokenInfo& token);
        void Prepare();

        CertStorage::X509CertsDB& list;
        std::vector<bool> kept;  // entries of `list` that are still on a token
        CertList appeared;
        CertList disappeared;
        CertStorage::X509CertsDB next;  // after the swap: what the store held before
    };

    void ReadCertificates(PKCS11::TokenSession& session, const PKCS11::TokenInfo& token);
    bool Keep(const PKCS11::TokenInfo& token, const PKCS11::CertObject& object);
    ListChange* Classify(X509Cert& cert, const PKCS11::CertObject& object, KeyLookUps& keys);
    void ReadPresharedKeys(PKCS11::TokenSession& session, const PKCS11::TokenInfo& token);
    void ReadCRLs(PKCS11::TokenSession& session, const PKCS11::TokenInfo& token);
    CrlRef TakeOld(const PKCS11::TokenInfo& token, const PKCS11::CRLObject& object);
    void ReportCertificates() const;
    void ReportPresharedKeys() const;

    CertStorage& storage_;
    std::uint32_t what_;
    ReadFailures failures_;
    ListChange other_;
    ListChange trusted_;
    ListChange personal_;
    ListChange key_pair_;
    std::vector<std::unique_ptr<PresharedKey>> preshared_keys_;
    std::vector<std::string> keys_appeared_;
    std::vector<std::string> keys_disappeared_;
    std::vector<CrlRef> crls_;
    std::multimap<std::pair<std::uint64_t, std::string>, CrlRef> old_crls_;  // by token and object identifier
    CrlList next_crls_;  // after the swap: what the store held before
};

}  // namespace CM
