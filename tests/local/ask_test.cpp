// Several certificates match: the question to the user and what becomes of the answer.
#include "certmgr/records_sync.h"
#include "tests/local/local_fixture.h"

namespace local_test {
namespace {

// The wire form, written down independently of the streams.
std::string Number(std::uint64_t value, unsigned bytes) {
    std::string text;
    for (unsigned i = 0; i < bytes; ++i) text.push_back(static_cast<char>(value >> (8 * i)));
    return text;
}

std::string Counted(const std::string& text) {
    return Number(text.size(), 4) + text;
}

std::string Encoded(const CertInfo& info) {
    return Counted(info.id) + Counted(info.serialNumber) + Counted(info.subject) + Counted(info.issuer) +
           Number(info.validFrom, 8) + Number(info.validTo, 8) + Number(info.keyAlg, 4) + Number(info.signAlg, 4) +
           Number(info.isCA ? 1 : 0, 1) + Number(info.version, 4) + Number(info.keyBits, 4) + Number(info.kind, 4);
}

std::string Encoded(const PKCS11::TokenInfo& token) {
    std::string text = Number(token.id, 8) + Counted(token.label) + Counted(token.manufacturer) + Counted(token.model) +
                       Counted(token.serialNumber) + Counted(token.slotDescription) + Counted(token.providerName);
    for (const bool flag : {token.loggedIn, token.writeProtected, token.loginRequired, token.hardware, token.removable,
                            token.pinPad, token.holdsTrusted}) {
        text += Number(flag ? 1 : 0, 1);
    }
    return text;
}

const std::string kChosen(1, '\1');

class AskTest : public LocalTest {
  protected:
    void SetUp() override {
        LocalTest::SetUp();
        AddPersonal({.subject = "CN=a"});
        const auto second = vendor_host::AddToken("second", "0002");
        const test_pki::Cert cert = test_pki::MakeLeaf("CN=b", root_);
        second->AddPersonal(cert.der, cert.key);
        second->EditInfo([](PKCS11::TokenInfo& info) {
            info.loggedIn = true;
            info.removable = true;
        });
        Load();
        a_ = FindLocal("CN=a");
        b_ = FindLocal("CN=b");
    }
    void TearDown() override {
        a_.reset();
        b_.reset();
        LocalTest::TearDown();
    }

    CM::SelectLocalResult Ask(const std::optional<std::string>& answer) {
        vendor_host::ClearMessages();
        vendor_host::SetAnswer([answer](std::uint32_t, const std::string&, int) { return answer; });
        return CM::IkeSelectLocalCertificate(nullptr, {}, CM::kIgnoreBoundCollect, nullptr, nullptr, ident_);
    }

