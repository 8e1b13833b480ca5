// What a look at the slots found, brought to the registry, the log, the callbacks and the clients.
#include <algorithm>

#include "platform/bridge.h"
#include "platform/tokens/login.h"
#include "platform/tokens/monitor.h"
#include "platform/tokens/registry.h"

namespace tokens {
namespace {

bool Contains(const std::vector<TokenPtr>& tokens, const TokenPtr& token) {
    return std::find(tokens.begin(), tokens.end(), token) != tokens.end();
}

std::vector<TokenPtr> Without(std::vector<TokenPtr> tokens, const std::vector<TokenPtr>& others) {
    std::erase_if(tokens, [&](const TokenPtr& token) { return Contains(others, token); });
    return tokens;
}

/// The callbacks go before: what they queue is on its way when clients ask.
void TellClients() {
    bridge::server::NotifyClients(bridge::kNotifyTokensChanged, {});
}

}  // namespace

void ModuleMonitor::LogTroubles(const ScanOutcome& outcome) {
    constexpr CK_SLOT_ID kAllSlots = ~0UL;
    std::map<CK_SLOT_ID, CK_RV> troubles;
    const auto note = [&](CK_SLOT_ID slot, const Result& result) {
        troubles[slot] = result.rv;
        const auto known = troubles_.find(slot);
        if (known != troubles_.end() && known->second == result.rv) return;
        const std::string where = slot == kAllSlots ? "" : "slot " + std::to_string(slot) + ": ";
        Log(kMsgTokenError, provider_.name + ": " + where + result.function + " failed: " + RvName(result.rv));
    };
    if (!outcome.result.ok()) note(kAllSlots, outcome.result);
    if (outcome.slots_left_out != std::exchange(slots_left_out_, outcome.slots_left_out) && slots_left_out_) {
        Log(kMsgTokenError, provider_.name + ": has more than " + std::to_string(kMaxSlots) +
                                " slots with a token; the others are left out");
    }
    for (const SlotTrouble& trouble : outcome.troubles) note(trouble.slot, trouble.result);
    troubles_ = std::move(troubles);
}

void ModuleMonitor::TakeScan(const ScanOutcome& outcome) {
    LogTroubles(outcome);
    std::vector<TokenPtr> present;
    bool changed = false;
    for (const SeenToken& seen : outcome.tokens) {
        if (seen.is_new) {
            seen.token->SetLoginState(seen.login_state);
        } else {
            changed |= seen.token->Update(seen.info);
            if (seen.token->ObserveLoginState(seen.login_state, seen.login_changes)) ReportLogin(seen.token, false);
        }
        present.push_back(seen.token);
    }
    stuck_told_ = false;
    if (!std::exchange(answers_, true)) Log(kMsgProviderReady, provider_.name + " answers again");
    Depart(present);
    Arrive(present, changed);
}

/// Tells which tokens stand in the slots no more. Only then can others with their identifiers come.
void ModuleMonitor::Depart(const std::vector<TokenPtr>& present) {
    std::vector<TokenPtr> gone = Without(tokens_, present);
    if (gone.empty()) return;
    for (const TokenPtr& token : gone) token->MarkRemoved();
    tokens_ = Without(tokens_, gone);
    left_out_ = Without(left_out_, gone);
    std::vector<TokenPtr> left;
    {
        const std::lock_guard lock(mutex_);
        shown_ = Without(shown_, gone);
        left = shown_;
    }
    Registry::Instance().Publish();
    TellRemoved(left);
    for (const TokenPtr& token : gone) Registry::Instance().Release(token);
}

/// Shows what stands in the slots now, and tells what is new.
void ModuleMonitor::Arrive(const std::vector<TokenPtr>& present, bool changed) {
    tokens_ = present;
    const std::vector<TokenPtr> claimed = ClaimAll(present);
    {
        const std::lock_guard lock(mutex_);
        changed |= shown_ != claimed || !logins_.empty();
        shown_ = claimed;
    }
    if (changed) Registry::Instance().Publish();
    if (LoginFromPinFiles()) Registry::Instance().Publish();
    TellInserted();
}

std::vector<TokenPtr> ModuleMonitor::ClaimAll(const std::vector<TokenPtr>& tokens) {
    std::vector<TokenPtr> claimed;
    for (const TokenPtr& token : tokens) {
        if (Registry::Instance().Claim(token)) {
            claimed.push_back(token);
        } else if (!Contains(left_out_, token)) {
            left_out_.push_back(token);
            Log(kMsgTokenError,
                Describe(token->Info()) + " in slot " + std::to_string(token->slot()) +
                    " is left out: another token has the same manufacturer, model, serial number and label");
        }
    }
    left_out_ = Without(left_out_, claimed);
    return claimed;
}

void ModuleMonitor::TellRemoved(const std::vector<TokenPtr>& still_shown) {
    for (const TokenPtr& token : logged_) {
        if (token->removed()) Log(kMsgTokenRemoved, Describe(token->Info()));
    }
    std::erase_if(logged_, [](const TokenPtr& token) { return token->removed(); });
    const std::vector<TokenPtr> gone = Without(std::exchange(reported_, still_shown), still_shown);
    for (const TokenPtr& token : gone) {
        Guarded([&] { PKCS11::Callbacks.tokenRemoved(token->Info()); });
    }
    if (!gone.empty()) TellClients();
}

void ModuleMonitor::TellInserted() {
    std::vector<TokenPtr> shown;
    {
        const std::lock_guard lock(mutex_);
        shown = shown_;
    }
    for (const TokenPtr& token : Without(shown, logged_)) {
        Log(kMsgTokenInserted, Describe(token->Info()));
        logged_.push_back(token);
    }
    const std::vector<TokenPtr> came = Without(shown, std::exchange(reported_, shown));
    for (const TokenPtr& token : came) {
        if (announced_) Guarded([&] { PKCS11::Callbacks.tokenInserted(token->Info()); });
    }
    if (!came.empty()) TellClients();
    if (std::exchange(announced_, true)) return;
    Log(kMsgProviderReady, provider_.name + ": " + asn_text_to_printable(Info().description) + ", " +
                               std::to_string(shown.size()) + (shown.size() == 1 ? " token" : " tokens"));
    Guarded([&] { PKCS11::Callbacks.providerInserted(Info(), shown.size()); });
}

/// Of tokens whose PIN file is to be used without being asked for. True when a user is logged in now.
bool ModuleMonitor::LoginFromPinFiles() {
    Registry& registry = Registry::Instance();
    bool any = false;
    for (const TokenPtr& token : Without(tokens_, left_out_)) {
        if (!token->login_required() || token->login_state() != LoginState::kPublic) continue;
        vpnfc::SecretString pin;
        if (!registry.TakeInsertionLogin(*token) || !registry.FindPin(token->Info(), pin)) continue;
        if (LoginUser(token, pin, FewTries::kRefuse) != PinResult::kDone) continue;
        ReportLogin(token, false);
        any = true;
    }
    return any;
}

void ModuleMonitor::DeliverLogins() {
    std::deque<LoginReport> logins;
    {
        const std::lock_guard lock(mutex_);
        logins.swap(logins_);
        std::erase_if(logins, [this](const LoginReport& login) { return !Contains(shown_, login.token); });
    }
    if (logins.empty()) return;
    Registry::Instance().Publish();
    for (const LoginReport& login : logins) {
        const PKCS11::TokenInfo info = login.token->Info();
        Log(kMsgTokenLogin, Describe(info) + (info.loggedIn ? ": logged in" : ": logged out"));
        Guarded([&] { PKCS11::Callbacks.tokenLogin(info, login.own); });
    }
    TellClients();
}

}  // namespace tokens
