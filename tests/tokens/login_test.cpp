// Logging in: who, when, and above all how often.
#include <gtest/gtest.h>

#include "platform/tokens/registry.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using PKCS11::TokenSession;
using tokens::FewTries;
using tokens::PinResult;
using vpnfc::SecretString;

class Logins : public TokenTest {
  protected:
    Logins() {
        StartForward();
        token_ = NewToken("token", false);
        control_.Set({"trace C_Login"});
    }
    PinResult LogInWith(const std::string& pin, FewTries few_tries = FewTries::kRefuse) {
        return tokens::Login(token_.info, SecretString(std::string_view(pin)), few_tries);
    }
    bool IsLoggedIn() {
        for (const auto& token : PKCS11::Manager::Instance().EnumTokens()) {
            if (token.id == token_.info.id) return token.loggedIn;
        }
        return false;
    }

    TestToken token_;
};

TEST_F(Logins, PrivateSessionsNeedOne) {
    EXPECT_TRUE(token_.info.loginRequired);
    EXPECT_FALSE(token_.info.loggedIn);
    {
        TokenSession session(token_.info, TokenSession::kPrivate);
        EXPECT_FALSE(session.opened());
        EXPECT_TRUE(session.loginFailed());
        std::string signature;
        EXPECT_FALSE(session.Sign(PKI_KEY_RSA, "id", "hash", signature));
    }
    EXPECT_EQ(control_.Calls("C_Login"), 0);
    EXPECT_EQ(LogIn(token_), PinResult::kDone);
    EXPECT_TRUE(IsLoggedIn());
    EXPECT_TRUE(reports_.WaitFor("login token seen in"));
    EXPECT_TRUE(TokenSession(token_.info, TokenSession::kPrivate).opened());
    EXPECT_EQ(LogIn(token_), PinResult::kDone) << "again";
    EXPECT_EQ(control_.Calls("C_Login"), 1);

    EXPECT_TRUE(tokens::Logout(token_.info));
    EXPECT_FALSE(IsLoggedIn());
    EXPECT_TRUE(reports_.WaitFor("login token seen out"));
    EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPrivate).opened());
}

TEST_F(Logins, ASessionLogsInWithThePinItGets) {
    {
        TokenSession session(token_.info, TokenSession::kPrivate, &token_.pin);
        EXPECT_TRUE(session.opened());
    }
    EXPECT_TRUE(reports_.WaitFor("login token own in")) << "the module did it itself";
    EXPECT_TRUE(TokenSession(token_.info, TokenSession::kPrivate).opened()) << "the login stays";
}

// A wrong PIN is tried once, whoever comes with it and however often, until the token is another or the PIN is.
TEST_F(Logins, AWrongPinIsNeverTriedTwice) {
    const std::string wrong = RandomPin();
    for (int i = 0; i < 3; ++i) {
        TokenSession session(token_.info, TokenSession::kPrivate, &wrong);
        EXPECT_FALSE(session.opened());
        EXPECT_TRUE(session.loginFailed());
    }
    EXPECT_EQ(control_.Calls("C_Login"), 1);
    EXPECT_EQ(reports_.Count("wrong PIN"), 1U);
    EXPECT_EQ(reports_.Count("failed before"), 2U);
    EXPECT_EQ(LogInWith(wrong, FewTries::kTryAnyway), PinResult::kKnownWrong) << "not even when a person wants it";

    // SoftHSM2 says that few tries are left after the first failure: the right PIN is a person's to decide on.
    EXPECT_EQ(LogInWith(token_.pin), PinResult::kFewTriesLeft);
    EXPECT_EQ(control_.Calls("C_Login"), 1);
    EXPECT_EQ(LogInWith(token_.pin, FewTries::kTryAnyway), PinResult::kDone);
    EXPECT_EQ(control_.Calls("C_Login"), 2);
}

// A new object stands for the token then, with the old memory.
TEST_F(Logins, AWrongPinIsNotTriedAgainAfterReinsertion) {
    const std::string wrong = RandomPin();
    AddPinFile("token", wrong);
    Apply();
    ASSERT_TRUE(reports_.WaitFor("wrong PIN"));
    control_.Set({"trace C_Login", "hide token"});
    ASSERT_TRUE(reports_.WaitFor("removed token"));
    control_.Set({"trace C_Login"});
    ASSERT_TRUE(reports_.WaitFor("inserted token", 2));
    EXPECT_EQ(LogInWith(wrong), PinResult::kKnownWrong);
    EXPECT_EQ(control_.Calls("C_Login"), 1);
    EXPECT_EQ(LogInWith(token_.pin, FewTries::kTryAnyway), PinResult::kDone);
    ASSERT_TRUE(tokens::Logout(token_.info));
    EXPECT_EQ(LogInWith(wrong), PinResult::kKnownWrong) << "it is as wrong after a login";
}

