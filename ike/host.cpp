#include "ike/host.h"

#include <future>
#include <iostream>
#include <memory>
#include <mutex>

#include "certmgr/certmgr.h"
#include "ike/exchange.h"
#include "platform/bridge.h"
#include "platform/host/host.h"
#include "platform/host/program.h"

namespace ikeauth {
namespace {

bool RedirectLog(const vpnhost::Host& host, const std::function<void(const eventlog::Record&)>& log) {
    if (!log) return true;
    eventlog::Sinks sinks;
    sinks.level = host.sinks().level;
    sinks.to_stderr = false;
    sinks.callback = log;
    std::string error;
    return eventlog::SetSinks(sinks, error);
}

/// Notices the first client of the bridge.
class ClientWatch : public CommandListener {
  public:
    ClientWatch() : CommandListener(kUnusedGroup) { AddCommandListener(this); }
    ~ClientWatch() override { DelCommandListener(this); }

    void Wait() { came_.get_future().wait(); }
    bool ExecCommand(BridgeSession& /*session*/, long /*number*/, const std::string& /*input*/,
                     std::string& /*output*/) override {
        return false;
    }
    void OnOpenSession(BridgeSession* /*session*/) override {
        std::call_once(once_, [this] { came_.set_value(); });
    }

  private:
    static constexpr std::uint32_t kUnusedGroup = 100;  // it has no commands

    std::once_flag once_;
    std::promise<void> came_;
};

/// Runs the function while clients can be asked.
int RunWithBridge(vpnhost::Host& host, const std::string& socket, const std::function<int()>& run) {
    ClientWatch clients;
    if (!host.StartBridge("ikeauth " CERTMGR_VERSION, socket)) return kExitCannotRun;
    std::cout << "waiting for a client at " << socket << std::endl;
    clients.Wait();
    const int result = run();
    host.StopBridge();
    return result;
}

int RunWithModule(vpnhost::Host& host, const std::string& bridge_socket, const std::function<int()>& run) {
    const CM::RunningModule module;
    CM::Reload();
    return bridge_socket.empty() ? run() : RunWithBridge(host, bridge_socket, run);
}

}  // namespace

int WithRule(const std::string& config, const std::string& rule,
             const std::function<int(const LPCFG::auth_ike_t&)>& run,
             const std::function<void(const eventlog::Record&)>& log, const std::string& bridge_socket) {
    vpnhost::Host host;
    if (host.Start(config) != vpnhost::StartResult::kRunning) return kExitCannotRun;
    const std::shared_ptr<const LPCFG::Rules> rules = host.rules();
    const LPCFG::auth_ike_t* found = rules->find(rule);
    if (found == nullptr) {
        std::cerr << "ikeauth: no rule '" << rule << "' in " << config << "\n";
        return kExitCannotRun;
    }
    if (!RedirectLog(host, log)) return kExitCannotRun;
    const int result = RunWithModule(host, bridge_socket, [&] { return run(*found); });
    if (!host.Stop()) vpnhost::LeaveAtOnce(result);
    return result;
}

}  // namespace ikeauth
