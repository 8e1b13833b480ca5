#include "bench/benchmarks.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/register.h"
#include "bench/world.h"
#include "certmgr/cert_engine.h"
#include "certmgr/chain.h"
#include "certmgr/ike.h"
#include "libcrypto/libcrypto.h"
#include "platform/eventlog/sinks.h"

namespace bench {
namespace {

using benchmark::State;

using libcrypto::CertPtr;

// --- Parsing ---

CM::CertRef Parse(const std::string& der) {
    return CM::CertRef::Adopt(
        new CM::X509Cert(CertEngine_CreateCertHandle(der.data(), static_cast<unsigned>(der.size())), nullptr));
}

CM::CertRef ParseLeaf() {
    return Parse(TheWorld().leaf().der);
}

CertPtr PlainParse(const std::string& der) {
    return libcrypto::Decode<X509_free>(d2i_X509, der);
}

void LeafParse(State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(ParseLeaf()->ext().sha1.size());
}

void LeafParsePeer(State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(PlainParse(TheWorld().leaf().der).get());
}

// --- Peer verification ---

/// With that many other certificates in the store beside the root.
void PeerVerify(State& state, int others) {
    World& world = TheWorld();
    const StoreListReplaced replaced(&CM::CertStorage::otherCerts, world.Variants("Other peer", false, others));
    for (auto _ : state) {
        Require(world.VerifyPeer(world.leaf(), world.intermediate(), LPARAMS::CRL_PROC_DISABLED), state);
    }
}

void SetLogLevel(eventlog::Severity level) {
    eventlog::Sinks sinks;
    sinks.level = level;
    sinks.to_stderr = false;
    sinks.file = "/dev/null";
    std::string error;
    eventlog::SetSinks(sinks, error);
}

void PeerVerifyQuiet(State& state) {
    SetLogLevel(eventlog::Severity::kWarning);
    PeerVerify(state, 0);
    SetLogLevel(eventlog::Severity::kInfo);
}

void PeerVerifyPeer(State& state) {
    World& world = TheWorld();
    const libcrypto::Owner<X509_STORE, X509_STORE_free> store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), PlainParse(world.root().der).get());
    const libcrypto::Owner<X509_STORE_CTX, X509_STORE_CTX_free> context(X509_STORE_CTX_new());
    for (auto _ : state) {
        const CertPtr leaf = PlainParse(world.leaf().der);
        const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> others(
            sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); });
        sk_X509_push(others.get(), PlainParse(world.intermediate().der).release());
        X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), others.get());
        Require(X509_verify_cert(context.get()) == 1, state);
        X509_STORE_CTX_cleanup(context.get());
    }
}

// --- Chains and selection ---

void ChainOfThree(State& state, int others) {
    World& world = TheWorld();
    const StoreListReplaced replaced(&CM::CertStorage::otherCerts, world.Variants("Other CA", true, others));
    const CM::CertRef leaf = ParseLeaf();
    for (auto _ : state) {
        CM::CertList chain;
        std::vector<CM::X509Cert*> members{const_cast<CM::X509Cert*>(CM::CertRef(leaf).Detach())};
        const ChainBuildResult result = CMT_BuildCertChain(members, {}, SearchTrusted | SearchOther);
        for (CM::X509Cert* member : members) chain.Adopt(member);
        Require(result == ChainTrusted && chain.size() == 3, state);
    }
}

void SelectLast(State& state, int personal) {
    World& world = TheWorld();
    const StoreListReplaced replaced(&CM::CertStorage::personalCerts, world.Variants("Personal", false, personal));
    LPCFG::auth_ike_t rule;
    rule.name = "last";
    LPCFG::cert_t pattern;
    std::string digits = std::to_string(personal - 1);
    pattern.subject = "CN=Personal " + std::string(6 - digits.size(), '0') + digits;
    pattern.subjectExact = false;
    rule.cert_local.push_back(pattern);
    for (auto _ : state) {
        LPCFG::ipsecid_t id;
        const CM::SelectLocalResult result =
            CM::IkeSelectLocalCertificate(&id, rule, CM::kIgnoreBoundFirst, nullptr, nullptr, {});
        Require(result.status == CM::kLocalAccepted, state);
        CM::VCertHandleClose(result.cert);
    }
}

// --- Reloads ---

class PlainSession {
  public:
    explicit PlainSession(CK_SLOT_ID slot) {
        TheWorld().pkcs11()->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &handle_);
    }
    ~PlainSession() { TheWorld().pkcs11()->C_CloseSession(handle_); }
    PlainSession(const PlainSession&) = delete;
    PlainSession& operator=(const PlainSession&) = delete;
    CK_SESSION_HANDLE get() const { return handle_; }

  private:
    CK_SESSION_HANDLE handle_ = 0;
};

std::vector<CK_OBJECT_HANDLE> PlainFind(CK_SESSION_HANDLE session, CK_OBJECT_CLASS wanted) {
    CK_FUNCTION_LIST* p11 = TheWorld().pkcs11();
    CK_ATTRIBUTE by_class{CKA_CLASS, &wanted, sizeof wanted};
    std::vector<CK_OBJECT_HANDLE> found(std::size_t{2} * kCertificatesOnToken);
    CK_ULONG count = 0;
    p11->C_FindObjectsInit(session, &by_class, 1);
    p11->C_FindObjects(session, found.data(), found.size(), &count);
    p11->C_FindObjectsFinal(session);
    found.resize(count);
    return found;
}

