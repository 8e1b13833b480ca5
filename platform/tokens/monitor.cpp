#include "platform/tokens/monitor.h"

#include <algorithm>

#include "platform/tokens/login.h"
#include "platform/tokens/registry.h"

namespace tokens {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// How often a module that offers C_WaitForSlotEvent is asked for events between two polls. Blocking in that call is
/// left alone: few modules return from it when they are finalised.
constexpr milliseconds kEventInterval{100};
/// How long a module that could not be loaded is left alone.
constexpr milliseconds kLoadRetry{5000};
/// How long stopping waits for calls in progress, and for C_Finalize.
constexpr milliseconds kStopGrace{2000};

bool Contains(const std::vector<TokenPtr>& tokens, const TokenPtr& token) {
    return std::find(tokens.begin(), tokens.end(), token) != tokens.end();
}

struct LoadOutcome {
    std::shared_ptr<const Module> module{};
    PKCS11::ProviderInfo info{};
    std::string error{};
};

std::string Text(const unsigned char* field, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(field), size);
    text.erase(text.find_last_not_of(std::string_view(" \0", 2)) + 1);
    return text;
}

LoadOutcome Load(const Provider& provider) {
    LoadOutcome outcome;
    outcome.module = Module::Load(provider, outcome.error);
    outcome.info.name = provider.name;
    outcome.info.available = outcome.module != nullptr;
    CK_INFO info{};
    if (outcome.module != nullptr && outcome.module->api().GetInfo(info).ok()) {
        outcome.info.description = Text(info.libraryDescription, sizeof info.libraryDescription);
        outcome.info.manufacturer = Text(info.manufacturerID, sizeof info.manufacturerID);
    }
    return outcome;
}

}  // namespace

ModuleMonitorPtr ModuleMonitor::Start(const Provider& provider, Milliseconds poll_interval, Milliseconds call_limit) {
    ModuleMonitorPtr monitor(new ModuleMonitor(provider, poll_interval));
    const std::weak_ptr<ModuleMonitor> weak = monitor;
    monitor->link_ = ModuleLink::Make(
        call_limit,
        [weak] {
            if (const ModuleMonitorPtr self = weak.lock()) self->LookAgain();
        },
        [weak, name = provider.name](const char* function) {
            Log(kMsgProviderFailed, name + ": " + (*function == '\0' ? "a call" : function) +
                                        " does not return; its tokens are left out until it does");
            Registry::Instance().Publish();
            if (const ModuleMonitorPtr self = weak.lock()) self->LookAgain();
        });
    monitor->thread_ = std::thread([monitor] { monitor->Main(); });
    return monitor;
}

ModuleMonitor::ModuleMonitor(Provider provider, Milliseconds poll_interval)
    : provider_(std::move(provider)), poll_interval_(poll_interval) {
    info_.name = provider_.name;
}

PKCS11::ProviderInfo ModuleMonitor::Info() const {
    const std::lock_guard lock(mutex_);
    return info_;
}

std::vector<TokenPtr> ModuleMonitor::Tokens() const {
    const std::lock_guard lock(mutex_);
    if (!visible_ || stopping_ || !link_->runner().Answers()) return {};
    return tokens_;
}

void ModuleMonitor::Configure(Milliseconds poll_interval, Milliseconds call_limit) {
    link_->runner().SetLimit(call_limit);
    const std::lock_guard lock(mutex_);
    poll_interval_ = poll_interval;
    ++looks_wanted_;
    wake_.notify_all();
}

void ModuleMonitor::LookAgain() {
    const std::lock_guard lock(mutex_);
    ++looks_wanted_;
    wake_.notify_all();
}

bool ModuleMonitor::WaitForLook(Milliseconds limit) {
    std::unique_lock lock(mutex_);
    const unsigned long wanted = ++looks_wanted_;
    wake_.notify_all();
    return looked_.wait_for(lock, limit, [&] { return looks_done_ >= wanted; });
}

void ModuleMonitor::ReportLogin(const TokenPtr& token, bool own) {
    const std::lock_guard lock(mutex_);
    logins_.push_back({token, own});
    wake_.notify_all();
}

void ModuleMonitor::RequestStop() {
    link_->runner().Hurry(kStopGrace);
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
}

