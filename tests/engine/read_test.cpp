// Readers of PEM, base64 and PKCS #7.
#include <algorithm>

#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"

namespace {

using engine_test::CertHandle;
using engine_test::CrlHandle;
using engine_test::DerOf;
using engine_test::EngineTest;
using test_pki::Cert;
using test_pki::MakeCa;
using test_pki::MakeCert;
using test_pki::MakeLeaf;
using test_pki::ToPem;

/// The base64 of a PEM block, its lines separated as given.
std::string Base64(const std::string& der, const std::string& separator) {
    std::string pem = ToPem("X", der);
    pem = pem.substr(pem.find('\n') + 1);
    pem.resize(pem.find("-----END"));
    std::string text;
    for (const char c : pem) text += c == '\n' ? separator : std::string(1, c);
    return text;
}

std::string ReadText(const std::string& text) {
    return DerOf(CertHandle(CertEngine_ReadPEMCertData(text)));
}

TEST_F(EngineTest, CertificateTexts) {
    const Cert root = MakeCa("CN=Root");
    const Cert big = MakeCert({.extensions = {{"1.2.3.4", false, std::string(700000, 'x')}}});
    const std::string line = Base64(root.der, "");
    std::string damaged = root.Pem();
    damaged[60] = '!';
    std::string lower_marker = damaged;
    std::transform(lower_marker.begin(), lower_marker.begin() + 27, lower_marker.begin(), ::tolower);
    const std::string encrypted =
        "-----BEGIN CERTIFICATE-----\nProc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n"
        "\n" +
        Base64(root.der, "\n") + "-----END CERTIFICATE-----\n";
    const struct {
        const char* what;
        std::string text;
        std::string der;
    } cases[] = {
        {"PEM", root.Pem(), root.der},
        {"PEM behind other text", "Subject: Root\n" + root.Pem(), root.der},
        {"the first of several", root.Pem() + MakeCa("CN=Other").Pem(), root.der},
        {"one line, blanks around", " \t\r\n" + line + "\r\n \t" + std::string(3, '\0'), root.der},
        {"one very long line", Base64(big.der, ""), big.der},
        {"several lines", Base64(root.der, "\n"), ""},
        {"NUL bytes", std::string(10, '\0'), ""},
        {"damaged PEM", damaged, ""},
        {"damaged PEM, marker in lower case", lower_marker, ""},
        {"encrypted PEM", encrypted, ""},
        {"not base64", "hello, world", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(ReadText(c.text), c.der) << c.what;
}

TEST_F(EngineTest, TextsBeyondTheLimitsAreRefused) {
    const Cert big = MakeCert({.extensions = {{"1.2.3.4", false, std::string(kMaxCertificateBytes, 'x')}}});
    EXPECT_EQ(ReadText(big.Pem()), "");
    EXPECT_EQ(ReadText(Base64(big.der, "")), "");
    const Cert root = MakeCa("CN=Root");
    EXPECT_EQ(ReadText(root.Pem() + std::string(kMaxBundleBytes, ' ')), "");
    // That of a CRL may be larger.
    std::string text =
        ToPem("X509 CRL", MakeCrl({.entries = {{.serial = std::string(kMaxBundleBytes / 4 * 3, 'x')}}}, root));
    EXPECT_NE(CrlHandle(CertEngine_ReadPEMCRLData(text)), nullptr);
    text.append(kMaxCrlTextBytes, ' ');
    EXPECT_EQ(CrlHandle(CertEngine_ReadPEMCRLData(text)), nullptr);
}

TEST_F(EngineTest, CrlTexts) {
    const Cert root = MakeCa("CN=Root");
    const std::string der = MakeCrl({.entries = {{.serial = "\x05"}}}, root);
    const std::string pem = ToPem("X509 CRL", der);
    std::string lines = Base64(der, "\n");
    lines.pop_back();
    std::string damaged = pem;
    damaged[60] = '!';
    const struct {
        const char* what;
        std::string text;
        bool read;
    } cases[] = {
        {"PEM", pem, true},
        {"several lines without markers", lines, true},
        {"one line, NUL at the end", Base64(der, "") + '\0', true},
        {"damaged PEM", damaged, false},
        {"a certificate", root.Pem(), false},
    };
    for (const auto& c : cases) {
        const CrlHandle crl(CertEngine_ReadPEMCRLData(c.text));
        std::string raw;
        if (crl != nullptr) CertEngine_RawCRL(crl.get(), raw);
        EXPECT_EQ(raw, c.read ? der : "") << c.what;
    }
}

struct Bundle {
    int result = -1;
    std::vector<std::string> certs;
    std::size_t crls = 0;
};

Bundle ReadBundle(const std::string& bytes, bool with_crls = true) {
    std::vector<void*> certs;
    std::vector<void*> crls;
    Bundle bundle;
    bundle.result = CertEngine_ReadP7CCertData(bytes.data(), static_cast<unsigned>(bytes.size()), certs,
                                               with_crls ? &crls : nullptr);
    for (void* cert : certs) bundle.certs.push_back(DerOf(CertHandle(cert)));
    for (void* crl : crls) CertEngine_CloseCRLHandle(crl);
    bundle.crls = crls.size();
    return bundle;
}

TEST_F(EngineTest, BundlesAreReadFromTheirEnd) {
    const Cert a = MakeCa("CN=A");
    const Cert b = MakeLeaf("CN=B", a);
    const Cert c = MakeLeaf("CN=C", a);
    const std::string bundle = test_pki::MakePkcs7({a.der, b.der, c.der}, {MakeCrl({}, a), MakeCrl({}, a)});
    const std::vector<std::string> reversed{c.der, b.der, a.der};
    for (const std::string& bytes : {bundle, ToPem("PKCS7", bundle), bundle + "trailing"}) {
        const Bundle read = ReadBundle(bytes);
        EXPECT_EQ(read.result, 0);
        EXPECT_EQ(read.certs, reversed);
        EXPECT_EQ(read.crls, 2U);
    }
    EXPECT_EQ(ReadBundle(bundle, false).certs, reversed);

    const Cert big = MakeCert({.extensions = {{"1.2.3.4", false, std::string(kMaxCertificateBytes, 'x')}}});
    EXPECT_EQ(ReadBundle(test_pki::MakePkcs7({a.der, big.der})).certs, std::vector<std::string>{a.der});
}

TEST_F(EngineTest, BundlesOfOtherTypesOrWithoutContentAreEmpty) {
    const std::string data = der::Sequence(der::Oid("pkcs7-data") + der::Explicit(0, der::OctetString("x")));
    for (const std::string& empty : {data, der::Sequence(der::Oid("pkcs7-signedData"))}) {
        const Bundle bundle = ReadBundle(empty);
        EXPECT_TRUE(bundle.result == 0 && bundle.certs.empty());
    }
    for (const std::string& other : {MakeCa("CN=A").der, std::string("hello"), std::string()}) {
        EXPECT_EQ(ReadBundle(other).result, 1);
    }
}

}  // namespace
