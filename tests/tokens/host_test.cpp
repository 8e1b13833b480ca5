// The side of the hosting program: settings, new tokens, what a token says of itself.
#include "platform/tokens/token.h"
#include "tests/support/process.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

class Host : public TokenTest {};

TEST_F(Host, WrongSettingsChangeNothing) {
    const std::string module = tokens::SoftHsmModulePath();
    const std::pair<const char*, tokens::Settings> cases[] = {
        {"has no name", {.providers = {{.module_path = module}}}},
        {"must be absolute", {.providers = {{.name = "a", .module_path = "libsofthsm2.so"}}}},
        {"are named a", {.providers = {{.name = "a", .module_path = module}, {.name = "a", .module_path = "/b"}}}},
        {"same module",
         {.providers = {{.name = "a", .module_path = module}, {.name = "b", .module_path = "/." + module}}}},
        {"names no token", {.pin_files = {{.path = "/pin"}}}},
        {"must be absolute", {.pin_files = {{.token = "t", .path = "pin"}}}},
        {"poll interval", {.poll_interval = std::chrono::milliseconds(0)}},
        {"call limit", {.call_limit = std::chrono::milliseconds(0)}},
    };
    std::string error;
    EXPECT_FALSE(tokens::Apply(settings_, error)) << "not started";
    StartDirect();
    EXPECT_FALSE(tokens::Start(settings_, error)) << "started already";
    NewToken("token", false);
    for (const auto& [text, settings] : cases) {
        EXPECT_FALSE(tokens::Apply(settings, error)) << text;
        EXPECT_NE(error.find(text), std::string::npos) << error;
    }
    EXPECT_TRUE(IsListed("token"));
    tokens::Stop();
    EXPECT_FALSE(tokens::Start(cases[0].second, error));
}

TEST_F(Host, ModulesThatAreNoneAreLogged) {
    settings_.providers = {{.name = "missing", .module_path = (directory_ / "none.so").string()},
                           {.name = "text", .module_path = control_.path().string()}};
    Start();
    EXPECT_TRUE(reports_.WaitFor("provider missing failed 0"));
    EXPECT_TRUE(reports_.WaitFor("provider text failed 0"));
    EXPECT_EQ(reports_.Count("log 205"), 2U);
    PKCS11::TokenInfo token;
    std::string error;
    EXPECT_FALSE(tokens::InitToken("missing", "label", Secret(RandomPin()), Secret(RandomPin()), token, error));
    EXPECT_EQ(error, "the module: no answer");
}

TEST_F(Host, NewSettingsKeepWhatStays) {
    StartDirect();
    const TestToken token = NewToken("token");
    PKCS11::TokenSession session(token.info, PKCS11::TokenSession::kPrivate);
    settings_.providers.push_back({.name = "trust", .module_path = TRUST_MODULE_PATH});
    Apply();
    EXPECT_GE(ListedTokens().size(), 2U);
    EXPECT_EQ(reports_.Count("provider trust ready"), 1U);
    EXPECT_TRUE(session.CreatePresharedKeyObject("psk", "secret")) << "the session and the login stayed";
    settings_.providers.erase(settings_.providers.begin());
    reports_.Clear();
    Apply();
    EXPECT_FALSE(IsListed("token"));
    EXPECT_FALSE(session.CreatePresharedKeyObject("another", "secret")) << "its provider is gone";
    EXPECT_EQ(reports_.All().at(0).find("log 201 "), 0U);
    EXPECT_EQ(reports_.All().at(1), "removed token");
    reports_.Clear();
    tokens::Stop();
    EXPECT_TRUE(reports_.All().empty()) << "the end of the manager is no removal";
}

TEST_F(Host, AProgramMayEndWithoutStopping) {
    StartForward();
    NewToken("token", false);
    tokens::Stop();
    for (const char* how : {"idle", "hanging", "finalising", "callback"}) {
        SCOPED_TRACE(how);
        const test_support::ProcessResult result =
            test_support::Run({TOKEN_LEAVER_PATH, how, (directory_ / "state").string(), FORWARD_PKCS11_PATH,
                               (directory_ / "leaver").string()});
        EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
        EXPECT_FALSE(result.timed_out);
    }
}

