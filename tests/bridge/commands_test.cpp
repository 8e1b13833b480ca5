// The certificate commands through the socket: what they do, what malformed input does, and two clients at once.
#include <future>

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

using namespace certmgr_client;
using bridge::Error;
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
        return client_->Call(bridge::kGroupCertificates, command, input, reply) ? std::optional(reply) : std::nullopt;
    }
    std::size_t ObjectsOnToken() const {
        return token_->CertObjects().size() + token_->CrlObjects().size() + token_->PresharedKeyNames().size();
    }
    /// Sends a file; whether it holds that many certificates.
    bool Open(const std::string& content, std::size_t certs = 1, const SecretString& password = {}) {
        const auto file = manager().OpenFile(content, password);
        return file.has_value() && file->certs.size() == certs;
    }

    // Shared by all tests: making certificates is the costly part.
    static inline const test_pki::Cert root_ = test_pki::MakeCa("CN=Root, O=Test");
    static inline const test_pki::Cert issuing_ = test_pki::MakeCa("CN=Issuing, O=Test", &root_);
    static inline const test_pki::Cert leaf_ = test_pki::MakeCert({.subject = "CN=alice, O=Test",
                                                                   .key_usage = "digitalSignature",
                                                                   .crl_points = {{"URI:http://127.0.0.1:1/crl"}}},
                                                                  &issuing_);
    static inline const test_pki::Cert other_ = test_pki::MakeLeaf("CN=bob, O=Test", issuing_);
    static inline const std::string crl_ = test_pki::MakeCrl({}, root_);
    std::shared_ptr<vendor_host::Token> token_;
    std::unique_ptr<bridge::Client> client_;
};

/// The fields as a command stream carries them.
template <typename... Fields>
std::string Bytes(const Fields&... fields) {
    std::string bytes;
    CommandStreamOut out(bytes);
    const auto put = [&](const auto& field) {
        if constexpr (requires { sync(out, field); })
            sync(out, field);
        else
            out.fields(field);
    };
    (put(fields), ...);
    return bytes;
}

TEST_F(CommandsTest, ListsShowTheStore) {
    using Names = std::vector<std::string>;
    const auto personal = List(CertSelector::kPersonal);
    ASSERT_EQ(personal.size(), 2U);
    EXPECT_EQ(personal[0].info.subject + " on " + personal[0].token.label, "CN=alice, O=Test on card");
    EXPECT_EQ(personal[1].info.kind, kCertKindKeyPair);
    EXPECT_EQ(Subjects(CertSelector::kTrusted), Names{"CN=Root, O=Test"});
    EXPECT_EQ(Subjects(CertSelector::kIntermediate), Names{"CN=Issuing, O=Test"});
    EXPECT_EQ(Subjects(CertSelector::kOther), Names{"CN=bob, O=Test"});
    EXPECT_EQ(Raw(0, std::string("\4\0\0\0", 4)), "");
    CM::CertStorage::Instance().ClearAll();
    const std::string zero(4, '\0');
    for (const std::uint32_t command : {0U, 8U, 11U}) EXPECT_EQ(Raw(command, zero), zero);
    EXPECT_TRUE(manager().Reload());
    EXPECT_EQ(vendor_host::ReloadTokensContentCalls(), 1U);
    EXPECT_EQ(Subjects(CertSelector::kTrusted).size(), 1U);
}

