// What makes a built chain hold, and how a single certificate is checked.
#include "certmgr/cert_verifychain.h"

#include <functional>

#include "tests/chain/chain_fixture.h"

namespace chain_test {
namespace {

struct Member {
    const Cert* cert;
    CertKind kind;
};

struct Verdict {
    std::uint64_t position = 0;
    std::string reason;

    bool operator==(const Verdict&) const = default;
};

void PrintTo(const Verdict& verdict, std::ostream* out) {
    *out << verdict.position << " \"" << verdict.reason << "\"";
}

/// root - upper - lower - leaf, and variations of each that break one rule.
class VerifyTest : public ChainTest {
  protected:
    static CertSpec Ca(const std::string& subject, int key_index) {
        return {.key_index = key_index, .subject = subject, .ca = true, .key_usage = "keyCertSign"};
    }
    static Cert Vary(CertSpec spec, const Cert* issuer, const std::function<void(CertSpec&)>& change) {
        change(spec);
        return MakeCert(spec, issuer);
    }

    static Verdict Verify(const std::vector<Member>& members, const Strings& trust_subjects = {},
                          bool check_trust = true) {
        CM::CertList chain;
        for (const Member& member : members) chain.Adopt(Object(*member.cert, member.kind).Detach());
        std::list<LPCFG::cert_t> trust;
        for (const std::string& subject : trust_subjects) trust.push_back(SubjectPattern(subject));
        CM::cm_VerifyCertChainTask task(trust, check_trust, CertTimeNow(), ident());
        const CM::Refusal refusal = task.Run(chain.certs());
        return {refusal.position, CM::RefusalText(refusal)};
    }
    static const TLogIdent& ident() {
        static const TLogIdent ident{.id = 1, .kind = TLogIdent::kConnection};
        return ident;
    }
    static void Require(LPARAMS::NamedSwitch LPARAMS::CertParams::*parameter) {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        (LPARAMS::server.cert.*parameter).on = true;
    }

