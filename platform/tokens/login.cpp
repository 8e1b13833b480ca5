#include "platform/tokens/login.h"

#include "platform/tokens/pins.h"
#include "platform/tokens/registry.h"
#include "platform/tokens/slot_scan.h"

namespace tokens {
namespace {

using vpnfc::SecretString;

/// A person types on a PIN pad.
constexpr unsigned kPinPadPatience = 6;
/// Writing PINs takes tokens long.
constexpr unsigned kPinChangePatience = 3;

struct PinOutcome {
    PinResult pin = PinResult::kFailed;
    Result result{};
};

/// Whether a PIN is tried at all: not when it failed on this token before, nor against the token's flags. An empty PIN
/// is typed on a PIN pad.
PinOutcome MayTry(const Token& token, CK_USER_TYPE user, const SecretString& pin, FewTries few_tries) {
    if (!pin.empty() && FailedPins::Instance().Contains(token.id(), user, pin)) return {PinResult::kKnownWrong};
    CK_TOKEN_INFO info{};
    const Result result = token.link()->api().GetTokenInfo(token.slot(), info);
    if (!result.ok()) return {PinResult::kFailed, result};
    // Another token stands in the slot, and nobody noticed yet.
    if (IdentifyToken(info) != token.id()) return {PinResult::kFailed, {"C_GetTokenInfo", CKR_DEVICE_REMOVED}};
    const bool officer = user == CKU_SO;
    const CK_FLAGS locked = officer ? CKF_SO_PIN_LOCKED : CKF_USER_PIN_LOCKED;
    const CK_FLAGS few =
        officer ? CKF_SO_PIN_COUNT_LOW | CKF_SO_PIN_FINAL_TRY : CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY;
    if ((info.flags & locked) != 0) return {PinResult::kLocked};
    if ((info.flags & few) != 0 && few_tries == FewTries::kRefuse) return {PinResult::kFewTriesLeft};
    return {PinResult::kDone};
}

PinOutcome FromRv(const Result& result) {
    switch (result.rv) {
        case CKR_OK:
            return {PinResult::kDone};
        case CKR_PIN_INCORRECT:
        case CKR_PIN_INVALID:
        case CKR_PIN_LEN_RANGE:
            return {PinResult::kWrongPin};
        case CKR_PIN_LOCKED:
            return {PinResult::kLocked};
        default:
            return {PinResult::kFailed, result};
    }
}

/// What the token answered to a PIN. One that it refused is remembered here, on the worker: whoever asked may have given
/// up waiting.
PinOutcome Judge(const Token& token, CK_USER_TYPE user, const SecretString& pin, const Result& result) {
    const PinOutcome outcome = FromRv(result);
    if (outcome.pin == PinResult::kWrongPin && !pin.empty()) FailedPins::Instance().Add(token.id(), user, pin);
    return outcome;
}

/// Tries a PIN that may be tried.
PinOutcome TryPin(Session& session, const Token& token, CK_USER_TYPE user, const SecretString& pin,
                  FewTries few_tries) {
    const PinOutcome may = MayTry(token, user, pin, few_tries);
    if (may.pin != PinResult::kDone) return may;
    Result result = session.api().Login(session.handle(), user, pin.get());
    if (result.rv == CKR_USER_ALREADY_LOGGED_IN && user == CKU_USER) result.rv = CKR_OK;
    return Judge(token, user, pin, result);
}

Result TakeOrOpen(Token& token, SessionPtr& session) {
    session = token.TakeIdle();
    return session != nullptr ? Result{} : token.Open(session);
}

/// Runs `work` on a session of the token, on a worker.
template <typename Outcome, typename Work>
Outcome OnWorker(const TokenPtr& token, unsigned patience, Outcome no_answer, Work work) {
    auto outcome = token->link()->runner().Run(
        [token, no_answer, work = std::move(work)]() mutable -> Outcome {
            const ModuleLink::Entry entry = token->link()->Enter();
            if (!entry) return no_answer;
            SessionPtr session;
            if (const Result result = TakeOrOpen(*token, session); !result.ok()) {
                no_answer.result = result;
                return no_answer;
            }
            Outcome done = work(*session);
            if (done.result.ok()) token->GiveBack(std::move(session));
            return done;
        },
        patience);
    return outcome.has_value() ? *outcome : no_answer;
}

constexpr Result kNoAnswer{"the module", kRvNoAnswer};

void Tell(const Token& token, const char* who, const PinOutcome& outcome) {
    if (outcome.pin == PinResult::kDone) return;
    if (outcome.pin == PinResult::kFailed) return LogTrouble(token.Info(), outcome.result);
    Log(kMsgTokenError, Describe(token.Info()) + ": " + who + " not logged in: " + PinResultText(outcome.pin));
}

std::unique_lock<std::shared_timed_mutex> LockLogin(Token& token) {
    return {token.login_lock(), token.link()->runner().limit()};
}

PinOutcome TryUserPin(const TokenPtr& token, const SecretString& pin, FewTries few_tries) {
    auto login = [token, few_tries, secret = SecretString(pin.get())](Session& session) {
        return TryPin(session, *token, CKU_USER, secret, few_tries);
    };
    const unsigned patience = pin.empty() ? kPinPadPatience : 1;
    return OnWorker(token, patience, PinOutcome{PinResult::kFailed, kNoAnswer}, std::move(login));
}

/// The parts of a change to the security officer and back, on a session.
struct OfficerOutcome {
    Result result{};
    PinOutcome pin{PinResult::kFailed, kNoAnswer};
    CreateOutcome work{};
    PinOutcome user{PinResult::kNotPresent};  // done: the user's login is as it was
};

struct OfficerCall {
    TokenPtr token;
    bool user_was_in;
    SecretString officer_pin;
    SecretString user_pin;
    std::function<CreateOutcome(Session&)> work;
    FewTries few_tries;

