// CRLs of real-world size: reading, memory, verdicts.
#include <malloc.h>
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/register.h"
#include "bench/world.h"
#include "certmgr/x509cert.h"
#include "tests/support/pki.h"

namespace bench {
namespace {

using benchmark::State;

constexpr int kLarge = 1000000;
constexpr std::size_t kSerialBytes = 16;

/// A CRL of the root: entries of 35 bytes each, with random serial numbers.
const PKCS11::CRLObject& CrlObject(int entries) {
    static std::map<int, PKCS11::CRLObject> made;
    PKCS11::CRLObject& object = made[entries];
    if (!object.value.empty()) return object;
    std::mt19937_64 random(20300101);
    std::string list;
    for (int i = 0; i < entries; ++i) {
        std::string serial(kSerialBytes, '\x11');
        for (std::size_t at = 1; at < serial.size(); ++at) serial[at] = static_cast<char>(random());
        list += test_pki::EntryDer({.serial = serial});
    }
    object.value = test_pki::MakeCrl({.entries_der = list}, TheWorld().root());
    return object;
}

using PlainCrl = std::unique_ptr<X509_CRL, decltype(&X509_CRL_free)>;

PlainCrl PlainRead(const std::string& der) {
    const auto* p = reinterpret_cast<const unsigned char*>(der.data());
    return {d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())), X509_CRL_free};
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
    const CM::CertRef cert = Certificate(TheWorld().leaf());
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

}  // namespace

void RegisterCrlBenchmarks() {
    Register("crl_read", CrlRead);
    Register("crl_read_peer", CrlReadPeer);
    Register("crl_memory", CrlMemory)->Repetitions(3);
    Register("crl_memory_peer", CrlMemoryPeer)->Repetitions(3);
    Register("crl_verdict", CrlVerdict);
    for (const int entries : {10000, kLarge}) {
        Register(("crl_look_up_" + std::to_string(entries)).c_str(), CrlLookUp, entries);
    }
}

}  // namespace bench
