// Reloads: what goes into which list, what stays untouched, what is reported.
#include <algorithm>

#include <platform/event_codes.h>

#include "store_fixture.h"

namespace {

using namespace store_test;
using test_pki::Cert;
using test_pki::MakeCa;
using test_pki::MakeCert;
using test_pki::MakeLeaf;
using vendor_host::Op;

constexpr std::uint32_t kListChanged = 9;

class ReloadTest : public StoreTest {
  protected:
    ReloadTest() : root(MakeCa("CN=Root")), card(vendor_host::AddToken("card")) { HookLog::Install(); }

    Cert Leaf(const std::string& subject, int key_index = 0) const {
        return MakeLeaf(subject, root, test_pki::KeyType::kEcP256, key_index);
    }

    /// Reloads everything; how often the clients were told.
    static std::size_t Reload() {
        const std::size_t before = vendor_host::NotificationCount(kListChanged);
        CM::Reload();
        vendor_host::RunDue();
        return vendor_host::NotificationCount(kListChanged) - before;
    }

    static void SwitchChangeLog(bool on) {
        const vpnfc::ObjectLock lock(LPARAMS::server.log);
        LPARAMS::server.log.certificate_changes = on;
    }

    Cert root;
    std::shared_ptr<vendor_host::Token> card;
};

TEST_F(ReloadTest, EveryObjectGoesWhereItBelongs) {
    const Cert own = Leaf("CN=own", 1);
    card->AddPersonal(own.der, own.key);
    const Cert key_only = Leaf("CN=key on token", 2);
    card->AddPersonal(key_only.der, key_only.key, {.category = 3});
    card->AddCertificate(Leaf("CN=category says user", 3).der, {.category = 1});
    const Cert ca = MakeCa("CN=CA with key", &root, test_pki::KeyType::kEcP256, 4);
    card->AddPersonal(ca.der, ca.key);
    card->AddCertificate(root.der, {.category = 2, .trusted = true});
    card->AddCertificate(Leaf("CN=trusted peer", 5).der, {.trusted = true});
    card->AddCertificate(Leaf("CN=peer", 6).der);
    card->AddCertificate(
        MakeCert({.subject = "CN=critical", .extensions = {{.oid = "1.2.3.4.5", .critical = true, .der = kDerNull}}},
                 &root)
            .der);
    card->AddCertificate("junk", {.id = "bad"});
    card->AddKeyPair("lone", test_pki::MakeKey(test_pki::KeyType::kRsa2048));
    Reload();

    const auto expect = [](const CM::CertList& list, CertKind kind, const Strings& subjects) {
        Strings found = Subjects(list);
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, subjects);
        for (const CM::X509Cert* cert : list) EXPECT_EQ(cert->info.kind, kind) << cert->info.subject;
    };
    expect(store().personalCerts, kCertKindPersonal, {"CN=category says user", "CN=key on token", "CN=own"});
    expect(store().trustedCerts, kCertKindTrusted, {"CN=Root", "CN=trusted peer"});
    expect(store().otherCerts, kCertKindOther, {"CN=CA with key", "CN=peer"});
    expect(store().keyPairCerts, kCertKindKeyPair,
           {"Certificate object of unknown format", "Key Pair without Certificate"});
    EXPECT_TRUE(vendor_host::Logged("1.2.3.4.5", kMsgUnknownCriticalExtension));
}

TEST_F(ReloadTest, KeyPairsAndUnreadableCertificatesShowTheirPublicKey) {
    const test_pki::Key keys[] = {test_pki::MakeKey(test_pki::KeyType::kRsa2048),
                                  test_pki::MakeKey(test_pki::KeyType::kRsa2048, 1)};
    card->AddKeyPair("bad", keys[0]);
    card->AddObject({.id = "bad", .value = "junk", .keyAlg = PKI_KEY_RSA});
    card->AddKeyPair("lone", keys[1]);
    Reload();
    ASSERT_EQ(store().keyPairCerts.size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const CM::X509Cert& entry = *store().keyPairCerts[i];
        EXPECT_EQ(entry.rawPubKey, test_pki::Spki(keys[i]));
        EXPECT_EQ(entry.info.keyBits, 2048U);
    }
    EXPECT_EQ(store().keyPairCerts[1]->info.keyAlg, PKI_KEY_RSA);
}

