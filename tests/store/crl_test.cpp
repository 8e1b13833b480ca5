// CRL objects: signatures that are remembered, entries of a certificate, coverage; and the CRLs that the store keeps.
#include <random>
#include <thread>

#include <certmgr/cert_engine.h>
#include <platform/event_codes.h>

#include "certmgr/cert_findcrl.h"
#include "store_fixture.h"
#include "tests/support/der.h"

namespace {

using namespace store_test;
using CM::CrlRef;
using test_pki::Cert;
using test_pki::CrlSpec;
using test_pki::MakeCa;
using test_pki::MakeCert;
using test_pki::MakeLeaf;
using vendor_host::Op;

class CrlTest : public StoreTest {
  protected:
    static CrlRef Crl(const std::string& der) {
        return std::make_shared<CM::X509CRL>(PKCS11::TokenInfo{}, PKCS11::CRLObject{.value = der});
    }
    static CrlRef Crl(const CrlSpec& spec, const Cert& issuer) { return Crl(MakeCrl(spec, issuer)); }
    static CM::CertRef Object(const Cert& cert) {
        return CM::CertRef::Adopt(new CM::X509Cert(PKCS11::TokenInfo{}, PKCS11::CertObject{.value = cert.der}));
    }
    static void* Handle(const std::string& der) {
        return CertEngine_CreateCRLHandle(der.data(), static_cast<unsigned>(der.size()));
    }
    static Cert Ca(int key_index, const std::string& subject = "CN=Root") {
        return MakeCa(subject, nullptr, test_pki::KeyType::kEcP256, key_index);
    }

    const Cert root_ = Ca(0);
    const CM::CertRef issuer_ = Object(root_);
};

TEST_F(CrlTest, RawBytesAreKeptWhenAskedForAndOnce) {
    const std::string der = MakeCrl({.number = "\1"}, root_);
    EXPECT_EQ(CM::X509CRL(Handle(der), true).rawCrl(), der);
    EXPECT_EQ(CM::X509CRL(Handle(der), false).rawCrl(), "");
    EXPECT_EQ(CM::X509CRL(CertEngine_ReadPEMCRLData(test_pki::ToPem("X509 CRL", der + "after")), true).rawCrl(), der);
    EXPECT_EQ(Crl(der + "after")->rawCrl(), der + "after") << "what the token holds";
    EXPECT_EQ(Crl("junk")->rawCrl(), "junk");

    // The bytes of an object given up are its bytes then: the index stands over them, not over a copy.
    PKCS11::CRLObject object{.id = "i", .value = der};
    const char* const bytes = object.value.data();
    const CM::X509CRL crl(PKCS11::TokenInfo{}, std::move(object));
    EXPECT_EQ(crl.rawCrl().data(), bytes);
    EXPECT_EQ(crl.info.crlNumber, "01");
}

TEST_F(CrlTest, ObjectsThatDoNotParseAnswerNothing) {
    const CrlRef junk = Crl("junk");
    EXPECT_EQ(junk->info.issuer, "CRL object of unknown format");
    EXPECT_EQ(junk->CheckSignature(issuer_.get()), CM::kSignatureWrong);
    RevokedEntry entry;
    EXPECT_FALSE(junk->FindRevoked("05", entry));
    EXPECT_FALSE(junk->FindRevoked(*issuer_, entry));
    EXPECT_TRUE(junk->revoked().empty());
    EXPECT_FALSE(junk->scope().hasIssuingPoint);
}

TEST_F(CrlTest, EntriesAreThoseOfTheCertificatesIssuer) {
    const Cert leaf = MakeCert({.subject = "CN=host", .serial = "\x05"}, &root_);
    const Cert other_root = Ca(1, "CN=Other");
    const Cert foreign = MakeCert({.subject = "CN=host", .serial = "\x05"}, &other_root);
    const std::string other = der::Sequence(test_pki::GeneralName("DN:CN=Other"));
    const CrlRef crl =
        Crl({.entries = {{.serial = "\x05", .extensions = {{"certificateIssuer", true, other}}}}}, root_);
    RevokedEntry entry;
    EXPECT_FALSE(crl->FindRevoked("05", entry)) << "not about certificates of the CRL's own issuer";
    EXPECT_FALSE(crl->FindRevoked(*Object(leaf), entry));
    EXPECT_TRUE(crl->FindRevoked(*Object(foreign), entry));
    const CrlRef plain = Crl({.entries = {{.serial = "\x05", .reason = 4}}}, root_);
    EXPECT_TRUE(plain->FindRevoked("05", entry));
    EXPECT_TRUE(plain->FindRevoked(*Object(leaf), entry));
    EXPECT_EQ(entry.reason, 5);
}

// --- Signatures ---

TEST_F(CrlTest, ASignatureIsVerifiedOnceWithAKey) {
    const auto token = vendor_host::AddToken("card");
    const CrlRef crl = Crl({}, root_);
    const CM::CertRef same_key = Object(MakeCert({.key_index = 0, .subject = "CN=Renamed", .ca = true}));
    const CM::CertRef other_key = Object(Ca(1));
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight);
        EXPECT_EQ(crl->CheckSignature(same_key.get()), CM::kSignatureRight);
        EXPECT_EQ(crl->CheckSignature(other_key.get()), CM::kSignatureWrong);
    }
    EXPECT_EQ(token->Calls(Op::kVerify), 2U);
    // Nobody is asked: neither is a token needed any more.
    token->SetPresent(false);
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight);
}

