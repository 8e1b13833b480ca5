// Readers of PEM, base64 and PKCS #7.
#include <algorithm>

#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"

namespace engine_test {
namespace {

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
    const std::tuple<const char*, std::string, std::string> cases[] = {
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
    for (const auto& [what, text, der] : cases) EXPECT_EQ(ReadText(text), der) << what;
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
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"PEM", pem, der},
        {"several lines without markers", lines, der},
        {"one line, NUL at the end", Base64(der, "") + '\0', der},
        {"damaged PEM", damaged, ""},
        {"a certificate", root.Pem(), ""},
    };
    for (const auto& [what, text, expected] : cases) {
        const CrlHandle crl(CertEngine_ReadPEMCRLData(text));
        std::string raw;
        if (crl != nullptr) CertEngine_RawCRL(crl.get(), raw);
        EXPECT_EQ(raw, expected) << what;
    }
}

/// Result, certificates and the number of CRLs.
using Bundle = std::tuple<int, std::vector<std::string>, std::size_t>;

Bundle ReadBundle(const std::string& bytes, bool with_crls = true) {
    std::vector<void*> certs;
    std::vector<void*> crls;
    const int result = CertEngine_ReadP7CCertData(bytes.data(), static_cast<unsigned>(bytes.size()), certs,
                                                  with_crls ? &crls : nullptr);
    std::vector<std::string> read;
    for (void* cert : certs) read.push_back(DerOf(CertHandle(cert)));
    for (void* crl : crls) CertEngine_CloseCRLHandle(crl);
    return {result, read, crls.size()};
}

TEST_F(EngineTest, BundlesAreReadFromTheirEnd) {
    const Cert a = MakeCa("CN=A");
    const Cert b = MakeLeaf("CN=B", a);
    const Cert c = MakeLeaf("CN=C", a);
    const std::string bundle = MakePkcs7({a.der, b.der, c.der}, {MakeCrl({}, a), MakeCrl({}, a)});
    const std::vector<std::string> reversed{c.der, b.der, a.der};
    for (const std::string& bytes : {bundle, ToPem("PKCS7", bundle), bundle + "trailing"}) {
        EXPECT_EQ(ReadBundle(bytes), Bundle(0, reversed, 2));
    }
    EXPECT_EQ(ReadBundle(bundle, false), Bundle(0, reversed, 0));

    const Cert big = MakeCert({.extensions = {{"1.2.3.4", false, std::string(kMaxCertificateBytes, 'x')}}});
    EXPECT_EQ(ReadBundle(MakePkcs7({a.der, big.der})), Bundle(0, {a.der}, 0));
}

TEST_F(EngineTest, BundlesOfOtherTypesOrWithoutContentAreEmpty) {
    const std::string data = der::Sequence(der::Oid("pkcs7-data") + der::Explicit(0, der::OctetString("x")));
    for (const std::string& empty : {data, der::Sequence(der::Oid("pkcs7-signedData"))}) {
        EXPECT_EQ(ReadBundle(empty), Bundle(0, {}, 0));
    }
    for (const std::string& other : {MakeCa("CN=A").der, std::string("hello"), std::string()}) {
        EXPECT_EQ(ReadBundle(other), Bundle(1, {}, 0));
    }
}

}  // namespace
}  // namespace engine_test
