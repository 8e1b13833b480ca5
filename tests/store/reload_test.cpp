// Reloads: what goes into which list, what stays untouched, what is reported.
#include <algorithm>
#include <stdexcept>

#include "tests/store/hook_log.h"
#include "tests/support/der.h"

namespace {

using namespace store_test;

class ReloadTest : public ModuleTest {
  protected:
    ReloadTest() { HookLog::Install(); }

    std::string Leaf(const std::string& subject) const { return MakeLeaf(subject, root_).der; }
    void AddOwn(const std::string& subject, const std::string& id = {}) {
        token_->AddCertificate(Leaf(subject), {.id = id, .category = 1});
    }

    /// How often the clients were told of changed certificates and keys.
    static std::size_t Told() {
        vendor_host::RunDue();
        return static_cast<std::size_t>(std::ranges::count(vendor_host::Notifications(), bridge::kNotifyCertListChanged,
                                                           &vendor_host::Notification::code));
    }
    /// Reloads everything: the hooks that were called, and "told" each time the clients were told of it.
    static Strings Reload() {
        const std::size_t before = Told();
        CM::Reload();
        const std::size_t told = Told() - before;
        Strings calls = HookLog::Take();
        calls.resize(calls.size() + told, "told");
        return calls;
    }

    const Cert root_ = MakeCa("CN=Root");
};

TEST_F(ReloadTest, EveryObjectGoesWhereItBelongs) {
    const auto add = [this](const Cert& cert, std::uint32_t category) {
        token_->AddPersonal(cert.der, cert.key, {.category = category});
    };
    add(MakeLeaf("CN=own", root_), 1);
    add(MakeLeaf("CN=key on token", root_), 2);
    add(MakeCa("CN=CA with key", &root_), 1);
    AddOwn("CN=category says user");
    token_->AddCertificate(root_.der, {.category = 2, .trusted = true});
    token_->AddCertificate(Leaf("CN=trusted peer"), {.trusted = true});
    token_->AddCertificate(Leaf("CN=peer"));
    token_->AddCertificate(MakeCert({.extensions = {{"1.2.3.4.5", true, der::Null()}}}, &root_).der);
    const test_pki::Key keys[] = {test_pki::MakeKey(KeyType::kRsa2048), test_pki::MakeKey(KeyType::kRsa2048, 1)};
    token_->AddKeyPair("bad", keys[0]);
    token_->AddObject({.id = "bad", .value = "junk", .keyAlg = PKI_KEY_RSA});
    token_->AddKeyPair("lone", keys[1]);
    Reload();

    const auto expect = [](const CM::CertList& list, CertKind kind, const Strings& subjects) {
        Strings found = SubjectsOf(list);
        std::ranges::sort(found);
        EXPECT_EQ(found, subjects);
        for (const CM::X509Cert* cert : list) EXPECT_EQ(cert->info.kind, kind) << cert->info.subject;
    };
    expect(store().personalCerts, kCertKindPersonal, {"CN=category says user", "CN=key on token", "CN=own"});
    expect(store().trustedCerts, kCertKindTrusted, {"CN=Root", "CN=trusted peer"});
    expect(store().otherCerts, kCertKindOther, {"CN=CA with key", "CN=peer"});
    expect(store().keyPairCerts, kCertKindKeyPair,
           {"Certificate object of unknown format", "Key Pair without Certificate"});
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(store().keyPairCerts[i]->rawPubKey, test_pki::Spki(keys[i]));
        EXPECT_EQ(store().keyPairCerts[i]->info.keyBits, 2048U);
    }
    EXPECT_TRUE(vendor_host::Logged("1.2.3.4.5", kMsgUnknownCriticalExtension));
}

TEST_F(ReloadTest, UnchangedCertificatesStayTheSameObjectsInPlace) {
    const auto add = [this](const std::string& subject) {
        const Cert leaf = MakeLeaf(subject, root_);
        return token_->AddPersonal(leaf.der, leaf.key);
    };
    add("CN=a");
    const std::string b = add("CN=b");
    add("CN=c");
    token_->AddCertificate(root_.der, {.trusted = true});
    token_->AddKeyPair("lone", test_pki::MakeKey(KeyType::kRsa2048));
    EXPECT_EQ(Reload(), (Strings{"cert+ CN=a", "cert+ CN=b", "cert+ CN=c", "told"}));
    const std::vector<CM::X509Cert*> personal = store().personalCerts.certs();
    const std::vector<CM::X509Cert*> key_pairs = store().keyPairCerts.certs();

    token_->ClearCalls();
    EXPECT_EQ(Reload(), Strings());
    EXPECT_EQ(store().personalCerts.certs(), personal);
    EXPECT_EQ(token_->Calls(Op::kContainPublicKey) + token_->Calls(Op::kGetPublicKey), 0U);

    token_->Remove(b);
    add("CN=new");
    EXPECT_EQ(Reload(), (Strings{"cert- CN=b", "cert+ CN=new", "told"}));
    EXPECT_EQ(SubjectsOf(store().personalCerts), (Strings{"CN=a", "CN=c", "CN=new"}));
    EXPECT_EQ(store().personalCerts[0], personal[0]);
    EXPECT_EQ(store().personalCerts[1], personal[2]);
    EXPECT_EQ(store().keyPairCerts.certs(), key_pairs);
}