TEST_F(CrlTest, OnlyVerdictsOnTheSignatureAreRemembered) {
    const CrlRef crl = Crl({}, root_);
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureNoToken);
    const auto token = vendor_host::AddToken("card");
    token->Fail(Op::kOpenPublic, 1);
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureNoSession);
    token->Fail(Op::kDigest, 1);
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureDigestError);
    token->Fail(Op::kVerify, 1);
    vendor_host::ClearMessages();
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureWrong);
    EXPECT_TRUE(vendor_host::Logged("card: C_Verify failed: CKR_DEVICE_ERROR", kMsgTokenError));
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight) << "trouble is no verdict";
}

TEST_F(CrlTest, FewKeysAreRememberedAndTheRightOneFirst) {
    const auto token = vendor_host::AddToken("card");
    const CrlRef crl = Crl({}, root_);
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight);
    for (int key = 1; key <= 20; ++key) {
        EXPECT_EQ(crl->CheckSignature(Object(Ca(key)).get()), CM::kSignatureWrong);
    }
    const unsigned calls = token->Calls(Op::kVerify);
    EXPECT_EQ(calls, 21U);
    EXPECT_EQ(crl->CheckSignature(issuer_.get()), CM::kSignatureRight);
    EXPECT_EQ(crl->CheckSignature(Object(Ca(20)).get()), CM::kSignatureWrong);
    EXPECT_EQ(token->Calls(Op::kVerify), calls);
    crl->CheckSignature(Object(Ca(1)).get());
    EXPECT_EQ(token->Calls(Op::kVerify), calls + 1) << "forgotten";
}

// --- Coverage ---

TEST_F(CrlTest, ACrlClearsOnlyWhatItCovers) {
    const std::string here = "http://a/1.crl";
    const auto leaf_at = [&](const std::vector<std::vector<std::string>>& points) {
        return MakeCert({.subject = "CN=host", .crl_points = points}, &root_);
    };
    const Cert plain = MakeLeaf("CN=host", root_);
    const Cert at_a = leaf_at({{"URI:http://z/"}, {"URI:ldap://b/", "URI:http://a/1.crl"}});
    const Cert at_name = leaf_at({{"DN:CN=p1"}});
    const Cert ca = MakeCa("CN=Sub", &root_);
    const auto point = [](const std::string& value) {
        return CrlSpec{.conf = {{"issuingDistributionPoint", "critical," + value}}};
    };
    const auto named = [](const std::string& name) {
        const std::string full_name = der::Explicit(0, test_pki::GeneralName(name));
        return CrlSpec{.issuing_distribution_point = der::Sequence(der::Explicit(0, full_name))};
    };
    const std::string relative =
        der::Explicit(0, der::Explicit(1, der::Sequence(der::Oid("CN") + der::Tlv(0x0C, "p1"))));
    const struct {
        const char* what;
        CrlSpec spec;
        const Cert& cert;
        std::string source;
        std::string why_not;
    } cases[] = {
        {"no issuing distribution point", {}, plain, "", ""},
        {"one without a name", point("indirectCRL:FALSE"), plain, "", ""},
        {"named as its address", named("URI:" + here), plain, here, ""},
        {"named as a point of the certificate", named("URI:" + here), at_a, "", ""},
        {"named as a point that is no address", named("DN:CN=p1"), at_name, "", ""},
        {"from elsewhere", named("URI:" + here), plain, "http://a/2.crl", "for another distribution point: " + here},
        {"from a token", named("URI:" + here), plain, "", "for another distribution point: http://a/1.crl"},
        {"another case", named("URI:HTTP://A/1.CRL"), at_a, here, "for another distribution point: HTTP://A/1.CRL"},
        {"another name", named("DN:CN=p2"), at_name, here, "for another distribution point"},
        {"a relative name",
         {.issuing_distribution_point = der::Sequence(relative)},
         at_name,
         here,
         "for another distribution point"},
        {"user certificates", point("onlyuser:TRUE"), plain, "", ""},
        {"user certificates, of a CA", point("onlyuser:TRUE"), ca, "", "for user certificates only"},
        {"CA certificates", point("onlyCA:TRUE"), ca, "", ""},
        {"CA certificates, of a user", point("onlyCA:TRUE"), plain, "", "for CA certificates only"},
        {"attribute certificates", point("onlyAA:TRUE"), plain, "", "for attribute certificates only"},
        {"indirect", point("indirectCRL:TRUE"), plain, "", "indirect CRL"},
        {"some reasons", point("onlysomereasons:keyCompromise"), plain, "", "for some revocation reasons only"},
        {"a delta", {.number = "\2", .delta_base = "\1"}, plain, "", "delta CRL"},
        {"unreadable",
         {.issuing_distribution_point = "junk"},
         plain,
         "",
         "extension that cannot be read: issuingDistributionPoint"},
        {"unknown", {.extensions = {{"1.2.3.4", true, "x"}}}, plain, "", "unknown critical extension: 1.2.3.4"},
        {"unknown in an entry",
         {.entries = {{.serial = "\1", .extensions = {{"1.2.3.4", true, "x"}}}}},
         plain,
         "",
         "unknown critical extension: 1.2.3.4"},
    };
    for (const auto& c : cases) {
        std::string why_not;
        const bool clears = CrlCanClear(*Crl(c.spec, root_), c.source, *Object(c.cert), why_not);
        EXPECT_EQ(why_not, c.why_not) << c.what;
        EXPECT_EQ(clears, why_not.empty()) << c.what;
    }
    std::string why_not;
    EXPECT_FALSE(CrlCanClear(*Crl({}, MakeCa("CN=alias")), here, *Object(plain), why_not));
    EXPECT_EQ(why_not, "of another issuer: CN=alias");
}

