// Malformed input never crashes, leaks or changes more than it should, and threads do not disturb each other. Worth its
// time under the sanitizers above all.
#include <atomic>
#include <random>
#include <thread>

#include "tests/engine/engine_fixture.h"

namespace {

using engine_test::CertHandle;
using engine_test::EngineTest;
using test_pki::Cert;
using test_pki::MakeCa;
using test_pki::MakeCert;

Cert RichCertificate() {
    const Cert root = MakeCa("CN=Root, O=Example");
    return MakeCert({.key = test_pki::KeyType::kRsa2048,
                     .subject = "CN=host+OU=Lab, O=Example, C=DE",
                     .ca = true,
                     .path_len = 1,
                     .key_usage = "digitalSignature, keyCertSign",
                     .eku = {"ipsecIKE", "serverAuth"},
                     .san = {"DNS:host.example", "IP:192.0.2.1", "UPN:user@example", "DN:CN=x", "RID:1.2.3"},
                     .aki_issuer_serial = true,
                     .crl_points = {{"URI:http://crl.example/a"}, {"URI:ldap://crl.example/b"}},
                     .key_usage_to = test_pki::kNotAfter,
                     .conf = {{"certificatePolicies", "1.2.3.4"},
                              {"nameConstraints", "permitted;DNS:.example,excluded;IP:10.0.0.0/255.0.0.0"},
                              {"policyConstraints", "requireExplicitPolicy:1"},
                              {"policyMappings", "1.2.3.4:1.2.3.5"},
                              {"authorityInfoAccess", "OCSP;URI:http://ocsp.example/"},
                              {"inhibitAnyPolicy", "1"}}},
                    &root);
}

/// Everything that can be asked of a certificate.
void Exercise(const std::string& der) {
    const CertHandle cert = engine_test::ReadCert(der);
    if (cert == nullptr) return;
    CertInfo info;
    CertExtentions extensions;
    std::string text;
    std::string more;
    CertEngine_GetCertInfo(cert.get(), info);
    CertEngine_GetCertExtentions(cert.get(), extensions);
    CertEngine_CertGetKeyAlgOid(cert.get(), &text);
    CertEngine_CertGetSignAlgOid(cert.get(), &text);
    CertEngine_RawCert(cert.get(), text);
    CertEngine_RawCertInfo(cert.get(), more);
    EXPECT_LE(more.size(), text.size());
    CertEngine_RawCertSignature(cert.get(), text);
    CertEngine_RawSubject(cert.get(), text);
    CertEngine_RawPubKey(cert.get(), text, more);
    CertEngine_ExportCertsToPKCS7({cert.get()}, text);
}

void ExerciseAsEverything(const std::string& bytes) {
    Exercise(bytes);
    if (const engine_test::CrlHandle crl = engine_test::ReadCrl(bytes)) {
        CRLInfo info;
        RevokedCertInfoList entries;
        std::string text;
        CertEngine_HandleToCRLInfo(crl.get(), info);
        CertEngine_CRLRevokedCerts(crl.get(), entries);
        CertEngine_RawCRLInfo(crl.get(), text);
    }
    std::vector<void*> certs;
    std::vector<void*> crls;
    CertEngine_ReadP7CCertData(bytes.data(), static_cast<unsigned>(bytes.size()), certs, &crls);
    for (void* cert : certs) CertEngine_CloseCertHandle(cert);
    for (void* crl : crls) CertEngine_CloseCRLHandle(crl);
    CertEngine_CloseCertHandle(CertEngine_ReadPEMCertData(bytes));
    CertEngine_CloseCRLHandle(CertEngine_ReadPEMCRLData(bytes));
    std::string copy = bytes;
    CertEngine_IsP12CertData(copy.data(), static_cast<int>(copy.size()));
}

TEST_F(EngineTest, EveryTruncationIsRefused) {
    const std::string der = RichCertificate().der;
    for (std::size_t length = 0; length < der.size(); ++length) {
        EXPECT_EQ(engine_test::ReadCert(std::string(der, 0, length)), nullptr) << length;
    }
}

TEST_F(EngineTest, EveryBitFlipIsSurvived) {
    const std::string der = RichCertificate().der;
    for (std::size_t i = 0; i < der.size() * 8; ++i) {
        std::string damaged = der;
        damaged[i / 8] = static_cast<char>(damaged[i / 8] ^ (1 << i % 8));
        Exercise(damaged);
    }
}

TEST_F(EngineTest, DamagedInputOfEveryKindIsSurvived) {
    const Cert root = MakeCa("CN=Root");
    const std::string crl =
        MakeCrl({.entries = {{.serial = "\x30", .reason = 1}}, .number = "\x01", .delta_base = "\x01"}, root);
    const std::string bundle = test_pki::MakePkcs7({root.der}, {crl});
    std::mt19937 random(20300101);
    for (const std::string& good : {crl, bundle, root.Pem(), test_pki::ToPem("X509 CRL", crl), root.der}) {
        for (int round = 0; round < 400; ++round) {
            std::string damaged = good;
            for (unsigned i = random() % 4 + 1; i != 0; --i) {
                damaged[random() % damaged.size()] = static_cast<char>(random());
            }
            if (random() % 4 == 0) damaged.resize(random() % damaged.size());
            ExerciseAsEverything(damaged);
        }
    }
    for (int round = 0; round < 400; ++round) {
        std::string noise(random() % 300, '\0');
        for (char& c : noise) c = static_cast<char>(random());
        if (!noise.empty()) noise[0] = '\x30';
        ExerciseAsEverything(noise);
    }
}

TEST_F(EngineTest, ThreadsShareTheEngineAndAHandle) {
    const std::string der = RichCertificate().der;
    const CertHandle shared = engine_test::ReadCert(der);
    const CertExtentions expected = engine_test::ExtensionsOf(der);
    std::atomic<int> wrong = 0;
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            Exercise(der);
            CertInfo info;
            CertExtentions extensions;
            std::string tbs;
            CertEngine_GetCertInfo(shared.get(), info);
            CertEngine_GetCertExtentions(shared.get(), extensions);
            CertEngine_RawCertInfo(shared.get(), tbs);
            if (!info.isCA || extensions.sha1 != expected.sha1 || tbs.empty()) ++wrong;
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