// The user's PIN from a file, to come back after the security officer, goes the same way as any other.
TEST_F(Logins, ComingBackAfterTheSecurityOfficerTriesNoPinInVain) {
    struct {
        const char* what;
        bool wrong_pin;
        const char* flags;
        int logins;  // the user, the officer, and the user from the file, over two trusted certificates
    } const cases[] = {
        {"the PIN failed before", true, "trace C_Login", 5},
        {"few tries are left", false, "flags token 10000", 4},
    };
    const test_pki::Cert root = test_pki::MakeCa("CN=root");
    int before = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        settings_.pin_files.clear();
        AddPinFile("token", c.wrong_pin ? RandomPin() : token_.pin, 0600, false);
        Apply();
        for (int i = 0; i < 2; ++i) {
            control_.Set({"trace C_Login"});
            ASSERT_EQ(LogInWith(token_.pin, FewTries::kTryAnyway), PinResult::kDone);
            control_.Set({"trace C_Login", c.flags});
            TokenSession session(token_.info, TokenSession::kPublic, &token_.so_pin);
            EXPECT_TRUE(session.CreateCertObject({.id = "root", .value = root.der, .trusted = true}, root.subject_der));
            EXPECT_FALSE(IsLoggedIn());
        }
        EXPECT_EQ(control_.Calls("C_Login") - before, c.logins);
        before = control_.Calls("C_Login");
    }
}

TEST_F(Logins, FewTriesLeftMeansNone) {
    struct {
        const char* flags;
        PinResult result;
    } const cases[] = {
        {"10000", PinResult::kFewTriesLeft},  // CKF_USER_PIN_COUNT_LOW
        {"20000", PinResult::kFewTriesLeft},  // CKF_USER_PIN_FINAL_TRY
        {"40000", PinResult::kLocked},  // CKF_USER_PIN_LOCKED
    };
    for (const auto& c : cases) {
        control_.Set({"trace C_Login", std::string("flags token ") + c.flags});
        TokenSession session(token_.info, TokenSession::kPrivate, &token_.pin);
        EXPECT_FALSE(session.opened()) << c.flags;
        EXPECT_TRUE(session.loginFailed()) << c.flags;
        EXPECT_EQ(LogInWith(token_.pin), c.result) << c.flags;
        EXPECT_EQ(reports_.Count(tokens::PinResultText(c.result)) > 0, true) << c.flags;
    }
    EXPECT_EQ(control_.Calls("C_Login"), 0);
    control_.Set({"flags token 40000"});
    EXPECT_EQ(LogInWith(token_.pin, FewTries::kTryAnyway), PinResult::kLocked);
}

TEST_F(Logins, PinFilesLogInAtInsertionOrWhenNeeded) {
    AddPinFile("token", token_.pin, 0600, false);
    Apply();
    EXPECT_FALSE(IsLoggedIn());
    EXPECT_TRUE(TokenSession(token_.info, TokenSession::kPrivate).opened());
    EXPECT_TRUE(reports_.WaitFor("login token own in"));
    ASSERT_TRUE(tokens::Logout(token_.info));

    settings_.pin_files[0] = {.token = token_.info.serialNumber, .path = settings_.pin_files[0].path};
    Apply();
    EXPECT_TRUE(reports_.WaitFor("login token seen in")) << "the store has to look again";
    EXPECT_TRUE(IsLoggedIn());

    control_.Set({"hide token"});
    ASSERT_TRUE(reports_.WaitFor("removed token"));
    control_.Set({});
    ASSERT_TRUE(reports_.WaitFor("inserted token", 2));
    EXPECT_TRUE(IsLoggedIn());
}

TEST_F(Logins, UnsafePinFilesAreNotUsed) {
    struct {
        const char* what;
        std::string content;
        unsigned mode;
        const char* reason;
    } const cases[] = {
        {"readable by the group", token_.pin, 0640, "can be read or written by others"},
        {"writable by others", token_.pin, 0602, "can be read or written by others"},
        {"empty", "", 0600, "has no PIN"},
        {"too long", std::string(300, '1'), 0600, "has no PIN"},
    };
    for (const auto& c : cases) {
        settings_.pin_files.clear();
        reports_.Clear();
        AddPinFile("token", c.content, c.mode);
        Apply();
        TokenSession session(token_.info, TokenSession::kPrivate);
        EXPECT_FALSE(session.opened()) << c.what;
        EXPECT_TRUE(session.loginFailed()) << c.what;
        EXPECT_GE(reports_.Count(c.reason), 1U) << c.what;
    }
    settings_.pin_files = {{.token = "token", .path = (directory_ / "none").string()}};
    Apply();
    EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPrivate).opened());
    EXPECT_EQ(control_.Calls("C_Login"), 0);
}

TEST_F(Logins, AWrongPinInAFileIsTriedOnce) {
    AddPinFile("token", RandomPin());
    Apply();
    EXPECT_TRUE(reports_.WaitFor("wrong PIN"));
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPrivate).opened());
    Apply();
    PKCS11::Manager::Instance().ReloadTokensContent(1);
    EXPECT_EQ(control_.Calls("C_Login"), 1);
}

