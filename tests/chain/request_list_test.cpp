// The authorities that this host requests from a peer.
#include "tests/chain/chain_fixture.h"

namespace chain_test {
namespace {

class RequestListTest : public ChainTest {
  protected:
    struct Answer {
        bool result = false;
        Strings data;
    };
    Answer Ask(const LPCFG::auth_ike_t* rule, CM::CertDataFormat format = CM::kSubjectNameDer) {
        vendor_host::ClearMessages();
        Answer answer;
        const auto add = [](const std::string& datum, void* data) { static_cast<Strings*>(data)->push_back(datum); };
        answer.result = CM::IkeBuildCertRequestList(add, &answer.data, format, rule, ident_);
        return answer;
    }
    static LPCFG::auth_ike_t Rule(const Strings& subjects) {
        LPCFG::auth_ike_t rule;
        rule.name = "branch";
        for (const std::string& subject : subjects) rule.cert_trust.emplace_back().subject = subject;
        return rule;
    }
    static std::string Report(std::uint16_t code) {
        const auto messages = vendor_host::FindMessages(code);
        EXPECT_EQ(messages.size(), 1U) << "code " << code;
        return messages.empty() ? std::string() : messages[0].Text();
    }

    static Cert MakeRoot(const std::string& subject, int key, std::time_t from, std::time_t to) {
        return MakeCert({.key_index = key, .subject = subject, .not_before = from, .not_after = to, .ca = true});
    }
    const Cert first_ = MakeRoot("CN=first", 0, kNow - kDay, kNow + kDay);
    const Cert second_ = MakeRoot("CN=second", 1, kNow, kNow);
    const Cert expired_ = MakeRoot("CN=expired", 2, kNow - kDay, kNow - 1);
    const Cert future_ = MakeRoot("CN=future", 3, kNow + 1, kNow + kDay);
};

TEST_F(RequestListTest, PassesWhatIsAllowedAndValidNowInTheStoresOrder) {
    Store({&expired_, &second_, &future_, &first_});
    const Answer names = Ask(nullptr);
    EXPECT_TRUE(names.result);
    EXPECT_EQ(names.data, (Strings{second_.subject_der, first_.subject_der}));
    const auto hash = [](const Cert& cert) { return test_pki::Digest("SHA1", cert.spki); };
    EXPECT_EQ(Ask(nullptr, CM::kPublicKeySha1).data, (Strings{hash(second_), hash(first_)}));
    EXPECT_EQ(Ask(nullptr, static_cast<CM::CertDataFormat>(2)).data, names.data);

    const LPCFG::auth_ike_t any = Rule({});
    EXPECT_EQ(Ask(&any).data, names.data);
    const LPCFG::auth_ike_t one = Rule({"CN=x", "CN=first"});
    EXPECT_EQ(Ask(&one).data, (Strings{first_.subject_der}));
    const LPCFG::auth_ike_t stale = Rule({"CN=expired", "CN=future"});
    EXPECT_FALSE(Ask(&stale).result);
    EXPECT_TRUE(Ask(&stale).data.empty());
}

TEST_F(RequestListTest, ReportsWhatWasSelectedAndWhatIsNotValid) {
    Store({&expired_, &first_, &second_});
    const LPCFG::auth_ike_t rule = Rule({"CN=second", "CN=expired", "CN=first"});
    EXPECT_TRUE(Ask(&rule).result);
    const std::string selected = Report(kMsgTrustedCertsSelected);
    EXPECT_TRUE(Has(selected, "LSP rule: branch")) << selected;
    EXPECT_TRUE(Has(selected, " \\\n\t  Certificate 1: cert_trust[3] \\\n\t  Subject: CN=first")) << selected;
    EXPECT_TRUE(Has(selected, " \\\n\t  Certificate 2: cert_trust[1] \\\n\t  Subject: CN=second")) << selected;
    const std::string expired = Report(kMsgTrustedCertsExpired);
    EXPECT_TRUE(Has(expired, "Subject: CN=expired")) << expired;
    EXPECT_TRUE(Has(expired, ",\t Valid from: 2029-12-31 00:00:00 UTC to: 2029-12-31 23:59:59 UTC")) << expired;
    EXPECT_TRUE(vendor_host::FindMessages(kMsgTrustedCertsNotSelected).empty());
    EXPECT_EQ(vendor_host::FindMessages(kMsgTrustedCertsExpired)[0].ident, [&] {
        std::string text;
        ident_.toStr(text);
        return text;
    }());

    const LPCFG::auth_ike_t any = Rule({});
    Ask(&any);
    EXPECT_TRUE(Has(Report(kMsgTrustedCertsSelected), "branch - 'cert_trust' is empty"));
    Ask(nullptr);
    EXPECT_TRUE(Has(Report(kMsgTrustedCertsSelected), " - not defined yet, empty 'cert_trust' will be used"));
}

TEST_F(RequestListTest, ReportsWhyNothingWasSelected) {
    EXPECT_FALSE(Ask(nullptr).result);
    EXPECT_TRUE(Has(Report(kMsgTrustedCertsNotSelected), "Trusted Certificates DB is empty"));

    Store({&expired_, &future_});
    const LPCFG::auth_ike_t rule = Rule({"CN=x"});
    EXPECT_FALSE(Ask(&rule).result);
    EXPECT_TRUE(Has(Report(kMsgTrustedCertsNotSelected), "No Trusted Certificates matching to LSP rule were found"));

    EXPECT_FALSE(Ask(nullptr).result);
    const std::string stale = Report(kMsgTrustedCertsNotSelected);
    EXPECT_TRUE(Has(stale, "Not currently valid Trusted Certificates matching to LSP rule were found:")) << stale;
    EXPECT_TRUE(Has(stale, "Certificate 1: cert_trust[1] \\\n\t  Subject: CN=expired")) << stale;
    EXPECT_TRUE(Has(stale, "Certificate 2: cert_trust[1] \\\n\t  Subject: CN=future")) << stale;
    EXPECT_TRUE(Has(stale, ",\t Valid from: 2030-01-01 00:00:01 UTC to: 2030-01-02 00:00:00 UTC")) << stale;
    EXPECT_TRUE(vendor_host::FindMessages(kMsgTrustedCertsExpired).empty());
}

}  // namespace
}  // namespace chain_test
