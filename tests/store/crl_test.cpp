// CRL objects: signatures that are remembered, entries of a certificate, coverage; and the CRLs that the store keeps.
#include <algorithm>
#include <random>
#include <thread>

#include "certmgr/cert_findcrl.h"
#include "tests/support/der.h"
#include "tests/vendor/module_test.h"

namespace {

using namespace module_test;
using CM::CrlRef;
using test_pki::CrlSpec;

class CrlTest : public ModuleTest {
  protected:
    static CrlRef Crl(const std::string& der) {
        return std::make_shared<CM::X509CRL>(PKCS11::TokenInfo{}, PKCS11::CRLObject{.value = der});
    }
    static CrlRef Crl(const CrlSpec& spec, const Cert& issuer) { return Crl(MakeCrl(spec, issuer)); }
    static Cert Ca(int key_index, const std::string& subject = "CN=Root") {
        return MakeCa(subject, nullptr, KeyType::kEcP256, key_index);
    }

    const Cert root_ = Ca(0);
    const CM::MutableCertRef issuer_ = Object(root_);
};

TEST_F(CrlTest, RawBytesAreKeptOnceAndJunkAnswersNothing) {
    const std::string der = MakeCrl({.number = "\1"}, root_);
    // The bytes of an object given up are its bytes then: the index stands over them, not over a copy.
    PKCS11::CRLObject object{.id = "i", .value = der};
    const char* const bytes = object.value.data();
    const CM::X509CRL crl(PKCS11::TokenInfo{}, std::move(object));
    EXPECT_EQ(crl.rawCrl().data(), bytes);
    EXPECT_EQ(crl.info.crlNumber, "01");

    const CrlRef junk = Crl("junk");
    EXPECT_EQ(junk->rawCrl(), "junk");
    EXPECT_EQ(junk->info.issuer, "CRL object of unknown format");
    EXPECT_EQ(junk->CheckSignature(issuer_.get()), CM::kSignatureWrong);
    RevokedEntry entry;
    EXPECT_FALSE(junk->FindRevoked(*issuer_, entry));
    EXPECT_TRUE(junk->revoked().empty());
}

TEST_F(CrlTest, EntriesAreThoseOfTheCertificatesIssuer) {
    const auto leaf = Object(MakeCert({.serial = "\x05"}, &root_));
    const Cert other_root = Ca(1, "CN=Other");
    const auto foreign = Object(MakeCert({.serial = "\x05"}, &other_root));
    const std::string other = der::Sequence(test_pki::GeneralName("DN:CN=Other"));
    const CrlRef crl =
        Crl({.entries = {{.serial = "\x05", .extensions = {{"certificateIssuer", true, other}}}}}, root_);
    RevokedEntry entry;
    EXPECT_FALSE(crl->FindRevoked("05", entry)) << "not about certificates of the CRL's own issuer";
    EXPECT_FALSE(crl->FindRevoked(*leaf, entry));
    EXPECT_TRUE(crl->FindRevoked(*foreign, entry));
    EXPECT_TRUE(Crl({.entries = {{.serial = "\x05", .reason = 4}}}, root_)->FindRevoked(*leaf, entry));
    EXPECT_EQ(entry.reason, 5);
}

// --- Signatures ---

TEST_F(CrlTest, ASignatureIsVerifiedOnceWithAKey) {
    const CrlRef crl = Crl({}, root_);
    const auto same_key = Object(MakeCert({.key_index = 0, .subject = "CN=Renamed", .ca = true}));
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight);
        EXPECT_EQ(crl->CheckSignature(same_key.get()), CM::kSignatureRight);
        for (int key = 1; key <= 2; ++key) {
            EXPECT_EQ(crl->CheckSignature(Object(Ca(key)).get()), CM::kSignatureWrong);
        }
    }
    EXPECT_EQ(token_->Calls(Op::kVerify), 3U);

    // Of many keys few are remembered, the right one among them.
    for (int key = 3; key <= 20; ++key) crl->CheckSignature(Object(Ca(key)).get());
    token_->ClearCalls();
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight);
    EXPECT_EQ(crl->CheckSignature(Object(Ca(20)).get()), CM::kSignatureWrong);
    EXPECT_EQ(token_->Calls(Op::kVerify), 0U);
    crl->CheckSignature(Object(Ca(1)).get());
    EXPECT_EQ(token_->Calls(Op::kVerify), 1U) << "forgotten";
}

TEST_F(CrlTest, OnlyVerdictsOnTheSignatureAreRemembered) {
    const CrlRef crl = Crl({}, root_);
    token_->SetPresent(false);
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureNoToken);
    token_->SetPresent(true);
    for (const auto& [op, trouble] : {std::pair{Op::kOpenPublic, CM::kSignatureNoSession},
                                      {Op::kDigest, CM::kSignatureDigestError},
                                      {Op::kVerify, CM::kSignatureWrong}}) {
        token_->Fail(op, 1);
        EXPECT_EQ(crl->CheckSignature(issuer_.get()), trouble);
    }
    EXPECT_TRUE(vendor_host::Logged("card: C_Verify failed: CKR_DEVICE_ERROR", kMsgTokenError));
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight) << "trouble is no verdict";
}

