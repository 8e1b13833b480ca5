// Tokens that vanish, fail, or never answer.

#include "platform/tokens/attributes.h"
#include "platform/tokens/mechanisms.h"
#include "platform/tokens/registry.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using PKCS11::TokenSession;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

class Trouble : public TokenTest {
  protected:
    Trouble() {
        settings_.call_limit = milliseconds(1000);
        StartForward();
        token_ = NewToken("one");
        Import(token_.info, PKI_KEY_ED25519, key_, "id");
        signature_ = test_pki::SignData(key_, {}, "data");
    }

    bool Sign(TokenSession& session) {
        std::string signature;
        return session.Sign(PKI_KEY_ED25519, "id", "data", signature) &&
               test_pki::VerifyData(key_, {}, "data", signature);
    }
    bool Verify(TokenSession& session) {
        return session.Verify(PKI_KEY_ED25519, test_pki::Spki(key_), "data", signature_);
    }
    bool VerifyAnew() {
        TokenSession session(token_.info);
        return Verify(session);
    }
    static bool Enumerate(TokenSession& session) {
        std::list<PKCS11::CertObject> certificates;
        return session.EnumCertificates(certificates);
    }
    static void Look(int times = 3) {
        for (int i = 0; i < times; ++i) PKCS11::Manager::Instance().ReloadTokensContent(1);
    }

    const test_pki::Key key_ = test_pki::MakeKey(test_pki::KeyType::kEd25519);
    std::string signature_;
    TestToken token_;
};

TEST_F(Trouble, RemovalAndInsertionAreSeenAtOnce) {
    // The interval of the settings' default, with and without events from the module.
    settings_.poll_interval = milliseconds(500);
    Apply();
    for (const char* events : {"ghost", "no-events"}) {
        SCOPED_TRACE(events);
        reports_.Clear();
        for (const bool out : {true, false}) {
            const auto begin = steady_clock::now();
            SetAndWait({events, out ? "hide one" : "ghost"}, out ? "removed one" : "inserted one");
            EXPECT_EQ(IsListed("one"), !out);
            EXPECT_LT(steady_clock::now() - begin, milliseconds(1500));
        }
        for (const char* once : {"removed one", "inserted one", "log 200", "log 201"}) {
            EXPECT_EQ(reports_.Count(once), 1U) << once;
        }
    }
}

// A token taken out and put back between two calls: the old sessions and keys are worth nothing, but what needs no login
// goes on.
TEST_F(Trouble, ATokenPutBackIsUsedAgain) {
    TokenSession verifier(token_.info);
    TokenSession signer(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(Verify(verifier) && Sign(signer));
    SetAndWait({"hide one"}, "removed one");
    EXPECT_FALSE(Verify(verifier));
    EXPECT_FALSE(Sign(signer));
    EXPECT_FALSE(TokenSession(token_.info).opened());
    SetAndWait({}, "inserted one", 2);
    EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPrivate).opened()) << "the login went with the token";

    // Between two polls, so that nobody noticed.
    settings_.poll_interval = milliseconds(60000);
    Apply();
    control_.Set({"no-events"});
    TokenSession anew(token_.info);
    ASSERT_TRUE(Verify(anew));
    control_.Set({"no-events", "hide one"});
    EXPECT_FALSE(Verify(anew)) << "it is out";
    control_.Set({"no-events"});
    EXPECT_TRUE(WaitUntilListed("one"));
    EXPECT_TRUE(VerifyAnew());
    ASSERT_EQ(LogIn(token_), tokens::PinResult::kDone);
    TokenSession private_again(token_.info, TokenSession::kPrivate);
    EXPECT_TRUE(Sign(private_again));
}

// Sessions that died are replaced without the caller noticing, once.
TEST_F(Trouble, DeadSessionsAreReplaced) {
    const std::pair<const char*, bool> cases[] = {
        {"fail C_VerifyInit CKR_SESSION_HANDLE_INVALID times 1", true},
        {"fail C_Verify CKR_DEVICE_REMOVED times 1", true},
        {"fail C_VerifyInit CKR_SESSION_CLOSED times 2", false},
        {"fail C_VerifyInit CKR_KEY_HANDLE_INVALID times 1", true},
        {"fail C_VerifyInit CKR_OBJECT_HANDLE_INVALID times 2", false},
    };
    for (const auto& [directive, works] : cases) {
        ErrorLog errors;
        TokenSession session(token_.info, TokenSession::kPublic, nullptr, &errors);
        ASSERT_TRUE(Verify(session));
        control_.Set({directive});
        EXPECT_EQ(Verify(session), works) << directive;
        EXPECT_EQ(errors.errors.size(), works ? 0U : 1U) << directive;
        control_.Set({});
        EXPECT_TRUE(Verify(session)) << "afterwards";
    }
}