TEST_F(ReloadTest, EachOldEntryAnswersOneObject) {
    AddOwn("CN=before", "same");
    Reload();
    token_->Remove("same");
    AddOwn("CN=twice", "same");
    token_->AddObject(token_->CertObjects()[0]);
    EXPECT_EQ(Reload(), (Strings{"cert- CN=before", "cert+ CN=twice", "cert+ CN=twice", "told"}));
    const std::vector<CM::X509Cert*> both = store().personalCerts.certs();
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(Reload(), Strings());
    EXPECT_EQ(store().personalCerts.certs(), both);
    const auto object = token_->CertObjects()[0];
    token_->Remove("same");
    token_->AddObject(object);
    EXPECT_EQ(Reload(), (Strings{"cert- CN=twice", "told"}));
    EXPECT_EQ(store().personalCerts.certs(), std::vector{both[0]});

    // The same on another token is another certificate.
    vendor_host::AddToken("second")->AddObject(object);
    Reload();
    ASSERT_EQ(store().personalCerts.size(), 2U);
    CM::X509Cert* const on_second = store().personalCerts[1];
    token_->SetPresent(false);
    Reload();
    EXPECT_EQ(store().personalCerts.certs(), std::vector{on_second});
}

TEST_F(ReloadTest, TokenThatDoesNotOpenContributesNothing) {
    AddOwn("CN=own");
    token_->AddPresharedKey("psk", "secret");
    token_->AddCrl("crl", MakeCrl({}, root_));
    Reload();
    const CM::CertRef held(store().personalCerts[0]);
    token_->Fail(Op::kOpenPublic);
    EXPECT_EQ(Reload(), (Strings{"cert- CN=own", "key- psk", "told"}));
    EXPECT_TRUE(store().crls.empty());
    EXPECT_EQ(held->info.subject, "CN=own");  // a reference outlives the store's

    token_->Fail(Op::kOpenPublic, 0);
    Reload();
    ASSERT_EQ(store().personalCerts.size(), 1U);
    EXPECT_NE(store().personalCerts[0], held.get());
}

TEST_F(ReloadTest, WhatATokenFailsToShowStaysAndIsReadOnceMore) {
    const auto second = vendor_host::AddToken("second");
    AddOwn("CN=own", "own");
    token_->AddPresharedKey("psk", "secret");
    token_->AddCrl("crl", MakeCrl({}, root_));
    Reload();
    second->AddCertificate(Leaf("CN=second"), {.category = 1});
    const auto fail = [this](unsigned times) {
        for (const Op op : {Op::kEnumCertificates, Op::kEnumPresharedKeys, Op::kEnumCRLs}) token_->Fail(op, times);
    };
    fail(~0U);
    EXPECT_EQ(Reload(), (Strings{"cert+ CN=second", "told"}));
    EXPECT_EQ(store().crls.size(), 1U);
    EXPECT_EQ(vendor_host::Advance(10), 1U) << "once";
    token_->Remove("own");
    fail(0);
    EXPECT_EQ(Reload(), (Strings{"cert- CN=own", "told"}));
}