TEST_F(ReloadTest, UnchangedCertificatesStayTheSameObjectsInPlace) {
    Strings ids;
    for (int i = 0; i < 4; ++i) {
        const Cert leaf = Leaf("CN=own" + std::to_string(i), i);
        ids.push_back(card->AddPersonal(leaf.der, leaf.key));
    }
    card->AddCertificate(root.der, {.trusted = true});
    card->AddCertificate(Leaf("CN=peer", 9).der);
    card->AddKeyPair("lone", test_pki::MakeKey(test_pki::KeyType::kRsa2048));
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(HookLog::Take(), (Strings{"cert+ CN=own0", "cert+ CN=own1", "cert+ CN=own2", "cert+ CN=own3"}));
    const std::vector<CM::X509Cert*> personal = store().personalCerts.certs();
    const std::vector<CM::X509Cert*> key_pairs = store().keyPairCerts.certs();

    card->ClearCalls();
    EXPECT_EQ(Reload(), 0U);
    EXPECT_EQ(HookLog::Take(), Strings());
    EXPECT_EQ(store().personalCerts.certs(), personal);
    EXPECT_EQ(store().keyPairCerts.certs(), key_pairs);
    EXPECT_EQ(card->Calls(Op::kContainPublicKey) + card->Calls(Op::kGetPublicKey), 0U);

    card->Remove(ids[1]);
    const Cert newcomer = Leaf("CN=new", 5);
    card->AddPersonal(newcomer.der, newcomer.key);
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(HookLog::Take(), (Strings{"cert- CN=own1", "cert+ CN=new"}));
    EXPECT_EQ(Subjects(store().personalCerts), (Strings{"CN=own0", "CN=own2", "CN=own3", "CN=new"}));
    EXPECT_EQ(store().personalCerts[0], personal[0]);
    EXPECT_EQ(store().personalCerts[1], personal[2]);
    EXPECT_EQ(store().personalCerts[2], personal[3]);
    EXPECT_EQ(store().keyPairCerts.certs(), key_pairs);
}

TEST_F(ReloadTest, OtherContentUnderTheSameIdentifierIsAnotherCertificate) {
    card->AddCertificate(Leaf("CN=before").der, {.id = "same", .category = 1});
    Reload();
    HookLog::Take();
    card->Remove("same");
    card->AddCertificate(Leaf("CN=after").der, {.id = "same", .category = 1});
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(HookLog::Take(), (Strings{"cert- CN=before", "cert+ CN=after"}));
}

TEST_F(ReloadTest, EachOldEntryAnswersOneObject) {
    const Cert leaf = Leaf("CN=twice");
    const PKCS11::CertObject object{.id = "same", .value = leaf.der, .category = 1};
    card->AddObject(object);
    card->AddObject(object);
    Reload();
    const std::vector<CM::X509Cert*> both = store().personalCerts.certs();
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(Reload(), 0U);
    EXPECT_EQ(store().personalCerts.certs(), both);
    HookLog::Take();
    card->Remove("same");
    card->AddObject(object);
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(store().personalCerts.certs(), std::vector{both[0]});
    EXPECT_EQ(HookLog::Take(), Strings{"cert- CN=twice"});
}

TEST_F(ReloadTest, SameContentOnTwoTokensIsTwoCertificates) {
    const auto second = vendor_host::AddToken("second");
    const Cert leaf = Leaf("CN=both");
    card->AddPersonal(leaf.der, leaf.key);
    second->AddPersonal(leaf.der, leaf.key);
    Reload();
    ASSERT_EQ(store().personalCerts.size(), 2U);
    CM::X509Cert* const on_second = store().personalCerts[1];
    card->SetPresent(false);
    Reload();
    EXPECT_EQ(store().personalCerts.certs(), std::vector{on_second});
}

