// A peer that chooses its certificates to make the verification dear.
#include <ctime>

#include "tests/chain/peer_fixture.h"

namespace chain_test {
namespace {

constexpr unsigned kPayloadCerts = 1000;

/// Every certificate is a candidate and an authority at once.
CertSpec CandidateAuthority(const std::string& subject) {
    return {.key = KeyType::kEcP256,
            .key_index = 3,
            .subject = subject,
            .ca = true,
            .key_usage = "digitalSignature, keyCertSign",
            .san = {"DNS:peer.example"},
            .ski = KeyId::Bytes(subject)};
}

class HostileTest : public PeerTest {
  protected:
    /// Verifies; the limit of processor time is far above what quadratic work needs, far below cubic.
    Strings VerifyInTime(const Payload& payload) const {
        constexpr double kLimitSeconds = 60;
        const std::clock_t start = std::clock();
        Strings refusals = Verify(payload);
        EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, kLimitSeconds);
        return refusals;
    }
};

TEST_F(HostileTest, LongChainsThroughTwoNames) {
    // Each certificate's issuer has the other name and began a second earlier: chains as long as the payload, every
    // step a choice among half of it.
    std::vector<std::string> bundle;
    for (unsigned i = 0; i < kPayloadCerts; ++i) {
        CertSpec spec = CandidateAuthority(i % 2 == 0 ? "CN=a" : "CN=b");
        const std::string issuer = i % 2 == 0 ? "CN=b" : "CN=a";
        spec.issuer_der = test_pki::NameDer(issuer);
        spec.not_before = test_pki::kNotBefore + i;
        spec.aki = KeyId::Bytes(issuer);
        bundle.push_back(MakeCert(spec).der);
    }
    Payload payload;
    ASSERT_TRUE(payload.AddBundle(test_pki::MakePkcs7(bundle)));
    ASSERT_EQ(payload.certs.size(), kPayloadCerts);
    Store({&root_});
    const Strings refusals = VerifyInTime(payload);
    EXPECT_FALSE(refusals.empty());
    for (const std::string& refusal : refusals) EXPECT_EQ(refusal, "1: Certificates chain has cycle");

    const std::string report = vendor_host::FindMessages(kMsgPeerCertNotSelected)[0].Text();
    EXPECT_LT(report.size(), 32U << 10);
    EXPECT_TRUE(Has(report, " Chain: " + std::to_string(kPayloadCerts + 1) + " certificates")) << report;
    const std::string rest = std::to_string(kPayloadCerts - refusals.size());
    EXPECT_TRUE(Has(report, "... and more: " + rest + " \\\n\t    " + rest + ": Certificates chain has cycle"));
}

TEST_F(HostileTest, LongChainOfGoodSignaturesUnderABadOne) {
    // Every signature holds but the uppermost, which claims to be the trusted root's.
    std::vector<Cert> certs;
    const Cert* issuer = &root_;
    certs.reserve(kPayloadCerts);
    for (unsigned i = 0; i < kPayloadCerts; ++i) {
        CertSpec spec = CandidateAuthority("CN=" + std::to_string(i));
        spec.damage_signature = i == 0;
        certs.push_back(MakeCert(spec, issuer));
        issuer = &certs.back();
    }
    Payload payload;
    for (const Cert& cert : certs) payload.Add(cert.der);
    Store({&root_});
    const Strings refusals = VerifyInTime(payload);
    ASSERT_GT(refusals.size(), 9U);
    EXPECT_EQ(refusals[0] + "|" + refusals[9], "1: Invalid signature|1: Invalid signature (9)");
    EXPECT_EQ(token_->Calls(Op::kVerify), kPayloadCerts) << "each once, the bad one too";
}

TEST_F(HostileTest, OneCertificateManyTimes) {
    Payload payload;
    const Cert bad = Changed([](CertSpec& s) { s.damage_signature = true; });
    for (unsigned i = 0; i < kPayloadCerts; ++i) payload.Add(bad.der);
    payload.Add(issuing_.der);
    Store({&root_}, {&bad});
    EXPECT_EQ(VerifyInTime(payload), Strings{"1: Invalid signature (0)"});
}

}  // namespace
}  // namespace chain_test