// The PIN of one of two tokens with the same label must not be tried on the other.
TEST_F(Logins, ASharedLabelNamesNoToken) {
    const TestToken twin = NewToken("token", false);
    ASSERT_NE(twin.info.id, token_.info.id);
    const int calls = control_.Calls("C_Login");
    AddPinFile("token", token_.pin);
    Apply();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPrivate).opened());
        PKCS11::Manager::Instance().ReloadTokensContent(1);
    }
    EXPECT_EQ(reports_.Count("another token has the same label"), 2U) << "once for each token, not at every look";
    // When the manager starts it sees the tokens one after the other.
    tokens::Stop();
    StartForward();
    EXPECT_EQ(PKCS11::Manager::Instance().EnumTokens().size(), 2U);
    EXPECT_EQ(control_.Calls("C_Login"), calls);
    settings_.pin_files[0].token = token_.info.serialNumber;
    Apply();
    EXPECT_TRUE(TokenSession(token_.info, TokenSession::kPrivate).opened());
    EXPECT_FALSE(TokenSession(twin.info, TokenSession::kPrivate).opened());
}

// Another token in the slot, which the manager has not noticed yet: the PIN is not for that one.
TEST_F(Logins, APinIsTriedOnItsTokenOnly) {
    NewToken("other", false);
    settings_.poll_interval = std::chrono::milliseconds(60000);
    Apply();
    const int calls = control_.Calls("C_Login");
    control_.Set({"trace C_Login", "no-events", "pose token other"});
    EXPECT_EQ(LogInWith(token_.pin), PinResult::kFailed);
    EXPECT_EQ(reports_.Count("C_GetTokenInfo failed: CKR_DEVICE_REMOVED"), 1U);
    EXPECT_EQ(control_.Calls("C_Login"), calls);
}

// Somebody else in the process logs the user out behind the manager's back.
TEST_F(Logins, ALoginThatWentAwayIsNoticedWhenSigning) {
    ASSERT_EQ(LogIn(token_), PinResult::kDone);
    const test_pki::Key key = test_pki::MakeKey(test_pki::KeyType::kEd25519);
    Import(token_.info, PKI_KEY_ED25519, key, "id");
    ErrorLog errors;
    TokenSession session(token_.info, TokenSession::kPrivate, nullptr, &errors);
    std::string signature;
    ASSERT_TRUE(session.Sign(PKI_KEY_ED25519, "id", "data", signature));
    const auto log_out = [&] {
        const tokens::TokenPtr token = tokens::Registry::Instance().Find(token_.info.id);
        tokens::SessionPtr other;
        ASSERT_TRUE(token->Open(other).ok());
        ASSERT_TRUE(other->api().Logout(other->handle()).ok());
    };
    log_out();
    EXPECT_FALSE(session.Sign(PKI_KEY_ED25519, "id", "data", signature)) << "no PIN to log in with";
    EXPECT_EQ(errors.errors, std::vector<std::string>{"token C_SignInit CKR_USER_NOT_LOGGED_IN"});
    EXPECT_TRUE(reports_.WaitFor("login token seen out"));

    AddPinFile("token", token_.pin);
    Apply();
    TokenSession again(token_.info, TokenSession::kPrivate);
    log_out();
    EXPECT_TRUE(again.Sign(PKI_KEY_ED25519, "id", "data", signature)) << "logged in anew with the PIN file";
}

TEST_F(Logins, PinsAreChanged) {
    const std::string next = RandomPin();
    const auto change = [&](const std::string& from, const std::string& to) {
        return tokens::ChangePin(token_.info, SecretString(std::string_view(from)), SecretString(std::string_view(to)));
    };
    EXPECT_EQ(change(token_.pin, next), PinResult::kDone);
    EXPECT_EQ(LogInWith(next), PinResult::kDone);
    ASSERT_TRUE(tokens::Logout(token_.info));
    EXPECT_EQ(change(token_.pin, next), PinResult::kWrongPin);
    EXPECT_EQ(change(token_.pin, next), PinResult::kKnownWrong);
    control_.Set({});
    const SecretString old{std::string_view(token_.pin)};
    EXPECT_EQ(tokens::ChangePin(token_.info, SecretString(std::string_view(next)), old, FewTries::kTryAnyway),
              PinResult::kDone);
    EXPECT_EQ(LogInWith(token_.pin), PinResult::kDone) << "it is the right one again";
    PKCS11::TokenInfo nowhere;
    EXPECT_EQ(tokens::ChangePin(nowhere, {}, {}), PinResult::kNotPresent);
    EXPECT_EQ(tokens::Login(nowhere, {}), PinResult::kNotPresent);
    EXPECT_FALSE(tokens::Logout(nowhere));
}

}  // namespace
}  // namespace token_test