TEST_F(ReloadTest, TokenThatDoesNotOpenContributesNothing) {
    card->AddCertificate(Leaf("CN=own").der, {.category = 1});
    card->AddPresharedKey("psk", "secret");
    card->AddCrl("crl", MakeCrl({}, root));
    Reload();
    HookLog::Take();
    const CM::CertRef held(store().personalCerts[0]);
    card->Fail(Op::kOpenPublic);
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(HookLog::Take(), (Strings{"cert- CN=own", "key- psk"}));
    EXPECT_TRUE(store().crls.empty());
    EXPECT_EQ(held->info.subject, "CN=own");  // a reference outlives the store's

    card->Fail(Op::kOpenPublic, 0);
    Reload();
    ASSERT_EQ(store().personalCerts.size(), 1U);
    EXPECT_NE(store().personalCerts[0], held.get());
}

TEST_F(ReloadTest, WhatATokenFailsToShowStaysAndIsReadOnceMore) {
    const auto second = vendor_host::AddToken("second");
    const std::string own = card->AddCertificate(Leaf("CN=own").der, {.category = 1});
    card->AddPresharedKey("psk", "secret");
    card->AddCrl("crl", MakeCrl({}, root));
    Reload();
    second->AddCertificate(Leaf("CN=second").der, {.category = 1});
    HookLog::Take();
    const auto fail = [this](unsigned times) {
        for (const Op op : {Op::kEnumCertificates, Op::kEnumPresharedKeys, Op::kEnumCRLs}) card->Fail(op, times);
    };
    fail(~0U);
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(HookLog::Take(), Strings{"cert+ CN=second"});
    EXPECT_EQ(store().crls.size(), 1U);
    EXPECT_EQ(vendor_host::Advance(10), 1U) << "once";
    card->Remove(own);
    fail(0);
    Reload();
    EXPECT_EQ(HookLog::Take(), Strings{"cert- CN=own"});
}

TEST_F(ReloadTest, WhatDependsOnAKeyThatWasNotShownWaitsForTheNextReading) {
    const Cert own = Leaf("CN=own");
    card->AddPersonal(own.der, own.key, {.category = 2});
    card->AddKeyPair("lone", test_pki::MakeKey(test_pki::KeyType::kRsa2048));
    card->AddCertificate(root.der, {.trusted = true});
    card->Fail(Op::kContainPublicKey, 1);
    Reload();
    EXPECT_EQ(store().trustedCerts.size(), 1U);
    EXPECT_TRUE(store().otherCerts.empty() && store().personalCerts.empty() && store().keyPairCerts.empty());
    vendor_host::Advance(10);
    EXPECT_TRUE(store().otherCerts.empty());
    EXPECT_EQ(store().personalCerts.size(), 1U);
    EXPECT_EQ(store().keyPairCerts.size(), 1U);
}

TEST_F(ReloadTest, PresharedKeysAreComparedByNameOneToOne) {
    const auto second = vendor_host::AddToken("second");
    card->AddPresharedKey("a", "1");
    card->AddPresharedKey("b", "2");
    Reload();
    EXPECT_EQ(HookLog::Take(), (Strings{"key+ a", "key+ b"}));

    card->RemovePresharedKey("a");
    second->AddPresharedKey("a", "3");  // moved to another token: neither appeared nor disappeared
    EXPECT_EQ(Reload(), 0U);
    EXPECT_EQ(KeyNames(), (Strings{"b", "a"}));

    second->AddPresharedKey("b", "4");
    second->AddPresharedKey("c", "5");
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(HookLog::Take(), (Strings{"key+ b", "key+ c"}));
    card->RemovePresharedKey("b");
    second->RemovePresharedKey("c");
    EXPECT_EQ(Reload(), 1U);
    EXPECT_EQ(HookLog::Take(), (Strings{"key- b", "key- c"}));
    EXPECT_TRUE(CM::IsValidPresharedKey("b", kNoIdent));
    EXPECT_FALSE(CM::IsValidPresharedKey("B", kNoIdent));
    EXPECT_FALSE(CM::IsValidPresharedKey("b2", kNoIdent));
}

