// CRLs of real-world size: reading, memory, verdicts; checks with CRLs in the cache and beside servers that are dead.
#include <malloc.h>
#include <openssl/x509.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/register.h"
#include "bench/world.h"
#include "certmgr/chain.h"
#include "certmgr/x509cert.h"
#include "libcrypto/libcrypto.h"
#include "platform/params.h"
#include "tests/support/crl_servers.h"
#include "tests/support/pki.h"

namespace bench {
namespace {

using benchmark::State;

constexpr int kLarge = 1000000;
constexpr std::size_t kSerialBytes = 16;

constexpr int kSmall = 10000;

/// Entries of 35 bytes each, with random serial numbers.
std::string CrlDer(int entries, const test_pki::Cert& issuer) {
    std::mt19937_64 random(20300101);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same entries in every run
    std::string list;
    for (int i = 0; i < entries; ++i) {
        std::string serial(kSerialBytes, '\x11');
        for (std::size_t at = 1; at < serial.size(); ++at) serial[at] = static_cast<char>(random());
        list += test_pki::EntryDer({.serial = serial});
    }
    return test_pki::MakeCrl({.entries_der = list}, issuer);
}

/// A CRL of the root.
const PKCS11::CRLObject& CrlObject(int entries) {
    static std::map<int, PKCS11::CRLObject> made;
    PKCS11::CRLObject& object = made[entries];
    if (object.value.empty()) object.value = CrlDer(entries, TheWorld().root());
    return object;
}

libcrypto::CrlPtr PlainRead(const std::string& der) {
    return libcrypto::Decode<X509_CRL_free>(d2i_X509_CRL, der);
}

std::unique_ptr<CM::X509CRL> Read(const PKCS11::CRLObject& object) {
    return std::make_unique<CM::X509CRL>(PKCS11::TokenInfo{}, object);
}

/// Times `make`, and not what becomes of the result.
template <typename Make>
void TimeMaking(State& state, Make make) {
    for (auto _ : state) {
        auto made = make();
        Require(made != nullptr, state);
        state.PauseTiming();
        made.reset();
        state.ResumeTiming();
    }
}

void CrlRead(State& state) {
    const PKCS11::CRLObject& object = CrlObject(kLarge);
    TimeMaking(state, [&object] { return Read(object); });
}

void CrlReadPeer(State& state) {
    const std::string& der = CrlObject(kLarge).value;
    TimeMaking(state, [&der] { return PlainRead(der); });
}

double BytesInUse() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks) + static_cast<double>(info.hblkhd);
}

/// Memory in use after `make`, less what was before and the DER as often as it is kept, in DERs.
template <typename Make>
void MeasureMaking(State& state, int copies_of_der, Make make) {
    const auto der_bytes = static_cast<double>(CrlObject(kLarge).value.size());
    for (auto _ : state) {
        const double before = BytesInUse();
        const auto made = make();
        state.counters["figure"] = (BytesInUse() - before) / der_bytes - copies_of_der;
    }
}

void CrlMemory(State& state) {
    const PKCS11::CRLObject& object = CrlObject(kLarge);
    MeasureMaking(state, 1, [&object] { return Read(object); });
}

void CrlMemoryPeer(State& state) {
    const std::string& der = CrlObject(kLarge).value;
    MeasureMaking(state, 0, [&der] { return PlainRead(der); });
}

/// What a check asks of a CRL that is there: signature, entry, coverage.
void Judge(State& state, const CM::X509CRL& crl, const CM::X509Cert& issuer, const CM::X509Cert& cert) {
    RevokedEntry entry;
    std::string why_not;
    Require(crl.CheckSignature(&issuer) == CM::kSignatureRight && !crl.FindRevoked(cert, entry) &&
                CM::CrlCanClear(crl, {}, cert, why_not),
            state);
}

CM::CertRef Certificate(const test_pki::Cert& cert) {
    return CM::CertRef::Adopt(new CM::X509Cert({}, PKCS11::CertObject{.value = cert.der}));
}

void CrlVerdict(State& state) {
    const auto crl = Read(CrlObject(kLarge));
    const CM::CertRef issuer = Certificate(TheWorld().root());
    const CM::CertRef cert = Certificate(TheWorld().intermediate());
    for (auto _ : state) Judge(state, *crl, *issuer, *cert);
}

/// Of many entries, so that not each is at hand in a processor's cache.
void CrlLookUp(State& state, int entries) {
    const auto crl = Read(CrlObject(entries));
    std::vector<std::string> serials;
    {
        const RevokedCertInfoList records = crl->revoked();
        for (std::size_t i = 0; i < 1000; ++i) serials.push_back(records[i * 7919 % records.size()].serialNumber);
    }
    std::size_t next = 0;
    RevokedEntry entry;
    for (auto _ : state) {
        Require(crl->FindRevoked(serials[next], entry), state);
        next = (next + 1) % serials.size();
    }
}

// --- Checks of peers whose CRLs are on a server ---

class CheckedPeers {
  public:
    CheckedPeers()
        : intermediate_(Issue("/root.crl", "CN=Checked, O=Bench, C=EX", true, &TheWorld().root())),
          leaf_(Leaf("/issuing.crl")) {
        server_.Set("/root.crl", {.body = CrlDer(kSmall, TheWorld().root())});
        server_.Set("/issuing.crl", {.body = CrlDer(kSmall, intermediate_)});
    }