// --- The store's CRLs ---

class StoreCrlTest : public CrlTest {
  protected:
    void SetUp() override {
        card_ = vendor_host::AddToken("card");
        CM::Reload();
    }

    static void Put(const CrlRef& crl) { store().PutCRLToDB(crl); }

    CrlRef Search(const CM::X509Cert* issuer, std::string* log = nullptr) const {
        CrlRef unlocked;
        std::string other_log;
        {
            const vpnfc::ReadLock lock(store());
            unlocked = CM::cm_crl_search_in_db_unlocked_(issuer, issuer, log != nullptr ? &other_log : nullptr);
        }
        const CrlRef found = CM::StoreCrls().Next(issuer, log);
        EXPECT_EQ(found, unlocked);
        if (log != nullptr) {
            EXPECT_EQ(other_log, *log);
        }
        return found;
    }

    std::shared_ptr<vendor_host::Token> card_;
};

TEST_F(StoreCrlTest, AnUnchangedCrlIsTakenOverByTheNextReload) {
    card_->AddCrl("a", MakeCrl({.number = "\1"}, root_));
    card_->AddCrl("b", MakeCrl({.number = "\2"}, root_));
    store().ReloadCRLs();
    const CrlRef old = store().crls[0];
    EXPECT_EQ(old->CheckSignature(issuer_.get()), CM::kSignatureRight);
    const cert_time64_t read_at = old->downloadedAt;
    vpnfc::SetCurrentTimeForTesting(test_pki::kNow + 100);

    card_->Remove("b");
    card_->AddCrl("b", MakeCrl({.number = "\3"}, root_));
    card_->EditInfo([](PKCS11::TokenInfo& info) { info.label = "renamed"; });
    store().ReloadCRLs();
    ASSERT_EQ(store().crls.size(), 2U);
    const CrlRef kept = store().crls[0];
    EXPECT_NE(kept, old) << "CRLs are replaced";
    EXPECT_EQ(kept->token.label, "renamed");
    EXPECT_EQ(kept->rawCrl().data(), old->rawCrl().data()) << "but not read again";
    EXPECT_EQ(kept->downloadedAt, read_at);
    EXPECT_EQ(kept->CheckSignature(issuer_.get()), CM::kSignatureRight);
    EXPECT_EQ(card_->Calls(Op::kVerify), 1U);
    EXPECT_EQ(store().crls[1]->info.crlNumber, "03");
    EXPECT_NE(store().crls[1]->downloadedAt, read_at);
}

TEST_F(StoreCrlTest, ListsAreSnapshots) {
    Put(Crl({.number = "\1"}, root_));
    const CM::CrlList before = store().crls;
    Put(Crl({.number = "\2"}, root_));
    EXPECT_EQ(before.size(), 1U);
    EXPECT_EQ(store().crls.size(), 2U);
    EXPECT_EQ(store().crls[0], before[0]);
    store().ClearAll();
    EXPECT_TRUE(store().crls.empty());
    EXPECT_EQ(before[0]->info.crlNumber, "01");
}

