// All host libraries of a program, started from one settings file and stopped in order.
//
//     vpnhost::Host host;
//     if (!host.Start(path)) return 2;  // what was wrong is in the event log, which goes to stderr by default
//     CM::RunningModule module;
//     ...
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/api.h"
#include "platform/params/settings.h"

namespace vpnhost {

/// One at a time in a process. Start and Stop on the main thread; Reload and rules() from any.
class PLATFORM_API Host {
  public:
    Host() = default;
    ~Host() { Stop(); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Reads the settings and starts event log, parameters, event manager and token manager. False, with nothing
    /// running, when the settings are wrong or something cannot start; the reason is logged.
    bool Start(const std::string& settings_path);

    /// Reads the settings again and puts them into force. False, with the old ones kept, when they are wrong.
    bool Reload();

    /// Stops what Start started. The module must be stopped before. Harmless when not started.
    void Stop();

    /// The rules in force; the copy stays as it is when the settings change.
    std::shared_ptr<const LPCFG::Rules> rules() const;

  private:
    bool StartLogAndTokens(const settings::Settings& loaded);
    bool ApplyLogAndTokens(const settings::Settings& loaded);

    std::string path_;
    eventlog::Sinks sinks_;
    std::string softhsm_directory_;
    bool running_ = false;
    mutable std::mutex mutex_;  // guards rules_
    std::shared_ptr<const LPCFG::Rules> rules_ = std::make_shared<const LPCFG::Rules>();
};

}  // namespace vpnhost
