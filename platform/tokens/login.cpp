#include "platform/tokens/login.h"

#include "platform/tokens/registry.h"

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

/// What the flags of the token say about trying a PIN.
PinOutcome CheckTries(const Token& token, CK_USER_TYPE user, FewTries few_tries) {
    CK_TOKEN_INFO info{};
    const Result result = token.link()->api().GetTokenInfo(token.slot(), info);
    if (!result.ok()) return {PinResult::kFailed, result};
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
            token->GiveBack(std::move(session), done.result.ok());
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
    if (!pin.empty() && token->failed_pins().Contains(CKU_USER, pin)) return {PinResult::kKnownWrong};
    auto login = [token, few_tries, secret = SecretString(pin.get())](Session& session) -> PinOutcome {
        const PinOutcome tries = CheckTries(*token, CKU_USER, few_tries);
        if (tries.pin != PinResult::kDone) return tries;
        Result result = session.api().Login(session.handle(), CKU_USER, secret.get());
        if (result.rv == CKR_USER_ALREADY_LOGGED_IN) result.rv = CKR_OK;
        return FromRv(result);
    };
    const unsigned patience = pin.empty() ? kPinPadPatience : 1;
    return OnWorker(token, patience, PinOutcome{PinResult::kFailed, kNoAnswer}, std::move(login));
}

/// The parts of a change to the security officer and back, on a session.
struct OfficerOutcome {
    Result result{};
    PinOutcome pin{PinResult::kFailed, kNoAnswer};
    CreateOutcome work{};
    bool user_again = false;
};

struct OfficerCall {
    TokenPtr token;
    bool user_was_in;
    SecretString officer_pin;
    SecretString user_pin;
    std::function<CreateOutcome(Session&)> work;

    OfficerOutcome operator()(Session& session) const {
        const Api& api = session.api();
        OfficerOutcome outcome;
        outcome.user_again = user_was_in;
        outcome.pin = CheckTries(*token, CKU_SO, FewTries::kRefuse);
        if (outcome.pin.pin != PinResult::kDone) return outcome;
        if (user_was_in) {
            outcome.result = api.Logout(session.handle());
            if (!outcome.result.ok()) return outcome;
            outcome.user_again = false;
        }
        outcome.pin = FromRv(api.Login(session.handle(), CKU_SO, officer_pin.get()));
        if (outcome.pin.pin == PinResult::kDone) {
            outcome.work = work(session);
            outcome.result = api.Logout(session.handle());
        }
        if (user_was_in && !user_pin.empty()) {
            outcome.user_again = api.Login(session.handle(), CKU_USER, user_pin.get()).ok();
        }
        return outcome;
    }
};

}  // namespace

PinResult LoginUser(const TokenPtr& token, const SecretString& pin, FewTries few_tries) {
    const auto lock = LockLogin(*token);
    if (!lock.owns_lock()) return PinResult::kFailed;
    if (token->login_state() == LoginState::kUser) return PinResult::kDone;
    const PinOutcome outcome = TryUserPin(token, pin, few_tries);
    if (outcome.pin == PinResult::kDone) {
        token->failed_pins().Clear();
        token->SetLoginState(LoginState::kUser);
    } else if (outcome.pin == PinResult::kWrongPin && !pin.empty()) {
        token->failed_pins().Add(CKU_USER, pin);
    }
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
    if (token->failed_pins().Contains(CKU_USER, old_pin)) return PinResult::kKnownWrong;
    auto change = [token, few_tries, from = SecretString(old_pin.get()),
                   to = SecretString(new_pin.get())](Session& session) -> PinOutcome {
        const PinOutcome tries = CheckTries(*token, CKU_USER, few_tries);
        if (tries.pin != PinResult::kDone) return tries;
        const Result result = session.api().SetPIN(session.handle(), from.get(), to.get());
        // Here these two speak of the new PIN.
        if (result.rv == CKR_PIN_INVALID || result.rv == CKR_PIN_LEN_RANGE) return {PinResult::kFailed, result};
        return FromRv(result);
    };
    const PinOutcome outcome =
        OnWorker(token, kPinChangePatience, PinOutcome{PinResult::kFailed, kNoAnswer}, std::move(change));
    if (outcome.pin == PinResult::kDone) token->failed_pins().Clear();
    if (outcome.pin == PinResult::kWrongPin) token->failed_pins().Add(CKU_USER, old_pin);
    if (outcome.pin == PinResult::kFailed) LogTrouble(token->Info(), outcome.result);
    return outcome.pin;
}

CreateOutcome RunAsSecurityOfficer(const TokenPtr& token, const SecretString& pin,
                                   std::function<CreateOutcome(Session&)> work, PinResult& pin_result) {
    pin_result = PinResult::kFailed;
    const auto lock = LockLogin(*token);
    if (!lock.owns_lock()) return {kNoAnswer};
    if (token->failed_pins().Contains(CKU_SO, pin)) {
        Tell(*token, "security officer", {PinResult::kKnownWrong});
        pin_result = PinResult::kKnownWrong;
        return {};
    }
    const bool user_was_in = token->login_state() == LoginState::kUser;
    SecretString user_pin;
    if (user_was_in) Registry::Instance().FindPin(token->Info(), user_pin);
    OfficerOutcome outcome =
        OnWorker(token, 1, OfficerOutcome{kNoAnswer},
                 OfficerCall{token, user_was_in, SecretString(pin.get()), std::move(user_pin), std::move(work)});
    if (!outcome.result.ok() && outcome.work.result.ok()) outcome.work.result = outcome.result;
    if (outcome.pin.pin == PinResult::kWrongPin) token->failed_pins().Add(CKU_SO, pin);
    Tell(*token, "security officer", outcome.pin);
    pin_result = outcome.pin.pin;
    token->ForgetContent();
    if (user_was_in && !outcome.user_again) {
        token->SetLoginState(LoginState::kPublic);
        Log(kMsgTokenLogin,
            Describe(token->Info()) + ": the user was logged out for the security officer and has to log in again");
        Registry::Instance().Publish();
    }
    return outcome.work;
}

}  // namespace tokens
