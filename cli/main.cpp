// certmgrctl: manages certificates, CRLs, preshared keys and tokens through the daemon's management bridge.

#include <CLI/CLI.hpp>
#include <clocale>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "cli/commands/commands.h"
#include "cli/completion.h"
#include "cli/failure.h"
#include "cli/session.h"
#include "cli/terminal/text.h"
#include "platform/bridge_socket.h"
#include "platform/host/program.h"

namespace certmgrctl {
namespace {

constexpr const char* kFooter =
    "A certificate is named by any piece of its subject, or any beginning of its\n"
    "serial number or fingerprint, that fits no other one. \"certmgrctl COMMAND\n"
    "--help\" shows the options of one. PINs, passwords and keys are asked for, or\n"
    "read from files of mode 0600 or, with \"-\", line by line from standard input.\n"
    "\n"
    "Exit codes:\n"
    "  0  done\n"
    "  1  refused or failed; of \"chain\" and \"verify\": not to be trusted\n"
    "  2  wrong arguments, a file that cannot be read, or nobody to ask\n"
    "  3  no daemon, or it does not let this user in\n"
    "  4  nothing has that name\n"
    "  5  several objects have that name\n"
    "  6  nobody is logged in to the token, or the PIN or password is wrong\n"
    "  7  cancelled by the user\n";

void AddOptions(CLI::App& app, Context& context) {
    app.fallthrough();
    app.require_subcommand(1);
    app.footer(kFooter);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "certmgrctl " CERTMGR_VERSION, "Print the version and exit");
    app.add_option("-s,--socket", context.session.socket, "Socket of the daemon")->option_text("PATH");
    app.add_flag("--json", context.console.json, "Print JSON");
}

void AddCommands(CLI::App& app, Context& context) {
    AddStatusCommands(app, context);
    AddListCommands(app, context);
    AddChainCommands(app, context);
    AddExportCommand(app, context);
    AddImportCommand(app, context);
    AddDeleteCommand(app, context);
    AddRequestCommands(app, context);
    AddPresharedKeyCommands(app, context);
    AddCrlCommands(app, context);
    AddTokenCommands(app, context);
    AddWatchCommand(app, context);
    AddAgentCommand(app, context);
    AddCompletionCommands(app, context);
    const auto all = [](const CLI::App*) { return true; };
    for (CLI::App* group : app.get_subcommands(all)) {
        for (CLI::App* command : group->get_subcommands(all)) command->group("Commands");
    }
}

/// On standard error. A Failure without text was told by the command already.
void Complain(const Context& context, const Failure& failure) {
    const std::string text = failure.what();
    if (text.empty()) return;
    if (context.console.json) {
        const Json json = {{"error", {{"code", failure.code()}, {"text", text}, {"more", failure.lines()}}}};
        std::cerr << json.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
        return;
    }
    std::cerr << "certmgrctl: " << Escaped(text) << "\n";
    for (const std::string& line : failure.lines()) std::cerr << Escaped(line) << "\n";
}

int Run(CLI::App& app, const Context& context, int argc, char** argv) {
    try {
        app.parse(argc, argv);
        if (std::cout.flush()) return kExitDone;
        throw Failure(kExitFailed, "standard output cannot be written");
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitDone : kExitUsage;
    } catch (const Failure& failure) {
        std::cout.flush();
        Complain(context, failure);
        return failure.code();
    } catch (const std::exception& error) {
        Complain(context, Failure(kExitFailed, error.what()));
        return kExitFailed;
    }
}

int RunCommandLine(int argc, char** argv) {
    // Widths of characters; what is printed is UTF-8 anyway.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app{"Manages the certificates, CRLs, preshared keys and tokens of certmgrd.\n", "certmgrctl"};
    Context context;
    context.session.socket = bridge::DefaultClientSocketPath();
    AddOptions(app, context);
    AddCommands(app, context);
    if (argc > 1 && std::string(argv[1]) == kCompleteWord) {
        PrintCandidates(app, context, std::vector<std::string>(argv + 2, argv + argc));
        return kExitDone;
    }
    return Run(app, context, argc, argv);
}

}  // namespace
}  // namespace certmgrctl

int main(int argc, char** argv) {
    using namespace certmgrctl;
    return vpnhost::RunProgram("certmgrctl", kExitFailed, [&] { return RunCommandLine(argc, argv); });
}
