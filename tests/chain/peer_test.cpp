// Which certificate is taken as the peer's, and why the others are not.
#include "certmgr/findpeer.h"
#include "tests/chain/peer_fixture.h"

namespace chain_test {
namespace {

TEST_F(PeerTest, RefusalsOfACandidate) {
    const Cert upper = MakeCa("CN=upper", &root_, KeyType::kEcP256, 2);
    const Cert stranger = MakeCa("CN=stranger", nullptr, KeyType::kEcP256, 5);
    const auto peer = [&](const Cert& issuer, auto change) {
        CertSpec spec = PeerSpec();
        change(spec);
        return MakeCert(spec, &issuer);
    };
    const auto as_is = [](CertSpec&) {};
    const Cert no_usage = peer(issuing_, [](CertSpec& s) { s.key_usage.clear(); });
    const Cert wrong_usage =
        peer(issuing_, [](CertSpec& s) { s.key_usage = "keyEncipherment", s.not_after = kNow - 1; });
    const Cert future = peer(issuing_, [](CertSpec& s) { s.not_before = kNow + 1; });
    const Cert starts_now = peer(issuing_, [](CertSpec& s) { s.not_before = kNow; });
    const Cert expired = peer(issuing_, [](CertSpec& s) { s.not_after = kNow - 1; });
    const Cert ends_now = peer(issuing_, [](CertSpec& s) { s.not_after = kNow; });
    const Cert bad_signature = peer(issuing_, [](CertSpec& s) { s.damage_signature = true; });
    const Cert below_upper = peer(upper, as_is);
    const Cert of_stranger = peer(stranger, as_is);
    const Cert direct = peer(root_, [](CertSpec& s) { s.damage_signature = true; });

    struct Case {
        const char* rule;
        std::vector<const Cert*> received;
        PeerVerdict expected;
    };
    const std::string usage = "1: Does not contain required key usage: Digital Signature";
    const Case cases[] = {
        {"accepted", {&peer_, &issuing_}, {"CN=peer", {}}},
        {"nothing received", {}, {}},
        {"without Digital Signature", {&no_usage, &issuing_}, {"", {usage}}},
        {"key usage goes before validity", {&wrong_usage, &issuing_}, {"", {usage}}},
        {"not yet valid", {&future, &issuing_}, {"", {"1: Will be valid from: 2030-01-01 00:00:01 UTC"}}},
        {"valid from this second on", {&starts_now, &issuing_}, {"CN=peer", {}}},
        {"expired", {&expired, &issuing_}, {"", {"1: Not valid after: 2029-12-31 23:59:59 UTC"}}},
        {"valid to this second", {&ends_now, &issuing_}, {"CN=peer", {}}},
        {"intermediate missing", {&below_upper}, {"", {"1: Certificates chain is not complete"}}},
        {"a root that nobody trusts", {&of_stranger, &stranger}, {"", {"1: Certificates chain is not trusted"}}},
        {"bad signature in a chain of three", {&bad_signature, &issuing_}, {"", {"1: Invalid signature (0)"}}},
        {"bad signature in a chain of two", {&direct}, {"", {"1: Invalid signature"}}},
        {"the first that passes every check wins",
         {&expired, &bad_signature, &ends_now, &peer_, &issuing_},
         {"CN=peer", {}}},
        {"every candidate has its reason, in the order received",
         {&expired, &no_usage, &bad_signature, &issuing_, &below_upper},
         {"",
          {"1: Not valid after: 2029-12-31 23:59:59 UTC", usage, "1: Invalid signature (0)",
           "1: Certificates chain is not complete"}}},
    };
    Store({&root_});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        EXPECT_EQ(Verify(c.received), c.expected);
    }
}

TEST_F(PeerTest, CandidatesAnswerIdentityAndPattern) {
    CertSpec rsa_spec = PeerSpec("CN=rsa peer");
    rsa_spec.key = KeyType::kRsa2048;
    const Cert rsa_peer = MakeCert(rsa_spec, &issuing_);
    const Payload payload({&issuing_, &peer_, &rsa_peer});
    Store({&root_});

    // 1. Identity.
    EXPECT_EQ(Verify(payload).selected, "CN=peer");
    id_.value = "other.example";
    EXPECT_EQ(Verify(payload), PeerVerdict()) << "no trace of what does not carry the identity";
    rule_.no_map_id_remote = true;
    EXPECT_EQ(Verify(payload).selected, "CN=peer") << "the issuing certificate lacks Digital Signature";
    rule_.no_map_id_remote = false;
    id_.any = 1;
    EXPECT_EQ(Verify(payload).selected, "CN=peer");
    id_ = {};
    id_.type = LPCFG::ipsecid_t::kDn;
    id_.dn = "CN=rsa peer";
    EXPECT_EQ(Verify(payload).selected, "CN=rsa peer");

    // 2. Patterns; the rule's algorithm counts only without them.
    id_ = {};
    id_.any = 1;
    rule_.authAlg = PKI_KEY_RSA;
    EXPECT_EQ(Verify(payload).selected, "CN=rsa peer");
    rule_.cert_remote = {SubjectPattern("CN=peer")};
    EXPECT_EQ(Verify(payload).selected, "CN=peer");
    rule_.cert_remote = {SubjectPattern("CN=nobody"), SubjectPattern("CN=rsa peer"), SubjectPattern("CN=peer")};
    EXPECT_EQ(Verify(payload).selected, "CN=rsa peer") << "patterns go before the order received";
    rule_.cert_remote = {SubjectPattern("CN=nobody")};
    EXPECT_EQ(Verify(payload), PeerVerdict());
}

TEST_F(PeerTest, CandidateIsJudgedOnceUnderItsFirstPattern) {
    CertSpec expired_spec = PeerSpec("CN=expired");
    expired_spec.not_after = kNow - 1;
    const Cert expired = MakeCert(expired_spec, &issuing_);
    Store({&root_}, {&expired});
    const Payload payload({&expired, &expired, &issuing_});
    LPCFG::cert_t of_issuing;
    of_issuing.issuer = "CN=issuing";
    rule_.cert_remote = {SubjectPattern("CN=nobody"), of_issuing, SubjectPattern("CN=expired"), {}};
    EXPECT_EQ(Verify(payload), (PeerVerdict{"", {"2: Not valid after: 2029-12-31 23:59:59 UTC"}}));
}

TEST_F(PeerTest, WhereCandidatesAreLookedFor) {
    // The same name and identity everywhere; the serial number tells who was selected.
    const auto peer = [&](const char* serial) {
        CertSpec spec = PeerSpec();
        spec.serial = serial;
        return MakeCert(spec, &issuing_);
    };
    const Cert received = peer("r");
    const Cert other = peer("o");
    const Cert trusted = peer("t");
    const Cert personal = peer("p");
    const auto selected = [&](const Payload& payload) {
        const CM::X509Cert* cert =
            CM::IkeVerifyPeerCertificate(rule_, id_, payload.list(), LPARAMS::CRL_PROC_DISABLED, std::string(), ident_);
        const std::string serial = cert != nullptr ? cert->info.serialNumber : std::string();
        CM::VCertHandleClose(cert);
        return serial;
    };
    const auto serial = [](const Cert& cert) { return Object(cert)->info.serialNumber; };
    rule_.cert_trust = {SubjectPattern("CN=root"), SubjectPattern("CN=peer")};
    // By FQDN, by DN and by an exact pattern: the ways a list of the store is searched.
    LPCFG::ipsecid_t dn;
    dn.type = LPCFG::ipsecid_t::kDn;
    dn.dn = "CN=peer";
    Store({&root_, &issuing_, &trusted}, {&other}, {&personal});
    for (const int way : {0, 1, 2}) {
        SCOPED_TRACE(way);
        if (way == 1) id_ = dn;
        if (way == 2) rule_.cert_remote = {SubjectPattern("CN=peer")};
        EXPECT_EQ(selected(Payload({&issuing_, &received})), serial(received));
        EXPECT_EQ(selected(Payload()), serial(other));
    }
    token_->Remove(store().otherCerts[0]->info.id);
    CM::Reload();
    EXPECT_EQ(selected(Payload()), serial(trusted)) << "a trusted certificate that carries the identity";
    rule_.no_map_id_remote = true;
    EXPECT_EQ(selected(Payload()), "") << "but not when the identity is not checked; nor a personal one";
    rule_.no_map_id_remote = false;
    token_->Remove(store().trustedCerts[2]->info.id);
    CM::Reload();
    EXPECT_EQ(selected(Payload()), "") << "personal certificates are never the peer's";
}

TEST_F(PeerTest, ChainNeverRunsThroughThePersonalList) {
    const Cert personal_issuer =
        MakeCert({.key_index = 7, .subject = "CN=mine", .key_usage = "digitalSignature"}, &root_);
    const Cert peer = Peer("CN=peer", personal_issuer);
    Store({&root_}, {}, {&personal_issuer});
    EXPECT_EQ(Verify({&peer}), (PeerVerdict{"", {"1: Certificates chain is not complete"}}));
}

TEST_F(PeerTest, TrustPatternsOfTheRule) {
    Store({&root_});
    const std::string text =
        "1: No one of the trusted certificates in chain don't matched to the field 'cert_trust' from LSP rule";
    rule_.cert_trust = {SubjectPattern("CN=x"), SubjectPattern("CN=root")};
    EXPECT_EQ(Verify({&peer_, &issuing_}).selected, "CN=peer");
    rule_.cert_trust = {SubjectPattern("CN=x"), SubjectPattern("CN=issuing")};
    EXPECT_EQ(Verify({&peer_, &issuing_}), (PeerVerdict{"", {text}}));
}

TEST_F(PeerTest, SettingsTakeEffectWithTheNextCheck) {
    CertSpec spec = PeerSpec();
    spec.key_usage.clear();
    const Cert no_usage = MakeCert(spec, &issuing_);
    Store({&issuing_});
    EXPECT_EQ(Verify({&no_usage}).selected, "");
    EXPECT_TRUE(vendor_host::Logged("Digital Signature", kMsgKeyUsageMissing));

    const auto set = [](LPARAMS::NamedSwitch& parameter) {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        parameter.on = true;
    };
    set(LPARAMS::server.cert.ignore_key_usage);
    EXPECT_EQ(Verify({&no_usage}).selected, "CN=peer");
    EXPECT_TRUE(vendor_host::Logged("Digital Signature", kMsgKeyUsageTolerated));

    set(LPARAMS::server.cert.require_self_signed_root);
    EXPECT_EQ(Verify({&no_usage}), (PeerVerdict{"", {"1: Selfsigned certificate not present in chain"}}));
}

TEST_F(PeerTest, ARevokedCandidateGivesWayToTheNext) {
    // The address is refused; the token has the CRL.
    CertSpec spec = PeerSpec();
    spec.crl_points = {{"URI:file:///none"}};
    const Cert revoked = MakeCert(spec, &issuing_);
    const Cert good = MakeCert(spec, &issuing_);
    token_->AddCrl("crl", test_pki::MakeCrl({.entries = {{.serial = revoked.serial}}}, issuing_));
    Store({&root_});
    const Payload payload({&revoked, &issuing_, &good});
    EXPECT_EQ(Verify(payload, LPARAMS::CRL_PROC_ENABLED), (PeerVerdict{"CN=peer", {}}));
    EXPECT_EQ(Verify(Payload({&revoked, &issuing_}), LPARAMS::CRL_PROC_ENABLED_SOFT),
              (PeerVerdict{"", {"1: Revoked certificate(s) present in chain"}}));
    EXPECT_EQ(Verify(Payload({&revoked, &issuing_}), LPARAMS::CRL_PROC_DISABLED).selected, "CN=peer");
    CM::VCertHandleClose(
        CM::IkeVerifyPeerCertificate(rule_, id_, payload.list(), LPARAMS::CRL_PROC_ENABLED, "file://default", ident_));
    EXPECT_TRUE(vendor_host::Logged(" - file://default/none(modified)", kMsgCrlTransfer));
}

TEST_F(PeerTest, ReportOfASelection) {
    Store({&root_});
    rule_.cert_remote = {SubjectPattern("CN=nobody"), SubjectPattern("CN=peer")};
    EXPECT_EQ(Verify({&peer_, &issuing_}).selected, "CN=peer");
    const std::string report = vendor_host::FindMessages(kMsgPeerCertSelected)[0].Text();
    for (const char* line :
         {" \\\n\t  Subject: CN=peer", " \\\n\t  Issuer: CN=issuing", " \\\n\t  LSP rule: branch->cert_remote[2]",
          " \\\n\t  Identity: FQDN peer.example", " \\\n\t  Chain: 3 certificates", " \\\n\t    [0] income: CN=peer",
          " \\\n\t    [1] income: CN=issuing", " \\\n\t    [2] trusted: CN=root"}) {
        EXPECT_TRUE(Has(report, line)) << line << "\nin" << report;
    }
}

TEST_F(PeerTest, ReportOfARefusal) {
    CertSpec spec = PeerSpec("CN=bad");
    spec.damage_signature = true;
    const Cert bad = MakeCert(spec, &issuing_);
    Store({&root_});
    rule_.no_map_id_remote = true;
    EXPECT_EQ(Verify({&bad, &issuing_}).selected, "");
    const std::string report = vendor_host::FindMessages(kMsgPeerCertNotSelected)[0].Text();
    for (const char* line :
         {" \\\n\t  LSP rule: branch - 'cert_remote' is empty",
          " \\\n\t  Identity: not checked - 'no_map_id_remote' is set in LSP rule", " \\\n\t  Received: 2 certificates",
          " \\\n\t  Certificate 1: cert_remote[1]: Invalid signature (0) \\\n\t  Subject: CN=bad",
          " \\\n\t  Chain: 3 certificates \\\n\t    [0] income: CN=bad",
          " \\\n\t  Certificate 2: cert_remote[1]: Does not contain required key usage: Digital Signature"}) {
        EXPECT_TRUE(Has(report, line)) << line << "\nin" << report;
    }
    EXPECT_EQ(Verify(std::vector<const Cert*>{}).refusals, Strings());
    EXPECT_TRUE(vendor_host::Logged("No certificate matches", kMsgPeerCertNotSelected));
}

// --- Payloads ---

TEST_F(PeerTest, DecodesASingleCertificate) {
    Payload payload;
    EXPECT_TRUE(payload.Add(peer_.der));
    ASSERT_EQ(payload.list().size(), 1U);
    EXPECT_EQ(payload.list()[0]->info.kind, kCertKindPeer);
    EXPECT_EQ(payload.list()[0]->rawCert, peer_.der);
    EXPECT_TRUE(vendor_host::Logged("Subject: CN=peer", kMsgCertReceivedX509));

    CertSpec unusable_spec = PeerSpec();
    unusable_spec.extensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\x00"}};
    vendor_host::ClearMessages();
    EXPECT_FALSE(payload.Add(MakeCert(unusable_spec, &root_).der)) << "unknown critical extension";
    EXPECT_TRUE(vendor_host::FindMessages(kMsgCertUnreadableX509).empty());
    EXPECT_TRUE(vendor_host::FindMessages(kMsgCertReceivedX509).empty());

    const std::string broken[] = {"", "junk", peer_.der.substr(0, peer_.der.size() - 1)};
    for (const std::string& der : broken) {
        vendor_host::ClearMessages();
        EXPECT_FALSE(payload.Add(der));
        EXPECT_EQ(vendor_host::FindMessages(kMsgCertUnreadableX509).size(), 1U);
    }
    std::vector<const CM::X509Cert*> list;
    EXPECT_FALSE(CM::VCertsListAddRawX509(list, nullptr, 0, ident_));
    EXPECT_EQ(payload.list().size(), 1U);
}

TEST_F(PeerTest, DecodesABundle) {
    CertSpec unusable_spec = PeerSpec("CN=unusable");
    unusable_spec.extensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\x00"}};
    const Cert unusable = MakeCert(unusable_spec, &root_);
    Payload payload;
    EXPECT_TRUE(payload.AddBundle(test_pki::MakePkcs7({root_.der, unusable.der, issuing_.der, peer_.der})));
    EXPECT_EQ(payload.Subjects(), (Strings{"CN=peer", "CN=issuing", "CN=root"})) << "the reader's order";
    EXPECT_EQ(vendor_host::FindMessages(kMsgCertReceivedPkcs7).size(), 3U);
    EXPECT_TRUE(payload.AddBundle(test_pki::MakePkcs7({})));
    EXPECT_EQ(payload.list().size(), 3U);

    for (const std::string& der : {std::string(), std::string("junk"), peer_.der}) {
        vendor_host::ClearMessages();
        EXPECT_FALSE(payload.AddBundle(der));
        EXPECT_EQ(vendor_host::FindMessages(kMsgCertUnreadablePkcs7).size(), 1U);
    }
}

TEST_F(PeerTest, WhatOnePeerMaySendIsBounded) {
    Payload payload;
    Payload large_ones;
    CertSpec large = PeerSpec();
    large.extensions = {{.oid = "1.2.3.4", .der = std::string(CM::kMaxReceivedBytes / 4, 'x')}};
    const std::string quarter = MakeCert(large, &root_).der;
    EXPECT_FALSE(large_ones.AddBundle(test_pki::MakePkcs7({quarter, quarter, quarter, quarter})));
    for (const bool fits : {true, true, true, false}) EXPECT_EQ(large_ones.Add(quarter), fits);
    while (payload.list().size() < CM::kMaxReceivedCerts - 1 && payload.Add(peer_.der)) continue;
    EXPECT_TRUE(payload.AddBundle(test_pki::MakePkcs7({peer_.der, peer_.der, peer_.der}))) << "as far as it goes";
    EXPECT_FALSE(payload.Add(peer_.der));
    EXPECT_TRUE(vendor_host::Logged("1024 certificates", kMsgCertUnreadableX509));
    EXPECT_FALSE(payload.AddBundle(test_pki::MakePkcs7({peer_.der})));
    EXPECT_EQ(vendor_host::FindMessages(kMsgCertUnreadablePkcs7).size(), 3U) << "with the large ones";
    EXPECT_TRUE(vendor_host::Logged("1024 certificates", kMsgCertUnreadablePkcs7));
    EXPECT_EQ(payload.list().size(), CM::kMaxReceivedCerts);
}

}  // namespace
}  // namespace chain_test
