// All host libraries of a program, started from one settings file and stopped in order.
//
//     vpnhost::Host host;
//     if (host.Start(path) != vpnhost::StartResult::kRunning) return 1;  // the log, by default stderr, says why
//     CM::RunningModule module;
//     ...
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/api.h"
#include "platform/params/settings.h"

namespace tokens {
class TokenListener;
}

namespace vpnhost {

/// How a start ended. After anything but kRunning nothing runs, and the reason is logged.
enum class StartResult : std::uint8_t {
    kRunning,
    kWrongSettings,  // the file cannot be read, or has errors
    kFailed,  // what the settings ask for cannot be had: log file, state directory, event thread
};

/// One at a time in a process. Everything on the main thread, rules() on any.
class PLATFORM_API Host {
  public:
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Reads the settings and starts event log, parameters, event manager and token manager. What is doubtful in the
    /// settings is logged to where they say that messages go.
    StartResult Start(const std::string& settings_path);

    /// Opens the management bridge as the settings say, with the token manager's commands: when the module runs, so that
    /// clients find a filled store. `program`: name and version for clients. `socket` replaces that of the settings unless
    /// empty, and opens the bridge although they switch it off. Why it failed is logged.
    bool StartBridge(const std::string& program, const std::string& socket = {});
    /// Closes it: before the module is stopped. Harmless when not started.
    void StopBridge();

    /// Reads the settings again and puts them into force. False, with the old ones kept, when they are wrong.
    bool Reload();

    /// Stops what Start started. The module must be stopped before. Harmless when not started. False when a handler of
    /// the event manager does not end: leave the process then (program.h), without destroying what it uses.
    bool Stop();

    /// Where messages go, as the settings say.
    const eventlog::Sinks& sinks() const { return sinks_; }
    /// The rules in force; the copy stays as it is when the settings change.
    std::shared_ptr<const LPCFG::Rules> rules() const;

  private:
    StartResult StartLibraries(const settings::Settings& loaded);
    bool ApplyLogAndTokens(const settings::Settings& loaded);
    void ApplyBridge(const settings::Bridge& loaded);

    std::string path_;
    eventlog::Sinks sinks_;
    std::string softhsm_directory_;
    settings::Bridge bridge_settings_;
    std::unique_ptr<tokens::TokenListener> token_listener_;  // while the bridge runs
    bool running_ = false;
    mutable std::mutex mutex_;  // guards rules_
    std::shared_ptr<const LPCFG::Rules> rules_ = std::make_shared<const LPCFG::Rules>();
};

}  // namespace vpnhost
