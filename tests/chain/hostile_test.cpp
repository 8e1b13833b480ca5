// A peer that chooses its certificates to make the verification dear, and verification beside reloads.
#include <atomic>
#include <ctime>
#include <thread>

#include "tests/chain/peer_fixture.h"

namespace chain_test {
namespace {

constexpr unsigned kPayloadCerts = 1000;

/// Every certificate is a candidate and an authority at once.
CertSpec CandidateAuthority() {
    return {.key = KeyType::kEcP256,
            .key_index = 3,
            .ca = true,
            .key_usage = "digitalSignature, keyCertSign",
            .san = {"DNS:peer.example"}};
}

class HostileTest : public PeerTest {
  protected:
    /// Verifies; the limit of processor time is far above what quadratic work needs, far below cubic.
    PeerVerdict VerifyInTime(const Payload& payload) const {
        constexpr double kLimitSeconds = 60;
        const std::clock_t start = std::clock();
        PeerVerdict verdict = Verify(payload);
        EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, kLimitSeconds);
        return verdict;
    }
};

TEST_F(HostileTest, LongChainsThroughTwoNames) {
    // Each certificate's issuer has the other name and began a second earlier: chains as long as the payload, every
    // step a choice among half of it.
    std::vector<std::string> bundle;
    for (unsigned i = 0; i < kPayloadCerts; ++i) {
        CertSpec spec = CandidateAuthority();
        const std::string issuer = i % 2 == 0 ? "CN=b" : "CN=a";
        spec.subject = i % 2 == 0 ? "CN=a" : "CN=b";
        spec.issuer_der = test_pki::NameDer(issuer);
        spec.not_before = test_pki::kNotBefore + i;
        spec.ski = KeyId::Bytes(spec.subject);
        spec.aki = KeyId::Bytes(issuer);
        bundle.push_back(MakeCert(spec).der);
    }
    Payload payload;
    ASSERT_TRUE(payload.AddBundle(test_pki::MakePkcs7(bundle)));
    ASSERT_EQ(payload.certs.size(), kPayloadCerts);
    Store({&root_});
    const PeerVerdict verdict = VerifyInTime(payload);
    EXPECT_FALSE(verdict.refusals.empty());
    for (const std::string& refusal : verdict.refusals) EXPECT_EQ(refusal, "1: Certificates chain has cycle");

    const std::string report = vendor_host::FindMessages(kMsgPeerCertNotSelected)[0].Text();
    EXPECT_LT(report.size(), 32U << 10);
    EXPECT_TRUE(Has(report, " Chain: " + std::to_string(kPayloadCerts + 1) + " certificates")) << report;
    const std::string rest = std::to_string(kPayloadCerts - verdict.refusals.size());
    EXPECT_TRUE(Has(report, "... and more: " + rest + " \\\n\t    " + rest + ": Certificates chain has cycle"));
}

TEST_F(HostileTest, LongChainOfGoodSignaturesUnderABadOne) {
    // Every signature holds but the uppermost, which claims to be the trusted root's.
    std::vector<Cert> certs;
    const Cert* issuer = &root_;
    certs.reserve(kPayloadCerts);
    for (unsigned i = 0; i < kPayloadCerts; ++i) {
        CertSpec spec = CandidateAuthority();
        spec.subject = "CN=" + std::to_string(i);
        spec.ski = KeyId::Bytes(spec.subject);
        spec.damage_signature = i == 0;
        certs.push_back(MakeCert(spec, issuer));
        issuer = &certs.back();
    }
    Payload payload;
    for (const Cert& cert : certs) payload.Add(cert.der);
    Store({&root_});
    const PeerVerdict verdict = VerifyInTime(payload);
    ASSERT_GT(verdict.refusals.size(), 9U);
    EXPECT_EQ(verdict.refusals[0], "1: Invalid signature");
    EXPECT_EQ(verdict.refusals[9], "1: Invalid signature (9)");
    EXPECT_EQ(token_->Calls(Op::kVerify), kPayloadCerts) << "each once, the bad one too";
}

TEST_F(HostileTest, OneCertificateManyTimes) {
    Payload payload;
    CertSpec spec = PeerSpec();
    spec.damage_signature = true;
    const Cert bad = MakeCert(spec, &issuing_);
    for (unsigned i = 0; i < kPayloadCerts; ++i) payload.Add(bad.der);
    payload.Add(issuing_.der);
    Store({&root_}, {&bad});
    EXPECT_EQ(VerifyInTime(payload), (PeerVerdict{"", {"1: Invalid signature (0)"}}));
}

// --- Beside reloads ---

TEST_F(HostileTest, VerifiesWhileTheStoreIsReloaded) {
    constexpr unsigned kThreads = 4;
    constexpr unsigned kRounds = 40;
    const Cert local = MakeLeaf("CN=local", issuing_, KeyType::kEcP256, 5);
    Store({&root_}, {&issuing_}, {&local});
    const Payload payload({&peer_});
    const std::string crl = MakeCrl({}, root_);
    std::atomic<unsigned> requested{0};
    std::atomic<bool> done{false};
    CM::X509Cert* const stays = store().personalCerts[0];
    const auto work = [&] {
        for (unsigned round = 0; round < kRounds; ++round) {
            const Handle peer(
                CM::IkeVerifyPeerCertificate(rule_, id_, payload.certs, LPARAMS::CRL_PROC_DISABLED, {}, ident_));
            const auto count = [](const std::string&, void* counter) {
                ++*static_cast<std::atomic<unsigned>*>(counter);
            };
            CM::IkeBuildCertRequestList(count, &requested, CM::kPublicKeySha1, &rule_, ident_);
            {
                const vpnfc::ReadLock lock(store());
                const auto& list = store().otherCerts;
                for (std::size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list.PositionOf(list[i]), i);
                for (const auto position : list.WithSubject("CN=issuing")) EXPECT_LT(position, list.size());
                for (const auto& held : store().crls) EXPECT_EQ(held->rawCrl(), crl);
            }
            Handle locals;
            CM::GetLocalCertificatesBySubject(locals.certs, "CN=local");
            for (const CM::X509Cert* cert : locals.certs) {
                Handle chain;
                CM::BuildLocalCertChain(chain.certs, cert, ident_);
                std::string reason;
                CMT_VerifyCertChain(const_cast<CM::X509Cert*>(cert), 0, &reason);
                EXPECT_TRUE(CM::LocalCertsExportToRawPKCS7(reason, ident_));  // copies the list
            }
        }
    };
    vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
    std::thread reloads([&] {
        const std::string id = store().otherCerts[0]->info.id;
        while (!done) {
            token_->Remove(id);
            CM::Reload();
            vendor_host::FireInsert(*token_);
            store().PutCRLToDB(std::make_unique<CM::X509CRL>(PKCS11::TokenInfo{}, PKCS11::CRLObject{.value = crl}));
            token_->AddCertificate(issuing_.der, {.id = id});
            store().ReloadCertificates();
            store().WaitReloadDone();
        }
    });
    {
        std::vector<std::jthread> workers;
        for (unsigned i = 0; i < kThreads; ++i) workers.emplace_back(work);
    }
    done = true;
    reloads.join();
    vendor_host::SetEventMode(vendor_host::EventMode::kManual);
    EXPECT_EQ(requested, kThreads * kRounds);
    EXPECT_EQ(store().personalCerts.certs(), std::vector{stays});
    CM::Reload();
    EXPECT_EQ(Verify(payload).selected, "CN=peer");
}

}  // namespace
}  // namespace chain_test
