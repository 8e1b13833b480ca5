// certmgrd: runs the certificate manager with its host libraries, in the foreground, until told to stop.

#include <csignal>
#include <iostream>
#include <string>

#include "arguments/arguments.h"
#include "certmgr/certmgr.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"
#include "platform/events/event_host.h"
#include "platform/host/host.h"
#include "platform/host/program.h"
#include "platform/tokens.h"

namespace {

enum ExitCode : int {
    kExitSuccess = 0,
    kExitFailure = 1,  // something could not be started
    kExitSettings = 2,  // wrong arguments or settings
};

constexpr const char* kFooter =
    "Signals:\n"
    "  SIGHUP           reload settings and tokens; settings with errors change nothing\n"
    "  SIGTERM, SIGINT  stop in order\n"
    "\n"
    "Exit codes:\n"
    "  0  stopped in order\n"
    "  1  something that the settings ask for could not be started\n"
    "  2  wrong arguments, or a settings file that cannot be read or has errors\n";

int ExitCodeOf(vpnhost::StartResult result) {
    switch (result) {
        case vpnhost::StartResult::kRunning:
            return kExitSuccess;
        case vpnhost::StartResult::kWrongSettings:
            return kExitSettings;
        case vpnhost::StartResult::kFailed:
            break;
    }
    return kExitFailure;
}

void LogLine(const std::string& text) {
    TLogMessage(kMsgDaemon).Attr(text).Send();
}

/// Settings first, then what the tokens hold; a file with errors leaves both as they are.
void ReloadEverything(vpnhost::Host& host) {
    if (!host.Reload()) {
        LogLine("settings not reloaded, the old ones stay in force");
        return;
    }
    PKCS11::Manager::Instance().ReloadTokensContent(1);
    CM::Reload();
    LogLine("settings and tokens reloaded");
}

int CheckSettings(const std::string& path) {
    const settings::LoadResult loaded = settings::Load(path);
    for (const settings::Problem& problem : loaded.problems) std::cerr << problem.ToString() << "\n";
    std::cout << path << (loaded.ok ? ": good" : ": has errors") << "\n";
    return loaded.ok ? kExitSuccess : kExitSettings;
}

/// The module and the bridge, until a signal says to stop.
int Serve(vpnhost::Host& host, events::SignalLoop& signals) {
    const CM::RunningModule module;
    CM::Reload();
    if (!host.StartBridge("certmgrd " CERTMGR_VERSION)) {
        std::cerr << "certmgrd: not started; the log says why\n";
        return kExitFailure;
    }
    LogLine("certmgrd runs; SIGHUP reloads, SIGTERM stops");
    signals.Run([&host](int signal) {
        if (signal != SIGHUP) return false;
        ReloadEverything(host);
        return true;
    });
    LogLine("certmgrd stops");
    host.StopBridge();
    return kExitSuccess;
}

int Run(const std::string& path) {
    // Before anything starts, so that no signal is lost to its default action.
    events::SignalLoop signals{SIGHUP, SIGTERM, SIGINT};
    // Whoever reads stderr may go away.
    std::signal(SIGPIPE, SIG_IGN);
    vpnhost::Host host;
    if (const auto result = host.Start(path); result != vpnhost::StartResult::kRunning) {
        std::cerr << "certmgrd: not started; the log says why\n";
        return ExitCodeOf(result);
    }
    const int code = Serve(host, signals);
    if (!host.Stop()) {
        TLogMessage(kMsgInternalError).Attr("something that was begun does not end; certmgrd leaves it").Send();
        vpnhost::LeaveAtOnce(kExitFailure);
    }
    return code;
}

int RunCommandLine(int argc, char** argv) {
    arguments::Program program(
        "certmgrd",
        "Certificate manager for IKE/IPsec VPN clients: keeps a live store of what PKCS#11 tokens hold.\n"
        "Runs in the foreground until told to stop, and logs to stderr unless the settings say otherwise.\n");
    program.Footer(kFooter);
    std::string config = "/etc/certmgr/certmgr.toml";
    bool check = false;
    program.AddOption("-c,--config", config, "FILE", "Settings file; default " + config);
    program.AddFlag("--check", check, "Say what is wrong in the settings file, and exit");
    program.AddVersion(CERTMGR_VERSION);
    program.AddHelp();
    if (const auto code = program.Parse(argc, argv, kExitSettings)) return *code;
    return check ? CheckSettings(config) : Run(config);
}

}  // namespace

int main(int argc, char** argv) {
    return vpnhost::RunProgram("certmgrd", kExitFailure, [&] { return RunCommandLine(argc, argv); });
}
