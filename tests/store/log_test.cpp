// Log renderings: the exact text of each item.
#include <certmgr/log.h>

#include "certmgr/cert_log.h"
#include "store_fixture.h"

namespace {

using namespace store_test;

class LogTest : public StoreTest {
  protected:
    static CertInfo Info() {
        CertInfo info;
        info.subject = "CN=host";
        info.issuer = "CN=Root";
        info.serialNumber = "0A";
        info.keyAlg = PKI_KEY_RSA;
        info.validFrom = CertTimeFrom_time_t(test_pki::kNotBefore);
        return info;
    }
};

TEST_F(LogTest, CertificatesAppendAndRecordsReplace) {
    const std::string expected =
        " \\\n\t\tSubject: CN=host \\\n\t\tIssuer: CN=Root \\\n\t\tSn: 0A \\\n\t\tKeyAlg: RSA"
        ", \tValid from: 2020-01-01 00:00:00 UTC to: unknown";
    std::string text = "before";
    ttt_CertInfoToLogString(Info(), text);
    EXPECT_EQ(text, expected);

    const auto cert = CM::MutableCertRef::Adopt(new CM::X509Cert({}, {.category = PKCS11::kKeyPairCategory}));
    cert->info = Info();
    text.clear();
    ttt_X509CertToLogString(cert.get(), text);
    ttt_X509CertToLogString(cert.get(), text);
    EXPECT_EQ(text, expected + expected);
}

TEST_F(LogTest, CrlAndToken) {
    CRLInfo info;
    info.issuer = "CN=Root";
    info.crlNumber = "1F";
    info.signAlg = 0x777;
    std::string text = "before";
    ttt_CRLInfoToLogString(info, text);
    EXPECT_EQ(text, " \\\n\t\tIssuer: CN=Root \\\n\t\tNumber: 1F \\\n\t\tSignAlg: Unknown");
    CM::X509CRL crl(PKCS11::TokenInfo{}, {});
    crl.info = info;
    std::string same = "before";
    ttt_X509CRLToLogString(&crl, same);
    EXPECT_EQ(same, text);

    PKCS11::TokenInfo token;
    token.label = "card";
    token.serialNumber = "42";
    ttt_TokenInfoToLogString(&token, text);
    EXPECT_EQ(text, " \\\n\t\tlabel: card,\t serial: 42");
    token.label = "my \\\n\t\tcard, 2";
    ttt_TokenInfoToLogString(&token, text);
    EXPECT_EQ(text, " \\\n\t\tlabel: my \\\\\\0a\\09\\09card, 2,\t serial: 42");
}

TEST_F(LogTest, PatternShowsWhatIsSet) {
    const std::pair<LPCFG::cert_t, std::string> cases[] = {
        {{}, "<Any Certifiacate>"},
        {{.subject = "CN=a"}, " \\\n\t\tSubject: CN=a"},
        {{.subject = "CN=a", .subjectExact = false}, " \\\n\t\tSubject attrs: CN=a"},
        {{.keyAlg = PKI_KEY_RSA,
          .serialNumber = "0A",
          .md5 = "m",
          .sha1 = "s",
          .subject = "CN=a",
          .issuer = "CN=b",
          .issuerExact = false},
         " \\\n\t\tSubject: CN=a \\\n\t\tIssuer attrs: CN=b \\\n\t\tKeyAlg: RSA \\\n\t\tSn: 0A \\\n\t\tMD5: m"
         " \\\n\t\tSHA1: s"},
    };
    for (const auto& [pattern, expected] : cases) {
        std::string text = "> ";
        ttt_CertPatternToLogString(pattern, text);
        EXPECT_EQ(text, "> " + expected);
    }
}

TEST_F(LogTest, LongValuesAreCutBetweenCharacters) {
    CertInfo info = Info();
    info.subject = "CN=" + std::string(2044, 'x') + "\xd0\x96" + std::string(1000, 'y');
    std::string text;
    ttt_CertInfoToLogString(info, text);
    EXPECT_TRUE(
        text.starts_with(" \\\n\t\tSubject: CN=" + std::string(2044, 'x') + "... (1002 bytes cut) \\\n\t\tIssuer: "))
        << text;
}

}  // namespace
