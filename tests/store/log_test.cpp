// Log renderings: the exact text of each item.
#include <certmgr/log.h>

#include "certmgr/cert_log.h"
#include "tests/vendor/module_test.h"

namespace {

using namespace module_test;

TEST_F(ModuleTest, Certificates) {
    const auto cert = CM::MutableCertRef::Adopt(new CM::X509Cert({}, {.category = PKCS11::kKeyPairCategory}));
    CertInfo& info = cert->info;
    info.subject = "CN=host";
    info.issuer = "CN=Root";
    info.serialNumber = "0A";
    info.keyAlg = PKI_KEY_RSA;
    info.validFrom = CertTimeFrom_time_t(test_pki::kNotBefore);
    const std::string expected =
        " \\\n\t\tSubject: CN=host \\\n\t\tIssuer: CN=Root \\\n\t\tSn: 0A \\\n\t\tKeyAlg: RSA"
        ", \tValid from: 2020-01-01 00:00:00 UTC to: unknown";
    std::string text = "before";
    ttt_CertInfoToLogString(info, text);
    EXPECT_EQ(text, expected);
    ttt_X509CertToLogString(cert.get(), text);
    EXPECT_EQ(text, expected + expected) << "appended";

    // Long values are cut between characters.
    info.subject = "CN=" + std::string(2044, 'x') + "\xd0\x96" + std::string(1000, 'y');
    ttt_CertInfoToLogString(info, text);
    EXPECT_TRUE(text.starts_with(" \\\n\t\tSubject: CN=" + std::string(2044, 'x') + "... (1002 bytes cut) \\\n"))
        << text;
}

TEST_F(ModuleTest, CrlAndToken) {
    CM::X509CRL crl(PKCS11::TokenInfo{}, {});
    crl.info = CRLInfo{.issuer = "CN=Root", .signAlg = 0x777, .crlNumber = "1F"};
    std::string text = "before";
    ttt_X509CRLToLogString(&crl, text);
    EXPECT_EQ(text, " \\\n\t\tIssuer: CN=Root \\\n\t\tNumber: 1F \\\n\t\tSignAlg: Unknown");
    const PKCS11::TokenInfo token{.label = "my \\\n\t\tcard, 2", .serialNumber = "42"};
    ttt_TokenInfoToLogString(&token, text);
    EXPECT_EQ(text, " \\\n\t\tlabel: my \\\\\\0a\\09\\09card, 2,\t serial: 42");
}

TEST_F(ModuleTest, PatternShowsWhatIsSet) {
    const LPCFG::cert_t all{PKI_KEY_RSA, "0A", "m", "s", "CN=a", true, "CN=b", false};
    const std::pair<LPCFG::cert_t, std::string> cases[] = {
        {{}, "<Any Certifiacate>"},
        {{.subject = "CN=a", .subjectExact = false}, " \\\n\t\tSubject attrs: CN=a"},
        {all,
         " \\\n\t\tSubject: CN=a \\\n\t\tIssuer attrs: CN=b \\\n\t\tKeyAlg: RSA \\\n\t\tSn: 0A \\\n\t\tMD5: m"
         " \\\n\t\tSHA1: s"},
    };
    for (const auto& [pattern, expected] : cases) {
        std::string text = "> ";
        ttt_CertPatternToLogString(pattern, text);
        EXPECT_EQ(text, "> " + expected);
    }
}

}  // namespace