    OfficerOutcome operator()(Session& session) const {
        const Api& api = session.api();
        OfficerOutcome outcome;
        outcome.user = {PinResult::kDone};
        outcome.pin = MayTry(*token, CKU_SO, officer_pin, few_tries);
        if (outcome.pin.pin != PinResult::kDone) return outcome;
        if (user_was_in) {
            outcome.result = api.Logout(session.handle());
            if (!outcome.result.ok()) return outcome;
        }
        outcome.pin = Judge(*token, CKU_SO, officer_pin, api.Login(session.handle(), CKU_SO, officer_pin.get()));
        if (outcome.pin.pin == PinResult::kDone) {
            outcome.work = work(session);
            outcome.result = api.Logout(session.handle());
        }
        if (user_was_in) outcome.user = LogUserIn(session);
        return outcome;
    }

    PinOutcome LogUserIn(Session& session) const {
        if (user_pin.empty()) return {PinResult::kNotPresent};
        return TryPin(session, *token, CKU_USER, user_pin, FewTries::kRefuse);
    }
};

}  // namespace

PinResult LoginUser(const TokenPtr& token, const SecretString& pin, FewTries few_tries) {
    const auto lock = LockLogin(*token);
    if (!lock.owns_lock()) return PinResult::kFailed;
    if (token->login_state() == LoginState::kUser) return PinResult::kDone;
    const PinOutcome outcome = TryUserPin(token, pin, few_tries);
    if (outcome.pin == PinResult::kDone) token->SetLoginState(LoginState::kUser);
    Tell(*token, "user", outcome);
    return outcome.pin;
}

bool LogoutUser(const TokenPtr& token) {
    const auto lock = LockLogin(*token);
    if (!lock.owns_lock()) return false;
    const PinOutcome outcome = OnWorker(token, 1, PinOutcome{PinResult::kFailed, kNoAnswer}, [](Session& session) {
        Result result = session.api().Logout(session.handle());
        if (result.rv == CKR_USER_NOT_LOGGED_IN) result.rv = CKR_OK;
        return FromRv(result);
    });
    if (outcome.pin == PinResult::kDone) {
        token->SetLoginState(LoginState::kPublic);
    } else {
        LogTrouble(token->Info(), outcome.result);
    }
    return outcome.pin == PinResult::kDone;
}

PinResult ChangeUserPin(const TokenPtr& token, const SecretString& old_pin, const SecretString& new_pin,
                        FewTries few_tries) {
    const auto lock = LockLogin(*token);
    if (!lock.owns_lock()) return PinResult::kFailed;
    auto change = [token, few_tries, from = SecretString(old_pin.get()),
                   to = SecretString(new_pin.get())](Session& session) -> PinOutcome {
        const PinOutcome may = MayTry(*token, CKU_USER, from, few_tries);
        if (may.pin != PinResult::kDone) return may;
        const Result result = session.api().SetPIN(session.handle(), from.get(), to.get());
        // Here these two speak of the new PIN.
        if (result.rv == CKR_PIN_INVALID || result.rv == CKR_PIN_LEN_RANGE) return {PinResult::kFailed, result};
        if (result.ok()) FailedPins::Instance().Remove(token->id(), CKU_USER, to);
        return Judge(*token, CKU_USER, from, result);
    };
    const PinOutcome outcome =
        OnWorker(token, kPinChangePatience, PinOutcome{PinResult::kFailed, kNoAnswer}, std::move(change));
    if (outcome.pin == PinResult::kFailed) LogTrouble(token->Info(), outcome.result);
    return outcome.pin;
}

CreateOutcome RunAsSecurityOfficer(const TokenPtr& token, const SecretString& pin,
                                   std::function<CreateOutcome(Session&)> work, PinResult& pin_result,
                                   FewTries few_tries) {
    pin_result = PinResult::kFailed;
    const auto lock = LockLogin(*token);
    if (!lock.owns_lock()) return {kNoAnswer};
    const bool user_was_in = token->login_state() == LoginState::kUser;
    SecretString user_pin;
    if (user_was_in) Registry::Instance().FindPin(token->Info(), user_pin);
    OfficerOutcome outcome = OnWorker(
        token, 1, OfficerOutcome{kNoAnswer},
        OfficerCall{token, user_was_in, SecretString(pin.get()), std::move(user_pin), std::move(work), few_tries});
    if (!outcome.result.ok() && outcome.work.result.ok()) outcome.work.result = outcome.result;
    Tell(*token, "security officer", outcome.pin);
    pin_result = outcome.pin.pin;
    token->ForgetContent();
    if (user_was_in && outcome.user.pin != PinResult::kDone) {
        if (outcome.user.pin != PinResult::kNotPresent) Tell(*token, "user", outcome.user);
        token->SetLoginState(LoginState::kPublic);
        Log(kMsgTokenLogin,
            Describe(token->Info()) + ": the user was logged out for the security officer and has to log in again");
        Registry::Instance().Publish();
    }
    return outcome.work;
}

namespace {

/// Writes a PIN as the security officer, and forgets that it failed before.
PinResult SetAsOfficer(const TokenPtr& token, const SecretString& officer_pin, const SecretString& new_pin,
                       CK_USER_TYPE whose, FewTries few_tries,
                       std::function<Result(Session&, const std::string&)> set) {
    // Shared with the call, which may outlive this one.
    const auto secret = std::make_shared<const SecretString>(std::string_view(new_pin.get()));
    PinResult pin_result{};
    const CreateOutcome outcome = RunAsSecurityOfficer(
        token, officer_pin,
        [token, secret, whose, set = std::move(set)](Session& session) {
            const Result result = set(session, secret->get());
            if (result.ok()) FailedPins::Instance().Remove(token->id(), whose, *secret);
            return CreateOutcome{result, result.ok()};
        },
        pin_result, few_tries);
    if (pin_result != PinResult::kDone || outcome.created) return pin_result;
    LogTrouble(token->Info(), outcome.result);
    return PinResult::kFailed;
}

}  // namespace

PinResult ChangeOfficerPin(const TokenPtr& token, const SecretString& old_pin, const SecretString& new_pin,
                           FewTries few_tries) {
    const auto old_secret = std::make_shared<const SecretString>(std::string_view(old_pin.get()));
    return SetAsOfficer(token, old_pin, new_pin, CKU_SO, few_tries,
                        [old_secret](Session& session, const std::string& pin) {
                            return session.api().SetPIN(session.handle(), old_secret->get(), pin);
                        });
}

PinResult ResetUserPin(const TokenPtr& token, const SecretString& officer_pin, const SecretString& new_pin,
                       FewTries few_tries) {
    return SetAsOfficer(token, officer_pin, new_pin, CKU_USER, few_tries, [](Session& session, const std::string& pin) {
        return session.api().InitPIN(session.handle(), pin);
    });
}

}  // namespace tokens