TEST_F(ReloadTest, WhatDependsOnAKeyThatWasNotShownWaitsForTheNextReading) {
    const Cert own = MakeLeaf("CN=own", root_);
    token_->AddPersonal(own.der, own.key, {.category = 2});
    token_->AddKeyPair("lone", test_pki::MakeKey(KeyType::kRsa2048));
    token_->AddCertificate(root_.der, {.trusted = true});
    token_->Fail(Op::kContainPublicKey, 1);
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
    token_->AddPresharedKey("a", "1");
    token_->AddPresharedKey("b", "2");
    EXPECT_EQ(Reload(), (Strings{"key+ a", "key+ b", "told"}));

    token_->RemovePresharedKey("a");
    second->AddPresharedKey("a", "3");  // moved to another token: neither appeared nor disappeared
    EXPECT_EQ(Reload(), Strings());
    EXPECT_EQ(store().presharedKeys.at(1)->name, "a");

    second->AddPresharedKey("b", "4");
    second->AddPresharedKey("c", "5");
    EXPECT_EQ(Reload(), (Strings{"key+ b", "key+ c", "told"}));
    second->RemovePresharedKey("c");
    EXPECT_EQ(Reload(), (Strings{"key- c", "told"}));
    EXPECT_TRUE(CM::IsValidPresharedKey("b", ident_));
    EXPECT_FALSE(CM::IsValidPresharedKey("B", ident_));

    // A value comes from the first token that gives it.
    const auto value_of = [](const char* name) {
        std::string value;
        return CM::GetPresharedKeyByName(name, value) ? value : "none";
    };
    EXPECT_EQ(value_of("other") + "|" + value_of(nullptr), "none|none");
    EXPECT_EQ(value_of("b"), "2");
    token_->Fail(Op::kOpenPrivate);
    EXPECT_EQ(value_of("b"), "4");
    second->Fail(Op::kGetPresharedKey);
    EXPECT_EQ(value_of("b"), "none");
}

TEST_F(ReloadTest, ReloadOfOneKindLeavesTheOthersAlone) {
    Reload();
    AddOwn("CN=own");
    token_->AddPresharedKey("psk", "secret");
    const std::string crl = MakeCrl({}, root_);
    token_->AddCrl("crl", crl);
    const auto sizes = [] {
        return std::vector<std::size_t>{store().personalCerts.size(), store().presharedKeys.size(), store().crls.size(),
                                        Told()};
    };
    store().ReloadCRLs();
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{0, 0, 1, 0}));
    store().ReloadPresharedKeys();
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{0, 1, 1, 1}));
    store().ReloadCertificates();
    EXPECT_EQ(sizes(), (std::vector<std::size_t>{1, 1, 1, 2}));

    // CRLs that come from elsewhere are added once, and go with the next reload.
    const std::string second = MakeCrl({.entries = {{.serial = "\x05"}}}, root_);
    for (const std::string& der : {crl, second, second}) {
        store().PutCRLToDB(std::make_unique<CM::X509CRL>(PKCS11::TokenInfo{}, PKCS11::CRLObject{.value = der}));
    }
    EXPECT_EQ(store().crls.size(), 2U);
    store().ReloadCRLs();
    EXPECT_EQ(store().crls.size(), 1U);
}

TEST_F(ReloadTest, OnlyPersonalCertificatesAndKeysAreLogged) {
    AddOwn("CN=own", "own");
    token_->AddCertificate(root_.der, {.trusted = true});
    token_->AddPresharedKey("psk", "secret");
    Reload();
    token_->Remove("own");
    token_->RemovePresharedKey("psk");
    Reload();
    Strings lines;
    for (const auto& record : vendor_host::FindMessages(kMsgStoreChanged)) lines.push_back(record.Text());
    EXPECT_EQ(lines, (Strings{"PersonalCertAppeared: CN=own", "PresharedKeyAppeared: psk",
                              "PersonalCertDisappeared: CN=own", "PresharedKeyDisappeared: psk"}));
    vendor_host::ClearMessages();
    Set(&LPARAMS::LogParams::certificate_changes, false);
    token_->AddPresharedKey("psk", "secret");
    EXPECT_EQ(Reload(), (Strings{"key+ psk", "told"}));
    EXPECT_TRUE(vendor_host::Messages().empty());
}

TEST_F(ReloadTest, HookMayReload) {
    AddOwn("CN=own");
    CM::Callbacks.PersonalCertAppeared = [](CM::X509Cert* cert, const CertInfo&) {
        CM::Reload();
        EXPECT_EQ(store().personalCerts.certs(), std::vector{cert});
    };
    Reload();
    EXPECT_EQ(store().personalCerts.size(), 1U);
}

// Of a hook that throws, or waits for the reload that calls it, the reload takes no harm.
TEST_F(ReloadTest, HooksCannotHoldAReloadUp) {
    Reload();
    CM::Callbacks.PersonalCertAppeared = [](CM::X509Cert* /*cert*/, const CertInfo& info) {
        throw std::runtime_error(info.subject + (store().WaitReloadDone() ? " waited" : " did not wait"));
    };
    AddOwn("CN=a");
    AddOwn("CN=b");
    vendor_host::FireInsert(*token_);
    const std::size_t told = Told();
    vendor_host::Advance(2);
    EXPECT_EQ(Told(), told + 1);
    for (const char* subject : {"CN=a", "CN=b"}) {
        EXPECT_TRUE(vendor_host::Logged(subject + std::string(" did not wait"), kMsgInternalError)) << subject;
    }
    EXPECT_FALSE(store().WaitReloadDone());
}

}  // namespace