// --- Coverage ---

TEST_F(CrlTest, ACrlClearsOnlyWhatItCovers) {
    const std::string here = "http://a/1.crl";
    const auto leaf_at = [&](const std::vector<Strings>& points) { return MakeCert({.crl_points = points}, &root_); };
    const Cert plain = MakeLeaf("CN=host", root_);
    const Cert at_a = leaf_at({{"URI:http://z/"}, {"URI:ldap://b/", "URI:" + here}});
    const Cert at_name = leaf_at({{"DN:CN=p1"}});
    const Cert ca = MakeCa("CN=Sub", &root_);
    const auto point = [](const std::string& value) {
        return CrlSpec{.conf = {{"issuingDistributionPoint", "critical," + value}}};
    };
    const auto named_by = [](const std::string& name) {
        return CrlSpec{.issuing_distribution_point = der::Sequence(der::Explicit(0, name))};
    };
    const auto named = [&](const std::string& name) { return named_by(der::Explicit(0, test_pki::GeneralName(name))); };
    const CrlSpec relative = named_by(der::Explicit(1, der::Sequence(der::Oid("CN") + der::Tlv(0x0C, "p1"))));
    const CrlSpec unknown_in_entry{.entries = {{.serial = "\1", .extensions = {{"1.2.3.4", true, "x"}}}}};
    const std::string unknown = "unknown critical extension: 1.2.3.4";
    // The CRL, the certificate, where the CRL comes from, and why it does not clear the certificate.
    const std::tuple<CrlSpec, const Cert&, std::string, std::string> cases[] = {
        {{}, plain, "", ""},
        {point("indirectCRL:FALSE"), plain, "", ""},
        {named("URI:" + here), plain, here, ""},
        {named("URI:" + here), at_a, "", ""},
        {named("DN:CN=p1"), at_name, "", ""},
        {named("URI:" + here), plain, "http://a/2.crl", "for another distribution point: " + here},
        {named("URI:" + here), plain, "", "for another distribution point: " + here},
        {named("URI:HTTP://A/1.CRL"), at_a, here, "for another distribution point: HTTP://A/1.CRL"},
        {named("DN:CN=p2"), at_name, here, "for another distribution point"},
        {relative, at_name, here, "for another distribution point"},
        {point("onlyuser:TRUE"), plain, "", ""},
        {point("onlyuser:TRUE"), ca, "", "for user certificates only"},
        {point("onlyCA:TRUE"), ca, "", ""},
        {point("onlyCA:TRUE"), plain, "", "for CA certificates only"},
        {point("onlyAA:TRUE"), plain, "", "for attribute certificates only"},
        {point("indirectCRL:TRUE"), plain, "", "indirect CRL"},
        {point("onlysomereasons:keyCompromise"), plain, "", "for some revocation reasons only"},
        {{.number = "\2", .delta_base = "\1"}, plain, "", "delta CRL"},
        {named_by("junk"), plain, "", "extension that cannot be read: issuingDistributionPoint"},
        {{.extensions = {{"1.2.3.4", true, "x"}}}, plain, "", unknown},
        {unknown_in_entry, plain, "", unknown},
        {{.issuer_der = test_pki::NameDer("CN=alias")}, plain, here, "of another issuer: CN=alias"},
    };
    for (const auto& row : cases) {
        const auto& [spec, cert, source, expected] = row;
        std::string why_not;
        EXPECT_EQ(CrlCanClear(*Crl(spec, root_), source, *Object(cert), why_not), expected.empty()) << &row - cases;
        EXPECT_EQ(why_not, expected) << &row - cases;
    }
}

// --- The store's CRLs ---

class StoreCrlTest : public CrlTest {
  protected:
    StoreCrlTest() { CM::Reload(); }

    static void Put(const CrlRef& crl) { store().PutCRLToDB(crl); }

    static CrlRef Search(const CM::X509Cert* issuer, std::string* log = nullptr) {
        if (log != nullptr) log->clear();
        return CM::StoreCrls().Next(issuer, log);
    }
};

