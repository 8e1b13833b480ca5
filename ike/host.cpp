#include "ike/host.h"

#include <iostream>
#include <memory>

#include "certmgr/certmgr.h"
#include "ike/exchange.h"
#include "platform/host/host.h"

namespace ikeauth {
namespace {

bool RedirectLog(const std::string& config, const std::function<void(const eventlog::Record&)>& log) {
    if (!log) return true;
    eventlog::Sinks sinks;
    sinks.level = settings::Load(config).settings.log.sinks.level;
    sinks.to_stderr = false;
    sinks.callback = log;
    std::string error;
    return eventlog::SetSinks(sinks, error);
}

int RunWithModule(const LPCFG::auth_ike_t& rule, const std::function<int(const LPCFG::auth_ike_t&)>& run) {
    const CM::RunningModule module;
    CM::Reload();
    return run(rule);
}

}  // namespace

int WithRule(const std::string& config, const std::string& rule,
             const std::function<int(const LPCFG::auth_ike_t&)>& run,
             const std::function<void(const eventlog::Record&)>& log) {
    vpnhost::Host host;
    if (host.Start(config) != vpnhost::StartResult::kRunning) return kExitCannotRun;
    const std::shared_ptr<const LPCFG::Rules> rules = host.rules();
    const LPCFG::auth_ike_t* found = rules->find(rule);
    if (found == nullptr) {
        std::cerr << "ikeauth: no rule '" << rule << "' in " << config << "\n";
        return kExitCannotRun;
    }
    if (!RedirectLog(config, log)) return kExitCannotRun;
    const int result = RunWithModule(*found, run);
    host.Stop();
    return result;
}

}  // namespace ikeauth
