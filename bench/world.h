// What the benchmarks work on: a small PKI, SoftHSM2 tokens in a temporary directory, the module over them, and plain
// PKCS#11 calls to the same SoftHSM2 for comparison.
#pragma once

#include <p11-kit/pkcs11.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "certmgr/cert_storage.h"
#include "certmgr/certmgr.h"
#include "certmgr/ike.h"
#include "platform/policy.h"
#include "platform/tokens.h"
#include "tests/support/pki.h"
#include "tests/support/temp_dir.h"

namespace bench {

inline constexpr int kCertificatesOnToken = 1000;

/// Made once, before any benchmark runs; taken down in order at the end.
class World {
  public:
    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    const test_pki::Cert& root() const { return root_; }
    const test_pki::Cert& intermediate() const { return intermediate_; }
    const test_pki::Cert& leaf() const { return leaf_; }
    /// The certificate whose key is on the token, in the store.
    const CM::X509Cert* personal() const { return personal_.get(); }
    const LPCFG::auth_ike_t& rule() const { return rule_; }

    /// Verifies a peer that sends these two, from the payloads' bytes on. Whether it passes.
    bool VerifyPeer(const test_pki::Cert& leaf, const test_pki::Cert& intermediate, LPARAMS::CRL_PROC_t mode) const;

    /// Many certificates of a kind, and the intermediate after them if they are CAs; made at the first call.
    CM::CertStorage::X509CertsDB& Variants(const std::string& name, bool ca, int count);

    CK_FUNCTION_LIST* pkcs11() const { return functions_; }
    /// Slots of our tokens, as the module numbers them.
    const std::vector<CK_SLOT_ID>& slots() const { return slots_; }

  private:
    void StartTokens();
    PKCS11::TokenInfo MakeToken(const std::string& label, const std::string& pin, const std::string& so_pin);
    void FillHostToken(const PKCS11::TokenInfo& token, const std::string& pin, const std::string& so_pin);
    void FillLargeToken(const PKCS11::TokenInfo& token, const std::string& pin);
    void FindPlainFunctions();

    test_support::TempDir directory_;
    test_pki::Cert root_;
    test_pki::Cert intermediate_;
    test_pki::Cert leaf_;
    LPCFG::auth_ike_t rule_;
    std::unique_ptr<CM::RunningModule> module_;
    CM::CertRef personal_;
    std::map<std::pair<std::string, int>, CM::CertStorage::X509CertsDB> variants_;
    CK_FUNCTION_LIST* functions_ = nullptr;
    std::vector<CK_SLOT_ID> slots_;
};

/// The world of this run.
World& TheWorld();

/// Swaps a list of the store with another one while it lives. No reload comes in between.
class StoreListReplaced {
  public:
    StoreListReplaced(CM::CertStorage::X509CertsDB CM::CertStorage::*list, CM::CertStorage::X509CertsDB& other)
        : list_(list), other_(other) {
        Swap();
    }
    ~StoreListReplaced() { Swap(); }
    StoreListReplaced(const StoreListReplaced&) = delete;
    StoreListReplaced& operator=(const StoreListReplaced&) = delete;

  private:
    void Swap();

    const vpnfc::ObjectLock no_reload_{CM::CertStorage::Instance().tokensLock};
    CM::CertStorage::X509CertsDB CM::CertStorage::*list_;
    CM::CertStorage::X509CertsDB& other_;
};

/// That many certificates that differ in subject ("<name> 000042") and subject key identifier, made by writing over
/// one certificate: their signatures are not right.
CM::CertStorage::X509CertsDB MakeVariants(const test_pki::Cert& issuer, const std::string& name, bool ca, int count);

}  // namespace bench