// Trouble with the device is logged once a call, with the function and the name of the CK_RV.
TEST_F(Trouble, DeviceErrorsAreReported) {
    const std::pair<const char*, std::function<bool(TokenSession&)>> cases[] = {
        {"C_SignInit CKR_DEVICE_MEMORY", [&](TokenSession& s) { return Sign(s); }},
        {"C_Sign CKR_DEVICE_ERROR", [&](TokenSession& s) { return Sign(s); }},
        {"C_Verify CKR_DEVICE_ERROR", [&](TokenSession& s) { return Verify(s); }},
        {"C_FindObjects CKR_DEVICE_ERROR", Enumerate},
        {"C_FindObjectsInit CKR_DEVICE_ERROR", Enumerate},
        {"C_GetAttributeValue CKR_DEVICE_ERROR", Enumerate},
        {"C_Digest CKR_FUNCTION_FAILED",
         [out = std::string()](TokenSession& s) mutable { return s.Digest(PKI_HASH_SHA256, "data", out); }},
        {"C_SeedRandom CKR_RANDOM_SEED_NOT_SUPPORTED", [](TokenSession& s) { return s.SeedRandom("seed"); }},
        {"C_GenerateKeyPair CKR_DEVICE_ERROR",
         [](TokenSession& s) { return s.GenerateKeyPair(PKI_KEY_EC, 256, "x", false); }},
        {"C_CreateObject CKR_TOKEN_WRITE_PROTECTED", [](TokenSession& s) { return s.CreateCRLObject("x", "crl"); }},
        {"C_DestroyObject CKR_DEVICE_ERROR", [](TokenSession& s) { return s.DeletePrivKeyObject("id"); }},
    };
    for (const auto& [error, work] : cases) {
        SCOPED_TRACE(error);
        ErrorLog errors;
        TokenSession session(token_.info, TokenSession::kPrivate, nullptr, &errors);
        control_.Set({std::string("fail ") + error});
        EXPECT_FALSE(work(session));
        EXPECT_EQ(errors.errors, std::vector<std::string>{std::string("one ") + error});
        control_.Set({});
        EXPECT_TRUE(Verify(session)) << "the session is still good";
    }
    // Without a logger of its own the event log hears of it.
    TokenSession session(token_.info, TokenSession::kPrivate);
    control_.Set({"fail C_Sign CKR_DEVICE_ERROR"});
    EXPECT_FALSE(Sign(session));
    EXPECT_EQ(reports_.Count("C_Sign failed: CKR_DEVICE_ERROR"), 1U);
}

// A module without an open session for us: the session does not open, and that is not for want of a login.
TEST_F(Trouble, SessionsThatDoNotOpenSayWhy) {
    TokenSession keeper(token_.info);
    TokenSession another(token_.info);
    control_.Set({"fail C_OpenSession CKR_SESSION_COUNT"});
    ErrorLog errors;
    std::vector<std::unique_ptr<TokenSession>> sessions;
    do {
        sessions.push_back(std::make_unique<TokenSession>(token_.info, TokenSession::kPublic, nullptr, &errors));
    } while (sessions.back()->opened());
    EXPECT_FALSE(sessions.back()->loginFailed());
    EXPECT_EQ(errors.errors, std::vector<std::string>{"one C_OpenSession CKR_SESSION_COUNT"});
}

TEST_F(Trouble, WhatWasReadBeforeTheTokenFailedIsKept) {
    const test_pki::Cert cert = test_pki::MakeCa("CN=CA");
    TokenSession session(token_.info, TokenSession::kPrivate);
    for (const char* id : {"a", "b"}) {
        ASSERT_TRUE(session.CreateCertObject({.id = id, .value = cert.der}, cert.subject_der));
    }
    ASSERT_TRUE(Enumerate(session));  // which objects are certificates is remembered
    control_.Set({"fail C_GetAttributeValue CKR_DEVICE_ERROR skip 2"});  // the key, and a certificate
    std::list<PKCS11::CertObject> certificates;
    EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPrivate).EnumCertificates(certificates));
    EXPECT_EQ(certificates.size(), 1U);
}