TEST_F(CommandsTest, ShortInputIsMalformedAndChangesNothing) {
    ASSERT_TRUE(Open(other_.der));
    const std::size_t before = ObjectsOnToken();
    const PKCS11::TokenInfo token = token_->Info();
    const CertInfo cert = Leaf().info;
    const CRLInfo crl = manager().ListCrls()->at(0).info;
    const CertRequestInfo request{.keyAlg = 4, .keyBits = 256, .hashAlg = 0x40000, .subject = "CN=new"};
    const std::string text = "text";
    const auto input = [](std::uint32_t command, const auto&... fields) {
        return std::pair(command, Bytes(fields...));
    };
    for (const auto& [command, whole] :
         {input(0, 0U), input(1, token, cert), input(2, text, text), input(3, token, 0U, 3U, false, text),
          input(4, token, 0U), input(5, token, cert, 3U, text, true, false), input(6, token), input(7, token, request),
          input(9, token, text, text), input(10, token, text), input(12, token, crl), input(13, token, cert),
          input(14, token, cert), input(15, token, cert, 0U)}) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            // The PIN of an import may be left out, whole; this certificate is on the token already.
            const bool good = command == 3 && length == whole.size() - 8;
            SCOPED_TRACE(std::to_string(command) + " cut at " + std::to_string(length));
            EXPECT_EQ(Raw(command, whole.substr(0, length)).has_value(), good);
            EXPECT_TRUE(good || client_->failure().code == Error::kMalformed) << client_->failure().text;
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
    const auto import = [&](std::uint32_t index, CertImportMode mode = kImportOther) {
        return manager().ImportCertificate(token, index, {.mode = mode});
    };
    EXPECT_EQ(import(0), 3U);
    EXPECT_EQ(manager().ImportCrl(token, 0), 2U);
    const auto file = manager().OpenFile(bundle, SecretString());
    ASSERT_TRUE(file.has_value() && file->certs.size() == 2);
    const std::uint32_t ca = file->certs[0].info.isCA ? 0 : 1;  // a set: in whatever order
    const std::uint32_t leaf = 1 - ca;
    EXPECT_EQ(file->certs[leaf].info.subject, "CN=carol");
    EXPECT_EQ(file->certs[ca].tokens, std::vector<std::uint32_t>{0});
    EXPECT_EQ(file->tokens.at(0).label, "card");
    EXPECT_EQ(import(2), 3U);
    EXPECT_EQ(manager().ImportCrl(token, 1), 2U);
    EXPECT_EQ(Manager(*Connect()).ImportCertificate(token, 0, {}), 3U);  // another client's file is not this one's
    EXPECT_EQ(import(leaf), 0U);
    EXPECT_EQ(client_->Wait(test_support::kWaitLimit).value().code, bridge::kNotifyCertListChanged);
    EXPECT_EQ(import(leaf), 1U);
    EXPECT_EQ(import(ca, kImportTrusted), 0U);
    EXPECT_EQ(manager().ImportCrl(token, 0), 0U);
    EXPECT_EQ(Subjects(CertSelector::kTrusted).size(), 2U);
    EXPECT_EQ(manager().ListCrls()->size(), 2U);

    // Another file takes its place, an unreadable one, too.
    EXPECT_EQ(manager().OpenFile(crl_, SecretString())->crls.size(), 1U);
    EXPECT_EQ(import(0), 3U);
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
        ASSERT_TRUE(Open(file->bytes.get(), 1, password));
        ASSERT_EQ(manager().ImportCertificate(Leaf().token, 0, {.mode = kImportPersonal, .exportable = exportable}),
                  0U);
        EXPECT_EQ(export_key(Leaf())->result, exportable ? 1U : 5U);
    }
}