TEST_F(StoreCrlTest, AnUnchangedCrlIsTakenOverByTheNextReload) {
    token_->AddCrl("a", MakeCrl({.number = "\1"}, root_));
    token_->AddCrl("b", MakeCrl({.number = "\2"}, root_));
    store().ReloadCRLs();
    const CrlRef old = store().crls[0];
    EXPECT_EQ(old->CheckSignature(issuer_.get()), CM::kSignatureRight);
    vpnfc::SetCurrentTimeForTesting(kNow + 100);

    token_->Remove("b");
    token_->AddCrl("b", MakeCrl({.number = "\3"}, root_));
    token_->EditInfo([](PKCS11::TokenInfo& info) { info.label = "renamed"; });
    store().ReloadCRLs();
    ASSERT_EQ(store().crls.size(), 2U);
    const CrlRef kept = store().crls[0];
    EXPECT_NE(kept, old) << "CRLs are replaced";
    EXPECT_EQ(kept->token.label, "renamed");
    EXPECT_EQ(kept->rawCrl().data(), old->rawCrl().data()) << "but not read again";
    EXPECT_EQ(kept->downloadedAt, old->downloadedAt);
    EXPECT_EQ(kept->CheckSignature(issuer_.get()), CM::kSignatureRight);
    EXPECT_EQ(token_->Calls(Op::kVerify), 1U);
    EXPECT_EQ(store().crls[1]->info.crlNumber, "03");
    EXPECT_NE(store().crls[1]->downloadedAt, old->downloadedAt);
}

TEST_F(StoreCrlTest, SearchTakesTheFirstThatTheIssuerSigned) {
    Set(&LPARAMS::LogParams::crl_details, true);
    const CrlRef other_alg = Crl({}, MakeCa("CN=Root", nullptr, KeyType::kEd25519));
    const CrlRef right = Crl({.number = "\1"}, root_);
    const CrlRef later = Crl({.number = "\2"}, root_);
    for (const CrlRef& crl : {other_alg, Crl({}, Ca(0, "CN=Other")), Crl({}, Ca(1)), right, later}) Put(crl);
    const std::string times =
        "this update: 2020-01-01 00:00:00 UTC, next update: 2049-01-01 00:00:00 UTC, "
        "imported at: 2030-01-01 00:00:00 UTC";
    const std::string first = "\\\n\tChecked CRLs (4): \\\n\t\tsign alg missmatch (Ed25519) \\\n\t\t";
    std::string log;
    EXPECT_EQ(Search(issuer_.get(), &log), right);
    EXPECT_EQ(log, first + "issuer missmatch: CN=Other \\\n\t\tInvalid signature \\\n\t\tok: " + times);
    EXPECT_EQ(token_->Calls(Op::kVerify), 2U) << "of the wrong one and the right one";
    Set(&LPARAMS::LogParams::crl_details, false);
    EXPECT_EQ(Search(issuer_.get(), &log), right);
    EXPECT_EQ(log, "\\\n\tCRL: " + times);
    token_->SetPresent(false);
    EXPECT_EQ(Search(Object(Ca(3)).get(), &log), nullptr);
    EXPECT_NE(log.find(" \\\n\t\tNo token to verify signature"), std::string::npos) << log;
}

TEST_F(StoreCrlTest, SearchIsTheWalkInOrder) {
    std::mt19937 random(20300101);
    std::vector<Cert> authorities;
    std::vector<std::string> pool{"junk"};
    for (int i = 0; i < 6; ++i) {
        const auto key = i % 3 == 0 ? KeyType::kEd25519 : KeyType::kEcP256;
        authorities.push_back(MakeCa("CN=" + std::to_string(i % 2), nullptr, key, i % 4));
        const std::string number(1, static_cast<char>(i));
        pool.push_back(MakeCrl({.number = number}, authorities.back()));
        pool.push_back(MakeCrl({.number = number, .damage_signature = true}, authorities.back()));
    }
    for (int round = 0; round < 20; ++round) {
        store().ReloadCRLs();  // empties the list
        for (int i = 0; i < 6; ++i) Put(Crl(pool[random() % pool.size()]));
        for (const Cert& authority : authorities) {
            const CM::MutableCertRef issuer = Object(authority);
            const auto fits = [&](const CrlRef& crl) {
                return (crl->info.signAlg & 0xFFFF) == (issuer->info.keyAlg & 0xFFFFFF) &&
                       crl->info.issuer == issuer->info.subject &&
                       crl->CheckSignature(issuer.get()) == CM::kSignatureRight;
            };
            const auto walked = std::find_if(store().crls.begin(), store().crls.end(), fits);
            const CrlRef expected = walked == store().crls.end() ? nullptr : *walked;
            EXPECT_EQ(Search(issuer.get()), expected);
            const vpnfc::ReadLock lock(store());
            EXPECT_EQ(CM::cm_crl_search_in_db_unlocked_(issuer.get(), issuer.get(), nullptr), expected);
        }
    }
}

TEST_F(StoreCrlTest, TheStoreChangesWhileATokenVerifies) {
    Put(Crl({.number = "\1"}, root_));
    const auto gate = std::make_shared<vendor_host::Gate>();
    token_->Block(Op::kVerify, gate);
    CrlRef found;
    std::thread check([&] { found = Search(issuer_.get()); });
    ASSERT_TRUE(gate->WaitForArrivals(1));
    store().ReloadCRLs();
    Put(Crl({.number = "\2"}, root_));
    gate->Open();
    check.join();
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->info.crlNumber, "01") << "alive, though the store has dropped it";
}

}  // namespace
