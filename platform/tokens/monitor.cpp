#include "platform/tokens/monitor.h"

#include <algorithm>

#include "platform/guarded.h"
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

struct LoadOutcome {
    std::shared_ptr<const Module> module{};
    PKCS11::ProviderInfo info{};
    std::string error{};
};

LoadOutcome Load(const Provider& provider) {
    LoadOutcome outcome;
    outcome.module = Module::Load(provider, outcome.error);
    outcome.info.name = provider.name;
    outcome.info.available = outcome.module != nullptr;
    CK_INFO info{};
    if (outcome.module != nullptr && outcome.module->api().GetInfo(info).ok()) {
        outcome.info.description = Padded(info.libraryDescription);
        outcome.info.manufacturer = Padded(info.manufacturerID);
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

bool ModuleMonitor::Guarded(const std::function<void()>& work) const noexcept {
    return eventlog::Guarded(kMsgTokenError, provider_.name, work);
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
        Guarded([this] {
            TakeConfiguration();
            if (!loaded_) LoadModule();
            if (loaded_) Look();
        });
        {
            const std::lock_guard lock(mutex_);
            looks_done_ = wanted;
            looked_.notify_all();
        }
        if (Guarded([this] { Sleep(); })) continue;
        std::unique_lock lock(mutex_);
        wake_.wait_for(lock, kEventInterval, [this] { return stopping_; });
    }
    Guarded([this] { ShutDown(); });
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
    Guarded([this] { PKCS11::Callbacks.providerInserted(Info(), 0); });
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
