// What makes a built chain hold, and how a single certificate is checked.
#include "certmgr/cert_verifychain.h"

#include <functional>
#include <list>

#include "tests/chain/chain_fixture.h"

namespace chain_test {
namespace {

/// Position and reason.
using Verdict = std::pair<std::uint64_t, std::string>;

/// Members of a chain, leaf first.
using Members = std::vector<const Cert*>;

/// root - upper - lower - leaf, and variations of each that break one rule.
class VerifyTest : public ChainTest {
  protected:
    static CertSpec Ca(const std::string& subject, int key_index) {
        return {.key_index = key_index, .subject = subject, .ca = true, .key_usage = "keyCertSign"};
    }
    using Change = std::function<void(CertSpec&)>;
    static Cert Vary(CertSpec spec, const Cert* issuer, const Change& change) {
        change(spec);
        return MakeCert(spec, issuer);
    }
    Cert Upper(const Change& change) const { return Vary(Ca("CN=upper", 1), &root_, change); }

    /// `kinds`: for each member 'P' of the peer, 'T' trusted.
    static Verdict Verify(const Members& members, const std::string& kinds, const Strings& trust_subjects = {},
                          bool check_trust = true) {
        CM::CertList chain;
        for (std::size_t i = 0; i < members.size(); ++i) {
            chain.Adopt(Object(*members[i], kinds.at(i) == 'T' ? kCertKindTrusted : kCertKindPeer).Detach());
        }
        std::list<LPCFG::cert_t> trust;
        for (const std::string& subject : trust_subjects) trust.push_back(SubjectPattern(subject));
        CM::cm_VerifyCertChainTask task(trust, check_trust, CertTimeNow(), {});
        const CM::Refusal refusal = task.Run(chain.certs());
        return {refusal.position, CM::RefusalText(refusal)};
    }

