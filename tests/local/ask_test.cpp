// Several certificates match: the question to the user and what becomes of the answer.
#include <optional>

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

std::string Counted(const Strings& texts) {
    std::string bytes;
    for (const std::string& text : texts) bytes += Number(text.size(), 4) + text;
    return bytes;
}

std::string Encoded(const CertInfo& info) {
    return Counted({info.id, info.serialNumber, info.subject, info.issuer}) + Number(info.validFrom, 8) +
           Number(info.validTo, 8) + Number(info.keyAlg, 4) + Number(info.signAlg, 4) + Number(info.isCA ? 1 : 0, 1) +
           Number(info.version, 4) + Number(info.keyBits, 4) + Number(info.kind, 4);
}

std::string Encoded(const PKCS11::TokenInfo& token) {
    std::string text = Number(token.id, 8) + Counted({token.label, token.manufacturer, token.model, token.serialNumber,
                                                      token.slotDescription, token.providerName});
    for (const bool flag : {token.loggedIn, token.writeProtected, token.loginRequired, token.hardware, token.removable,
                            token.pinPad, token.holdsTrusted}) {
        text += flag ? '\1' : '\0';
    }
    return text;
}

const std::string kChosen(1, '\1');

class AskTest : public LocalTest {
  protected:
    AskTest() {
        AddPersonal({.subject = "CN=a"});
        const auto second = vendor_host::AddToken("second", "0002");
        const Cert cert = MakeLeaf("CN=b", root_);
        second->AddPersonal(cert.der, cert.key);
        second->EditInfo([](PKCS11::TokenInfo& info) {
            info.removable = true;
            std::tie(info.manufacturer, info.model) = std::pair("manufacturer", "model");
            std::tie(info.slotDescription, info.providerName) = std::pair("slot", "provider");
        });
        Load();
        a_ = FindLocal("CN=a");
        b_ = FindLocal("CN=b");
    }

    CM::SelectLocalResult Ask(const std::optional<std::string>& answer,
                              CM::UseHandleFromAuthType mode = CM::kIgnoreBoundCollect, Requests* requests = nullptr) {
        vendor_host::ClearMessages();
        vendor_host::SetAnswer([this, answer](std::uint32_t, const std::string&, int timeout) {
            timeout_ = timeout;
            CM::Reload();  // the store is not locked meanwhile
            return answer;
        });
        return CM::IkeSelectLocalCertificate(nullptr, {}, mode, nullptr, requests, ident_);
    }

    std::unique_ptr<Handle> a_;
    std::unique_ptr<Handle> b_;
    std::optional<int> timeout_;
};

TEST_F(AskTest, QuestionHoldsCertificatesThenTheirTokens) {
    EXPECT_EQ(Handle(Ask(kChosen + Encoded(b_->get()->info)).cert).Subject(), "CN=b");
    EXPECT_EQ(timeout_, -1);
    const auto questions = vendor_host::Questions();
    ASSERT_EQ(questions.size(), 1U);
    EXPECT_EQ(questions[0].code, 6U);
    EXPECT_EQ(questions[0].body, Number(2, 4) + Encoded(a_->get()->info) + Encoded(b_->get()->info) + Number(2, 4) +
                                     Encoded(a_->get()->token) + Encoded(b_->get()->token));
}

TEST_F(AskTest, AnswersAreJudged) {
    const auto b_with = [&](std::string CertInfo::*member, const std::string& value) {
        CertInfo info = b_->get()->info;
        info.*member = value;
        return kChosen + Encoded(info);
    };
    const std::string b = kChosen + Encoded(b_->get()->info);
    const std::string another = "multiple matches, but user choose another";
    const std::string cancelled = "multiple matches, but user don't choose any one (cancel pressed)";
    const std::tuple<const char*, std::optional<std::string>, std::uint32_t, const char*, std::string> cases[] = {
        {"first", kChosen + Encoded(a_->get()->info), 1, "CN=a", ""},
        {"bytes after the record", b + "more", 1, "CN=b", ""},
        {"without id", b_with(&CertInfo::id, ""), 1, "CN=b", ""},
        {"other id", b_with(&CertInfo::id, "x"), 8, "CN=a", another},
        {"other serial", b_with(&CertInfo::serialNumber, "00"), 8, "CN=a", another},
        {"other issuer", b_with(&CertInfo::issuer, "CN=root, O=Test"), 8, "CN=a", another},
        {"cancelled", std::string(1, '\0'), 7, "CN=a", cancelled},
        {"verdict 2", "\2" + b.substr(1), 7, "CN=a", cancelled},
        {"nobody", std::nullopt, 6, "CN=a", "multiple matches, but failed to send notification to choose one"},
    };
    for (const auto& [name, answer, status, subject, refusal] : cases) {
        SCOPED_TRACE(name);
        const auto result = Ask(answer);
        EXPECT_EQ(std::pair(result.status, Handle(result.cert).Subject()), std::pair(status, std::string(subject)));
        EXPECT_EQ(OnlyMessage(kMsgLocalCertSelected) != "", refusal.empty());
        for (const std::string number : {"1", "2"}) {
            const std::string line = "Certificate " + number + ": cert_local[1]: " + refusal;
            EXPECT_EQ(vendor_host::Logged(line, kMsgLocalCertNotFound), !refusal.empty());
        }
    }
}