TEST_F(Trouble, AKeyThatCouldNotBeReadIsNotSaidToBeAbsent) {
    TokenSession session(token_.info);
    const auto found = [&](const std::string& spki) {
        return std::pair{session.ContainPubKeyObject(spki), session.keyLookUpFailed()};
    };
    control_.Set({"fail C_GetAttributeValue CKR_DEVICE_ERROR times 1"});
    EXPECT_EQ(found(test_pki::Spki(key_)), std::pair(false, true));
    EXPECT_EQ(found("no key"), std::pair(false, false));
    EXPECT_EQ(found(test_pki::Spki(key_)), std::pair(true, false));
}

TEST_F(Trouble, SlotsHaveALimit) {
    SetAndWait({"slots 2000"}, "forward: has more than 1024 slots with a token; the others are left out");
    Look();
    EXPECT_TRUE(IsListed("one"));
    EXPECT_EQ(reports_.Count("more than 1024 slots"), 1U);
}

// Sessions of a token that is gone end, whoever still has them, and whoever drops them does not wait for that.
TEST_F(Trouble, SessionsDoNotOutliveTheirToken) {
    const tokens::TokenPtr token = tokens::Registry::Instance().Find(token_.info.id);
    tokens::SessionPtr given_back;
    tokens::SessionPtr watching;
    ASSERT_TRUE(token->Open(given_back).ok());
    ASSERT_TRUE(token->Open(watching).ok());
    SetAndWait({"hide one"}, "removed one");
    control_.Set({"hide one", "hang C_CloseSession"});
    const std::weak_ptr<tokens::Session> given_back_watch = given_back;
    const auto begin = steady_clock::now();
    token->GiveBack(std::move(given_back));
    token->SetWatchSession(std::move(watching));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(2000));
    EXPECT_TRUE(given_back_watch.expired());
    EXPECT_EQ(token->TakeIdle(), nullptr);
    EXPECT_EQ(token->watch_session(), nullptr);
    EXPECT_EQ(token->Open(watching).rv, CKR_DEVICE_REMOVED);
}

TEST_F(Trouble, OfTwoTokensWithOneIdentifierOneIsShown) {
    NewToken("two");
    const auto slot = [] { return ListedTokens().size() == 1 ? ListedTokens()[0].slotDescription : "none"; };
    const std::string first = ListedTokens().at(0).slotDescription;
    const std::vector<std::string> posing = {"trace C_OpenSession", "pose two one"};
    SetAndWait(posing, "is left out");
    EXPECT_EQ(reports_.Count("removed two"), 1U);
    const int sessions = control_.Calls("C_OpenSession");
    Look();
    EXPECT_EQ(reports_.Count("is left out"), 1U);
    EXPECT_EQ(control_.Calls("C_OpenSession"), sessions) << "it is not looked at as a new one each time";
    EXPECT_EQ(slot(), first);

    reports_.Clear();
    SetAndWait({"pose two one", "hide one"}, "inserted one");
    const std::vector<std::string> reports = reports_.All();
    EXPECT_LT(std::find(reports.begin(), reports.end(), "removed one"),
              std::find(reports.begin(), reports.end(), "inserted one"));
    const std::string second = slot();
    EXPECT_TRUE(second != first && second != "none");
    control_.Set(posing);
    ASSERT_TRUE(reports_.WaitFor("is left out")) << "who was there first is shown";
    EXPECT_EQ(slot(), second);
    control_.Set({});
    EXPECT_TRUE(WaitUntilListed("two") && WaitUntilListed("one"));
}