TEST_F(Host, TokensDescribeThemselves) {
    StartDirect();
    EXPECT_EQ(reports_.Count("provider softhsm ready 0"), 1U) << "an uninitialised token is none";
    const PKCS11::TokenInfo token = NewToken("first", false).info;
    EXPECT_EQ(token.label + "/" + token.manufacturer + "/" + token.model + "/" + token.providerName,
              "first/SoftHSM project/SoftHSM v2/softhsm");
    EXPECT_EQ(token.serialNumber.size(), 16U);
    EXPECT_EQ(token.slotDescription.find("SoftHSM slot ID"), 0U);
    EXPECT_TRUE(token.id != 0 && token.loginRequired && token.holdsTrusted);
    EXPECT_FALSE(token.loggedIn || token.writeProtected || token.hardware || token.removable || token.pinPad);
    EXPECT_EQ(tokens::ListTokens().providers.at(0).manufacturer, "SoftHSM");

    // The same label is no obstacle, neither is a restart.
    const std::uint64_t second = NewToken("first", false).info.id;
    tokens::Stop();
    EXPECT_TRUE(ListedTokens().empty());
    StartDirect();
    std::set<std::uint64_t> ids;
    for (const PKCS11::TokenInfo& info : ListedTokens()) ids.insert(info.id);
    EXPECT_EQ(ids, (std::set<std::uint64_t>{token.id, second}));
    EXPECT_EQ(reports_.Count("provider softhsm ready 2"), 1U);
}

TEST(TokenLog, LabelsCannotPassForOtherFacts) {
    EXPECT_EQ(tokens::Describe({.label = "a\" (serial 1)\\\n", .serialNumber = "2, 3", .providerName = "card"}),
              R"("a\" (serial 1)\\\0a" (serial 2\, 3, provider card))");
}

TEST_F(Host, InitTokenRefusesBadWishes) {
    StartDirect();
    const std::array<std::string, 5> cases[] = {
        {"none", "label", "12345678", "1234", "no provider none"},
        {"softhsm", "", "12345678", "1234", "label"},
        {"softhsm", std::string(33, 'l'), "12345678", "1234", "label"},
        {"softhsm", "label", "", "1234", "PIN"},
        {"softhsm", "label", "12345678", "", "PIN"},
        {"softhsm", "label", "1", "1234", "C_InitToken: CKR_PIN_"},
    };
    for (const auto& [provider, label, so_pin, pin, expected] : cases) {
        PKCS11::TokenInfo token;
        std::string error;
        EXPECT_FALSE(tokens::InitToken(provider, label, Secret(so_pin), Secret(pin), token, error)) << expected;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
    EXPECT_TRUE(ListedTokens().empty());
}

TEST_F(Host, StateDirectoriesArePrivate) {
    std::string error;
    const std::string folder = (directory_ / "a" / "b").string();
    ASSERT_TRUE(tokens::PrepareSoftHsm(folder, error)) << error;
    EXPECT_EQ(std::getenv("SOFTHSM2_CONF"), folder + "/softhsm2.conf");
    ASSERT_TRUE(tokens::PrepareSoftHsm(folder, error)) << "again";
    EXPECT_FALSE(tokens::PrepareSoftHsm("relative", error));
    EXPECT_FALSE(tokens::PrepareSoftHsm(control_.path().string() + "/below", error));
    EXPECT_FALSE(tokens::PrepareSoftHsm(control_.path().string(), error));
    EXPECT_NE(error.find("is not a directory"), std::string::npos) << error;

    // A folder that others can read stays as it is: they have seen what is in it.
    for (const std::string& path : {folder, folder + "/tokens"}) {
        using std::filesystem::perms;
        EXPECT_EQ(std::filesystem::status(path).permissions(), perms::owner_all) << path;
        std::filesystem::permissions(path, perms::owner_all | perms::group_read);
        EXPECT_FALSE(tokens::PrepareSoftHsm(folder, error));
        EXPECT_EQ(error, path + ": can be read or written by others; its mode must be 0700");
        EXPECT_NE(std::filesystem::status(path).permissions(), perms::owner_all);
        std::filesystem::permissions(path, perms::owner_all);
    }
}

}  // namespace
}  // namespace token_test
