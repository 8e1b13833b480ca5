#include "platform/tokens/monitor.h"

#include <algorithm>

#include "platform/bridge.h"
#include "platform/tokens/login.h"
#include "platform/tokens/registry.h"

namespace tokens {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// How often a module that offers C_WaitForSlotEvent is asked for events between two polls. Blocking in that call is
/// left alone: few modules return from it when they are finalised.
constexpr milliseconds kEventInterval{100};
/// How long a module that could not be loaded is left alone at first.
constexpr milliseconds kLoadRetry{5000};
/// Steps in which the time between attempts doubles.
constexpr unsigned kBackoffSteps = 4;
/// How long stopping waits for calls in progress, and for C_Finalize.
constexpr milliseconds kStopGrace{2000};

thread_local bool t_on_monitor = false;

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

/// What a callback throws, or a shortage of memory, ends `work`, not the process.
template <typename Work>
void Guarded(const Provider& provider, const Work& work) noexcept {
    try {
        work();
    } catch (const std::exception& error) {
        Log(kMsgTokenError, provider.name + ": " + error.what());
    } catch (...) {
        Log(kMsgTokenError, provider.name + ": a callback failed");
    }
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

void Backoff::Failed() {
    next_ = Clock::now() + first_ * (1U << std::min(failures_, kBackoffSteps));
    ++failures_;
}

bool ModuleMonitor::OnMonitor() {
    return t_on_monitor;
}

ModuleMonitorPtr ModuleMonitor::Make(const Provider& provider) {
    ModuleMonitorPtr monitor(new ModuleMonitor(provider));
    const std::weak_ptr<ModuleMonitor> weak = monitor;
    monitor->link_ = ModuleLink::Make(
        Settings{}.call_limit,
        [weak] {
            if (const ModuleMonitorPtr self = weak.lock()) self->LookAgain();
        },
        [weak](const char* function) {
            if (const ModuleMonitorPtr self = weak.lock()) self->NoteStuck(function);
        });
    return monitor;
}

/// On the thread that asked for the call.
void ModuleMonitor::NoteStuck(const char* function) {
    if (!stuck_told_.exchange(true)) {
        Log(kMsgProviderFailed, provider_.name + ": " + (*function == '\0' ? "a call" : function) +
                                    " does not return; its tokens are left out until it answers again");
    }
    Registry::Instance().Publish();
    LookAgain();
}

void ModuleMonitor::Start() {
    thread_ = std::thread([self = shared_from_this()] { self->Main(); });
}

PKCS11::ProviderInfo ModuleMonitor::Info() const {
    const std::lock_guard lock(mutex_);
    return info_;
}

std::vector<TokenPtr> ModuleMonitor::Tokens() const {
    const std::lock_guard lock(mutex_);
    if (stopping_ || !link_->runner().Answers()) return {};
    return shown_;
}

void ModuleMonitor::Configure(const Settings& settings) {
    link_->runner().SetLimit(settings.call_limit);
    const std::lock_guard lock(mutex_);
    poll_interval_ = settings.poll_interval;
    recovery_interval_ = settings.recovery_interval;
    configured_ = true;
    ++looks_wanted_;
    wake_.notify_all();
}

void ModuleMonitor::TakeConfiguration() {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(configured_, false)) return;
    loads_ = Backoff(kLoadRetry);
    looks_ = Backoff(recovery_interval_);
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

void ModuleMonitor::RequestStop(bool report_removals) {
    link_->runner().Hurry(kStopGrace);
    const std::lock_guard lock(mutex_);
    report_removals_ = report_removals;
    stopping_ = true;
    wake_.notify_all();
}

void ModuleMonitor::Join() {
    if (!thread_.joinable()) return;
    // A callback that ends the process gets here on the thread itself.
    thread_.get_id() == std::this_thread::get_id() ? thread_.detach() : thread_.join();
}

void ModuleMonitor::Main() {
    t_on_monitor = true;
    for (;;) {
        unsigned long wanted = 0;
        {
            const std::lock_guard lock(mutex_);
            if (stopping_) break;
            wanted = looks_wanted_;
        }
        Guarded(provider_, [this] {
            TakeConfiguration();
            if (!loaded_) LoadModule();
            if (loaded_) Look();
        });
        {
            const std::lock_guard lock(mutex_);
            looks_done_ = wanted;
            looked_.notify_all();
        }
        Guarded(provider_, [this] { Sleep(); });
    }
    Guarded(provider_, [this] { ShutDown(); });
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
    if (!result.has_value() || result->rv == kRvNoAnswer) return false;
    // Anything else than an answer: polling alone, from now on.
    if (!result->ok() && result->rv != CKR_NO_EVENT) slot_events_ = false;
    return result->ok();
}

void ModuleMonitor::LoadModule() {
    if (!loads_.Due() || !link_->runner().Answers()) return;
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
    loads_.Failed();
    if (outcome->error == load_error_) return;
    load_error_ = outcome->error;
    Log(kMsgProviderFailed, provider_.name + ": " + load_error_);
    Guarded(provider_, [this] { PKCS11::Callbacks.providerInserted(Info(), 0); });
}

/// A module that does not answer is tried now and then. One whose calls return late after all is looked at when they do;
/// but when that ends the same way, now and then, too.
bool ModuleMonitor::MayLook() {
    if (link_->runner().Answers()) return looks_.failures() <= 1 || looks_.Due();
    if (looks_.failures() > 0) return looks_.Due();
    NoAnswer();
    return false;
}

void ModuleMonitor::Look() {
    if (!MayLook()) return;
    const auto scan = [link = link_, name = provider_.name, known = tokens_]() -> std::optional<ScanOutcome> {
        const ModuleLink::Entry entry = link->Enter();
        if (!entry) return std::nullopt;
        return ScanSlots(link, name, known);
    };
    CallRunner& runner = link_->runner();
    const auto outcome = runner.Answers() ? runner.Run(scan) : runner.Probe(scan);
    if (outcome.has_value() && outcome->has_value()) {
        looks_.Succeeded();
        TakeScan(**outcome);
    } else if (!runner.Answers()) {  // else every thread is busy, or memory short
        NoAnswer();
    }
}

/// What the module showed is not there for the time being.
void ModuleMonitor::NoAnswer() {
    looks_.Failed();
    if (!std::exchange(answers_, false)) return;
    {
        const std::lock_guard lock(mutex_);
        shown_.clear();
    }
    Registry::Instance().Publish();
    TellRemoved({});
    for (const TokenPtr& token : tokens_) Registry::Instance().Release(token);
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
        Guarded(provider_, [&] { PKCS11::Callbacks.tokenRemoved(token->Info()); });
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
        if (announced_) Guarded(provider_, [&] { PKCS11::Callbacks.tokenInserted(token->Info()); });
    }
    if (!came.empty()) TellClients();
    if (std::exchange(announced_, true)) return;
    Log(kMsgProviderReady, provider_.name + ": " + asn_text_to_printable(Info().description) + ", " +
                               std::to_string(shown.size()) + (shown.size() == 1 ? " token" : " tokens"));
    Guarded(provider_, [&] { PKCS11::Callbacks.providerInserted(Info(), shown.size()); });
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
        Guarded(provider_, [&] { PKCS11::Callbacks.tokenLogin(info, login.own); });
    }
    TellClients();
}

void ModuleMonitor::ShutDown() {
    bool report = false;
    {
        const std::lock_guard lock(mutex_);
        report = report_removals_;
        shown_.clear();
        looks_done_ = ~0UL;
        looked_.notify_all();
    }
    for (const TokenPtr& token : tokens_) token->MarkRemoved();
    Registry::Instance().Publish();
    if (report) TellRemoved({});
    for (const TokenPtr& token : tokens_) Registry::Instance().Release(token);
    // What hangs already is not waited for.
    const Milliseconds grace = link_->runner().Answers() ? kStopGrace : Milliseconds(0);
    if (link_->Close(grace) && loaded_) {
        link_->runner().Hurry(kStopGrace);
        link_->runner().Run([module = link_->TakeModule()]() mutable {
            module.reset();
            return true;
        });
    }
    link_->runner().Shutdown(grace);
    for (std::vector<TokenPtr>* list : {&tokens_, &left_out_, &reported_, &logged_}) list->clear();
}

}  // namespace tokens
