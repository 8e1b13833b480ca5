#include "platform/tokens/token_host.h"

#include <p11-kit/p11-kit.h>

#include "platform/tokens/login.h"
#include "platform/tokens/pins.h"
#include "platform/tokens/registry.h"
#include "platform/tokens/slot_scan.h"

namespace tokens {
namespace {

using vpnfc::SecretString;

/// Initialising writes a token from scratch.
constexpr unsigned kInitPatience = 6;
constexpr std::size_t kLabelBytes = 32;
constexpr std::chrono::milliseconds kAppearLimit{5000};

/// After a change of the login state by the host.
void TellLogin(const TokenPtr& token) {
    Registry::Instance().Publish();
    if (const ModuleMonitorPtr monitor = Registry::Instance().MonitorOf(*token)) monitor->ReportLogin(token, false);
}

/// The first slot with a token that was never initialised.
Result FindFreeSlot(const Api& api, CK_SLOT_ID& slot) {
    const SlotList list = ListSlots(api);
    if (!list.result.ok()) return list.result;
    for (const CK_SLOT_ID candidate : list.slots) {
        CK_TOKEN_INFO info{};
        if (api.GetTokenInfo(candidate, info).ok() && (info.flags & CKF_TOKEN_INITIALIZED) == 0) {
            slot = candidate;
            return {};
        }
    }
    return {"C_GetSlotList", CKR_TOKEN_NOT_PRESENT};
}

Result SetUserPin(const ModuleLinkPtr& link, CK_SLOT_ID slot, const SecretString& so_pin,
                  const SecretString& user_pin) {
    SessionPtr session;
    Result result = Session::Open(link, slot, true, session);
    if (!result.ok()) return result;
    result = link->api().Login(session->handle(), CKU_SO, so_pin.get());
    if (!result.ok()) return result;
    result = link->api().InitPIN(session->handle(), user_pin.get());
    const Result logout = link->api().Logout(session->handle());
    return result.ok() ? logout : result;
}

struct InitOutcome {
    Result result{};
    CK_SLOT_ID slot = 0;
};

struct InitCall {
    ModuleLinkPtr link;
    std::string label;
    SecretString so_pin;
    SecretString user_pin;