// The same token behind two providers: a copy of the forwarding module stands on the same SoftHSM2.
TEST_F(Trouble, TheSameTokenOfAnotherProviderStandsIn) {
    const auto provider = [] { return ListedTokens().size() == 1 ? ListedTokens()[0].providerName : "none"; };
    const std::filesystem::path copy = directory_ / "second.so";
    std::filesystem::copy_file(FORWARD_PKCS11_PATH, copy);
    const forward::Control control(directory_ / "second");
    settings_.providers.push_back({.name = "second", .module_path = copy, .init_args = control.InitArgs()});
    Apply();
    EXPECT_EQ(reports_.Count("provider second) in slot"), 1U);
    EXPECT_EQ(reports_.Count("provider second ready 0"), 1U);
    EXPECT_EQ(provider(), "forward");

    SetAndWait({"hang C_GetSlotList"}, "inserted one", 2);
    EXPECT_EQ(reports_.Count("removed one"), 1U);
    EXPECT_EQ(provider(), "second");
    EXPECT_TRUE(VerifyAnew());

    SetAndWait({}, "provider forward) in slot");
    EXPECT_EQ(provider(), "second");
    settings_.providers.pop_back();
    Apply();
    EXPECT_EQ(reports_.Count("removed one"), 2U);
    ASSERT_TRUE(reports_.WaitFor("inserted one", 3));
    EXPECT_EQ(provider(), "forward");
}

/// Two providers: one that hangs at will, and the trust module.
class Hanging : public Trouble {
  protected:
    Hanging() {
        settings_.providers.push_back({.name = "trust", .module_path = TRUST_MODULE_PATH});
        Apply();
        other_ = ListedTokens().back();
        EXPECT_EQ(other_.providerName, "trust");
    }
    void ExpectOthersGoOn() {
        EXPECT_TRUE(IsListed(other_.label));
        TokenSession session(other_, TokenSession::kPrivate);  // it needs no login
        EXPECT_TRUE(Enumerate(session)) << testing::PrintToString(reports_.All());
    }

    PKCS11::TokenInfo other_;
};

TEST_F(Hanging, OneCallThatHangsTakesItsProviderOutOnly) {
    const std::pair<std::string, std::function<bool(TokenSession&)>> cases[] = {
        {"C_Sign", [&](TokenSession& s) { return Sign(s); }},
        {"C_FindObjects", Enumerate},
    };
    for (const auto& [function, work] : cases) {
        SCOPED_TRACE(function);
        reports_.Clear();
        TokenSession idle(token_.info);
        TokenSession session(token_.info, TokenSession::kPrivate);
        control_.Set({"hang " + function});
        const auto begin = steady_clock::now();
        EXPECT_FALSE(work(session));
        EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
        EXPECT_FALSE(IsListed("one"));
        EXPECT_FALSE(session.opened()) << "the session belongs to the call that hangs";
        EXPECT_FALSE(Verify(idle)) << "nobody else gets into the module";
        EXPECT_FALSE(TokenSession(token_.info).opened());
        EXPECT_TRUE(reports_.WaitFor("removed one"));
        EXPECT_EQ(reports_.Count(function + " does not return"), 1U);
        ExpectOthersGoOn();
        SetAndWait({}, "inserted one");
        EXPECT_TRUE(reports_.WaitFor("answers again"));
        TokenSession again(token_.info, TokenSession::kPrivate);
        EXPECT_TRUE(Sign(again)) << "still logged in";
    }
}

// The card of one reader may never answer while those of the others do.
TEST_F(Hanging, AModuleIsUsedAgainWhileACallStillHangs) {
    settings_.recovery_interval = milliseconds(50);
    Apply();
    control_.Set({"hang C_Sign"});
    TokenSession session(token_.info, TokenSession::kPrivate);
    EXPECT_FALSE(Sign(session));
    ASSERT_TRUE(reports_.WaitFor("removed one"));
    ASSERT_TRUE(reports_.WaitFor("inserted one", 2));
    EXPECT_TRUE(VerifyAnew());
}

TEST_F(Hanging, StoppingLeavesAHangingModuleBehind) {
    for (const std::string function : {"C_Sign", "C_GetSlotList", "C_Finalize"}) {
        SCOPED_TRACE(function);
        control_.Set({"hang " + function});
        TokenSession session(token_.info, TokenSession::kPrivate);
        if (function == "C_Sign") {
            EXPECT_FALSE(Sign(session));
        }
        const auto begin = steady_clock::now();
        tokens::Stop();
        EXPECT_LT(steady_clock::now() - begin, milliseconds(9000));
        EXPECT_TRUE(ListedTokens().empty());
        EXPECT_FALSE(Verify(session)) << "a session that outlives the manager fails";
        control_.Set({});
        Start();
        ASSERT_TRUE(WaitUntilListed("one"));
        ASSERT_EQ(LogIn(token_), tokens::PinResult::kDone);
    }
}

