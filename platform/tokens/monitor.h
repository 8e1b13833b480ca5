// Follows one module from loading to unloading: its slots, its logins, whether it answers. Reports to the registry and
// to the callbacks.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/tokens.h"
#include "platform/tokens/slot_scan.h"
#include "platform/tokens/token_host.h"

namespace tokens {

/// Spaces attempts that fail: some time after the first failure, twice as long after each further one, up to a limit.
class Backoff {
  public:
    using Milliseconds = std::chrono::milliseconds;

    explicit Backoff(Milliseconds first) : first_(first) {}

    void Failed();
    void Succeeded() { *this = Backoff(first_); }
    unsigned failures() const { return failures_; }
    /// Whether the time since the last failure has passed.
    bool Due() const { return std::chrono::steady_clock::now() >= next_; }

  private:
    Milliseconds first_;
    unsigned failures_ = 0;
    std::chrono::steady_clock::time_point next_{};
};

/// Has a thread of its own, on which every callback of the module's tokens runs. The thread never enters the module
/// itself, so it never hangs with it.
class ModuleMonitor : public std::enable_shared_from_this<ModuleMonitor> {
  public:
    using Milliseconds = std::chrono::milliseconds;

    /// Whether this is the thread of a monitor.
    static bool OnMonitor();

    static std::shared_ptr<ModuleMonitor> Make(const Provider& provider);
    /// After the first Configure.
    void Start();

    const Provider& provider() const { return provider_; }
    const ModuleLinkPtr& link() const { return link_; }
    PKCS11::ProviderInfo Info() const;
    /// The tokens that are shown, none while the module does not answer.
    std::vector<TokenPtr> Tokens() const;

    /// Takes over intervals and limits. A module that failed is tried again soon.
    void Configure(const Settings& settings);
    /// Has the slots looked at soon.
    void LookAgain();
    /// Waits until the module was loaded, or could not be, and its slots were looked at after the call; false at the
    /// limit.
    bool WaitForLook(Milliseconds limit);
    /// Has the login callback called; `own`: a session of the module logged in.
    void ReportLogin(const TokenPtr& token, bool own);

    /// Ends the monitor and its module; a module that hangs is left behind. `report_removals`: the tokens are reported
    /// as removed.
    void RequestStop(bool report_removals);
    void Join();

  private:
    struct LoginReport {
        TokenPtr token;
        bool own;
    };

    explicit ModuleMonitor(Provider provider) : provider_(std::move(provider)) { info_.name = provider_.name; }
    void NoteStuck(const char* function);
    /// What a callback throws, or a shortage of memory, ends `work`, not the process.
    bool Guarded(const std::function<void()>& work) const noexcept;
    void Main();
    void Sleep();
    bool SlotEventPending();
    void TakeConfiguration();

    void LoadModule();
    bool MayLook();
    void Look();
    void NoAnswer();
    void TakeScan(const ScanOutcome& outcome);
    void Depart(const std::vector<TokenPtr>& present);
    void Arrive(const std::vector<TokenPtr>& present, bool changed);
    std::vector<TokenPtr> ClaimAll(const std::vector<TokenPtr>& tokens);
    void TellRemoved(const std::vector<TokenPtr>& still_shown);
    void TellInserted();
    void LogTroubles(const ScanOutcome& outcome);
    bool LoginFromPinFiles();
    void DeliverLogins();
    void ShutDown();

    const Provider provider_;
    ModuleLinkPtr link_;
    std::thread thread_;
    std::atomic<bool> stuck_told_{false};  // since it answered last

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable looked_;
    // Guarded by mutex_.
    Milliseconds poll_interval_{};
    Milliseconds recovery_interval_{};
    PKCS11::ProviderInfo info_;
    std::vector<TokenPtr> shown_;  // empty while the module does not answer
    bool configured_ = false;  // anew
    bool stopping_ = false;
    bool report_removals_ = false;
    unsigned long looks_wanted_ = 1;
    unsigned long looks_done_ = 0;
    std::deque<LoginReport> logins_;

    // Of the monitor's thread.
    bool loaded_ = false;
    bool announced_ = false;
    bool answers_ = true;
    bool slot_events_ = true;
    std::string load_error_;
    Backoff loads_{Milliseconds(0)};
    Backoff looks_{Milliseconds(0)};
    std::vector<TokenPtr> tokens_;  // in the slots, as far as known
    std::vector<TokenPtr> left_out_;  // those among them whose identifier another token has
    std::vector<TokenPtr> reported_;  // as inserted, to the callbacks
    std::vector<TokenPtr> logged_;  // as inserted
    std::map<CK_SLOT_ID, CK_RV> troubles_;
    bool slots_left_out_ = false;
};
using ModuleMonitorPtr = std::shared_ptr<ModuleMonitor>;

}  // namespace tokens