TEST_F(ReloadTest, PresharedKeyValueComesFromTheFirstTokenThatGivesIt) {
    const auto second = vendor_host::AddToken("second");
    card->AddPresharedKey("psk", "first");
    second->AddPresharedKey("psk", "second");
    Reload();
    std::string value;
    EXPECT_FALSE(CM::GetPresharedKeyByName("other", value));
    EXPECT_FALSE(CM::GetPresharedKeyByName(nullptr, value));
    EXPECT_TRUE(CM::GetPresharedKeyByName("psk", value));
    EXPECT_EQ(value, "first");
    card->Fail(Op::kOpenPrivate);
    EXPECT_TRUE(CM::GetPresharedKeyByName("psk", value));
    EXPECT_EQ(value, "second");
    second->Fail(Op::kGetPresharedKey);
    EXPECT_FALSE(CM::GetPresharedKeyByName("psk", value));
}

TEST_F(ReloadTest, ReloadOfOneKindLeavesTheOthersAlone) {
    Reload();
    card->AddCertificate(Leaf("CN=own").der, {.category = 1});
    card->AddPresharedKey("psk", "secret");
    card->AddCrl("crl", MakeCrl({}, root));
    const auto sizes = [] {
        vendor_host::RunDue();
        return std::vector<std::size_t>{store().personalCerts.size(), store().presharedKeys.size(), store().crls.size(),
                                        vendor_host::NotificationCount(kListChanged)};
    };
    store().ReloadCRLs();
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{0, 0, 1, 0}));
    store().ReloadPresharedKeys();
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{0, 1, 1, 1}));
    store().ReloadPresharedKeys();
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{0, 1, 1, 1}));
    store().ReloadCertificates();
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{1, 1, 1, 2}));
    EXPECT_EQ(vendor_host::Notifications().back().body, "");
}

TEST_F(ReloadTest, CrlsAreReplacedAndAddedOnce) {
    const std::string first = MakeCrl({}, root);
    const std::string second = MakeCrl({.entries = {{.serial = "\x05"}}}, root);
    card->AddCrl("crl", first);
    Reload();
    for (const std::string& der : {first, second, second}) {
        store().PutCRLToDB(std::make_unique<CM::X509CRL>(PKCS11::TokenInfo{}, PKCS11::CRLObject{.value = der}));
    }
    ASSERT_EQ(store().crls.size(), 2U);
    EXPECT_EQ(store().crls[1]->rawCrl(), second);
    store().ReloadCRLs();
    EXPECT_EQ(store().crls.size(), 1U);
}

TEST_F(ReloadTest, OnlyPersonalCertificatesAndKeysAreLogged) {
    card->AddCertificate(Leaf("CN=own").der, {.id = "own", .category = 1});
    card->AddCertificate(root.der, {.trusted = true});
    card->AddPresharedKey("psk", "secret");
    Reload();
    card->Remove("own");
    card->RemovePresharedKey("psk");
    Reload();
    Strings lines;
    for (const auto& record : vendor_host::FindMessages(kMsgStoreChanged)) lines.push_back(record.Text());
    EXPECT_EQ(lines, (Strings{"PersonalCertAppeared: CN=own", "PresharedKeyAppeared: psk",
                              "PersonalCertDisappeared: CN=own", "PresharedKeyDisappeared: psk"}));
    vendor_host::ClearMessages();
    SwitchChangeLog(false);
    card->AddPresharedKey("psk", "secret");
    HookLog::Take();
    Reload();
    EXPECT_TRUE(vendor_host::FindMessages(kMsgStoreChanged).empty());
    EXPECT_EQ(HookLog::Take(), Strings{"key+ psk"});
}

TEST_F(ReloadTest, HookMayReload) {
    card->AddCertificate(Leaf("CN=own").der, {.category = 1});
    CM::Callbacks.PersonalCertAppeared = [](CM::X509Cert* cert, const CertInfo&) {
        CM::Reload();
        EXPECT_EQ(store().personalCerts.certs(), std::vector{cert});
    };
    Reload();
    EXPECT_EQ(store().personalCerts.size(), 1U);
}

}  // namespace