void ModuleMonitor::Join() {
    if (!thread_.joinable()) return;
    // A callback that ends the process gets here on the thread itself.
    thread_.get_id() == std::this_thread::get_id() ? thread_.detach() : thread_.join();
}

void ModuleMonitor::Main() {
    for (;;) {
        unsigned long wanted = 0;
        {
            const std::lock_guard lock(mutex_);
            if (stopping_) break;
            wanted = looks_wanted_;
        }
        if (!loaded_) LoadModule();
        if (loaded_) Look();
        {
            const std::lock_guard lock(mutex_);
            looks_done_ = wanted;
            looked_.notify_all();
        }
        Sleep();
    }
    ShutDown();
}

/// Until the next look is due or wanted. Logins are reported meanwhile.
void ModuleMonitor::Sleep() {
    Clock::time_point due;
    {
        const std::lock_guard lock(mutex_);
        due = Clock::now() + poll_interval_;
    }
    for (;;) {
        DeliverLogins();
        std::unique_lock lock(mutex_);
        const bool watch_events = loaded_ && slot_events_;
        const Clock::time_point until = watch_events ? std::min(due, Clock::now() + kEventInterval) : due;
        wake_.wait_until(lock, until, [&] { return stopping_ || looks_wanted_ > looks_done_ || !logins_.empty(); });
        if (stopping_ || looks_wanted_ > looks_done_ || Clock::now() >= due) return;
        if (!logins_.empty()) continue;
        lock.unlock();
        if (SlotEventPending()) return;
    }
}

bool ModuleMonitor::SlotEventPending() {
    const auto result = link_->runner().Run([link = link_]() -> Result {
        const ModuleLink::Entry entry = link->Enter();
        CK_SLOT_ID slot = 0;
        return entry ? link->api().WaitForSlotEvent(CKF_DONT_BLOCK, slot) : Result{"", kRvNoAnswer};
    });
    if (!result.has_value() || result->rv == kRvNoAnswer) return true;
    // Anything else than an answer: polling alone, from now on.
    if (!result->ok() && result->rv != CKR_NO_EVENT) slot_events_ = false;
    return result->ok();
}

void ModuleMonitor::LoadModule() {
    if (Clock::now() < next_load_ || !link_->runner().Answers()) return;
    next_load_ = Clock::now() + kLoadRetry;
    std::optional<LoadOutcome> outcome =
        link_->runner().Run([link = link_, provider = provider_] { return Load(provider); });
    if (!outcome.has_value()) outcome = LoadOutcome{nullptr, {}, "no answer"};
    loaded_ = outcome->module != nullptr;
    {
        const std::lock_guard lock(mutex_);
        info_ = outcome->info;
        info_.name = provider_.name;
    }
    if (loaded_) {
        link_->Open(std::move(outcome->module));
        return;
    }
    if (outcome->error == load_error_) return;
    load_error_ = outcome->error;
    Log(kMsgProviderFailed, provider_.name + ": " + load_error_);
    PKCS11::Callbacks.providerInserted(Info(), 0);
}

void ModuleMonitor::Look() {
    std::vector<TokenPtr> known;
    {
        const std::lock_guard lock(mutex_);
        known = tokens_;
    }
    auto outcome = link_->runner().Run([link = link_, name = provider_.name, known]() -> std::optional<ScanOutcome> {
        const ModuleLink::Entry entry = link->Enter();
        if (!entry) return std::nullopt;
        return ScanSlots(link, name, known);
    });
    if (outcome.has_value() && outcome->has_value()) {
        TakeScan(**outcome);
    } else {
        TokensGone();
    }
}

/// The module does not answer: what it showed is not there for the time being.
void ModuleMonitor::TokensGone() {
    std::vector<TokenPtr> gone;
    {
        const std::lock_guard lock(mutex_);
        if (!visible_) return;
        visible_ = false;
        gone = tokens_;
    }
    Registry::Instance().Publish();
    for (const TokenPtr& token : gone) PKCS11::Callbacks.tokenRemoved(token->Info());
}

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
    for (const SlotTrouble& trouble : outcome.troubles) note(trouble.slot, trouble.result);
    troubles_ = std::move(troubles);
}

