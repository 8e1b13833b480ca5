// Cut input is refused, and threads do not disturb each other; fuzz/certfile.cpp and fuzz/crl.cpp have damage of every
// other kind.
#include <atomic>
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

TEST_F(EngineTest, EveryTruncationIsRefused) {
    const std::string der = RichCertificate().der;
    for (std::size_t length = 0; length < der.size(); ++length) {
        EXPECT_EQ(engine_test::ReadCert(std::string(der, 0, length)), nullptr) << length;
    }
}

TEST_F(EngineTest, ThreadsShareTheEngineAndAHandle) {
    const std::string der = RichCertificate().der;
    const CertHandle shared = engine_test::ReadCert(der);
    const CertExtentions expected = engine_test::ExtensionsOf(der);
    std::atomic<int> wrong = 0;
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            const CertHandle own = engine_test::ReadCert(der);
            CertInfo info;
            CertExtentions extensions;
            std::string tbs;
            CertEngine_GetCertInfo(i % 2 == 0 ? own.get() : shared.get(), info);
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