    std::unique_ptr<Handle> a_;
    std::unique_ptr<Handle> b_;
};

TEST_F(AskTest, QuestionHoldsCertificatesThenTheirTokens) {
    std::optional<int> timeout;
    vendor_host::SetAnswer([&](std::uint32_t, const std::string&, int ms) {
        timeout = ms;
        CM::Reload();  // the store is not locked meanwhile
        return std::optional(kChosen + Encoded(b_->get()->info));
    });
    const auto result = CM::IkeSelectLocalCertificate(nullptr, {}, CM::kIgnoreBoundCollect, nullptr, nullptr, ident_);
    EXPECT_EQ(Handle(result.cert).Subject(), "CN=b");
    EXPECT_EQ(result.status, CM::kLocalAccepted);
    EXPECT_EQ(timeout, -1);
    const auto questions = vendor_host::Questions();
    ASSERT_EQ(questions.size(), 1U);
    EXPECT_EQ(questions[0].code, 6U);
    EXPECT_EQ(questions[0].body, Number(2, 4) + Encoded(a_->get()->info) + Encoded(b_->get()->info) + Number(2, 4) +
                                     Encoded(a_->get()->token) + Encoded(b_->get()->token));
}

TEST_F(AskTest, AnswersAreJudged) {
    CertInfo no_id = b_->get()->info;
    no_id.id.clear();
    CertInfo other_id = b_->get()->info;
    other_id.id = "x";
    CertInfo other_serial = b_->get()->info;
    other_serial.serialNumber += "0";
    CertInfo other_issuer = b_->get()->info;
    other_issuer.issuer = "CN=root, O=Test";
    struct Case {
        const char* name;
        std::optional<std::string> answer;
        std::uint32_t status;
        const char* subject;
        const char* report;
    };
    const Case cases[] = {
        {"first", kChosen + Encoded(a_->get()->info), 1, "CN=a", nullptr},
        {"second", kChosen + Encoded(b_->get()->info), 1, "CN=b", nullptr},
        {"bytes after the record", kChosen + Encoded(b_->get()->info) + "more", 1, "CN=b", nullptr},
        {"without id", kChosen + Encoded(no_id), 1, "CN=b", nullptr},
        {"other id", kChosen + Encoded(other_id), 8, "CN=a", "multiple matches, but user choose another"},
        {"other serial", kChosen + Encoded(other_serial), 8, "CN=a", "multiple matches, but user choose another"},
        {"other issuer", kChosen + Encoded(other_issuer), 8, "CN=a", "multiple matches, but user choose another"},
        {"cancelled", std::string(1, '\0'), 7, "CN=a",
         "multiple matches, but user don't choose any one (cancel pressed)"},
        {"verdict 2", "\2" + Encoded(b_->get()->info), 7, "CN=a",
         "multiple matches, but user don't choose any one (cancel pressed)"},
        {"nobody", std::nullopt, 6, "CN=a", "multiple matches, but failed to send notification to choose one"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        const auto result = Ask(test.answer);
        const Handle cert(result.cert);
        EXPECT_EQ(result.status, test.status);
        EXPECT_EQ(cert.Subject(), test.subject);
        const std::string report = OnlyMessage(kMsgLocalCertNotFound);
        if (test.report == nullptr) {
            EXPECT_EQ(report, "");
            EXPECT_NE(OnlyMessage(kMsgLocalCertSelected), "");
            continue;
        }
        for (const char* number : {"1", "2"}) {
            const std::string line = std::string("Certificate ") + number + ": cert_local[1]: " + test.report;
            EXPECT_NE(report.find(line), std::string::npos) << report;
        }
    }
}

// An identifier that the candidate lacks does not count.
TEST_F(AskTest, ACandidateWithoutIdentifier) {
    token_->AddObject({.id = "", .value = test_pki::MakeLeaf("CN=c", root_).der, .category = 1});
    Load();
    CertInfo chosen = FindLocal("CN=c")->get()->info;
    chosen.id = "x";
    EXPECT_EQ(Handle(Ask(kChosen + Encoded(chosen)).cert).Subject(), "CN=c");
}

TEST_F(AskTest, ShortAnswersThrow) {
    const std::string answer = kChosen + Encoded(b_->get()->info);
    for (std::size_t length = 0; length < answer.size(); ++length) {
        SCOPED_TRACE(length);
        try {
            Ask(answer.substr(0, length));
            ADD_FAILURE() << "accepted";
        } catch (const char* text) {
            EXPECT_STREQ(text, "CommandStreamError");
        }
    }
    EXPECT_THROW(Ask(kChosen + std::string(64, '\xff')), const char*);
    EXPECT_TRUE(vendor_host::Messages().empty());
}

TEST_F(AskTest, ChoiceAmongCertificatesThatWereNotRequested) {
    Requests nobody("");
    vendor_host::SetAnswer(
        [&](std::uint32_t, const std::string&, int) { return std::optional(kChosen + Encoded(b_->get()->info)); });
    const auto result = CM::IkeSelectLocalCertificate(nullptr, {}, CM::kIgnoreBoundFirst, nullptr, &nobody, ident_);
    EXPECT_EQ(Handle(result.cert).Subject(), "CN=b");
    EXPECT_EQ(result.status, CM::kLocalAccepted);
    EXPECT_NE(OnlyMessage(kMsgLocalCertSelected).find(" UTC (Not matched to CR) \\\n\t  Identity: "), std::string::npos)
        << vendor_host::AllText();
}

// --- Streams ---

TEST(CommandStreamTest, FieldsTravelUnchangedAndOnlyOneIsTrue) {
    const PKCS11::TokenInfo token{.id = 0x8000000000000001, .label = std::string("l\0l", 3), .pinPad = true};
    const std::string bytes = Encoded(token);
    PKCS11::TokenInfo read;
    CommandStreamIn in(bytes);
    sync(in, read);
    EXPECT_EQ(Encoded(read), bytes);

    bool flag = true;
    CommandStreamIn two("\2");
    two.fields(flag);
    EXPECT_FALSE(flag);
}

template <typename Record>
std::string Written(const Record& record) {
    std::string bytes;
    CommandStreamOut out(bytes);
    sync(out, record);
    return bytes;
}

// Fields whose order on the stream is not that of the record.
TEST(CommandStreamTest, OrderOfTheFields) {
    CertRequestInfo request;
    request.keyAlg = 1;
    request.keyBits = 2;
    request.hashAlg = 3;
    request.keyGenFlag = true;
    request.subject = "s";
    request.ipAddress = "i";
    request.email = "e";
    request.dnsName = "d";
    request.upn = "u";
    request.extKeyUsage = "x";
    request.randomSeed = "r";
    std::string expected = Number(1, 4) + Number(2, 4) + Number(3, 4);
    for (const char* text : {"s", "i", "e", "d", "u", "x"}) expected += Counted(text);
    EXPECT_EQ(Written(request), expected + "\1" + Counted("r"));

    const CRLInfo crl{.id = "i",
                      .issuer = "s",
                      .thisUpdate = 1,
                      .nextUpdate = 2,
                      .signAlg = 3,
                      .crlNumber = "n",
                      .deltaCrlIndicator = "d"};
    EXPECT_EQ(Written(crl),
              Counted("i") + Counted("s") + Number(1, 8) + Number(2, 8) + Number(3, 4) + Counted("n") + Counted("d"));
    EXPECT_EQ(Written(CertRequestKeyInfo{.keyAlg = 5}), Number(5, 4) + Number(0, 4) + Number(0, 4));

    CertExtentions ext;
    expected.clear();
    for (std::string* text :
         {&ext.md5, &ext.sha1, &ext.subjectAltName, &ext.issuerAltName, &ext.keyUsage, &ext.authorityKeyId,
          &ext.subjectKeyIdHex, &ext.privateKeyUsagePeriod, &ext.certificatePolicies, &ext.policyMappings,
          &ext.nameConstraints, &ext.policyConstraints, &ext.extKeyUsageNames, &ext.basicConstraints,
          &ext.authorityInfoAccess, &ext.crlDistributionPoints}) {
        *text = "text " + std::to_string(expected.size());
        expected += Counted(*text);
    }
    ext.unknownExtensions = {{"1.2", "v"}};
    ext.privateKeyUsageEnd = 7;
    ext.firstUnknownCritical = "1.3";
    EXPECT_EQ(Written(ext), expected + Number(1, 4) + Counted("1.2") + Counted("v") + Number(7, 8) + Counted("1.3"));
}

TEST(CommandStreamTest, ReadsFailAtTheEndAndKeepFailing) {
    const std::string bytes = Number(7, 4) + Number(5, 4) + "four";
    CommandStreamIn in(bytes);
    std::uint32_t number = 0;
    std::string text = "before";
    EXPECT_THROW(in.fields(number, text), const char*);
    EXPECT_EQ(number, 7U);
    EXPECT_EQ(text, "before");
    bool flag = false;
    EXPECT_THROW(in.fields(flag), const char*);
}

}  // namespace
}  // namespace local_test
