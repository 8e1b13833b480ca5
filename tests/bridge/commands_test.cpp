// The certificate commands through the socket: what they do, what malformed input does, and two clients at once.
#include <future>
#include <thread>

#include "certmgr/cert_bridge.h"
#include "certmgr/cert_crlcache.h"
#include "certmgr/cert_file.h"
#include "certmgr/cert_request.h"
#include "certmgr/cert_storage.h"
#include "certmgr/certmgr.h"
#include "certmgr/chain.h"
#include "certmgr/records_sync.h"
#include "cli/client/manager.h"
#include "tests/bridge/bridge_fixture.h"
#include "tests/support/pki.h"

namespace bridge_test {
namespace {

using bridge::Error;
using bridge::kGroupCertificates;
using certmgr_client::CertSelector;
using certmgr_client::ListedCert;
using certmgr_client::Manager;
using CM::X509CertFile;
using vpnfc::SecretString;

class CommandsTest : public BridgeTest {
  protected:
    CommandsTest() {
        vpnfc::SetCurrentTimeForTesting(test_pki::kNow);
        vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
        CM::CertEngine_Init();
        CM::Init();
        token_ = vendor_host::AddToken("card");
        token_->EditInfo([](PKCS11::TokenInfo& info) { info.holdsTrusted = true; });
        token_->AddCertificate(root_.der, {.category = 2, .trusted = true});
        token_->AddCertificate(issuing_.der, {.category = 2});
        token_->AddCertificate(other_.der);
        token_->AddPersonal(leaf_.der, leaf_.key);
        token_->AddKeyPair("pair", test_pki::MakeKey(test_pki::KeyType::kEcP256, 77));
        token_->AddCrl("crl", crl_);
        token_->AddPresharedKey("office", "secret");
        CM::Reload();
        Start();
        client_ = Connect();
    }
    ~CommandsTest() override {
        bridge::Stop();
        CM::Finit();
        CM::CertEngine_Finit();
        vpnfc::SetCurrentTimeForTesting(std::nullopt);
        vendor_host::Reset();
    }

    std::vector<ListedCert> List(CertSelector selector) {
        return manager().ListCertificates(selector).value_or(std::vector<ListedCert>());
    }
    std::vector<std::string> Subjects(CertSelector selector) {
        std::vector<std::string> subjects;
        for (const ListedCert& cert : List(selector)) subjects.push_back(cert.info.subject);
        return subjects;
    }
    ListedCert Leaf() { return List(CertSelector::kPersonal).at(0); }
    Manager manager() { return Manager(*client_); }
    std::optional<std::string> Raw(std::uint32_t command, const std::string& input) {
        std::string reply;
        return client_->Call(kGroupCertificates, command, input, reply) ? std::optional(reply) : std::nullopt;
    }
    std::size_t ObjectsOnToken() const {
        return token_->CertObjects().size() + token_->CrlObjects().size() + token_->PresharedKeyNames().size();
    }
    /// A complete input of every command that has one.
    std::map<std::uint32_t, std::string> Inputs(const PKCS11::TokenInfo& token);

