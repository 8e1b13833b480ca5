// Follows one module from loading to unloading: its slots, its logins, whether it answers. Reports to the registry and
// to the callbacks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
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

/// Has a thread of its own, on which every callback of the module's tokens runs. The thread never enters the module
/// itself, so it never hangs with it.
class ModuleMonitor : public std::enable_shared_from_this<ModuleMonitor> {
  public:
    using Milliseconds = std::chrono::milliseconds;

    static std::shared_ptr<ModuleMonitor> Start(const Provider& provider, Milliseconds poll_interval,
                                                Milliseconds call_limit);

    const Provider& provider() const { return provider_; }
    const ModuleLinkPtr& link() const { return link_; }
    PKCS11::ProviderInfo Info() const;
    /// The tokens, none while the module does not answer.
    std::vector<TokenPtr> Tokens() const;

    void Configure(Milliseconds poll_interval, Milliseconds call_limit);
    /// Has the slots looked at soon.
    void LookAgain();
    /// Waits until the module was loaded, or could not be, and its slots were looked at after the call; false at the
    /// limit.
    bool WaitForLook(Milliseconds limit);
    /// Has the login callback called; `own`: a session of the module logged in.
    void ReportLogin(const TokenPtr& token, bool own);

    /// Ends the monitor and its module; a module that hangs is left behind.
    void RequestStop();
    void Join();

  private:
    struct LoginReport {
        TokenPtr token;
        bool own;
    };

    ModuleMonitor(Provider provider, Milliseconds poll_interval);
    void Main();
    void Sleep();
    bool SlotEventPending();

    void LoadModule();
    void Look();
    void TakeScan(const ScanOutcome& outcome);
    void TokensGone();
    void Replace(const std::vector<TokenPtr>& tokens, bool changed);
    void LogTroubles(const ScanOutcome& outcome);
    void LoginFromPinFiles();
    void DeliverLogins();
    void ShutDown();

    const Provider provider_;
    ModuleLinkPtr link_;
    std::thread thread_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable looked_;
    // Guarded by mutex_.
    Milliseconds poll_interval_;
    PKCS11::ProviderInfo info_;
    std::vector<TokenPtr> tokens_;
    bool visible_ = true;  // false while the module does not answer
    bool stopping_ = false;
    unsigned long looks_wanted_ = 1;
    unsigned long looks_done_ = 0;
    std::deque<LoginReport> logins_;

    // Of the monitor's thread.
    bool loaded_ = false;
    bool announced_ = false;
    bool slot_events_ = true;
    std::string load_error_;
    std::chrono::steady_clock::time_point next_load_{};
    std::map<CK_SLOT_ID, CK_RV> troubles_;
};
using ModuleMonitorPtr = std::shared_ptr<ModuleMonitor>;

}  // namespace tokens