    const Cert root_ = MakeCert(Ca("CN=root", 0));
    const Cert upper_ = MakeCert(Ca("CN=upper", 1), &root_);
    const Cert lower_ = MakeCert(Ca("CN=lower", 2), &upper_);
    const CertSpec leaf_spec_{.key_index = 3, .subject = "CN=leaf", .key_usage = "digitalSignature"};
    const Cert leaf_ = MakeCert(leaf_spec_, &lower_);
    const Members good_{&leaf_, &lower_, &upper_, &root_};
};

void Damage(CertSpec& spec) {
    spec.damage_signature = true;
}

TEST_F(VerifyTest, AuthoritiesOfTheChain) {
    const Cert not_ca = Upper([](CertSpec& s) { s.ca = false; });
    const Cert no_constraints = Upper([](CertSpec& s) { s.ca.reset(); });
    const Cert path_0 = Upper([](CertSpec& s) { s.path_len = 0; });
    const Cert path_1 = Upper([](CertSpec& s) { s.path_len = 1; });
    const Cert lower_path_0 = Vary(Ca("CN=lower", 2), &upper_, [](CertSpec& s) { s.path_len = 0; });
    const Cert root_path_1 = Vary(Ca("CN=root", 0), nullptr, [](CertSpec& s) { s.path_len = 1; });
    const Cert expired = Upper([](CertSpec& s) { s.not_after = kNow - 1; });
    const Cert future = Upper([](CertSpec& s) { s.not_before = kNow + 1; });
    const Cert this_second = Upper([](CertSpec& s) { s.not_before = s.not_after = kNow; });
    // The order of the tests on one authority, and of the authorities.
    const auto expired_too = [&](bool ca, int path_len) {
        return MakeCert({.key_index = 1, .subject = "CN=upper", .not_after = kNow - 1, .ca = ca, .path_len = path_len},
                        &root_);
    };
    const Cert all_wrong = expired_too(false, -1);
    const Cert path_and_time = expired_too(true, 0);
    // Nobody looks at the leaf's own validity here.
    const Cert old_leaf = Vary(leaf_spec_, &lower_, [](CertSpec& s) { s.not_after = kNow - 1; });
    const std::string none = "Not CA certificate present in chain: CN=upper";
    const std::string path = "The number of sub-CAs exceeds Path Length Constraint of the CA certificate: ";
    const std::string time = "Not currently valid certificate(s) present in chain";
    const std::tuple<const char*, Members, Verdict> cases[] = {
        {"a good chain", good_, {}},
        {"an authority that is none", {&leaf_, &lower_, &not_ca, &root_}, {3, none}},
        {"an authority without basic constraints", {&leaf_, &lower_, &no_constraints, &root_}, {3, none}},
        {"path length 0 with an authority below", {&leaf_, &lower_, &path_0, &root_}, {3, path + "CN=upper"}},
        {"path length 1 with an authority below", {&leaf_, &lower_, &path_1, &root_}, {}},
        {"path length 0 above the leaf", {&leaf_, &lower_path_0, &upper_, &root_}, {}},
        {"path length 1 with two authorities below", {&leaf_, &lower_, &upper_, &root_path_1}, {4, path + "CN=root"}},
        {"expired", {&leaf_, &lower_, &expired, &root_}, {3, time}},
        {"not yet valid", {&leaf_, &lower_, &future, &root_}, {3, time}},
        {"valid this second", {&leaf_, &lower_, &this_second, &root_}, {}},
        {"an old leaf", {&old_leaf, &lower_, &upper_, &root_}, {}},
        {"constraints go first", {&leaf_, &lower_, &all_wrong, &root_path_1}, {3, none}},
        {"then the path", {&leaf_, &lower_, &path_and_time, &root_path_1}, {3, path + "CN=upper"}},
    };
    for (const auto& [rule, members, expected] : cases) EXPECT_EQ(Verify(members, "PPPT"), expected) << rule;
    EXPECT_EQ(Verify({&leaf_, &lower_, &expired, &root_}, "PPPT", {"CN=x"}, false), Verdict())
        << "without trust only signatures count";
}

TEST_F(VerifyTest, TrustMatch) {
    const std::tuple<const char*, Strings, bool> cases[] = {{"PPPT", {}, true},
                                                            {"TTTT", {}, true},
                                                            {"PPPT", {"CN=x", "CN=root"}, true},
                                                            {"PPPT", {"CN=x"}, false},
                                                            {"PTTT", {"CN=root"}, true},
                                                            {"PTTT", {"CN=lower"}, true},
                                                            {"PPPT", {"CN=upper"}, false},  // that is not trusted
                                                            {"PPPT", {"CN=leaf"}, false},
                                                            {"TTTT", {"CN=leaf"}, true},
                                                            {"TTTT", {"CN=root"}, true},
                                                            {"TTTT", {"CN=x"}, false}};
    const Verdict refused{
        4, "No one of the trusted certificates in chain don't matched to the field 'cert_trust' from LSP rule"};
    for (const auto& [kinds, trust, matched] : cases) {
        EXPECT_EQ(Verify(good_, kinds, trust), matched ? Verdict() : refused) << kinds << testing::PrintToString(trust);
    }
}

TEST_F(VerifyTest, Signatures) {
    const Cert bad_leaf = Vary(leaf_spec_, &lower_, Damage);
    const Cert bad_lower = Vary(Ca("CN=lower", 2), &upper_, Damage);
    const Cert bad_upper = Upper(Damage);
    const Cert bad_root = Vary(Ca("CN=root", 0), nullptr, Damage);
    const Cert no_sign = Upper([](CertSpec& s) { s.key_usage = "cRLSign"; });
    const Cert no_usage = Vary(Ca("CN=lower", 2), &upper_, [](CertSpec& s) { s.key_usage.clear(); });
    const Cert short_leaf = Vary(leaf_spec_, &root_, Damage);
    const std::string missing = "] does not contain required key usage: Certificate Signing";
    const Verdict usage_0{1, "Signature cannot be checked. Issuer[0" + missing};
    const Verdict usage_1{2, "Signature cannot be checked. Issuer[1" + missing};
    const Verdict bad{1, "Invalid signature"};
    const Verdict bad_0{1, "Invalid signature (0)"};
    const Verdict bad_1{2, "Invalid signature (1)"};
    const Verdict bad_2{3, "Invalid signature (2)"};
    const Verdict bad_3{4, "Invalid signature (3)"};
    const Verdict no_root{2, "Selfsigned certificate not present in chain"};
    const std::string foreign = "Selfsigned certificate is not trusted";
    // Members, kinds, the verdict, and the one where a self-signed root is required.
    const std::tuple<Members, const char*, Verdict, Verdict> cases[] = {
        {good_, "PPPT", {}, {}},
        {{&bad_leaf, &lower_, &upper_, &root_}, "PPPT", bad_0, bad_0},
        {{&short_leaf, &root_}, "PT", bad, bad},
        {{&leaf_, &lower_, &bad_upper, &root_}, "PPPT", bad_2, bad_2},
        // A trusted certificate's own signature does not count.
        {{&leaf_, &bad_lower, &upper_, &root_}, "PTTT", {}, bad_1},
        {{&leaf_, &lower_, &upper_, &bad_root}, "PPPT", {}, bad_3},
        {{&bad_leaf, &lower_}, "TT", {}, no_root},
        // A last one that is not self-signed cannot be checked.
        {{&leaf_, &lower_}, "PP", {}, no_root},
        {{&bad_root}, "P", bad, {1, foreign}},
        {good_, "PTPP", {}, {4, foreign}},
        {{&leaf_, &lower_, &no_sign, &root_}, "PPPT", usage_1, usage_1},
        // The key usage goes before the signature.
        {{&bad_leaf, &no_usage, &upper_, &root_}, "PPPT", usage_0, usage_0},
    };
    for (const bool strict : {false, true}) {
        if (strict) Set(&LPARAMS::CertParams::require_self_signed_root);
        for (const auto& row : cases) {
            const auto& [members, kinds, expected, required] = row;
            EXPECT_EQ(Verify(members, kinds), strict ? required : expected) << "row " << &row - cases;
        }
    }
}

TEST_F(VerifyTest, SignatureChecksThatCannotBeMade) {
    token_->Fail(Op::kDigest, 1);
    EXPECT_EQ(Verify(good_, "PPPT"), (Verdict{1, "Digest error (0)"}));
    token_->Fail(Op::kOpenPublic, 1);
    EXPECT_EQ(Verify(good_, "PPPT"), (Verdict{1, "Can't open token to verify signature (0)"}));
    token_->SetAlgorithms({PKI_KEY_RSA});
    EXPECT_EQ(Verify(good_, "PPPT"), (Verdict{1, "No token to verify signature (0)"}));
    EXPECT_EQ(CM::RefusalText({.id = CM::RefusalId::kSignatureNotVerified, .index = 2}), "Can't verify signature (2)");
}

TEST_F(VerifyTest, MissingKeyUsageCanBeTolerated) {
    const Cert no_usage = Vary(Ca("CN=lower", 2), &upper_, [](CertSpec& s) { s.key_usage.clear(); });
    const Members chain{&leaf_, &no_usage, &upper_, &root_};
    const auto expect_message = [](std::uint16_t code, const std::string& start) {
        EXPECT_TRUE(OnlyMessage(code).starts_with(start)) << OnlyMessage(code);
        EXPECT_TRUE(Has(OnlyMessage(code), "Subject: CN=lower")) << "the issuer is shown";
    };
    EXPECT_EQ(Verify(chain, "PPPT").first, 1U);
    expect_message(kMsgKeyUsageMissing, "Certificate Signing ");
    Set(&LPARAMS::CertParams::ignore_key_usage);
    EXPECT_EQ(Verify(chain, "PPPT"), Verdict());
    expect_message(kMsgKeyUsageTolerated, "Certificate Signing ignore_key_usage ");
}

TEST_F(VerifyTest, ChainsThatShareTheirUpperPartPayForItOnce) {
    const auto lower = Object(lower_);
    const auto upper = Object(upper_);
    const auto root = Object(root_, kCertKindTrusted);
    const auto first = Object(leaf_);
    const auto second = Object(MakeCert({.subject = "CN=leaf 2"}, &lower_));
    const std::list<LPCFG::cert_t> any;
    CM::cm_VerifyCertChainTask task(any, true, CertTimeNow(), {});
    token_->Fail(Op::kVerify, 1);
    EXPECT_TRUE(task.Run({first.get(), lower.get(), upper.get(), root.get()}));
    token_->ClearCalls();
    EXPECT_FALSE(task.Run({first.get(), lower.get(), upper.get(), root.get()})) << "trouble is no verdict";
    EXPECT_EQ(token_->Calls(Op::kVerify), 3U);
    EXPECT_FALSE(task.Run({second.get(), lower.get(), upper.get(), root.get()}));
    EXPECT_EQ(token_->Calls(Op::kVerify), 4U);
}

// --- A single certificate ---

class SingleTest : public VerifyTest {
  protected:
    /// The reason against the certificate when it is put on the token with these options.
    std::string Check(const Cert& cert, vendor_host::CertOptions options = {}, int crl_mode = 0) {
        static int count = 0;
        options.id = "checked " + std::to_string(++count);
        token_->AddCertificate(cert.der, options);
        CM::Reload();
        const auto& list = options.category == 1 ? store().personalCerts : store().otherCerts;
        std::string reason;
        const bool good = CMT_VerifyCertChain(list[list.size() - 1], crl_mode, &reason);
        token_->Remove(options.id);
        return good ? "" : reason;
    }
};

TEST_F(SingleTest, EveryStepRefusesWithItsReason) {
    Store({&root_}, {&upper_, &lower_});
    const auto leaf = [&](auto change) { return Vary(leaf_spec_, &lower_, change); };
    const Cert stranger = MakeCert({.subject = "CN=stranger", .ca = true});
    const auto key_end = [](std::time_t end) {
        return vendor_host::CertOptions{.category = 1, .key_not_after = CertTimeFrom_time_t(end)};
    };
    EXPECT_EQ(Check(leaf_), "");
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.not_before = kNow + 1; })),
              "Certificate will be valid from: 2030-01-01 00:00:01 UTC");
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.not_after = kNow - 1; })),
              "Certificate is not valid after: 2029-12-31 23:59:59 UTC");
    EXPECT_EQ(Check(leaf([](CertSpec& s) { s.not_before = s.not_after = kNow; })), "");
    EXPECT_EQ(Check(leaf_, key_end(kNow - 1)),
              "Private key of the certificate is not valid after: 2029-12-31 23:59:59 UTC");
    EXPECT_EQ(Check(leaf_, key_end(kNow)), "");
    EXPECT_EQ(Check(leaf(Damage)), "Invalid signature (0)");
    EXPECT_EQ(Check(stranger), "Certificates chain is not trusted");
    EXPECT_EQ(Check(MakeCert({.subject = "CN=orphan"}, &stranger)), "Certificates chain is not complete");
}

TEST_F(SingleTest, RevocationIsCheckedUnderTheMode) {
    const Cert issuer = MakeCa("CN=issuer", &root_);
    const Cert leaf = MakeCert({.subject = "CN=leaf", .crl_points = {{"URI:file:///none"}}}, &issuer);
    Store({&root_}, {&issuer, &upper_, &lower_});
    const std::string revoked = "Revoked certificate(s) present in chain";
    // 3 and -1: no such mode.
    for (const auto& [mode, reason] :
         {std::pair{0, std::string()}, {1, revoked}, {2, ""}, {3, revoked}, {-1, revoked}}) {
        EXPECT_EQ(Check(leaf, {}, mode), reason) << mode;
    }
    EXPECT_EQ(Check(leaf_, {}, 1), "") << "names no distribution point";
}

}  // namespace
}  // namespace chain_test