    const Cert root_ = MakeCert(Ca("CN=root", 0));
    const Cert upper_ = MakeCert(Ca("CN=upper", 1), &root_);
    const Cert lower_ = MakeCert(Ca("CN=lower", 2), &upper_);
    const CertSpec leaf_spec_{.key_index = 3, .subject = "CN=leaf", .key_usage = "digitalSignature"};
    const Cert leaf_ = MakeCert(leaf_spec_, &lower_);
};

constexpr CertKind kPeer = kCertKindPeer;
constexpr CertKind kOther = kCertKindOther;
constexpr CertKind kTrusted = kCertKindTrusted;

TEST_F(VerifyTest, AuthoritiesOfTheChain) {
    const auto upper = [&](auto change) { return Vary(Ca("CN=upper", 1), &root_, change); };
    const Cert not_ca = upper([](CertSpec& s) { s.ca = false; });
    const Cert no_constraints = upper([](CertSpec& s) { s.ca.reset(); });
    const Cert path_0 = upper([](CertSpec& s) { s.path_len = 0; });
    const Cert path_1 = upper([](CertSpec& s) { s.path_len = 1; });
    const Cert lower_path_0 = Vary(Ca("CN=lower", 2), &upper_, [](CertSpec& s) { s.path_len = 0; });
    const Cert root_path_1 = Vary(Ca("CN=root", 0), nullptr, [](CertSpec& s) { s.path_len = 1; });
    const Cert expired = upper([](CertSpec& s) { s.not_after = kNow - 1; });
    const Cert ends_now = upper([](CertSpec& s) { s.not_after = kNow; });
    const Cert future = upper([](CertSpec& s) { s.not_before = kNow + 1; });
    const Cert starts_now = upper([](CertSpec& s) { s.not_before = kNow; });
    const std::string not_ca_text = "Not CA certificate present in chain: CN=upper";
    const std::string path_text = "The number of sub-CAs exceeds Path Length Constraint of the CA certificate: ";
    const std::string time_text = "Not currently valid certificate(s) present in chain";

    struct Case {
        const char* rule;
        const Cert* lower;
        const Cert* upper;
        const Cert* root;
        Verdict expected;
    };
    const Case cases[] = {
        {"a good chain", &lower_, &upper_, &root_, {}},
        {"an authority that is none", &lower_, &not_ca, &root_, {3, not_ca_text}},
        {"an authority without basic constraints", &lower_, &no_constraints, &root_, {3, not_ca_text}},
        {"path length 0 with an authority below", &lower_, &path_0, &root_, {3, path_text + "CN=upper"}},
        {"path length 1 with an authority below", &lower_, &path_1, &root_, {}},
        {"path length 0 above the leaf", &lower_path_0, &upper_, &root_, {}},
        {"path length 1 with two authorities below", &lower_, &upper_, &root_path_1, {4, path_text + "CN=root"}},
        {"expired", &lower_, &expired, &root_, {3, time_text}},
        {"ends this second", &lower_, &ends_now, &root_, {}},
        {"not yet valid", &lower_, &future, &root_, {3, time_text}},
        {"starts this second", &lower_, &starts_now, &root_, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        const std::vector<Member> chain = {{&leaf_, kPeer}, {c.lower, kPeer}, {c.upper, kOther}, {c.root, kTrusted}};
        EXPECT_EQ(Verify(chain), c.expected);
        EXPECT_EQ(Verify(chain, {}, false), Verdict()) << "without trust only signatures count";
    }
    // The order of the tests on one authority, and of the authorities.
    const Cert all_wrong = upper([](CertSpec& s) { s.ca = false, s.not_after = kNow - 1; });
    const Cert path_and_time = upper([](CertSpec& s) { s.path_len = 0, s.not_after = kNow - 1; });
    const auto verify = [&](const Cert& cert) {
        return Verify({{&leaf_, kPeer}, {&lower_, kPeer}, {&cert, kOther}, {&root_path_1, kTrusted}});
    };
    EXPECT_EQ(verify(all_wrong).reason, not_ca_text);
    EXPECT_EQ(verify(path_and_time).reason, path_text + "CN=upper");
    // Nobody looks at the leaf's own validity here.
    const Cert old_leaf = Vary(leaf_spec_, &lower_, [](CertSpec& s) { s.not_after = kNow - 1; });
    EXPECT_EQ(Verify({{&old_leaf, kPeer}, {&lower_, kPeer}, {&upper_, kOther}, {&root_, kTrusted}}), Verdict());
}

TEST_F(VerifyTest, TrustMatch) {
    const std::string text =
        "No one of the trusted certificates in chain don't matched to the field 'cert_trust' from LSP rule";
    struct Case {
        const char* rule;
        std::vector<CertKind> kinds;  // leaf, lower, upper, root
        Strings trust;
        bool matched;
    };
    const Case cases[] = {
        {"no patterns, leaf not trusted", {kPeer, kPeer, kPeer, kTrusted}, {}, true},
        {"no patterns, leaf trusted", {kTrusted, kTrusted, kTrusted, kTrusted}, {}, true},
        {"the root matches", {kPeer, kPeer, kPeer, kTrusted}, {"CN=root"}, true},
        {"the second pattern matches", {kPeer, kPeer, kPeer, kTrusted}, {"CN=x", "CN=root"}, true},
        {"nothing matches", {kPeer, kPeer, kPeer, kTrusted}, {"CN=x"}, false},
        {"a later trusted one matches", {kPeer, kTrusted, kTrusted, kTrusted}, {"CN=root"}, true},
        {"an earlier trusted one matches", {kPeer, kTrusted, kTrusted, kTrusted}, {"CN=lower"}, true},
        {"a match of one that is not trusted", {kPeer, kPeer, kPeer, kTrusted}, {"CN=upper"}, false},
        {"a match of a leaf that is not trusted", {kPeer, kPeer, kPeer, kTrusted}, {"CN=leaf"}, false},
        {"a match of a trusted leaf", {kTrusted, kTrusted, kTrusted, kTrusted}, {"CN=leaf"}, true},
        {"a trusted leaf whose root matches", {kTrusted, kTrusted, kTrusted, kTrusted}, {"CN=root"}, true},
        {"a trusted leaf and no match", {kTrusted, kTrusted, kTrusted, kTrusted}, {"CN=x"}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        const Verdict verdict =
            Verify({{&leaf_, c.kinds[0]}, {&lower_, c.kinds[1]}, {&upper_, c.kinds[2]}, {&root_, c.kinds[3]}}, c.trust);
        EXPECT_EQ(verdict, c.matched ? Verdict() : (Verdict{4, text}));
    }
    EXPECT_EQ(Verify({{&leaf_, kPeer}, {&root_, kTrusted}}, {"CN=x"}, false).reason, "Invalid signature");
    EXPECT_EQ(Verify({{&leaf_, kTrusted}}, {"CN=x"}), (Verdict{1, text}));
}

TEST_F(VerifyTest, Signatures) {
    const Cert bad_leaf = Vary(leaf_spec_, &lower_, [](CertSpec& s) { s.damage_signature = true; });
    const Cert bad_lower = Vary(Ca("CN=lower", 2), &upper_, [](CertSpec& s) { s.damage_signature = true; });
    const Cert bad_upper = Vary(Ca("CN=upper", 1), &root_, [](CertSpec& s) { s.damage_signature = true; });
    const Cert bad_root = Vary(Ca("CN=root", 0), nullptr, [](CertSpec& s) { s.damage_signature = true; });
    const Cert no_sign = Vary(Ca("CN=upper", 1), &root_, [](CertSpec& s) { s.key_usage = "cRLSign"; });
    const Cert no_usage = Vary(Ca("CN=lower", 2), &upper_, [](CertSpec& s) { s.key_usage.clear(); });
    const Cert short_leaf = Vary(leaf_spec_, &root_, [](CertSpec& s) { s.damage_signature = true; });
    const auto usage_text = [](int index) {
        return "Signature cannot be checked. Issuer[" + std::to_string(index) +
               "] does not contain required key usage: Certificate Signing";
    };

    struct Case {
        const char* rule;
        std::vector<Member> chain;
        Verdict expected;
    };
    const Case cases[] = {
        {"bad leaf in a long chain",
         {{&bad_leaf, kPeer}, {&lower_, kPeer}, {&upper_, kPeer}, {&root_, kTrusted}},
         {1, "Invalid signature (0)"}},
        {"bad leaf in a chain of two", {{&short_leaf, kPeer}, {&root_, kTrusted}}, {1, "Invalid signature"}},
        {"bad intermediate",
         {{&leaf_, kPeer}, {&lower_, kPeer}, {&bad_upper, kPeer}, {&root_, kTrusted}},
         {3, "Invalid signature (2)"}},
        {"a trusted certificate's own signature does not count",
         {{&leaf_, kPeer}, {&bad_lower, kTrusted}, {&upper_, kTrusted}, {&root_, kTrusted}},
         {}},
        {"nor a trusted root's", {{&leaf_, kPeer}, {&lower_, kPeer}, {&upper_, kPeer}, {&bad_root, kTrusted}}, {}},
        {"nor a trusted leaf's", {{&bad_leaf, kTrusted}, {&lower_, kTrusted}}, {}},
        {"a last one that is not self-signed cannot be checked", {{&leaf_, kPeer}, {&lower_, kPeer}}, {}},
        {"a last one that is self-signed is", {{&bad_root, kPeer}}, {1, "Invalid signature"}},
        {"issuer without Certificate Signing",
         {{&leaf_, kPeer}, {&lower_, kPeer}, {&no_sign, kPeer}, {&root_, kTrusted}},
         {2, usage_text(1)}},
        {"issuer without key usage",
         {{&leaf_, kPeer}, {&no_usage, kPeer}, {&upper_, kPeer}, {&root_, kTrusted}},
         {1, usage_text(0)}},
        {"key usage goes before the signature",
         {{&bad_leaf, kPeer}, {&no_usage, kPeer}, {&upper_, kPeer}, {&root_, kTrusted}},
         {1, usage_text(0)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        EXPECT_EQ(Verify(c.chain, {}, false), c.expected);
    }
}

TEST_F(VerifyTest, SignatureChecksThatCannotBeMade) {
    const std::vector<Member> chain = {{&leaf_, kPeer}, {&lower_, kPeer}, {&upper_, kPeer}, {&root_, kTrusted}};
    token_->OnDigest([](pki_alg_t, const std::string&) { return std::nullopt; });
    EXPECT_EQ(Verify(chain), (Verdict{1, "Digest error (0)"}));
    token_->OnDigest(nullptr);
    token_->Fail(vendor_host::Op::kOpenPublic);
    EXPECT_EQ(Verify(chain), (Verdict{1, "Can't open token to verify signature (0)"}));
    token_->Fail(vendor_host::Op::kOpenPublic, 0);
    token_->SetAlgorithms({PKI_KEY_RSA});
    EXPECT_EQ(Verify(chain), (Verdict{1, "No token to verify signature (0)"}));
    EXPECT_EQ(CM::RefusalText({.id = CM::RefusalId::kSignatureNotVerified, .index = 2}), "Can't verify signature (2)");
}

TEST_F(VerifyTest, MissingKeyUsageCanBeTolerated) {
    const Cert no_usage = Vary(Ca("CN=lower", 2), &upper_, [](CertSpec& s) { s.key_usage.clear(); });
    const std::vector<Member> chain = {{&leaf_, kPeer}, {&no_usage, kPeer}, {&upper_, kPeer}, {&root_, kTrusted}};
    const auto attributes = [](std::uint16_t code) {
        const auto messages = vendor_host::FindMessages(code);
        return messages.size() == 1 ? messages[0].attributes : Strings();
    };
    EXPECT_EQ(Verify(chain).position, 1U);
    const Strings missing = attributes(kMsgKeyUsageMissing);
    ASSERT_EQ(missing.size(), 2U);
    EXPECT_EQ(missing[0], "Certificate Signing");
    EXPECT_NE(missing[1].find("Subject: CN=lower"), std::string::npos) << "the issuer is shown";

    vendor_host::ClearMessages();
    Require(&LPARAMS::CertParams::ignore_key_usage);
    EXPECT_EQ(Verify(chain), Verdict());
    const Strings tolerated = attributes(kMsgKeyUsageTolerated);
    ASSERT_EQ(tolerated.size(), 3U);
    EXPECT_EQ(tolerated[0], "Certificate Signing");
    EXPECT_EQ(tolerated[1], LPARAMS::server.cert.ignore_key_usage.name);
    EXPECT_NE(tolerated[2].find("Subject: CN=lower"), std::string::npos);
}

TEST_F(VerifyTest, SelfSignedRootCanBeRequired) {
    const Cert bad_upper = Vary(Ca("CN=upper", 1), &root_, [](CertSpec& s) { s.damage_signature = true; });
    const Cert bad_root = Vary(Ca("CN=root", 0), nullptr, [](CertSpec& s) { s.damage_signature = true; });
    Require(&LPARAMS::CertParams::require_self_signed_root);
    struct Case {
        const char* rule;
        std::vector<Member> chain;
        Verdict expected;
    };
    const Case cases[] = {
        {"ends in a trusted root", {{&leaf_, kPeer}, {&lower_, kPeer}, {&upper_, kPeer}, {&root_, kTrusted}}, {}},
        {"ends at a trusted intermediate",
         {{&leaf_, kPeer}, {&lower_, kTrusted}},
         {2, "Selfsigned certificate not present in chain"}},
        {"ends in a root that is not trusted",
         {{&leaf_, kPeer}, {&lower_, kTrusted}, {&upper_, kPeer}, {&root_, kPeer}},
         {4, "Selfsigned certificate is not trusted"}},
        {"signatures of trusted certificates count",
         {{&leaf_, kPeer}, {&lower_, kTrusted}, {&bad_upper, kTrusted}, {&root_, kTrusted}},
         {3, "Invalid signature (2)"}},
        {"the root's own too",
         {{&leaf_, kPeer}, {&lower_, kPeer}, {&upper_, kPeer}, {&bad_root, kTrusted}},
         {4, "Invalid signature (3)"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        EXPECT_EQ(Verify(c.chain), c.expected);
        EXPECT_EQ(Verify(c.chain, {}, false), c.expected) << "with or without trust";
    }
}

TEST_F(VerifyTest, ChainsThatShareTheirUpperPartPayForItOnce) {
    const Cert second_leaf =
        MakeCert({.key_index = 4, .subject = "CN=leaf 2", .key_usage = "digitalSignature"}, &lower_);
    const CM::MutableCertRef lower = Object(lower_);
    const CM::MutableCertRef upper = Object(upper_);
    const CM::MutableCertRef root = Object(root_, kTrusted);
    const std::list<LPCFG::cert_t> any;
    CM::cm_VerifyCertChainTask task(any, true, CertTimeNow(), ident());
    const CM::MutableCertRef first = Object(leaf_);
    const CM::MutableCertRef second = Object(second_leaf);
    token_->Fail(vendor_host::Op::kVerify, 1);
    EXPECT_TRUE(task.Run({first.get(), lower.get(), upper.get(), root.get()}));
    token_->ClearCalls();
    EXPECT_FALSE(task.Run({first.get(), lower.get(), upper.get(), root.get()})) << "trouble is no verdict";
    EXPECT_EQ(token_->Calls(vendor_host::Op::kVerify), 3U);
    EXPECT_FALSE(task.Run({second.get(), lower.get(), upper.get(), root.get()}));
    EXPECT_EQ(token_->Calls(vendor_host::Op::kVerify), 4U);
}

// --- A single certificate ---

class SingleTest : public VerifyTest {
  protected:
    /// Result and reason of the check of the store's certificate with that subject.
    Verdict Check(const Cert& cert, vendor_host::CertOptions options, int crl_mode = 0) {
        token_->AddCertificate(cert.der, options);
        CM::Reload();
        const CM::X509Cert* found = nullptr;
        for (const auto* list : {&store().trustedCerts, &store().otherCerts, &store().personalCerts}) {
            for (const CM::X509Cert* stored : *list) {
                if (stored->rawCert == cert.der) found = stored;
            }
        }
        Verdict verdict;
        if (found == nullptr) return {99, "not in the store"};
        verdict.position = CMT_VerifyCertChain(const_cast<CM::X509Cert*>(found), crl_mode, &verdict.reason) ? 0 : 1;
        return verdict;
    }
};

TEST_F(SingleTest, EveryStepRefusesWithItsReason) {
    Store({&root_}, {&upper_, &lower_});
    const auto leaf = [&](auto change) { return Vary(leaf_spec_, &lower_, change); };
    EXPECT_EQ(Check(leaf_, {.category = 1}), Verdict());
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.not_before = kNow + 1; }), {}),
              (Verdict{1, "Certificate will be valid from: 2030-01-01 00:00:01 UTC"}));
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.not_after = kNow - 1; }), {}),
              (Verdict{1, "Certificate is not valid after: 2029-12-31 23:59:59 UTC"}));
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.not_before = kNow, s.not_after = kNow; }), {}), Verdict());
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.subject = "CN=old key"; }),
                    {.category = 1, .key_not_after = CertTimeFrom_time_t(kNow - 1)}),
              (Verdict{1, "Private key of the certificate is not valid after: 2029-12-31 23:59:59 UTC"}));
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.subject = "CN=good key"; }),
                    {.category = 1, .key_not_after = CertTimeFrom_time_t(kNow)}),
              Verdict());
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.damage_signature = true; }), {}), (Verdict{1, "Invalid signature (0)"}));
    const Cert stranger = MakeCert({.key_index = 5, .subject = "CN=stranger", .ca = true});
    EXPECT_EQ(Check(stranger, {}), (Verdict{1, "Certificates chain is not trusted"}));
    const Cert orphan = MakeCert({.key_index = 6, .subject = "CN=orphan"}, &stranger);
    token_->Remove(token_->CertObjects().back().id);
    EXPECT_EQ(Check(orphan, {}), (Verdict{1, "Certificates chain is not complete"}));
}

TEST_F(SingleTest, RevocationIsCheckedUnderTheMode) {
    const Cert issuer = MakeCert({.subject = "CN=issuer", .ca = true, .key_usage = "keyCertSign, cRLSign"}, &root_);
    const Cert leaf = MakeCert({.subject = "CN=leaf", .crl_points = {{"URI:file:///none"}}}, &issuer);
    Store({&root_}, {&issuer, &upper_, &lower_});
    const struct {
        int mode;
        Verdict verdict;
    } cases[] = {
        {0, {}},
        {1, {1, "Revoked certificate(s) present in chain"}},
        {2, {}},
        {3, {1, "Revoked certificate(s) present in chain"}},  // no such mode
        {-1, {1, "Revoked certificate(s) present in chain"}},
    };
    for (const auto& test : cases) EXPECT_EQ(Check(leaf, {}, test.mode), test.verdict) << test.mode;
    EXPECT_EQ(Check(leaf_, {}, 1), Verdict{}) << "names no distribution point";
}

}  // namespace
}  // namespace chain_test
