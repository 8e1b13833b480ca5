#include "platform/host/host.h"

#include "platform/bridge/bridge_host.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"
#include "platform/events/event_host.h"
#include "platform/tokens/token_host.h"
#include "platform/tokens/token_listener.h"

namespace vpnhost {
namespace {

bool Refuse(const std::string& text) {
    TLogMessage(kMsgSettingsRejected).Attr(text).Send();
    return false;
}

StartResult Fail(const std::string& text) {
    TLogMessage(kMsgStartFailed).Attr(text).Send();
    return StartResult::kFailed;
}

bool OpenLog(const eventlog::Sinks& sinks, std::string& error) {
    if (eventlog::SetSinks(sinks, error)) return true;
    error = "the log file cannot be opened: " + error + "; name another as \"file\" in [log]";
    return false;
}

}  // namespace

Host::Host() = default;

Host::~Host() {
    Stop();
}

StartResult Host::StartLibraries(const settings::Settings& loaded) {
    std::string error;
    const std::string& folder = loaded.tokens.softhsm_directory;
    if (!folder.empty() && !tokens::PrepareSoftHsm(folder, error)) {
        return Fail("state directory of SoftHSM2: " + error + "; name another as \"softhsm_directory\" in [tokens]");
    }
    sinks_ = loaded.log.sinks;
    softhsm_directory_ = folder;
    if (!tokens::Start(loaded.tokens.manager, error)) {
        Refuse(error);
        return StartResult::kWrongSettings;
    }
    return events::Start() ? StartResult::kRunning : Fail("the event thread cannot be made");
}

bool Host::ApplyLogAndTokens(const settings::Settings& loaded) {
    std::string error;
    if (!OpenLog(loaded.log.sinks, error)) return Refuse(error);
    if (!tokens::Apply(loaded.tokens.manager, error)) {
        std::string ignored;
        eventlog::SetSinks(sinks_, ignored);  // all or nothing
        return Refuse(error);
    }
    sinks_ = loaded.log.sinks;
    if (loaded.tokens.softhsm_directory != softhsm_directory_) {
        TLogMessage(kMsgSettingsWarning)
            .Attr("tokens.softhsm_directory changed: takes effect at the next start")
            .Send();
    }
    return true;
}

StartResult Host::Start(const std::string& settings_path) {
    path_ = settings_path;
    const settings::LoadResult loaded = settings::Load(path_);
    std::string error;
    const bool log_open = !loaded.ok || OpenLog(loaded.settings.log.sinks, error);
    settings::LogProblems(path_, loaded);
    if (!loaded.ok) return StartResult::kWrongSettings;
    if (!log_open) return Fail(error);
    settings::Apply(loaded.settings);
    running_ = true;
    const StartResult result = StartLibraries(loaded.settings);
    if (result != StartResult::kRunning) {
        Stop();
        return result;
    }
    bridge_settings_ = loaded.settings.bridge;
    const std::lock_guard lock(mutex_);
    rules_ = std::make_shared<const LPCFG::Rules>(loaded.settings.rules);
    return StartResult::kRunning;
}

bool Host::Reload() {
    const settings::LoadResult loaded = settings::Load(path_);
    const bool applied = loaded.ok && ApplyLogAndTokens(loaded.settings);
    if (applied || !loaded.ok) settings::LogProblems(path_, loaded);
    if (!applied) return false;
    settings::Apply(loaded.settings);
    ApplyBridge(loaded.settings.bridge);
    const std::lock_guard lock(mutex_);
    rules_ = std::make_shared<const LPCFG::Rules>(loaded.settings.rules);
    return true;
}

bool Host::StartBridge(const std::string& program, const std::string& socket) {
    bridge_settings_.server.program = program;
    if (!socket.empty()) bridge_settings_.server.socket_path = socket;
    if (socket.empty() && !bridge_settings_.enabled) return true;
    token_listener_ = std::make_unique<tokens::TokenListener>();
    std::string error;
    if (bridge::Start(bridge_settings_.server, error)) return true;
    token_listener_.reset();
    Fail("management bridge: " + error + "; \"socket\" in [bridge] names another, \"enabled = false\" does without");
    return false;
}

void Host::StopBridge() {
    bridge::Stop();
    token_listener_.reset();
}

/// Where the socket stands, and whether there is one, stays as it was at the start.
void Host::ApplyBridge(const settings::Bridge& loaded) {
    if (token_listener_ == nullptr) return;
    bridge::Settings server = loaded.server;
    server.program = bridge_settings_.server.program;
    server.socket_path = bridge_settings_.server.socket_path;
    std::string error;
    if (!bridge::Apply(server, error)) TLogMessage(kMsgSettingsWarning).Attr("bridge: " + error).Send();
}

bool Host::Stop() {
    if (!running_) return true;
    running_ = false;
    StopBridge();
    tokens::Stop();
    return events::Stop();
}

std::shared_ptr<const LPCFG::Rules> Host::rules() const {
    const std::lock_guard lock(mutex_);
    return rules_;
}

}  // namespace vpnhost
