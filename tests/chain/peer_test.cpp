// Which certificate is taken as the peer's, and why the others are not.
#include "certmgr/findpeer.h"
#include "tests/chain/peer_fixture.h"
#include "tests/support/der.h"

namespace chain_test {
namespace {

TEST_F(PeerTest, RefusalsOfACandidate) {
    const Cert upper = MakeCa("CN=upper", &root_);
    const Cert no_usage = Changed([](CertSpec& s) { s.key_usage.clear(); });
    const Cert expired_cipher = Changed([](CertSpec& s) {
        s.key_usage = "keyEncipherment";
        s.not_after = kNow - 1;
    });
    const Cert future = Changed([](CertSpec& s) { s.not_before = kNow + 1; });
    const Cert expired = Changed([](CertSpec& s) { s.not_after = kNow - 1; });
    const Cert this_second = Changed([](CertSpec& s) { s.not_before = s.not_after = kNow; });
    const Cert bad_signature = Changed([](CertSpec& s) { s.damage_signature = true; });
    const Cert below_upper = Peer("CN=peer", upper);

    const std::string usage = "1: Does not contain required key usage: Digital Signature";
    const std::string ended = "1: Not valid after: 2029-12-31 23:59:59 UTC";
    const std::string incomplete = "1: Certificates chain is not complete";
    const std::tuple<const char*, std::vector<const Cert*>, Strings> cases[] = {
        {"accepted", {&peer_, &issuing_}, {"CN=peer"}},
        {"nothing received", {}, {}},
        {"without Digital Signature", {&no_usage, &issuing_}, {usage}},
        {"key usage goes before validity", {&expired_cipher, &issuing_}, {usage}},
        {"not yet valid", {&future, &issuing_}, {"1: Will be valid from: 2030-01-01 00:00:01 UTC"}},
        {"expired", {&expired, &issuing_}, {ended}},
        {"valid this second", {&this_second, &issuing_}, {"CN=peer"}},
        {"intermediate missing", {&below_upper}, {incomplete}},
        {"bad signature in a chain of three", {&bad_signature, &issuing_}, {"1: Invalid signature (0)"}},
        {"the first that passes every check wins", {&expired, &bad_signature, &peer_, &issuing_}, {"CN=peer"}},
        {"every candidate has its reason, in the order received",
         {&expired, &no_usage, &bad_signature, &issuing_, &below_upper},
         {ended, usage, "1: Invalid signature (0)", incomplete}},
    };
    Store({&root_});
    for (const auto& [rule, received, expected] : cases) EXPECT_EQ(Verify(received), expected) << rule;
    EXPECT_TRUE(vendor_host::Logged("Does not contain", kMsgPeerCertNotSelected));
    EXPECT_EQ(Verify(Payload()), Strings());
    EXPECT_TRUE(vendor_host::Logged("No certificate matches", kMsgPeerCertNotSelected));
}

TEST_F(PeerTest, CandidatesAnswerIdentityAndPattern) {
    const Cert rsa_peer = Changed([](CertSpec& s) { s.key = KeyType::kRsa2048; }, "CN=rsa peer");
    const Payload payload({&issuing_, &peer_, &rsa_peer});
    Store({&root_});

    const Strings peer{"CN=peer"};
    const Strings rsa{"CN=rsa peer"};
    const Strings no_trace;  // of what does not carry the identity, or matches no pattern

    // Identity.
    EXPECT_EQ(Verify(payload), peer);
    id_.value = "other.example";
    EXPECT_EQ(Verify(payload), no_trace);
    rule_.no_map_id_remote = true;
    EXPECT_EQ(Verify(payload), peer) << "the issuing certificate lacks Digital Signature";
    rule_.no_map_id_remote = false;
    id_.any = 1;
    EXPECT_EQ(Verify(payload), peer);
    id_ = {};
    id_.type = LPCFG::ipsecid_t::kDn;
    id_.dn = "CN=rsa peer";
    EXPECT_EQ(Verify(payload), rsa);

    // Patterns; the rule's algorithm counts only without them.
    id_ = {};
    id_.any = 1;
    rule_.authAlg = PKI_KEY_RSA;
    EXPECT_EQ(Verify(payload), rsa);
    rule_.cert_remote = {SubjectPattern("CN=peer")};
    EXPECT_EQ(Verify(payload), peer);
    rule_.cert_remote = {SubjectPattern("CN=nobody"), SubjectPattern("CN=rsa peer"), SubjectPattern("CN=peer")};
    EXPECT_EQ(Verify(payload), rsa) << "patterns go before the order received";
    rule_.cert_remote = {SubjectPattern("CN=nobody")};
    EXPECT_EQ(Verify(payload), no_trace);

    // A candidate is judged once, under its first pattern.
    const Cert expired = Changed([](CertSpec& s) { s.not_after = kNow - 1; }, "CN=expired");
    rule_.cert_remote.emplace_back().issuer = "CN=issuing";
    rule_.cert_remote.push_back(SubjectPattern("CN=expired"));
    EXPECT_EQ(Verify({&expired, &expired, &issuing_}), Strings{"2: Not valid after: 2029-12-31 23:59:59 UTC"});
}

TEST_F(PeerTest, WhereCandidatesAreLookedFor) {
    // The same name and identity everywhere; the serial number tells who was selected.
    const auto peer = [&](const char* serial) { return Changed([&](CertSpec& s) { s.serial = serial; }); };
    const Cert received = peer("r");
    const Cert other = peer("o");
    const Cert trusted = peer("t");
    const Cert personal = peer("p");
    const auto selected = [&](const Payload& payload) {
        const Handle cert(
            CM::IkeVerifyPeerCertificate(rule_, id_, payload.certs, LPARAMS::CRL_PROC_DISABLED, {}, ident_));
        return cert.get() != nullptr ? cert.get()->rawCert : std::string();
    };
    rule_.cert_trust = {SubjectPattern("CN=root"), SubjectPattern("CN=peer")};
    // By FQDN, by DN and by an exact pattern: the ways a list of the store is searched.
    Store({&root_, &issuing_, &trusted}, {&other}, {&personal});
    for (const int way : {0, 1, 2}) {
        SCOPED_TRACE(way);
        if (way == 1) id_.type = LPCFG::ipsecid_t::kDn;
        if (way == 1) id_.dn = "CN=peer";
        if (way == 2) rule_.cert_remote = {SubjectPattern("CN=peer")};
        EXPECT_EQ(selected(Payload({&issuing_, &received})), received.der);
        EXPECT_EQ(selected(Payload()), other.der);
    }
    token_->Remove(store().otherCerts[0]->info.id);
    CM::Reload();
    EXPECT_EQ(selected(Payload()), trusted.der) << "a trusted certificate that carries the identity";
    rule_.no_map_id_remote = true;
    EXPECT_EQ(selected(Payload()), "") << "but not when the identity is not checked; nor a personal one";
}

TEST_F(PeerTest, ChainNeverRunsThroughThePersonalList) {
    const Cert mine = MakeLeaf("CN=mine", root_);
    const Cert peer = Peer("CN=peer", mine);
    Store({&root_}, {}, {&mine});
    EXPECT_EQ(Verify({&peer}), Strings{"1: Certificates chain is not complete"});
}

TEST_F(PeerTest, RulesAndSettingsTakeEffectWithTheNextCheck) {
    const Cert no_usage = Changed([](CertSpec& s) { s.key_usage.clear(); });
    Store({&issuing_});
    EXPECT_EQ(Verify({&no_usage}), Strings{"1: Does not contain required key usage: Digital Signature"});
    EXPECT_TRUE(vendor_host::Logged("Digital Signature", kMsgKeyUsageMissing));
    Set(&LPARAMS::CertParams::ignore_key_usage);
    EXPECT_EQ(Verify({&no_usage}), Strings{"CN=peer"});
    EXPECT_TRUE(vendor_host::Logged("Digital Signature", kMsgKeyUsageTolerated));
    rule_.cert_trust = {SubjectPattern("CN=root")};
    EXPECT_EQ(Verify({&no_usage}),
              Strings{"1: No one of the trusted certificates in chain don't matched to the field 'cert_trust' from LSP "
                      "rule"});
    Set(&LPARAMS::CertParams::require_self_signed_root);
    EXPECT_EQ(Verify({&no_usage}), Strings{"1: Selfsigned certificate not present in chain"});
}

TEST_F(PeerTest, ARevokedCandidateGivesWayToTheNext) {
    // The address is refused; the token has the CRL.
    const auto with_point = [](CertSpec& s) { s.crl_points = {{"URI:file:///none"}}; };
    const Cert revoked = Changed(with_point);
    const Cert good = Changed(with_point);
    token_->AddCrl("crl", MakeCrl({.entries = {{.serial = revoked.serial}}}, issuing_));
    Store({&root_});
    const Payload payload({&revoked, &issuing_, &good});
    EXPECT_EQ(Verify(payload, LPARAMS::CRL_PROC_ENABLED), Strings{"CN=peer"});
    EXPECT_EQ(Verify(Payload({&revoked, &issuing_}), LPARAMS::CRL_PROC_ENABLED_SOFT),
              Strings{"1: Revoked certificate(s) present in chain"});
    const Handle selected(
        CM::IkeVerifyPeerCertificate(rule_, id_, payload.certs, LPARAMS::CRL_PROC_ENABLED, "file://default", ident_));
    EXPECT_TRUE(vendor_host::Logged(" - file://default/none(modified)", kMsgCrlTransfer));
}

TEST_F(PeerTest, Reports) {
    Store({&root_});
    const auto expect_lines = [](std::uint16_t code, const Strings& lines) {
        const std::string report = OnlyMessage(code);
        for (const std::string& line : lines) EXPECT_TRUE(Has(report, " \\\n\t  " + line)) << line << "\nin " << report;
    };
    rule_.cert_remote = {SubjectPattern("CN=nobody"), SubjectPattern("CN=peer")};
    EXPECT_EQ(Verify({&peer_, &issuing_}), Strings{"CN=peer"});
    expect_lines(kMsgPeerCertSelected, {"Subject: CN=peer", "Issuer: CN=issuing", "LSP rule: branch->cert_remote[2]",
                                        "Identity: FQDN peer.example", "Chain: 3 certificates", "  [0] income: CN=peer",
                                        "  [2] trusted: CN=root"});
    const Cert bad = Changed([](CertSpec& s) { s.damage_signature = true; }, "CN=bad");
    rule_.cert_remote.clear();
    rule_.no_map_id_remote = true;
    EXPECT_EQ(Verify({&bad, &issuing_}).size(), 2U);
    expect_lines(
        kMsgPeerCertNotSelected,
        {"LSP rule: branch - 'cert_remote' is empty", "Identity: not checked - 'no_map_id_remote' is set in LSP rule",
         "Received: 2 certificates", "Certificate 1: cert_remote[1]: Invalid signature (0) \\\n\t  Subject: CN=bad",
         "Chain: 3 certificates \\\n\t    [0] income: CN=bad",
         "Certificate 2: cert_remote[1]: Does not contain required key usage: Digital Signature"});
}

// --- Payloads ---

TEST_F(PeerTest, DecodesCertificatesAndBundles) {
    Payload payload;
    EXPECT_TRUE(payload.Add(peer_.der));
    EXPECT_EQ(payload.certs.at(0)->info.kind, kCertKindPeer);
    EXPECT_EQ(payload.certs.at(0)->rawCert, peer_.der);
    EXPECT_TRUE(vendor_host::Logged("Subject: CN=peer", kMsgCertReceivedX509));
    const Cert unusable = MakeCert({.extensions = {{"1.2.3.4", true, der::Null()}}}, &root_);
    EXPECT_FALSE(payload.Add(unusable.der)) << "unknown critical extension";
    EXPECT_TRUE(vendor_host::FindMessages(kMsgCertUnreadableX509).empty());
    EXPECT_TRUE(payload.AddBundle(test_pki::MakePkcs7({root_.der, unusable.der, issuing_.der, peer_.der})));
    EXPECT_EQ(SubjectsOf(payload.certs), (Strings{"CN=peer", "CN=peer", "CN=issuing", "CN=root"}))
        << "the reader's order";
    EXPECT_EQ(vendor_host::FindMessages(kMsgCertReceivedPkcs7).size(), 3U);
    EXPECT_TRUE(payload.AddBundle(test_pki::MakePkcs7({})));

    for (const std::string& broken : {std::string(), peer_.der.substr(1)}) {
        vendor_host::ClearMessages();
        EXPECT_FALSE(payload.Add(broken));
        EXPECT_FALSE(payload.AddBundle(broken));
        EXPECT_EQ(vendor_host::FindMessages(kMsgCertUnreadableX509).size(), 1U);
        EXPECT_EQ(vendor_host::FindMessages(kMsgCertUnreadablePkcs7).size(), 1U);
    }
    EXPECT_FALSE(payload.AddBundle(peer_.der));
    EXPECT_FALSE(CM::VCertsListAddRawX509(payload.certs, nullptr, 0, ident_));
    EXPECT_EQ(payload.certs.size(), 4U);
}

TEST_F(PeerTest, WhatOnePeerMaySendIsBounded) {
    Payload payload;
    Payload large_ones;
    const std::string big(CM::kMaxReceivedBytes / 4, 'x');
    const std::string quarter = Changed([&](CertSpec& s) { s.extensions = {{.oid = "1.2.3.4", .der = big}}; }).der;
    EXPECT_FALSE(large_ones.AddBundle(test_pki::MakePkcs7({quarter, quarter, quarter, quarter})));
    for (const bool fits : {true, true, true, false}) EXPECT_EQ(large_ones.Add(quarter), fits);
    while (payload.certs.size() < CM::kMaxReceivedCerts - 1 && payload.Add(peer_.der)) continue;
    EXPECT_TRUE(payload.AddBundle(test_pki::MakePkcs7({peer_.der, peer_.der, peer_.der}))) << "as far as it goes";
    EXPECT_EQ(vendor_host::FindMessages(kMsgCertUnreadablePkcs7).size(), 2U);
    EXPECT_TRUE(vendor_host::Logged("1024 certificates", kMsgCertUnreadablePkcs7));
    EXPECT_FALSE(payload.Add(peer_.der));
    EXPECT_TRUE(vendor_host::Logged("1024 certificates", kMsgCertUnreadableX509));
    EXPECT_FALSE(payload.AddBundle(test_pki::MakePkcs7({peer_.der})));
    EXPECT_EQ(payload.certs.size(), CM::kMaxReceivedCerts);
}

}  // namespace
}  // namespace chain_test