    test_support::HostileServer& server() { return server_; }
    const test_pki::Cert& intermediate() const { return intermediate_; }
    const test_pki::Cert& leaf() const { return leaf_; }
    /// Whose CRL is at that path of the server.
    test_pki::Cert Leaf(const std::string& path) const {
        return Issue(path, "CN=checked, O=Bench, C=EX", false, &intermediate_);
    }
    /// A path that was not used before.
    std::string NewPath() { return "/" + std::to_string(++paths_) + ".crl"; }

  private:
    test_pki::Cert Issue(const std::string& path, const std::string& subject, bool ca,
                         const test_pki::Cert* issuer) const {
        return test_pki::MakeCert({.key = test_pki::KeyType::kRsa2048,
                                   .key_index = ca ? 1 : 2,
                                   .subject = subject,
                                   .ca = ca,
                                   .key_usage = ca ? "keyCertSign, cRLSign" : "digitalSignature",
                                   .crl_points = {{"URI:" + server_.Uri(path)}}},
                                  issuer);
    }

    test_support::HostileServer server_;
    test_pki::Cert intermediate_;
    test_pki::Cert leaf_;
    unsigned paths_ = 0;
};

CheckedPeers& ThePeers() {
    static CheckedPeers peers;
    return peers;
}

bool PassesCheck(const CM::CertRef& cert) {
    static const CM::CertRef& issuer = *new CM::CertRef(Certificate(ThePeers().intermediate()));
    return CM::CertVerifyRevocation(cert.get(), issuer.get(), LPARAMS::CRL_PROC_ENABLED, {}, {});
}

void VerifyChecked(State& state, LPARAMS::CRL_PROC_t mode) {
    const auto passes = [mode] { return TheWorld().VerifyPeer(ThePeers().leaf(), ThePeers().intermediate(), mode); };
    const StoreListReplaced no_others(&CM::CertStorage::otherCerts, TheWorld().Variants("Other peer", false, 0));
    Require(passes(), state);  // fetches the CRLs
    for (auto _ : state) Require(passes(), state);
}

/// Sets the time-out of transfers while it lives.
class TransferTimeOut {
  public:
    explicit TransferTimeOut(std::uint32_t seconds) : before_(Exchange(seconds)) {}
    ~TransferTimeOut() { Exchange(before_); }
    TransferTimeOut(const TransferTimeOut&) = delete;
    TransferTimeOut& operator=(const TransferTimeOut&) = delete;

  private:
    static std::uint32_t Exchange(std::uint32_t seconds) {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        return std::exchange(LPARAMS::server.cert.crl_download_timeout_seconds, seconds);
    }
    const std::uint32_t before_;
};

/// From the start of the first check to the answer of the last.
void ChecksOfDead(State& state) {
    constexpr int kChecks = 64;
    const TransferTimeOut time_out(3);
    const std::string path = ThePeers().NewPath();
    ThePeers().server().Set(path, {.silent = true});
    const CM::CertRef cert = Certificate(ThePeers().Leaf(path));
    std::atomic<int> refused{0};
    for (auto _ : state) {
        std::vector<std::jthread> checks;
        checks.reserve(kChecks);
        for (int i = 0; i < kChecks; ++i) {
            checks.emplace_back([&] { refused += PassesCheck(cert) ? 0 : 1; });
        }
    }
    Require(refused == kChecks && ThePeers().server().Requests(path) == 1, state);
}

/// A check that waits for its server while this lives.
class HangingCheck {
  public:
    HangingCheck() : path_(ThePeers().NewPath()) {
        ThePeers().server().Hold(path_);
        thread_ = std::jthread([cert = Certificate(ThePeers().Leaf(path_))] { PassesCheck(cert); });
        ThePeers().server().WaitForRequests(path_, 1);
    }
    ~HangingCheck() { ThePeers().server().Release(path_); }
    HangingCheck(const HangingCheck&) = delete;
    HangingCheck& operator=(const HangingCheck&) = delete;

  private:
    const TransferTimeOut time_out_{600};
    const std::string path_;
    std::jthread thread_;
};

void Checks(State& state, bool beside_hanging) {
    constexpr int kChecks = 1000;
    std::optional<HangingCheck> hanging;
    if (beside_hanging) hanging.emplace();
    const CM::CertRef cert = Certificate(ThePeers().leaf());
    for (auto _ : state) {
        for (int i = 0; i < kChecks; ++i) Require(PassesCheck(cert), state);
    }
}

}  // namespace

void RegisterCrlBenchmarks() {
    Register("crl_read", CrlRead);
    Register("crl_read_peer", CrlReadPeer);
    Register("crl_memory", CrlMemory)->Repetitions(3);
    Register("crl_memory_peer", CrlMemoryPeer)->Repetitions(3);
    Register("crl_verdict", CrlVerdict);
    for (const int entries : {kSmall, kLarge}) {
        Register(("crl_look_up_" + std::to_string(entries)).c_str(), CrlLookUp, entries);
    }
    Register("peer_crls", VerifyChecked, LPARAMS::CRL_PROC_ENABLED);
    Register("peer_no_crls", VerifyChecked, LPARAMS::CRL_PROC_DISABLED);
    RegisterOnce("checks_of_dead", ChecksOfDead);
    Register("checks", Checks, false);
    Register("checks_beside_hanging", Checks, true);
}

}  // namespace bench
