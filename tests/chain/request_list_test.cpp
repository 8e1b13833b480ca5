// The authorities that this host requests from a peer.
#include "tests/chain/chain_fixture.h"

namespace chain_test {
namespace {

class RequestListTest : public ChainTest {
  protected:
    /// What is asked for; null for a failure.
    std::optional<Strings> Ask(const LPCFG::auth_ike_t* rule, CM::CertDataFormat format = CM::kSubjectNameDer) {
        vendor_host::ClearMessages();
        Strings asked;
        const auto add = [](const std::string& datum, void* data) { static_cast<Strings*>(data)->push_back(datum); };
        const bool done = CM::IkeBuildCertRequestList(add, &asked, format, rule, ident_);
        EXPECT_EQ(done, !asked.empty());
        return done ? std::optional(asked) : std::nullopt;
    }
    std::optional<Strings> Ask(const Strings& trusted) {
        LPCFG::auth_ike_t rule;
        rule.name = "branch";
        for (const std::string& subject : trusted) rule.cert_trust.push_back(SubjectPattern(subject));
        return Ask(&rule);
    }
    static void ExpectReport(std::uint16_t code, const std::string& part) {
        EXPECT_TRUE(Has(OnlyMessage(code), part)) << part << "\nin " << vendor_host::AllText();
    }
    static Cert MakeRoot(const std::string& subject, std::time_t from, std::time_t to) {
        return MakeCert({.subject = subject, .not_before = from, .not_after = to, .ca = true});
    }

    const Cert first_ = MakeRoot("CN=first", kNow - kDay, kNow + kDay);
    const Cert second_ = MakeRoot("CN=second", kNow, kNow);
    const Cert expired_ = MakeRoot("CN=expired", kNow - kDay, kNow - 1);
    const Cert future_ = MakeRoot("CN=future", kNow + 1, kNow + kDay);
};

TEST_F(RequestListTest, PassesWhatIsAllowedAndValidNowInTheStoresOrder) {
    Store({&expired_, &second_, &future_, &first_});
    const Strings names{second_.subject_der, first_.subject_der};
    EXPECT_EQ(Ask(nullptr), names);
    ExpectReport(kMsgTrustedCertsSelected, " - not defined yet, empty 'cert_trust' will be used");
    const auto hash = [](const Cert& cert) { return test_pki::Digest("SHA1", cert.spki); };
    EXPECT_EQ(Ask(nullptr, CM::kPublicKeySha1), (Strings{hash(second_), hash(first_)}));
    EXPECT_EQ(Ask(nullptr, static_cast<CM::CertDataFormat>(2)), names);
    EXPECT_EQ(Ask(Strings{}), names);
    ExpectReport(kMsgTrustedCertsSelected, "branch - 'cert_trust' is empty");

    EXPECT_EQ(Ask({"CN=x", "CN=second", "CN=expired", "CN=first"}), names);
    ExpectReport(kMsgTrustedCertsSelected, "LSP rule: branch");
    ExpectReport(kMsgTrustedCertsSelected, " \\\n\t  Certificate 1: cert_trust[2] \\\n\t  Subject: CN=second");
    ExpectReport(kMsgTrustedCertsSelected, " \\\n\t  Certificate 2: cert_trust[4] \\\n\t  Subject: CN=first");
    ExpectReport(kMsgTrustedCertsExpired, "Subject: CN=expired");
    ExpectReport(kMsgTrustedCertsExpired, ",\t Valid from: 2029-12-31 00:00:00 UTC to: 2029-12-31 23:59:59 UTC");
}

TEST_F(RequestListTest, ReportsWhyNothingWasSelected) {
    constexpr auto kCode = kMsgTrustedCertsNotSelected;
    EXPECT_EQ(Ask(nullptr), std::nullopt);
    ExpectReport(kCode, "Trusted Certificates DB is empty");
    Store({&expired_, &future_});
    EXPECT_EQ(Ask({"CN=x"}), std::nullopt);
    ExpectReport(kCode, "No Trusted Certificates matching to LSP rule were found");
    EXPECT_EQ(Ask(nullptr), std::nullopt);
    ExpectReport(kCode, "Not currently valid Trusted Certificates matching to LSP rule were found:");
    ExpectReport(kCode, "Certificate 1: cert_trust[1] \\\n\t  Subject: CN=expired");
    ExpectReport(kCode, "Certificate 2: cert_trust[1] \\\n\t  Subject: CN=future");
    EXPECT_TRUE(vendor_host::FindMessages(kMsgTrustedCertsExpired).empty());
}

}  // namespace
}  // namespace chain_test
