// CRLs from real servers, nginx and slapd, alone and beside one that misbehaves.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
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
    EXPECT_EQ(nginx.Requests("ca.crl"), 1U) << "for both certificates";
    EXPECT_FALSE(Passes(Leaf({nginx.Uri("none.crl")})));
    EXPECT_TRUE(vendor_host::Logged("HTTP status 404", kMsgCrlTransfer));
}

TEST_F(RealServersTest, OverLdap) {
    const test_support::SlapdServer slapd(
        {{"short", Crl({.entries = {{.serial = kListed}}})}, {"long", LongCrl(kListed)}});
    ExpectUsed(slapd.Uri("short"));
    ExpectUsed(slapd.Uri("long"));
    ExpectUsed("LDAP" + slapd.Uri("long").substr(4));
    ExpectUsed(slapd.Uri("long", "certificateRevocationList"));
    EXPECT_FALSE(Passes(Leaf({slapd.Uri("none")})));
    EXPECT_FALSE(Passes(Leaf({slapd.Uri("short", "")}))) << "all attributes: the name comes first";
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
        EXPECT_TRUE(vendor_host::Logged("SSL peer certificate or SSH remote key was not OK", kMsgCrlTransfer));
        TrustTheServers();
        ExpectUsed(address);
    }
    EXPECT_EQ(nginx.Requests("ca.crl"), 1U) << "not asked before it was trusted";
}

/// A first address that misbehaves, beside an honest second one.
class HostileServersTest : public RealServersTest {
  protected:
    HostileServersTest() {
        SetParams([](LPARAMS::CertParams& params) {
            params.crl_max_bytes = 1U << 20U;
            params.crl_download_timeout_seconds = 2;  // room for the honest one
            params.crl_retry_seconds = 30;
        });
        nginx_.Put("ca.crl", crl_);
    }

    const std::string crl_ = Crl({.entries = {{.serial = kListed}}});
    const test_support::NginxServer nginx_;
};

TEST_F(HostileServersTest, WhatTheyAnswerIsNoCrl) {
    constexpr std::uint64_t kTenGigabytes = 10'000'000'000;
    const struct {
        const char* what;
        HostileServer::Answer answer;
        const char* outcome;
    } cases[] = {
        {"silence", {.silent = true}, "no data: Timeout was reached"},
        {"a byte now and then",
         {.body = crl_, .byte_interval = std::chrono::milliseconds(100)},
         "no data: Timeout was reached"},
        {"hangs up at once",
         {.body = crl_, .close_after = 0},
         "no data: Server returned nothing (no headers, no data)"},
        {"hangs up amid the CRL", {.body = crl_, .close_after = 200}, "no data: Transferred a partial file"},
        {"claims more than the CRL",
         {.body = crl_, .claimed_length = crl_.size() + 1},
         "no data: Transferred a partial file"},
        {"claims less than the CRL",
         {.body = crl_, .claimed_length = crl_.size() - 1},
         "data malformed, X509 ASN.1 expected"},
        {"goes in a circle", HostileServer::Redirect("/crl"), "no data: Number of redirects hit maximum amount"},
        {"10 GB", HostileServer::Endless(), "no data: more than 1048576 bytes"},
        {"10 GB behind the CRL", {.body = crl_, .padding = kTenGigabytes}, "no data: more than 1048576 bytes"},
        {"10 GB, as it says",
         {.claimed_length = kTenGigabytes, .padding = kTenGigabytes},
         "no data: more than 1048576 bytes"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        CM::ClearDownloadedCrlDB();
        vendor_host::ClearMessages();
        server_.Set("/crl", test.answer);
        EXPECT_FALSE(Passes(LeafAt("/crl")));
        EXPECT_EQ(Outcomes(), Strings{test.outcome});
        EXPECT_TRUE(Passes(LeafAt("/crl"), kSoft));
        const Strings both{server_.Uri("/crl"), nginx_.Uri("ca.crl")};
        EXPECT_TRUE(Passes(Leaf(both)));
        test_pki::CertSpec revoked = Spec(both);
        revoked.serial = kListed;
        EXPECT_FALSE(Passes(MakeCert(revoked, &ca_), kSoft));
    }
    EXPECT_TRUE(server_.WaitForIdle()) << "all were hung up on";
}

TEST_F(HostileServersTest, TheTimeOutIsNotOfEachRedirect) {
    SetParams([](LPARAMS::CertParams& params) { params.crl_download_timeout_seconds = 1; });
    // Each takes more than half of that.
    HostileServer::Answer first = HostileServer::Redirect("/crl");
    first.byte_interval = std::chrono::milliseconds(6);
    server_.Set("/first", first);
    server_.Set("/crl", {.body = crl_, .byte_interval = std::chrono::milliseconds(2)});
    EXPECT_FALSE(Passes(LeafAt("/first")));
    EXPECT_EQ(Outcomes(), Strings{"no data: Timeout was reached"});
}

TEST_F(HostileServersTest, CredentialsStayOutOfTheLogWhateverHappens) {
    const auto with_credentials = [](std::string uri) { return uri.insert(uri.find("://") + 3, "walter:swordfish@"); };
    const test_support::SlapdServer slapd({{"ca", crl_}});
    SetDetails();
    server_.Set("/html", {.content_type = "text/html", .body = "<html></html>"});
    server_.Set("/cut", {.body = crl_, .close_after = 0});
    server_.Set("/moved", HostileServer::Redirect(with_credentials(server_.Uri("/html"))));
    server_.Set("/circle", HostileServer::Redirect(with_credentials(server_.Uri("/circle"))));
    server_.Set("/completed", {.body = crl_});
    for (const std::string& uri :
         {server_.Uri("/html"), server_.Uri("/cut"), server_.Uri("/moved"), server_.Uri("/circle"), slapd.Uri("ca"),
          nginx_.Uri("ca.crl"), test_support::ReservedPort().Uri("http", "/"), std::string("ftp://127.0.0.1/")}) {
        Passes(Leaf({with_credentials(uri)}));
        Passes(Leaf({with_credentials(uri)}));  // what failed is told again
    }
    Passes(Leaf({"http:///completed"}), kStrict, with_credentials(server_.Uri("")));
    const std::string log = vendor_host::AllText();
    EXPECT_NE(log.find(server_.Uri("/completed") + "(modified)"), std::string::npos) << log;
    EXPECT_EQ(log.find("walter"), std::string::npos) << log;
    EXPECT_EQ(log.find("swordfish"), std::string::npos) << log;
}

}  // namespace
}  // namespace revocation_test