TEST_F(StoreCrlTest, SearchTakesTheFirstThatTheIssuerSigned) {
    LPARAMS::server.log.crl_details = true;
    const CrlRef other_alg = Crl({}, MakeCert({.key = test_pki::KeyType::kEd25519, .subject = "CN=Root", .ca = true}));
    const CrlRef other_issuer = Crl({}, Ca(0, "CN=Other"));
    const CrlRef other_key = Crl({}, Ca(1));
    const CrlRef right = Crl({.number = "\1"}, root_);
    const CrlRef later = Crl({.number = "\2"}, root_);
    for (const CrlRef& crl : {other_alg, other_issuer, other_key, right, later}) Put(crl);
    std::string log;
    EXPECT_EQ(Search(issuer_.get(), nullptr), right);
    EXPECT_EQ(Search(issuer_.get(), &log), right);
    EXPECT_EQ(log,
              "\\\n\tChecked CRLs (4):"
              " \\\n\t\tsign alg missmatch (Ed25519)"
              " \\\n\t\tissuer missmatch: CN=Other"
              " \\\n\t\tInvalid signature"
              " \\\n\t\tok: this update: 2020-01-01 00:00:00 UTC, next update: 2049-01-01 00:00:00 UTC, imported at: "
              "2030-01-01 00:00:00 UTC");
    EXPECT_EQ(card_->Calls(Op::kVerify), 2U) << "of the wrong one and the right one";

    LPARAMS::server.log.crl_details = false;
    log.clear();
    EXPECT_EQ(Search(issuer_.get(), &log), right);
    EXPECT_EQ(log,
              "\\\n\tCRL: this update: 2020-01-01 00:00:00 UTC, next update: 2049-01-01 00:00:00 UTC, imported at: "
              "2030-01-01 00:00:00 UTC");

    log.clear();
    EXPECT_EQ(Search(Object(Ca(2, "CN=Nobody")).get(), &log), nullptr);
    EXPECT_EQ(log.substr(0, 25), "\\\n\tChecked CRLs (5): \\\n\t\t");
    log.clear();
    card_->SetPresent(false);
    EXPECT_EQ(Search(Object(Ca(3)).get(), &log), nullptr);
    EXPECT_NE(log.find(" \\\n\t\tNo token to verify signature"), std::string::npos) << log;
}

TEST_F(StoreCrlTest, SearchIsTheWalkInOrder) {
    std::mt19937 random(20300101);
    std::vector<Cert> authorities;
    std::vector<std::string> pool{"junk"};
    for (int i = 0; i < 6; ++i) {
        const auto key = i % 3 == 0 ? test_pki::KeyType::kEd25519 : test_pki::KeyType::kEcP256;
        authorities.push_back(MakeCa("CN=" + std::to_string(i % 2), nullptr, key, i % 4));
        pool.push_back(MakeCrl({.number = std::string(1, static_cast<char>(i))}, authorities.back()));
        pool.push_back(
            MakeCrl({.number = std::string(1, static_cast<char>(i)), .damage_signature = true}, authorities.back()));
    }
    for (int round = 0; round < 20; ++round) {
        store().ReloadCRLs();  // empties the list
        for (int i = 0; i < 6; ++i) Put(Crl(pool[random() % pool.size()]));
        for (const Cert& authority : authorities) {
            const CM::CertRef issuer = Object(authority);
            CrlRef walked;
            for (const CrlRef& crl : store().crls) {
                const bool fits = (crl->info.signAlg & 0xFFFF) == (issuer->info.keyAlg & 0xFFFFFF) &&
                                  crl->info.issuer == issuer->info.subject;
                if (fits && crl->CheckSignature(issuer.get()) == CM::kSignatureRight) {
                    walked = crl;
                    break;
                }
            }
            EXPECT_EQ(Search(issuer.get()), walked);
        }
    }
}

TEST_F(StoreCrlTest, TheStoreChangesWhileATokenVerifies) {
    Put(Crl({.number = "\1"}, root_));
    const auto gate = std::make_shared<vendor_host::Gate>();
    card_->Block(Op::kVerify, gate);
    CrlRef found;
    std::thread check([&] { found = CM::StoreCrls().Next(issuer_.get(), nullptr); });
    ASSERT_TRUE(gate->WaitForArrivals(1));
    store().ReloadCRLs();
    Put(Crl({.number = "\2"}, root_));
    gate->Open();
    check.join();
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->info.crlNumber, "01") << "alive, though the store has dropped it";
}

}  // namespace