// A token that wants a login for what is public gets private sessions, any other none.
TEST_F(CommandsTest, TheTokenSaysWhoWritesPublicObjects) {
    for (const bool login : {false, true}) {
        const test_pki::Cert carol = test_pki::MakeLeaf(login ? "CN=carol" : "CN=dave", root_);
        ASSERT_TRUE(Open(carol.der));
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
        EXPECT_TRUE(listener.ExecCommand(session, 3, Bytes(token_->Info(), 0U, 3U, false), output));
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
    for (const auto& token : {token_, second}) {
        token->EditInfo([](PKCS11::TokenInfo& info) { info.holdsTrusted = false; });
    }
    EXPECT_FALSE(CM::ImportCertsFromFile(ca.der, "", &report));
    second->EditInfo([](PKCS11::TokenInfo& info) { info.holdsTrusted = true; });
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
    for (const std::uint32_t mode : {0U, 1U, 2U}) {  // nobody is at the CRL's address
        const auto verdict = manager().VerifyCertificate(leaf.token, leaf.info, mode);
        EXPECT_EQ(verdict.value().good, mode != 1) << verdict->text;
    }
    const SecretString cut(std::string("a\0b", 3));
    const std::tuple<ExportOptions, std::uint32_t, std::size_t> exports[] = {{{.format = 0}, 1, 1},
                                                                             {{.format = 2, .with_chain = true}, 1, 3},
                                                                             {{.format = 3, .password = &cut}, 3, 0},
                                                                             {{.format = 4}, 4, 0}};
    for (const auto& [options, result, certs] : exports) {
        const auto made = manager().ExportCertificate(leaf.token, leaf.info, options);
        EXPECT_EQ(made->result, result) << options.format;
        EXPECT_TRUE(Open(made->bytes.get(), certs)) << options.format;
    }
    CertInfo unknown = leaf.info;
    unknown.serialNumber = "00";
    EXPECT_FALSE(manager().CertificateDetails(leaf.token, unknown)->found);
    EXPECT_FALSE(manager().BuildChain(leaf.token, unknown)->found);
    EXPECT_EQ(manager().VerifyCertificate(leaf.token, unknown, 0)->text, "Certificate not found");
    EXPECT_EQ(manager().ExportCertificate(leaf.token, unknown, {})->result, 2U);
}

TEST_F(CommandsTest, ThatAPresharedKeyIsRefusedIsTold) {
    token_->Fail(vendor_host::Op::kCreatePresharedKey, 1);
    for (const bool made : {false, true}) {
        const SecretString value(std::string("value"));
        EXPECT_EQ(manager().CreatePresharedKey(token_->Info(), "branch", value), made);
        EXPECT_EQ(manager().ListPresharedKeys()->size(), made ? 2U : 1U);
    }
}

TEST_F(CommandsTest, ARequestWhosePublicKeyIsNoneLeavesNoKey) {
    const std::size_t before = ObjectsOnToken();
    const auto gate = std::make_shared<vendor_host::Gate>();
    token_->Block(vendor_host::Op::kGetPublicKey, gate);
    auto made = std::async(std::launch::async, [&] {
        const CertRequestInfo wanted{.keyAlg = 4, .keyBits = 256, .hashAlg = 0x40000, .subject = "CN=x"};
        return manager().MakeRequest(token_->Info(), wanted);
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
    // What the token says that it makes, and what is offered of it.
    const std::tuple<PKCS11::KeyPairGenMechanism, Numbers, Numbers> cases[] = {
        {{PKI_KEY_RSA, 512, 4096}, {512, 1024, 2048, 4096}, {0x20000, 0x40000}},
        {{PKI_KEY_RSA, 256, 511}, {256, 511}, {0x20000, 0x40000}},
        {{PKI_KEY_DSA, 512, 1024}, {512, 1024}, {0x20000}},
        {{270, 1, 9999}, {512}, {0x90000}},
        {{271, 1, 9999}, {512}, {0xA0000}},
        {{272, 1, 9999}, {1024}, {0xB0000}},
        {{14, 7, 8}, {7, 8}, {}},
        {{PKI_KEY_EC, 112, 521}, {112, 521}, {0x20000, 0x40000}},
    };
    std::vector<PKCS11::KeyPairGenMechanism> all;
    for (const auto& [made, sizes, hashes] : cases) all.push_back(made);
    token_->SetKeyGeneration(all, digests);
    const auto kinds = manager().RequestMechanisms(token_->Info()).value();
    ASSERT_EQ(kinds.size(), std::size(cases));
    auto kind = kinds.begin();
    for (const auto& [made, sizes, hashes] : cases) {
        EXPECT_EQ(std::pair(kind->keySizes, kind->hashAlgs), std::pair(sizes, hashes)) << made.keyAlg;
        ++kind;
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
    for (const std::size_t left : {1U, 0U}) {
        EXPECT_TRUE(manager().DeleteCrl(both[0].token, both[0].info));
        const auto crls = manager().ListCrls().value();
        EXPECT_TRUE(crls.size() == left && (left == 0 || !crls[0].downloaded));
    }
}

TEST_F(CommandsTest, TwoClientsDeleteTheSame) {
    const auto second = Connect();
    const auto both = [&](const auto& change, const auto& other) {  // at once
        auto one = std::async(std::launch::async, [&] { return change(manager()); });
        EXPECT_TRUE(other(Manager(*second)));
        EXPECT_TRUE(one.get());
    };
    for (const CertSelector selector : {CertSelector::kPersonal, CertSelector::kTrusted, CertSelector::kOther}) {
        for (const ListedCert& cert : List(selector)) {
            const auto change = [&](Manager from) { return from.DeleteCertificate(cert.token, cert.info); };
            both(change, change);
        }
        EXPECT_TRUE(List(selector).empty());
    }
    EXPECT_EQ(token_->CertObjects().size(), 1U);  // the intermediate
    const auto crl = manager().ListCrls()->at(0);
    const auto key = manager().ListPresharedKeys()->at(0);
    const auto delete_crl = [&](Manager& from) { return from.DeleteCrl(crl.token, crl.info); };
    const auto delete_key = [&](Manager& from) { return from.DeletePresharedKey(key.token, key.name); };
    both([&](Manager from) { return delete_crl(from) && delete_key(from); },
         [&](Manager from) { return delete_key(from) && delete_crl(from); });
    EXPECT_TRUE(manager().ListCrls()->empty() && manager().ListPresharedKeys()->empty());
}

}  // namespace
}  // namespace bridge_test