TEST_F(Hanging, AModuleThatDoesNotStartComesLater) {
    for (const char* trouble : {"hang C_Initialize", "fail C_Initialize CKR_DEVICE_ERROR"}) {
        SCOPED_TRACE(trouble);
        tokens::Stop();
        reports_.Clear();
        control_.Set({trouble});
        const auto begin = steady_clock::now();
        Start();
        EXPECT_LT(steady_clock::now() - begin, milliseconds(8000));
        ExpectOthersGoOn();
        EXPECT_FALSE(tokens::ListTokens().providers.at(0).available);
        EXPECT_TRUE(reports_.WaitFor("provider trust ready"));
        EXPECT_TRUE(reports_.WaitFor("provider forward failed 0"));
        EXPECT_EQ(reports_.Count("C_Initialize: CKR_DEVICE_ERROR"), *trouble == 'f' ? 1U : 0U);
        SetAndWait({}, "provider forward ready 1");
        EXPECT_TRUE(IsListed("one"));
    }
}

TEST_F(Trouble, ASlotThatFailsIsLoggedOnceAndHidesNoOther) {
    NewToken("two");
    reports_.Clear();
    // Whichever comes first.
    SetAndWait({"fail C_GetTokenInfo CKR_DEVICE_ERROR times 1"}, "C_GetTokenInfo failed: CKR_DEVICE_ERROR");
    Look(1);  // after the look that met the failure
    SetAndWait({"fail C_GetSlotList CKR_GENERAL_ERROR times 1"}, "C_GetSlotList failed: CKR_GENERAL_ERROR");
    Look(1);
    EXPECT_TRUE(IsListed("one") && IsListed("two"));
    EXPECT_EQ(reports_.Count("removed"), 0U) << "asked again before it counts as removed";
    control_.Set({"fail C_GetTokenInfo CKR_DEVICE_ERROR"});
    ASSERT_TRUE(WaitUntilListed("one", false));
    Look();
    EXPECT_LE(reports_.Count("C_GetTokenInfo failed"), 4U) << "once for each slot and trouble";
}

// Lists what stands for "no mechanism" and a digest, and more objects than there was room for.
TEST(LyingModule, IsNotBelieved) {
    CK_FUNCTION_LIST functions{};
    functions.C_GetMechanismList = [](CK_SLOT_ID, CK_MECHANISM_TYPE* types, CK_ULONG* count) -> CK_RV {
        *count = 2;
        if (types != nullptr) types[0] = CK_UNAVAILABLE_INFORMATION;
        if (types != nullptr) types[1] = CKM_SHA256;
        return CKR_OK;
    };
    functions.C_GetMechanismInfo = [](CK_SLOT_ID, CK_MECHANISM_TYPE, CK_MECHANISM_INFO* info) -> CK_RV {
        info->flags = CKF_DIGEST;
        return CKR_OK;
    };
    functions.C_FindObjectsInit = [](CK_SESSION_HANDLE, CK_ATTRIBUTE*, CK_ULONG) -> CK_RV { return CKR_OK; };
    functions.C_FindObjectsFinal = [](CK_SESSION_HANDLE) -> CK_RV { return CKR_OK; };
    functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE*, CK_ULONG room, CK_ULONG* found) -> CK_RV {
        *found = room + 1;
        return CKR_OK;
    };
    const tokens::Api api(&functions);
    tokens::MechanismList mechanisms;
    ASSERT_TRUE(tokens::MechanismList::Read(api, 0, mechanisms).ok());
    EXPECT_TRUE(mechanisms.Offers(PKI_HASH_SHA256));
    EXPECT_FALSE(mechanisms.Offers(PKI_KEY_RSA | PKI_HASH_SHA256));
    tokens::AttributeTemplate any;
    std::vector<CK_OBJECT_HANDLE> objects;
    EXPECT_EQ(tokens::FindObjects(api, 0, any, objects).rv, CKR_FUNCTION_FAILED) << "not a complete list";
}

}  // namespace
}  // namespace token_test
