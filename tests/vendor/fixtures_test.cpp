// The fixtures against libcrypto and openssl(1): a fixture that is wrong would make other tests lie.
#include <gtest/gtest.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <csignal>
#include <fstream>

#include "tests/support/pki.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace test_pki;

std::unique_ptr<X509, decltype(&X509_free)> Parse(const std::string& der) {
    const auto* data = reinterpret_cast<const unsigned char*>(der.data());
    return {d2i_X509(nullptr, &data, static_cast<long>(der.size())), X509_free};
}

TEST(PkiFixture, EveryKeyTypeSignsCertificatesThatLibcryptoVerifies) {
    for (const KeyType type : {KeyType::kRsa1024, KeyType::kRsa2048, KeyType::kDsa1024, KeyType::kEcP256,
                               KeyType::kEcP384, KeyType::kEcP521, KeyType::kEd25519}) {
        SCOPED_TRACE(static_cast<int>(type));
        const Cert root = MakeCa("CN=Root, O=Fixture", nullptr, type);
        const Cert leaf = MakeLeaf("CN=Leaf, O=Fixture", root, type);
        const auto cert = Parse(leaf.der);
        ASSERT_NE(cert, nullptr);
        EXPECT_EQ(X509_verify(cert.get(), root.key.get()), 1);
        EXPECT_NE(X509_verify(cert.get(), leaf.key.get()), 1);
        EXPECT_EQ(X509_check_private_key(cert.get(), leaf.key.get()), 1);
    }
}

TEST(PkiFixture, PssAndDamagedSignatures) {
    const Cert root = MakeCa("CN=Root", nullptr, KeyType::kRsa2048);
    for (const SignWith& with : {SignWith{.pss = true}, SignWith{.digest = "SHA1", .pss = true},
                                 SignWith{.digest = "SHA512", .pss = true, .pss_salt = 10, .pss_mgf_digest = "SHA256"},
                                 SignWith{.digest = "SHA384"}}) {
        EXPECT_EQ(X509_verify(Parse(MakeCert({.sign = with}, &root).der).get(), root.key.get()), 1);
        EXPECT_NE(
            X509_verify(Parse(MakeCert({.sign = with, .damage_signature = true}, &root).der).get(), root.key.get()), 1);
        EXPECT_TRUE(VerifyData(root.key, with, "data", SignData(root.key, with, "data")));
        EXPECT_FALSE(VerifyData(root.key, with, "other", SignData(root.key, with, "data")));
    }
}

TEST(PkiFixture, OpensslReadsEveryExtensionAndVerifiesTheChainWithItsCrl) {
    const Cert root = MakeCa("CN=Root, O=Fixture", nullptr, KeyType::kRsa2048);
    const Cert ca = MakeCert({.subject = "CN=CA+OU=Lab, DC=example, C=DE, 1.2.3.4=x\\, y",
                              .ca = true,
                              .path_len = 0,
                              .key_usage = "keyCertSign, cRLSign",
                              .aki_issuer_serial = true},
                             &root);
    const Cert leaf =
        MakeCert({.subject = "CN=leaf",
                  .ca = false,
                  .key_usage = "digitalSignature",
                  .eku = {"ipsecIKE", "1.2.3.4.5"},
                  .san = {"DNS:leaf.example", "email:a@leaf.example", "IP:192.0.2.1", "IP:2001:db8::1", "URI:http://x/",
                          "UPN:user@leaf", "DN:CN=alias", "RID:1.2.3"},
                  .crl_points = {{"URI:http://a/1", "URI:ldap://b/2"}, {"DN:CN=point"}},
                  .key_usage_from = kNotBefore,
                  .key_usage_to = kNotAfter,
                  .conf = {{"certificatePolicies", "1.2.3.4"}, {"authorityInfoAccess", "OCSP;URI:http://ocsp.example"}},
                  .extensions = {{"1.2.3.4.6", false, std::string("\x05\x00", 2)}}},
                 &ca);
    const test_support::TempDir dir;
    std::ofstream(dir / "root.pem") << root.Pem();
    std::ofstream(dir / "ca.pem") << ca.Pem();
    std::ofstream(dir / "leaf.pem") << leaf.Pem();
    std::ofstream(dir / "crls.pem")
        << ToPem("X509 CRL", MakeCrl({.number = "\x05"}, root))
        << ToPem("X509 CRL", MakeCrl({.entries = {{.serial = ca.serial, .reason = 1}}, .number = "\x07"}, ca));
    std::ofstream(dir / "bundle.pem") << ToPem("PKCS7", MakePkcs7({leaf.der, ca.der}, {MakeCrl({}, ca)}));
    const auto run = [&](std::vector<std::string> argv) {
        argv.insert(argv.begin(), "openssl");
        const auto result = test_support::Run(argv);
        return result.out + result.err;
    };
    const std::string verified = run({"verify", "-x509_strict", "-crl_check_all", "-CAfile", dir / "root.pem",
                                      "-untrusted", dir / "ca.pem", "-CRLfile", dir / "crls.pem", dir / "leaf.pem"});
    EXPECT_NE(verified.find(": OK"), std::string::npos) << verified;

    const std::string text = run({"x509", "-noout", "-text", "-in", dir / "leaf.pem"});
    for (const char* part :
         {"DNS:leaf.example", "IP Address:192.0.2.1", "URI:ldap://b/2", "DirName:CN = point", "ipsec Internet Key",
          "UPN::user@leaf", "Policy: 1.2.3.4", "OCSP - URI:http://ocsp.example", "Not After: Jan  1 00:00:00 2049 GMT",
          "1.2.3.4.6", "Registered ID:1.2.3"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " is missing in\n" << text;
    }
    const std::string bundle = run({"pkcs7", "-print_certs", "-in", dir / "bundle.pem"});
    EXPECT_LT(bundle.find("subject=CN = leaf"), bundle.find("subject=CN = CA + OU = Lab")) << bundle;
    EXPECT_NE(bundle.find("BEGIN X509 CRL"), std::string::npos) << bundle;
}

TEST(ProcessFixture, ReportsOutputStatusAndKilledPrograms) {
    const auto done = test_support::Run({"sh", "-c", "echo out; echo $WORD >&2; exit 7"}, {{"WORD", "err"}});
    EXPECT_EQ(done.exit_code, 7);
    EXPECT_EQ(done.out, "out\n");
    EXPECT_EQ(done.err, "err\n");
    EXPECT_EQ(test_support::Run({"no-such-program-here"}).exit_code, -1);
    const auto slow = test_support::Run({"sleep", "600"}, {}, std::chrono::milliseconds(50));
    EXPECT_TRUE(slow.timed_out);
    EXPECT_EQ(slow.exit_code, 128 + SIGKILL);

    test_support::Process process({"sh", "-c", "echo ready; exec sleep 600"});
    EXPECT_TRUE(process.WaitForOutput("ready"));
    process.Kill(SIGTERM);
    EXPECT_EQ(process.Wait().exit_code, 128 + SIGTERM);
}

}  // namespace
