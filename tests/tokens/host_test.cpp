// The side of the hosting program: settings, new tokens, what a token says of itself.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/tokens/token.h"
#include "tests/support/process.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using vpnfc::SecretString;

class Host : public TokenTest {};

TEST_F(Host, WrongSettingsChangeNothing) {
    const std::string module = tokens::SoftHsmModulePath();
    struct {
        const char* what;
        tokens::Settings settings;
        const char* error;
    } const cases[] = {
        {"no name", {.providers = {{.module_path = module}}}, "has no name"},
        {"relative path", {.providers = {{.name = "a", .module_path = "libsofthsm2.so"}}}, "must be absolute"},
        {"same name",
         {.providers = {{.name = "a", .module_path = module}, {.name = "a", .module_path = "/b"}}},
         "are named a"},
        {"same module",
         {.providers = {{.name = "a", .module_path = module}, {.name = "b", .module_path = "/./" + module}}},
         "the same module"},
        {"PIN file without token", {.pin_files = {{.path = "/pin"}}}, "names no token"},
        {"relative PIN file", {.pin_files = {{.token = "t", .path = "pin"}}}, "must be absolute"},
        {"no interval", {.poll_interval = std::chrono::milliseconds(0)}, "poll interval"},
        {"no limit", {.call_limit = std::chrono::milliseconds(0)}, "call limit"},
    };
    std::string error;
    for (const auto& c : cases) {
        EXPECT_FALSE(tokens::Start(c.settings, error)) << c.what;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    EXPECT_FALSE(tokens::Apply(settings_, error)) << "not started";
    StartDirect();
    EXPECT_FALSE(tokens::Start(settings_, error)) << "started already";
    const TestToken token = NewToken("token");
    for (const auto& c : cases) EXPECT_FALSE(tokens::Apply(c.settings, error)) << c.what;
    EXPECT_TRUE(IsListed("token"));
}

TEST_F(Host, ModulesThatAreNoneAreLogged) {
    settings_.providers = {{.name = "missing", .module_path = (directory_ / "none.so").string()},
                           {.name = "text", .module_path = control_.path().string()}};
    std::string error;
    ASSERT_TRUE(tokens::Start(settings_, error)) << error;
    EXPECT_TRUE(reports_.WaitFor("provider missing failed 0"));
    EXPECT_TRUE(reports_.WaitFor("provider text failed 0"));
    EXPECT_EQ(reports_.Count("log 205"), 2U);
    PKCS11::TokenInfo token;
    const std::string pin = RandomPin();
    EXPECT_FALSE(tokens::InitToken("missing", "label", SecretString(std::string_view(pin)),
                                   SecretString(std::string_view(pin)), token, error));
    EXPECT_EQ(error, "the module: no answer");
    EXPECT_TRUE(PKCS11::Manager::Instance().EnumTokens().empty());
}

TEST_F(Host, NewSettingsKeepWhatStays) {
    StartDirect();
    const TestToken token = NewToken("token");
    PKCS11::TokenSession session(token.info, PKCS11::TokenSession::kPrivate);
    ASSERT_TRUE(session.opened());
    settings_.providers.push_back({.name = "trust", .module_path = TRUST_MODULE_PATH});
    Apply();
    EXPECT_GE(PKCS11::Manager::Instance().EnumTokens().size(), 2U);
    EXPECT_EQ(tokens::Providers().size(), 2U);
    EXPECT_TRUE(session.CreatePresharedKeyObject("psk", "secret")) << "the session and the login stayed";
    settings_.providers.erase(settings_.providers.begin());
    Apply();
    EXPECT_FALSE(IsListed("token"));
    EXPECT_FALSE(session.CreatePresharedKeyObject("another", "secret")) << "its provider is gone";
}

TEST_F(Host, TokensOfARemovedProviderAreReportedFirst) {
    StartDirect();
    NewToken("token", false);
    reports_.Clear();
    settings_.providers = {{.name = "trust", .module_path = TRUST_MODULE_PATH}};
    Apply();
    const std::vector<std::string> reports = reports_.All();
    ASSERT_GE(reports.size(), 3U);
    EXPECT_EQ(reports[0].find("log 201 "), 0U) << reports[0];
    EXPECT_EQ(reports[1], "removed token");
    EXPECT_EQ(reports_.Count("provider trust ready"), 1U);
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
    const TestToken token = NewToken("first", false);
    EXPECT_EQ(token.info.label, "first");
    EXPECT_EQ(token.info.manufacturer, "SoftHSM project");
    EXPECT_EQ(token.info.model, "SoftHSM v2");
    EXPECT_EQ(token.info.serialNumber.size(), 16U);
    EXPECT_EQ(token.info.slotDescription.find("SoftHSM slot ID"), 0U);
    EXPECT_EQ(token.info.providerName, "softhsm");
    EXPECT_NE(token.info.id, 0U);
    EXPECT_TRUE(token.info.loginRequired);
    EXPECT_TRUE(token.info.holdsTrusted);
    EXPECT_FALSE(token.info.loggedIn || token.info.writeProtected || token.info.hardware || token.info.removable ||
                 token.info.pinPad);
    const std::vector<PKCS11::ProviderInfo> providers = tokens::Providers();
    ASSERT_EQ(providers.size(), 1U);
    EXPECT_EQ(providers[0].name, "softhsm");
    EXPECT_EQ(providers[0].manufacturer, "SoftHSM");
    EXPECT_TRUE(providers[0].available);

    // The same label is no obstacle, neither is a restart.
    const TestToken second = NewToken("first", false);
    EXPECT_NE(second.info.id, token.info.id);
    tokens::Stop();
    EXPECT_TRUE(PKCS11::Manager::Instance().EnumTokens().empty());
    StartDirect();
    std::set<std::uint64_t> ids;
    for (const PKCS11::TokenInfo& info : PKCS11::Manager::Instance().EnumTokens()) ids.insert(info.id);
    EXPECT_EQ(ids, (std::set<std::uint64_t>{token.info.id, second.info.id}));
    EXPECT_EQ(reports_.Count("provider softhsm ready 2"), 1U);
}

TEST(TokenLog, LabelsCannotPassForOtherFacts) {
    EXPECT_EQ(tokens::Describe({.label = "a\" (serial 1)\\\n", .serialNumber = "2, 3", .providerName = "card"}),
              R"("a\" (serial 1)\\\0a" (serial 2\, 3, provider card))");
}

TEST_F(Host, InitTokenRefusesBadWishes) {
    StartDirect();
    const auto secret = [](const char* text) { return SecretString(std::string_view(text)); };
    PKCS11::TokenInfo token;
    std::string error;
    EXPECT_FALSE(tokens::InitToken("none", "label", secret("12345678"), secret("1234"), token, error));
    EXPECT_NE(error.find("no provider none"), std::string::npos);
    EXPECT_FALSE(tokens::InitToken("softhsm", "", secret("12345678"), secret("1234"), token, error));
    EXPECT_FALSE(tokens::InitToken("softhsm", std::string(33, 'l'), secret("12345678"), secret("1234"), token, error));
    EXPECT_FALSE(tokens::InitToken("softhsm", "label", secret(""), secret("1234"), token, error));
    EXPECT_FALSE(tokens::InitToken("softhsm", "label", secret("12345678"), secret(""), token, error));
    EXPECT_FALSE(tokens::InitToken("softhsm", "label", secret("1"), secret("1234"), token, error));
    EXPECT_NE(error.find("C_InitToken: CKR_PIN_"), std::string::npos) << error;
    EXPECT_TRUE(PKCS11::Manager::Instance().EnumTokens().empty());
}

TEST_F(Host, StateDirectoriesArePrivate) {
    std::string error;
    const std::string folder = (directory_ / "a" / "b").string();
    ASSERT_TRUE(tokens::PrepareSoftHsm(folder, error)) << error;
    struct stat status {};
    ASSERT_EQ(stat(folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
    ASSERT_EQ(stat((folder + "/tokens").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
    EXPECT_EQ(std::getenv("SOFTHSM2_CONF"), folder + "/softhsm2.conf");
    ASSERT_TRUE(tokens::PrepareSoftHsm(folder, error)) << "again";
    EXPECT_FALSE(tokens::PrepareSoftHsm("relative", error));
    EXPECT_FALSE(tokens::PrepareSoftHsm(control_.path().string() + "/below", error));
    EXPECT_FALSE(tokens::PrepareSoftHsm(control_.path().string(), error));
    EXPECT_NE(error.find("is not a directory"), std::string::npos) << error;

    // A folder that others can read stays as it is: they have seen what is in it.
    for (const char* part : {"", "/tokens"}) {
        ASSERT_EQ(chmod((folder + part).c_str(), 0750), 0);
        EXPECT_FALSE(tokens::PrepareSoftHsm(folder, error));
        EXPECT_EQ(error, folder + part + ": can be read or written by others; its mode must be 0700");
        ASSERT_EQ(stat((folder + part).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0750U);
        ASSERT_EQ(chmod((folder + part).c_str(), 0700), 0);
    }
}

}  // namespace
}  // namespace token_test