    // Shared by all tests: making certificates is the costly part.
    static inline const test_pki::Cert root_ = test_pki::MakeCa("CN=Root, O=Test");
    static inline const test_pki::Cert issuing_ = test_pki::MakeCa("CN=Issuing, O=Test", &root_);
    static inline const test_pki::Cert leaf_ = test_pki::MakeLeaf("CN=alice, O=Test", issuing_);
    static inline const test_pki::Cert other_ = test_pki::MakeLeaf("CN=bob, O=Test", issuing_);
    static inline const std::string crl_ = test_pki::MakeCrl({}, root_);
    std::shared_ptr<vendor_host::Token> token_;
    std::unique_ptr<bridge::Client> client_;
};

std::map<std::uint32_t, std::string> CommandsTest::Inputs(const PKCS11::TokenInfo& token) {
    std::map<std::uint32_t, std::string> inputs;
    const CertInfo cert = Leaf().info;
    const CRLInfo crl = manager().ListCrls()->at(0).info;
    const auto add = [&](std::uint32_t command, auto write) {
        CommandStreamOut out(inputs[command]);
        if (command != 0 && command != 2) sync(out, token);
        write(out);
    };
    const auto named = [&](CommandStreamOut& out) { sync(out, cert); };
    const std::string text = "text";
    add(0, [](CommandStreamOut& out) { out.fields(0U); });
    add(2, [&](CommandStreamOut& out) { out.fields(text, text); });
    add(3, [&](CommandStreamOut& out) { out.fields(0U, 3U, false, text); });
    add(4, [](CommandStreamOut& out) { out.fields(0U); });
    add(5, [&](CommandStreamOut& out) {
        named(out);
        out.fields(3U, text, true, false);
    });
    add(6, [](CommandStreamOut&) {});
    add(7, [](CommandStreamOut& out) {
        const CertRequestInfo request{.keyAlg = 4, .keyBits = 256, .hashAlg = 0x40000, .subject = "CN=new"};
        sync(out, request);
    });
    add(9, [&](CommandStreamOut& out) { out.fields(text, text); });
    add(10, [&](CommandStreamOut& out) { out.fields(text); });
    add(12, [&](CommandStreamOut& out) { sync(out, crl); });
    for (const std::uint32_t command : {1U, 13U, 14U}) add(command, named);
    add(15, [&](CommandStreamOut& out) {
        named(out);
        out.fields(0U);
    });
    return inputs;
}

TEST_F(CommandsTest, ListsShowTheStore) {
    using Names = std::vector<std::string>;
    const auto personal = List(CertSelector::kPersonal);
    ASSERT_EQ(personal.size(), 2U);
    EXPECT_EQ(personal[0].info.subject, "CN=alice, O=Test");
    EXPECT_EQ(personal[0].token.label, "card");
    EXPECT_EQ(personal[1].info.kind, kCertKindKeyPair);
    EXPECT_EQ(Subjects(CertSelector::kTrusted), Names{"CN=Root, O=Test"});
    EXPECT_EQ(Subjects(CertSelector::kIntermediate), Names{"CN=Issuing, O=Test"});
    EXPECT_EQ(Subjects(CertSelector::kOther), Names{"CN=bob, O=Test"});
    EXPECT_EQ(Raw(0, std::string("\4\0\0\0", 4)), "");
    CM::CertStorage::Instance().ClearAll();
    for (const std::uint32_t command : {0U, 8U, 11U})
        EXPECT_EQ(Raw(command, std::string(4, '\0')), std::string(4, '\0'));
    EXPECT_TRUE(manager().Reload());
    EXPECT_EQ(vendor_host::ReloadTokensContentCalls(), 1U);
    EXPECT_EQ(Subjects(CertSelector::kTrusted).size(), 1U);
}

TEST_F(CommandsTest, ShortInputIsMalformedAndChangesNothing) {
    const auto file = manager().OpenFile(other_.der, SecretString());
    ASSERT_TRUE(file.has_value() && file->status == 0);
    const std::size_t before = ObjectsOnToken();
    for (const auto& [command, input] : Inputs(token_->Info())) {
        for (std::size_t length = 0; length < input.size(); ++length) {
            // The PIN of an import may be left out, whole; this certificate is on the token already.
            const bool whole = command == 3 && length == input.size() - 8;
            SCOPED_TRACE(std::to_string(command) + " cut at " + std::to_string(length));
            const auto reply = Raw(command, input.substr(0, length));
            EXPECT_EQ(reply.has_value(), whole);
            EXPECT_TRUE(whole || client_->failure().code == Error::kMalformed) << client_->failure().text;
        }
    }
    EXPECT_EQ(ObjectsOnToken(), before);
    EXPECT_EQ(Subjects(CertSelector::kPersonal).size(), 2U);
}

TEST_F(CommandsTest, FilesAreImportedByIndex) {
    const test_pki::Cert carol = test_pki::MakeLeaf("CN=carol", root_);
    const test_pki::Cert second_root = test_pki::MakeCa("CN=Second");
    const std::string bundle = test_pki::MakePkcs7({carol.der, second_root.der}, {test_pki::MakeCrl({}, second_root)});
    const PKCS11::TokenInfo token = token_->Info();
    // Without a file there is nothing to import.
    EXPECT_EQ(manager().ImportCertificate(token, 0, {}), 3U);
    EXPECT_EQ(manager().ImportCrl(token, 0), 2U);
    const auto file = manager().OpenFile(bundle, SecretString());
    ASSERT_TRUE(file.has_value());
    ASSERT_EQ(file->certs.size(), 2U);
    const std::uint32_t ca = file->certs[0].info.isCA ? 0 : 1;  // a set: in whatever order
    const std::uint32_t leaf = 1 - ca;
    EXPECT_EQ(file->certs[leaf].info.subject, "CN=carol");
    EXPECT_EQ(file->certs[ca].tokens, std::vector<std::uint32_t>{0});
    EXPECT_EQ(file->tokens.at(0).label, "card");
    EXPECT_EQ(manager().ImportCertificate(token, 2, {}), 3U);
    EXPECT_EQ(manager().ImportCrl(token, 1), 2U);
    EXPECT_EQ(Manager(*Connect()).ImportCertificate(token, 0, {}), 3U);  // another client's file is not this one's
    EXPECT_EQ(manager().ImportCertificate(token, leaf, {}), 0U);
    EXPECT_EQ(client_->Wait(test_support::kWaitLimit).value().code, bridge::kNotifyCertListChanged);
    EXPECT_EQ(manager().ImportCertificate(token, leaf, {}), 1U);
    EXPECT_EQ(manager().ImportCertificate(token, ca, {.mode = kImportTrusted}), 0U);
    EXPECT_EQ(manager().ImportCrl(token, 0), 0U);
    EXPECT_EQ(Subjects(CertSelector::kTrusted).size(), 2U);
    EXPECT_EQ(manager().ListCrls()->size(), 2U);

    // Another file takes its place, an unreadable one, too.
    EXPECT_EQ(manager().OpenFile(crl_, SecretString())->crls.size(), 1U);
    EXPECT_EQ(manager().ImportCertificate(token, 0, {}), 3U);
    const auto unreadable = Raw(2, std::string("\2\0\0\0xx\0\0\0\0", 10));
    EXPECT_EQ(unreadable.value().size(), 4U);
    EXPECT_EQ(manager().ImportCrl(token, 0), 2U);
}

TEST_F(CommandsTest, ImportedKeysLeaveWhenTheyMay) {
    const SecretString password(std::string("pass word"));
    const auto export_key = [&](const ListedCert& cert) {
        return manager().ExportCertificate(cert.token, cert.info,
                                           {.format = 3, .password = &password, .with_private_key = true});
    };
    const auto file = export_key(Leaf());
    for (const bool exportable : {false, true}) {
        ASSERT_TRUE(manager().DeleteCertificate(Leaf().token, Leaf().info));
        ASSERT_EQ(manager().OpenFile(file->bytes.get(), password)->certs.size(), 1U);
        ASSERT_EQ(manager().ImportCertificate(token_->Info(), 0, {.mode = kImportPersonal, .exportable = exportable}),
                  0U);
        EXPECT_EQ(export_key(Leaf())->result, exportable ? 1U : 5U);
    }
}

// A token that wants a login for what is public gets private sessions, any other none.
TEST_F(CommandsTest, TheTokenSaysWhoWritesPublicObjects) {
    for (const bool login : {false, true}) {
        const test_pki::Cert carol = test_pki::MakeLeaf(login ? "CN=carol" : "CN=dave", root_);
        ASSERT_EQ(manager().OpenFile(carol.der, SecretString())->certs.size(), 1U);
        token_->EditInfo([&](PKCS11::TokenInfo& info) { info.loginRequired = info.loggedIn = login; });
        CM::Reload();
        token_->ClearCalls();
        PKCS11::TokenInfo named;  // the identifier alone counts
        named.id = token_->Info().id;
        named.loginRequired = !login;
        EXPECT_EQ(manager().ImportCertificate(named, 0, {.mode = 7}), 0U);
        EXPECT_EQ(token_->Calls(vendor_host::Op::kOpenPrivate), login ? 1U : 0U);
    }
}

// One certificate in several lists is found among the other ones first, then the trusted, then the personal ones.
TEST_F(CommandsTest, TheOrderInWhichACertificateIsLookedFor) {
    const test_pki::Cert same = test_pki::MakeLeaf("CN=same", root_);
    token_->AddCertificate(same.der, {.id = "personal", .category = 1});
    token_->AddCertificate(same.der, {.id = "trusted", .trusted = true});
    token_->AddCertificate(same.der, {.id = "other"});
    CM::Reload();
    const X509CertFile file(same.der, "");
    for (const auto& [id, kind] :
         {std::pair("other", kCertKindOther), {"trusted", kCertKindTrusted}, {"personal", kCertKindPersonal}}) {
        EXPECT_EQ(manager().CertificateDetails(token_->Info(), file.certs[0]->info)->info.kind, kind);
        token_->Remove(id);
        CM::Reload();
    }
}

/// A session that belongs to no connection.
class OneSession : public BridgeSession {
    std::uint64_t Id() const override { return 1; }
    std::uint32_t User() const override { return 0; }
};

TEST_F(CommandsTest, AFileGoesWithItsSession) {
    CM::CertListener listener;  // the module's own has the group
    OneSession session;
    const auto status = [&] {
        std::string output;
        EXPECT_TRUE(listener.ExecCommand(session, 3, Inputs(token_->Info())[3], output));
        return output;
    };
    listener.SetCertFile(&session, std::make_unique<X509CertFile>(other_.der, ""));
    EXPECT_EQ(status(), std::string("\1\0\0\0", 4));  // there already
    listener.OnCloseSession(&session);
    EXPECT_EQ(status(), std::string("\3\0\0\0", 4));
}

// What the daemon hands over without a person: where it goes.
TEST_F(CommandsTest, FilesAreStoredWhereTheyBelong) {
    const test_pki::Cert ca = test_pki::MakeCa("CN=Second");
    const test_pki::Cert stranger = test_pki::MakeLeaf("CN=stranger", ca);
    const std::string both = test_pki::MakePkcs7({stranger.der, ca.der});  // the last one is read first
    const auto second = vendor_host::AddToken("second", "0002");
    std::string report;
    const auto hold_trusted = [](vendor_host::Token& token, bool holds) {
        token.EditInfo([&](PKCS11::TokenInfo& info) { info.holdsTrusted = holds; });
    };
    hold_trusted(*token_, false);
    hold_trusted(*second, false);
    EXPECT_FALSE(CM::ImportCertsFromFile(ca.der, "", &report));
    hold_trusted(*second, true);
    // What stands before the one that cannot be stored stays.
    EXPECT_FALSE(CM::ImportCertsFromFile(both, "", &report));
    EXPECT_EQ(report, "No Trusted tokens, cert: CN=SecondKey Pair not found for cert: CN=stranger");
    ASSERT_EQ(second->CertObjects().size(), 1U);
    EXPECT_TRUE(second->CertObjects()[0].trusted);
}

TEST_F(CommandsTest, LargeFilesAreTaken) {
    const std::string large(64U << 20, 'A');
    const auto file = manager().OpenFile(large, SecretString());
    ASSERT_TRUE(file.has_value()) << client_->failure().text;
    EXPECT_NE(file->status, 0U);
    const std::string many = test_pki::MakePkcs7(std::vector<std::string>(4097, other_.der));
    EXPECT_NE(manager().OpenFile(many, SecretString())->status, 0U);
}

TEST_F(CommandsTest, ACertificateIsDescribedChainedVerifiedAndExported) {
    const ListedCert leaf = Leaf();
    const auto details = manager().CertificateDetails(leaf.token, leaf.info);
    ASSERT_TRUE(details.has_value() && details->found);
    EXPECT_EQ(details->ext.keyUsage, "Digital Signature");
    EXPECT_EQ(details->public_key, leaf_.spki);
    const auto chain = manager().BuildChain(leaf.token, leaf.info);
    ASSERT_TRUE(chain.has_value() && chain->found);
    EXPECT_EQ(chain->result, ChainTrusted);
    EXPECT_EQ(chain->members.size(), 3U);
    const auto verdict = manager().VerifyCertificate(leaf.token, leaf.info, 0);
    EXPECT_TRUE(verdict.value().good) << verdict->text;
    const SecretString cut(std::string("a\0b", 3));
    const struct {
        certmgr_client::ExportOptions options;
        std::uint32_t result;
        std::size_t certs;
    } exports[] = {{{.format = 0}, 1, 1},
                   {{.format = 2, .with_chain = true}, 1, 3},
                   {{.format = 3, .password = &cut}, 3, 0},
                   {{.format = 4}, 4, 0}};
    for (const auto& test : exports) {
        SCOPED_TRACE(test.options.format);
        const auto made = manager().ExportCertificate(leaf.token, leaf.info, test.options);
        EXPECT_EQ(made->result, test.result);
        EXPECT_EQ(manager().OpenFile(made->bytes.get(), SecretString())->certs.size(), test.certs);
    }
    CertInfo unknown = leaf.info;
    unknown.serialNumber = "00";
    EXPECT_FALSE(manager().CertificateDetails(leaf.token, unknown)->found);
    EXPECT_FALSE(manager().BuildChain(leaf.token, unknown)->found);
    EXPECT_EQ(manager().VerifyCertificate(leaf.token, unknown, 0)->text, "Certificate not found");
    EXPECT_EQ(manager().ExportCertificate(leaf.token, unknown, {})->result, 2U);
}

TEST_F(CommandsTest, TheStrictnessOfAVerificationReachesTheCheck) {
    test_pki::CertSpec spec{.subject = "CN=unreachable", .key_usage = "digitalSignature"};
    spec.crl_points.push_back({"URI:http://127.0.0.1:1/crl"});
    token_->AddCertificate(test_pki::MakeCert(spec, &issuing_).der);
    CM::Reload();
    for (const ListedCert& cert : List(CertSelector::kOther)) {
        const bool reachable = cert.info.subject != "CN=unreachable";
        EXPECT_TRUE(manager().VerifyCertificate(cert.token, cert.info, 0)->good);
        EXPECT_EQ(manager().VerifyCertificate(cert.token, cert.info, 1)->good, reachable);
        EXPECT_TRUE(manager().VerifyCertificate(cert.token, cert.info, 2)->good);
    }
}

TEST_F(CommandsTest, PresharedKeys) {
    const PKCS11::TokenInfo token = token_->Info();
    const SecretString value(std::string("value"));
    EXPECT_TRUE(manager().CreatePresharedKey(token, "branch", value).value());
    token_->Fail(vendor_host::Op::kCreatePresharedKey, 1);
    EXPECT_FALSE(manager().CreatePresharedKey(token, "refused", value).value());
    EXPECT_EQ(manager().ListPresharedKeys()->size(), 2U);
    EXPECT_TRUE(manager().DeletePresharedKey(token, "branch"));
    EXPECT_EQ(manager().ListPresharedKeys()->size(), 1U);
}

TEST_F(CommandsTest, ARequestWhosePublicKeyIsNoneLeavesNoKey) {
    const std::size_t before = ObjectsOnToken();
    const auto gate = std::make_shared<vendor_host::Gate>();
    token_->Block(vendor_host::Op::kGetPublicKey, gate);
    auto made = std::async(std::launch::async, [&] {
        return manager().MakeRequest(token_->Info(),
                                     {.keyAlg = 4, .keyBits = 256, .hashAlg = 0x40000, .subject = "CN=x"});
    });
    ASSERT_TRUE(gate->WaitForArrivals(1));
    EXPECT_EQ(ObjectsOnToken(), before + 1);
    {
        const auto state = token_->state().Lock();
        for (auto& [id, pair] : state->keys) pair.spki = "no key";
    }
    gate->Open();
    EXPECT_EQ(made.get()->result, 4U);
    EXPECT_EQ(ObjectsOnToken(), before);
}

TEST_F(CommandsTest, SizesAndHashesOfRequests) {
    using Numbers = std::vector<std::uint32_t>;
    const Numbers digests{0x20000, 0x40000, 0x90000, 0xA0000, 0xB0000};
    token_->SetKeyGeneration({{PKI_KEY_RSA, 512, 4096},
                              {PKI_KEY_RSA, 256, 511},
                              {PKI_KEY_DSA, 512, 1024},
                              {270, 1, 9999},
                              {271, 1, 9999},
                              {272, 1, 9999},
                              {14, 7, 8},
                              {PKI_KEY_EC, 112, 521}},
                             digests);
    const struct {
        Numbers sizes;
        Numbers hashes;
    } expected[] = {
        {{512, 1024, 2048, 4096}, {0x20000, 0x40000}},
        {{256, 511}, {0x20000, 0x40000}},
        {{512, 1024}, {0x20000}},
        {{512}, {0x90000}},
        {{512}, {0xA0000}},
        {{1024}, {0xB0000}},
        {{7, 8}, {}},
        {{112, 521}, {0x20000, 0x40000}},
    };
    const auto kinds = manager().RequestMechanisms(token_->Info());
    ASSERT_EQ(kinds.value().size(), std::size(expected));
    for (std::size_t i = 0; i < kinds->size(); ++i) {
        EXPECT_EQ((*kinds)[i].keySizes, expected[i].sizes) << i;
        EXPECT_EQ((*kinds)[i].hashAlgs, expected[i].hashes) << i;
    }
}

TEST_F(CommandsTest, DownloadedCrlsAreListedLastAndDeletedFirst) {
    const CM::CrlRef same = X509CertFile(crl_, "").crls.at(0);
    same->token = token_->Info();
    same->uri = "http://127.0.0.1/crl";
    {
        const vpnfc::ObjectLock lock(CM::g_crl_db_lock);
        CM::g_crl_db.emplace(&same->uri, same);
    }
    const auto both = manager().ListCrls().value();
    ASSERT_EQ(both.size(), 2U);
    EXPECT_TRUE(!both[0].downloaded && both[1].downloaded);
    EXPECT_TRUE(manager().DeleteCrl(both[0].token, both[0].info));
    const auto left = manager().ListCrls().value();
    EXPECT_TRUE(left.size() == 1 && !left[0].downloaded);
    EXPECT_TRUE(manager().DeleteCrl(both[0].token, both[0].info));
    EXPECT_TRUE(manager().ListCrls()->empty());
}

TEST_F(CommandsTest, TwoClientsDeleteTheSame) {
    const auto second = Connect();
    for (const CertSelector selector : {CertSelector::kPersonal, CertSelector::kTrusted, CertSelector::kOther}) {
        for (const ListedCert& cert : List(selector)) {
            auto one =
                std::async(std::launch::async, [&] { return manager().DeleteCertificate(cert.token, cert.info); });
            EXPECT_TRUE(Manager(*second).DeleteCertificate(cert.token, cert.info));
            EXPECT_TRUE(one.get());
        }
        EXPECT_TRUE(List(selector).empty());
    }
    EXPECT_EQ(token_->CertObjects().size(), 1U);  // the intermediate
    const auto crl = manager().ListCrls()->at(0);
    const auto key = manager().ListPresharedKeys()->at(0);
    auto one = std::async(std::launch::async, [&] {
        return manager().DeleteCrl(crl.token, crl.info) && manager().DeletePresharedKey(key.token, key.name);
    });
    EXPECT_TRUE(Manager(*second).DeletePresharedKey(key.token, key.name));
    EXPECT_TRUE(Manager(*second).DeleteCrl(crl.token, crl.info));
    EXPECT_TRUE(one.get());
    EXPECT_TRUE(manager().ListCrls()->empty() && manager().ListPresharedKeys()->empty());
}

}  // namespace
}  // namespace bridge_test
