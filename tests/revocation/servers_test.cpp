// CRLs from real servers: nginx and slapd.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/revocation/revocation_fixture.h"

namespace revocation_test {
namespace {

class RealServersTest : public RevocationTest {
  protected:
    RealServersTest() { std::ofstream(dir_ / "ca.pem") << root_.Pem(); }

    test_support::TlsIdentity TlsIdentity() const {
        const Cert server = MakeCert({.key_index = 9,
                                      .subject = "CN=localhost",
                                      .key_usage = "digitalSignature",
                                      .eku = {"serverAuth"},
                                      .san = {"IP:127.0.0.1"}},
                                     &root_);
        return {.certificate_pem = server.Pem(),
                .key_pem = test_pki::ToPem("PRIVATE KEY", test_pki::Pkcs8(server.key))};
    }
    void TrustTheServers() {
        SetParams([this](LPARAMS::CertParams& params) { params.crl_tls_ca_file = dir_ / "ca.pem"; });
    }
    /// Longer than any piece in which a value arrives; the certificate stands at its end.
    std::string LongCrl(const std::string& serial) const {
        CrlSpec spec;
        for (int i = 0; i < 4000; ++i) spec.entries.push_back({.serial = "\x01serial" + std::to_string(i)});
        spec.entries.push_back({.serial = serial, .reason = 1});
        return Crl(spec);
    }
    void ExpectUsed(const std::string& address) const {
        SCOPED_TRACE(address);
        vendor_host::ClearMessages();
        EXPECT_TRUE(Passes(Leaf({address})));
        EXPECT_EQ(Outcomes(), Strings{"CRL downloaded"});
        test_pki::CertSpec spec = Spec({address});
        spec.serial = kListed;
        EXPECT_FALSE(Passes(MakeCert(spec, &ca_), kSoft));
        EXPECT_EQ(vendor_host::FindMessages(kMsgCertRevoked).size(), 1U);
    }

    static inline const std::string kListed = "\x77listed";
    const test_support::TempDir dir_;
};

TEST_F(RealServersTest, OverHttp) {
    const test_support::NginxServer nginx;
    nginx.Put("ca.crl", LongCrl(kListed));
    nginx.Put("ca.pem", test_pki::ToPem("X509 CRL", LongCrl(kListed)));
    ExpectUsed(nginx.Uri("ca.crl"));
    ExpectUsed(nginx.Uri("ca.pem"));
    EXPECT_EQ(nginx.Requests("ca.crl"), 1U);
    EXPECT_FALSE(Passes(Leaf({nginx.Uri("none.crl")})));
    EXPECT_TRUE(vendor_host::Logged("HTTP status 404", kMsgCrlTransfer));
}

TEST_F(RealServersTest, OverLdap) {
    const test_support::SlapdServer slapd(
        {{"short", Crl({.entries = {{.serial = kListed}}})}, {"long", LongCrl(kListed)}});
    ExpectUsed(slapd.Uri("short"));
    ExpectUsed(slapd.Uri("long"));
    EXPECT_FALSE(Passes(Leaf({slapd.Uri("none")})));
    EXPECT_FALSE(Passes(Leaf({slapd.Uri("short", "cn")}))) << "an attribute, but no CRL";
    EXPECT_TRUE(vendor_host::Logged("data malformed, X509 ASN.1 expected", kMsgCrlTransfer));
}

TEST_F(RealServersTest, OverTlsWhenTheAuthorityIsTrusted) {
    const test_support::TlsIdentity identity = TlsIdentity();
    const test_support::NginxServer nginx(&identity);
    const test_support::SlapdServer slapd({{"ca", LongCrl(kListed)}}, &identity);
    nginx.Put("ca.crl", LongCrl(kListed));
    for (const std::string& address : {nginx.TlsUri("ca.crl"), slapd.TlsUri("ca")}) {
        SetParams([](LPARAMS::CertParams& params) { params.crl_tls_ca_file.clear(); });
        EXPECT_FALSE(Passes(Leaf({address}))) << address;
        TrustTheServers();
        ExpectUsed(address);
    }
}

}  // namespace
}  // namespace revocation_test