// An identifier that the candidate lacks does not count.
TEST_F(AskTest, ACandidateWithoutIdentifier) {
    token_->AddObject({.id = "", .value = MakeLeaf("CN=c", root_).der, .category = 1});
    Load();
    CertInfo chosen = FindLocal("CN=c")->get()->info;
    chosen.id = "x";
    EXPECT_EQ(Handle(Ask(kChosen + Encoded(chosen)).cert).Subject(), "CN=c");
}

TEST_F(AskTest, ShortAnswersThrow) {
    const std::string answer = kChosen + Encoded(b_->get()->info);
    for (std::size_t length = 0; length < answer.size(); ++length) {
        EXPECT_THROW(Ask(answer.substr(0, length)), const char*) << length;
    }
    EXPECT_THROW(Ask(kChosen + std::string(64, '\xff')), const char*);
    EXPECT_TRUE(vendor_host::Messages().empty());
}

TEST_F(AskTest, ChoiceAmongCertificatesThatWereNotRequested) {
    Requests nobody({});
    const auto result = Ask(kChosen + Encoded(b_->get()->info), CM::kIgnoreBoundFirst, &nobody);
    EXPECT_EQ(Handle(result.cert).Subject(), "CN=b");
    EXPECT_TRUE(vendor_host::Logged(" UTC (Not matched to CR) \\\n\t  Identity: ", kMsgLocalCertSelected));
}

// --- Streams ---

template <typename Record>
std::string Written(const Record& record) {
    std::string bytes;
    CommandStreamOut out(bytes);
    sync(out, record);
    return bytes;
}

// Fields whose order on the stream is not that of the record.
TEST(CommandStreamTest, OrderOfTheFields) {
    const CertRequestInfo request{.keyAlg = 1,
                                  .keyBits = 2,
                                  .hashAlg = 3,
                                  .keyGenFlag = true,
                                  .subject = "s",
                                  .ipAddress = "i",
                                  .email = "e",
                                  .dnsName = "d",
                                  .upn = "u",
                                  .extKeyUsage = "x",
                                  .randomSeed = "r"};
    EXPECT_EQ(Written(request), Number(1, 4) + Number(2, 4) + Number(3, 4) + Counted({"s", "i", "e", "d", "u", "x"}) +
                                    "\1" + Counted({"r"}));
    const CRLInfo crl{"i", "s", 1, 2, 3, "n", "d"};
    EXPECT_EQ(Written(crl), Counted({"i", "s"}) + Number(1, 8) + Number(2, 8) + Number(3, 4) + Counted({"n", "d"}));

    CertExtentions ext;
    Strings texts;
    for (std::string* text :
         {&ext.md5, &ext.sha1, &ext.subjectAltName, &ext.issuerAltName, &ext.keyUsage, &ext.authorityKeyId,
          &ext.subjectKeyIdHex, &ext.privateKeyUsagePeriod, &ext.certificatePolicies, &ext.policyMappings,
          &ext.nameConstraints, &ext.policyConstraints, &ext.extKeyUsageNames, &ext.basicConstraints,
          &ext.authorityInfoAccess, &ext.crlDistributionPoints}) {
        *text = "text " + std::to_string(texts.size());
        texts.push_back(*text);
    }
    ext.unknownExtensions = {{"1.2", "v"}};
    ext.privateKeyUsageEnd = 7;
    ext.firstUnknownCritical = "1.3";
    EXPECT_EQ(Written(ext), Counted(texts) + Number(1, 4) + Counted({"1.2", "v"}) + Number(7, 8) + Counted({"1.3"}));
}

TEST(CommandStreamTest, ReadsFailAtTheEndAndKeepFailing) {
    const std::string bytes = Number(7, 4) + "\2" + Number(5, 4) + "four";
    CommandStreamIn in(bytes);
    std::uint32_t number = 0;
    bool flag = true;
    std::string text = "before";
    EXPECT_THROW(in.fields(number, flag, text), const char*);
    EXPECT_EQ(number, 7U);
    EXPECT_FALSE(flag) << "only 1 is true";
    EXPECT_EQ(text, "before");
    EXPECT_THROW(in.fields(flag), const char*);
}

}  // namespace
}  // namespace local_test
