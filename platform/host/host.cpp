#include "platform/host/host.h"

#include "platform/event_codes.h"
#include "platform/eventlog.h"
#include "platform/events/event_host.h"
#include "platform/tokens/token_host.h"

namespace vpnhost {
namespace {

bool Refuse(const std::string& text) {
    TLogMessage(kMsgSettingsRejected).Attr(text).Send();
    return false;
}

}  // namespace

bool Host::StartLogAndTokens(const settings::Settings& loaded) {
    std::string error;
    const std::string& folder = loaded.tokens.softhsm_directory;
    if (!eventlog::SetSinks(loaded.log.sinks, error)) return Refuse(error);
    if (!folder.empty() && !tokens::PrepareSoftHsm(folder, error)) return Refuse(error);
    sinks_ = loaded.log.sinks;
    softhsm_directory_ = folder;
    return tokens::Start(loaded.tokens.manager, error) || Refuse(error);
}

bool Host::ApplyLogAndTokens(const settings::Settings& loaded) {
    std::string error;
    if (!eventlog::SetSinks(loaded.log.sinks, error)) return Refuse(error);
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

bool Host::Start(const std::string& settings_path) {
    path_ = settings_path;
    const settings::LoadResult loaded = settings::Load(path_);
    settings::LogProblems(path_, loaded);
    if (!loaded.ok) return false;
    settings::Apply(loaded.settings);
    running_ = true;
    if (!StartLogAndTokens(loaded.settings) || !events::Start()) {
        Stop();
        return false;
    }
    const std::lock_guard lock(mutex_);
    rules_ = std::make_shared<const LPCFG::Rules>(loaded.settings.rules);
    return true;
}

bool Host::Reload() {
    const settings::LoadResult loaded = settings::Load(path_);
    settings::LogProblems(path_, loaded);
    if (!loaded.ok || !ApplyLogAndTokens(loaded.settings)) return false;
    settings::Apply(loaded.settings);
    const std::lock_guard lock(mutex_);
    rules_ = std::make_shared<const LPCFG::Rules>(loaded.settings.rules);
    return true;
}

void Host::Stop() {
    if (!running_) return;
    running_ = false;
    tokens::Stop();
    events::Stop();
}

std::shared_ptr<const LPCFG::Rules> Host::rules() const {
    const std::lock_guard lock(mutex_);
    return rules_;
}

}  // namespace vpnhost