    InitOutcome operator()() const {
        const ModuleLink::Entry entry = link->Enter();
        InitOutcome outcome{{"the module", kRvNoAnswer}};
        if (!entry) return outcome;
        outcome.result = FindFreeSlot(link->api(), outcome.slot);
        if (outcome.result.ok()) outcome.result = link->api().InitToken(outcome.slot, so_pin.get(), label);
        if (outcome.result.ok()) outcome.result = SetUserPin(link, outcome.slot, so_pin, user_pin);
        return outcome;
    }
};

ModuleMonitorPtr FindMonitor(const std::string& provider) {
    for (const ModuleMonitorPtr& monitor : Registry::Instance().Monitors()) {
        if (monitor->provider().name == provider) return monitor;
    }
    return nullptr;
}

std::string FindFault(const std::string& label, const SecretString& so_pin, const SecretString& user_pin) {
    if (label.empty() || label.size() > kLabelBytes) return "a label has 1 to 32 bytes";
    if (so_pin.empty() || so_pin.get().size() > kMaxPinBytes) return "the security officer's PIN has 1 to 255 bytes";
    if (user_pin.empty() || user_pin.get().size() > kMaxPinBytes) return "the user's PIN has 1 to 255 bytes";
    return {};
}

}  // namespace

bool Start(const Settings& settings, std::string& error) {
    p11_kit_be_quiet();
    return Registry::Instance().Start(settings, error);
}

bool Apply(const Settings& settings, std::string& error) {
    return Registry::Instance().Apply(settings, error);
}

void Stop() {
    Registry::Instance().Stop();
}

const char* PinResultText(PinResult result) {
    switch (result) {
        case PinResult::kDone:
            return "done";
        case PinResult::kWrongPin:
            return "wrong PIN";
        case PinResult::kKnownWrong:
            return "this PIN failed before and was not tried again";
        case PinResult::kFewTriesLeft:
            return "few tries are left, the PIN was not tried";
        case PinResult::kLocked:
            return "the PIN is locked";
        case PinResult::kNotPresent:
            return "the token is not there";
        case PinResult::kFailed:
            break;
    }
    return "the token failed";
}

PinResult Login(const PKCS11::TokenInfo& info, const SecretString& pin, FewTries few_tries) {
    const TokenPtr token = Registry::Instance().Find(info.id);
    if (token == nullptr) return PinResult::kNotPresent;
    if (pin.empty() && !info.pinPad) return PinResult::kWrongPin;
    const bool was_in = token->login_state() == LoginState::kUser;
    const PinResult result = LoginUser(token, pin, few_tries);
    if (result == PinResult::kDone && !was_in) TellLogin(token);
    return result;
}

bool Logout(const PKCS11::TokenInfo& info) {
    const TokenPtr token = Registry::Instance().Find(info.id);
    if (token == nullptr || !LogoutUser(token)) return false;
    TellLogin(token);
    return true;
}

PinResult ChangePin(const PKCS11::TokenInfo& info, const SecretString& old_pin, const SecretString& new_pin,
                    FewTries few_tries) {
    const TokenPtr token = Registry::Instance().Find(info.id);
    if (token == nullptr) return PinResult::kNotPresent;
    return ChangeUserPin(token, old_pin, new_pin, few_tries);
}

PinResult ChangeOfficerPin(const PKCS11::TokenInfo& info, const SecretString& old_pin, const SecretString& new_pin,
                           FewTries few_tries) {
    const TokenPtr token = Registry::Instance().Find(info.id);
    return token == nullptr ? PinResult::kNotPresent : ChangeOfficerPin(token, old_pin, new_pin, few_tries);
}

PinResult ResetUserPin(const PKCS11::TokenInfo& info, const SecretString& officer_pin, const SecretString& new_pin,
                       FewTries few_tries) {
    const TokenPtr token = Registry::Instance().Find(info.id);
    return token == nullptr ? PinResult::kNotPresent : ResetUserPin(token, officer_pin, new_pin, few_tries);
}

PKCS11::TokenListing ListTokens() {
    PKCS11::TokenListing listing;
    for (const ModuleMonitorPtr& monitor : Registry::Instance().Monitors()) {
        listing.providers.push_back(monitor->Info());
        const ModuleLinkPtr link = monitor->link();
        auto statuses =
            link->runner().Run([link, name = monitor->provider().name] { return ReadSlotStatuses(link, name); });
        for (SlotStatus& status : statuses.value_or(std::vector<SlotStatus>())) {
            if (status.token.info.id != 0) {
                const TokenPtr shown = Registry::Instance().Find(status.token.info.id);
                if (shown == nullptr || shown->link() != link || shown->slot() != status.slot) continue;
                status.token.info = shown->Info();
            }
            listing.tokens.push_back(std::move(status.token));
        }
    }
    return listing;
}

bool InitToken(const std::string& provider, const std::string& label, const SecretString& so_pin,
               const SecretString& user_pin, PKCS11::TokenInfo& token, std::string& error) {
    error = FindFault(label, so_pin, user_pin);
    const ModuleMonitorPtr monitor = FindMonitor(provider);
    if (monitor == nullptr) error = "there is no provider " + provider;
    if (!error.empty()) return false;
    std::string padded = label;
    padded.resize(kLabelBytes, ' ');
    const auto outcome = monitor->link()->runner().Run(
        InitCall{monitor->link(), std::move(padded), SecretString(so_pin.get()), SecretString(user_pin.get())},
        kInitPatience);
    const Result result = outcome.has_value() ? outcome->result : Result{"the module", kRvNoAnswer};
    if (!result.ok()) {
        error = std::string(result.function) + ": " + RvName(result.rv);
        return false;
    }
    monitor->WaitForLook(kAppearLimit);
    for (const TokenPtr& candidate : monitor->Tokens()) {
        if (candidate->slot() != outcome->slot || candidate->Info().label != label) continue;
        token = candidate->Info();
        FailedPins::Instance().Forget(token.id);
        return true;
    }
    error = "the new token did not appear";
    return false;
}

}  // namespace tokens
