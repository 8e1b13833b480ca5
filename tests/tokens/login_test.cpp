// Logging in: who, when, and above all how often.
#include "platform/tokens/registry.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using PKCS11::TokenSession;
using tokens::FewTries;
using tokens::PinResult;

class Logins : public TokenTest {
  protected:
    Logins() {
        StartForward();
        token_ = NewToken("token", false);
        control_.Set({"trace C_Login"});
    }
    PinResult LogInWith(const std::string& pin, FewTries few_tries = FewTries::kRefuse) {
        return tokens::Login(token_.info, Secret(pin), few_tries);
    }
    static bool IsLoggedIn() { return ListedTokens().at(0).loggedIn; }
    bool OpensPrivately() const { return TokenSession(token_.info, TokenSession::kPrivate).opened(); }
    /// Takes the token out and puts it back.
    void Reinsert() {
        SetAndWait({"trace C_Login", "hide token"}, "removed token");
        SetAndWait({"trace C_Login"}, "inserted token", 2);
    }

    TestToken token_;
};

TEST_F(Logins, PrivateSessionsNeedOne) {
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
    EXPECT_TRUE(OpensPrivately());
    EXPECT_EQ(LogIn(token_), PinResult::kDone) << "again";
    EXPECT_EQ(control_.Calls("C_Login"), 1);

    EXPECT_TRUE(tokens::Logout(token_.info));
    EXPECT_FALSE(IsLoggedIn());
    EXPECT_TRUE(reports_.WaitFor("login token seen out"));
    EXPECT_FALSE(OpensPrivately());
    EXPECT_TRUE(TokenSession(token_.info, TokenSession::kPrivate, &token_.pin).opened());
    EXPECT_TRUE(reports_.WaitFor("login token own in")) << "the module did it itself";
    EXPECT_TRUE(OpensPrivately()) << "the login stays";
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

// Not by the file that holds it, and not after a reinsertion: a new object stands for the token then, with the old
// memory.
TEST_F(Logins, AWrongPinInAFileIsTriedOnce) {
    const std::string wrong = RandomPin();
    AddPinFile("token", wrong);
    Apply();
    ASSERT_TRUE(reports_.WaitFor("wrong PIN"));
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(OpensPrivately());
    Apply();
    Reinsert();
    EXPECT_EQ(LogInWith(wrong), PinResult::kKnownWrong);
    EXPECT_EQ(control_.Calls("C_Login"), 1);
    EXPECT_EQ(LogInWith(token_.pin, FewTries::kTryAnyway), PinResult::kDone);
    ASSERT_TRUE(tokens::Logout(token_.info));
    EXPECT_EQ(LogInWith(wrong), PinResult::kKnownWrong) << "it is as wrong after a login";
}

// The user's PIN from a file, to come back after the security officer, goes the same way as any other.
TEST_F(Logins, ComingBackAfterTheSecurityOfficerTriesNoPinInVain) {
    const test_pki::Cert root = test_pki::MakeCa("CN=root");
    int before = 0;
    for (const bool failed_before : {true, false}) {  // else few tries are left
        SCOPED_TRACE(failed_before);
        settings_.pin_files.clear();
        AddPinFile("token", failed_before ? RandomPin() : token_.pin, 0600, false);
        Apply();
        for (int i = 0; i < 2; ++i) {
            control_.Set({"trace C_Login"});
            ASSERT_EQ(LogInWith(token_.pin, FewTries::kTryAnyway), PinResult::kDone);
            control_.Set({"trace C_Login", failed_before ? "" : "flags token 10000"});
            TokenSession session(token_.info, TokenSession::kPublic, &token_.so_pin);
            EXPECT_TRUE(session.CreateCertObject({.id = "root", .value = root.der, .trusted = true}, root.subject_der));
            EXPECT_FALSE(IsLoggedIn());
        }
        // The user, the officer, and the user from the file, over two trusted certificates.
        EXPECT_EQ(control_.Calls("C_Login") - before, failed_before ? 5 : 4);
        before = control_.Calls("C_Login");
    }
}

TEST_F(Logins, FewTriesLeftMeansNone) {
    // CKF_USER_PIN_COUNT_LOW, CKF_USER_PIN_FINAL_TRY, CKF_USER_PIN_LOCKED
    for (const auto& [flags, result] : {std::pair("10000", PinResult::kFewTriesLeft),
                                        {"20000", PinResult::kFewTriesLeft},
                                        {"40000", PinResult::kLocked}}) {
        control_.Set({"trace C_Login", std::string("flags token ") + flags});
        TokenSession session(token_.info, TokenSession::kPrivate, &token_.pin);
        EXPECT_FALSE(session.opened()) << flags;
        EXPECT_TRUE(session.loginFailed()) << flags;
        EXPECT_EQ(LogInWith(token_.pin), result) << flags;
        EXPECT_GT(reports_.Count(tokens::PinResultText(result)), 0U) << flags;
    }
    EXPECT_EQ(LogInWith(token_.pin, FewTries::kTryAnyway), PinResult::kLocked);
    EXPECT_EQ(control_.Calls("C_Login"), 0);
}

TEST_F(Logins, PinFilesLogInAtInsertionOrWhenNeeded) {
    AddPinFile("token", token_.pin, 0600, false);
    Apply();
    EXPECT_FALSE(IsLoggedIn());
    EXPECT_TRUE(OpensPrivately());
    EXPECT_TRUE(reports_.WaitFor("login token own in"));
    ASSERT_TRUE(tokens::Logout(token_.info));

    settings_.pin_files[0] = {.token = token_.info.serialNumber, .path = settings_.pin_files[0].path};
    Apply();
    EXPECT_TRUE(reports_.WaitFor("login token seen in")) << "the store has to look again";
    EXPECT_TRUE(IsLoggedIn());
    Reinsert();
    EXPECT_TRUE(IsLoggedIn());
}

TEST_F(Logins, UnsafePinFilesAreNotUsed) {
    const std::tuple<std::string, unsigned, const char*> cases[] = {
        {token_.pin, 0640, "can be read or written by others"},
        {token_.pin, 0602, "can be read or written by others"},
        {"", 0600, "has no PIN"},
        {std::string(300, '1'), 0600, "the first line has more than 255 bytes"},
    };
    for (const auto& [content, mode, reason] : cases) {
        settings_.pin_files.clear();
        reports_.Clear();
        AddPinFile("token", content, mode);
        Apply();
        EXPECT_FALSE(OpensPrivately()) << mode << reason;
        EXPECT_GE(reports_.Count(reason), 1U) << mode << reason;
    }
    settings_.pin_files = {{.token = "token", .path = (directory_ / "none").string()}};
    Apply();
    EXPECT_FALSE(OpensPrivately());
    EXPECT_EQ(control_.Calls("C_Login"), 0);
}

// The PIN of one of two tokens with the same label must not be tried on the other.
TEST_F(Logins, ASharedLabelNamesNoToken) {
    const TestToken twin = NewToken("token", false);
    const int calls = control_.Calls("C_Login");
    AddPinFile("token", token_.pin);
    Apply();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(OpensPrivately());
        PKCS11::Manager::Instance().ReloadTokensContent(1);
    }
    EXPECT_EQ(reports_.Count("another token has the same label"), 2U) << "once for each token, not at every look";
    // When the manager starts it sees the tokens one after the other.
    tokens::Stop();
    Start();
    EXPECT_EQ(control_.Calls("C_Login"), calls);
    settings_.pin_files[0].token = token_.info.serialNumber;
    Apply();
    EXPECT_TRUE(OpensPrivately());
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
    Import(token_.info, PKI_KEY_ED25519, test_pki::MakeKey(test_pki::KeyType::kEd25519), "id");
    ErrorLog errors;
    TokenSession session(token_.info, TokenSession::kPrivate, nullptr, &errors);
    std::string signature;
    ASSERT_TRUE(session.Sign(PKI_KEY_ED25519, "id", "data", signature));
    const auto log_out = [&] {
        tokens::SessionPtr other;
        ASSERT_TRUE(tokens::Registry::Instance().Find(token_.info.id)->Open(other).ok());
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

}  // namespace
}  // namespace token_test