/// Lists and reads every certificate with one C_GetAttributeValue each; `use` gets the DER.
template <typename Use>
std::size_t PlainListCertificates(Use use) {
    std::size_t total = 0;
    std::array<char, 4096> value{};
    std::array<char, 256> id{};
    for (const CK_SLOT_ID slot : TheWorld().slots()) {
        const PlainSession session(slot);
        for (const CK_OBJECT_HANDLE object : PlainFind(session.get(), CKO_CERTIFICATE)) {
            CK_BBOOL trusted = CK_FALSE;
            CK_ULONG category = 0;
            CK_ULONG type = 0;
            std::array<CK_ATTRIBUTE, 5> attributes{{{CKA_VALUE, value.data(), value.size()},
                                                    {CKA_ID, id.data(), id.size()},
                                                    {CKA_TRUSTED, &trusted, sizeof trusted},
                                                    {CKA_CERTIFICATE_CATEGORY, &category, sizeof category},
                                                    {CKA_CERTIFICATE_TYPE, &type, sizeof type}}};
            if (TheWorld().pkcs11()->C_GetAttributeValue(session.get(), object, attributes.data(), attributes.size()) !=
                CKR_OK) {
                continue;
            }
            use(std::string(value.data(), attributes[0].ulValueLen));
            ++total;
        }
        benchmark::DoNotOptimize(PlainFind(session.get(), CKO_PRIVATE_KEY).data());
    }
    return total;
}

void PlainList(State& state) {
    for (auto _ : state) {
        Require(PlainListCertificates([](const std::string& der) { benchmark::DoNotOptimize(der.data()); }) >=
                    kCertificatesOnToken,
                state);
    }
}

void PlainListAndParse(State& state) {
    for (auto _ : state) {
        PlainListCertificates([](const std::string& der) { Parse(der); });
    }
}

std::size_t StoreSize() {
    const CM::CertStorage& store = CM::CertStorage::Instance();
    const vpnfc::ReadLock lock(store);
    return store.otherCerts.size();
}

void ReloadFirst(State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        CM::CertStorage::Instance().ClearAll();
        state.ResumeTiming();
        CM::CertStorage::Instance().Reload();
    }
    Require(StoreSize() >= kCertificatesOnToken, state);
}

void ReloadUnchanged(State& state) {
    CM::CertStorage::Instance().Reload();
    for (auto _ : state) CM::CertStorage::Instance().ReloadCertificates();
    Require(StoreSize() >= kCertificatesOnToken, state);
}

// --- Signatures ---

const std::string& Octets() {
    static const std::string octets(600, 'o');
    return octets;
}

void Ike2Sign(State& state) {
    std::string signature;
    const CM::X509Cert* cert = TheWorld().personal();
    for (auto _ : state) {
        Require(CM::Ike2Sign(cert, PKI_KEY_RSA | PKI_HASH_SHA256, Octets(), signature, {}), state);
    }
}

void PlainSign(State& state) {
    CK_FUNCTION_LIST* p11 = TheWorld().pkcs11();
    for (const CK_SLOT_ID slot : TheWorld().slots()) {
        const PlainSession session(slot);
        const std::vector<CK_OBJECT_HANDLE> keys = PlainFind(session.get(), CKO_PRIVATE_KEY);
        if (keys.empty()) continue;
        std::array<CK_BYTE, 512> signature{};
        std::string data = Octets();
        for (auto _ : state) {
            CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS, nullptr, 0};
            CK_ULONG length = signature.size();
            Require(p11->C_SignInit(session.get(), &mechanism, keys.front()) == CKR_OK &&
                        p11->C_Sign(session.get(), reinterpret_cast<CK_BYTE*>(data.data()), data.size(),
                                    signature.data(), &length) == CKR_OK,
                    state);
        }
        return;
    }
    Require(false, state);
}

void TokenVerify(State& state) {
    World& world = TheWorld();
    const std::string signature = test_pki::SignData(world.leaf().key, {}, Octets());
    for (auto _ : state) {
        Require(CM::X509Cert_Verify(PKI_KEY_RSA | PKI_HASH_SHA256, world.leaf().spki, Octets(), signature) ==
                    CM::kSignatureRight,
                state);
    }
}

void LibcryptoVerify(State& state) {
    World& world = TheWorld();
    const std::string signature = test_pki::SignData(world.leaf().key, {}, Octets());
    for (auto _ : state) Require(test_pki::VerifyData(world.leaf().key, {}, Octets(), signature), state);
}

}  // namespace

void RegisterBenchmarks() {
    Register("leaf_parse", LeafParse);
    Register("leaf_parse_peer", LeafParsePeer);
    Register("leaf_parse_two_threads", LeafParse)->Threads(2);
    Register("leaf_parse_peer_two_threads", LeafParsePeer)->Threads(2);
    Register("peer_verify", PeerVerify, 0);
    Register("peer_verify_1000", PeerVerify, 1000);
    Register("peer_verify_quiet", PeerVerifyQuiet);
    Register("peer_verify_peer", PeerVerifyPeer);
    for (const int others : {10, 1000, 100000}) {
        Register(("chain_" + std::to_string(others)).c_str(), ChainOfThree, others);
    }
    for (const int personal : {10, 1000}) {
        Register(("select_" + std::to_string(personal)).c_str(), SelectLast, personal);
    }
    Register("plain_list", PlainList);
    Register("plain_list_and_parse", PlainListAndParse);
    Register("reload_first", ReloadFirst);
    Register("reload_unchanged", ReloadUnchanged);
    Register("ike2_sign", Ike2Sign);
    Register("plain_sign", PlainSign);
    Register("token_verify", TokenVerify);
    Register("libcrypto_verify", LibcryptoVerify);
}

}  // namespace bench