void ModuleMonitor::TakeScan(const ScanOutcome& outcome) {
    LogTroubles(outcome);
    std::vector<TokenPtr> tokens;
    bool changed = false;
    for (const SeenToken& seen : outcome.tokens) {
        const TokenPtr known = Registry::Instance().Find(seen.token->id());
        const bool twin = std::any_of(tokens.begin(), tokens.end(),
                                      [&](const TokenPtr& token) { return token->id() == seen.token->id(); });
        if (twin || (seen.is_new && known != nullptr && known->link() != link_)) continue;
        if (seen.is_new) {
            seen.token->SetLoginState(seen.login_state);
        } else {
            changed |= seen.token->Update(seen.info);
            if (seen.token->ObserveLoginState(seen.login_state, seen.login_changes)) ReportLogin(seen.token, false);
        }
        tokens.push_back(seen.token);
    }
    Replace(tokens, changed);
}

/// Takes over what stands in the slots now, and tells about the difference.
void ModuleMonitor::Replace(const std::vector<TokenPtr>& tokens, bool changed) {
    std::vector<TokenPtr> before;
    bool was_visible = false;
    {
        const std::lock_guard lock(mutex_);
        before = std::exchange(tokens_, tokens);
        was_visible = std::exchange(visible_, true);
        changed |= before != tokens || !was_visible || !logins_.empty();
    }
    if (!was_visible) Log(kMsgProviderReady, provider_.name + " answers again");
    for (const TokenPtr& token : before) {
        if (!Contains(tokens, token)) token->MarkRemoved();
    }
    LoginFromPinFiles();
    if (changed) Registry::Instance().Publish();

    for (const TokenPtr& token : before) {
        if (Contains(tokens, token)) continue;
        Log(kMsgTokenRemoved, Describe(token->Info()));
        if (was_visible) PKCS11::Callbacks.tokenRemoved(token->Info());
    }
    for (const TokenPtr& token : tokens) {
        if (was_visible && Contains(before, token)) continue;
        if (!Contains(before, token)) Log(kMsgTokenInserted, Describe(token->Info()));
        if (announced_) PKCS11::Callbacks.tokenInserted(token->Info());
    }
    if (announced_) return;
    announced_ = true;
    Log(kMsgProviderReady, provider_.name + ": " + Info().description + ", " + std::to_string(tokens.size()) +
                               (tokens.size() == 1 ? " token" : " tokens"));
    PKCS11::Callbacks.providerInserted(Info(), tokens.size());
}

/// Tokens whose PIN file is to be used without being asked for.
void ModuleMonitor::LoginFromPinFiles() {
    Registry& registry = Registry::Instance();
    std::vector<TokenPtr> tokens;
    {
        const std::lock_guard lock(mutex_);
        tokens = tokens_;
    }
    for (const TokenPtr& token : tokens) {
        if (!token->login_required() || token->login_state() != LoginState::kPublic) continue;
        vpnfc::SecretString pin;
        if (!registry.TakeInsertionLogin(*token) || !registry.FindPin(token->Info(), pin)) continue;
        if (LoginUser(token, pin, FewTries::kRefuse) == PinResult::kDone) ReportLogin(token, false);
    }
}

void ModuleMonitor::DeliverLogins() {
    std::deque<LoginReport> logins;
    {
        const std::lock_guard lock(mutex_);
        logins.swap(logins_);
    }
    if (logins.empty()) return;
    Registry::Instance().Publish();
    for (const LoginReport& login : logins) {
        const PKCS11::TokenInfo info = login.token->Info();
        Log(kMsgTokenLogin, Describe(info) + (info.loggedIn ? ": logged in" : ": logged out"));
        PKCS11::Callbacks.tokenLogin(info, login.own);
    }
}

void ModuleMonitor::ShutDown() {
    std::vector<TokenPtr> tokens;
    {
        const std::lock_guard lock(mutex_);
        tokens = tokens_;
        looks_done_ = ~0UL;
        looked_.notify_all();
    }
    // What hangs already is not waited for.
    const Milliseconds grace = link_->runner().Answers() ? kStopGrace : Milliseconds(0);
    if (link_->Close(grace) && loaded_) {
        link_->runner().Hurry(kStopGrace);
        link_->runner().Run([module = link_->TakeModule()]() mutable {
            module.reset();
            return true;
        });
    }
    for (const TokenPtr& token : tokens) token->MarkRemoved();
    link_->runner().Shutdown(grace);
    tokens.clear();
    const std::lock_guard lock(mutex_);
    tokens_.clear();
}

}  // namespace tokens
