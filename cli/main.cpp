// certmgrctl: manages certificates, CRLs, preshared keys and tokens through the daemon's management bridge.

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

void AddOptions(arguments::Program& program, Context& context) {
    program.AllowOptionsBehindCommands();
    program.RequireCommand();
    program.Footer(kFooter);
    program.AddHelp();
    program.AddVersion(CERTMGR_VERSION);
    program.AddOption("-s,--socket", context.session.socket, "PATH", "Socket of the daemon");
    program.AddFlag("--json", context.console.json, "Print JSON");
}

void AddCommands(Command& program, Context& context) {
    AddStatusCommands(program, context);
    AddListCommands(program, context);
    AddChainCommands(program, context);
    AddExportCommand(program, context);
    AddImportCommand(program, context);
    AddDeleteCommand(program, context);
    AddRequestCommands(program, context);
    AddPresharedKeyCommands(program, context);
    AddCrlCommands(program, context);
    AddTokenCommands(program, context);
    AddWatchCommand(program, context);
    AddAgentCommand(program, context);
    AddCompletionCommands(program, context);
    for (const Command& group : program.commands()) {
        for (Command& command : group.commands()) command.Group("Commands");
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

int Run(arguments::Program& program, const Context& context, int argc, char** argv) {
    try {
        if (const auto code = program.Parse(argc, argv, kExitUsage)) return *code;
        if (std::cout.flush()) return kExitDone;
        throw Failure(kExitFailed, "standard output cannot be written");
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
    arguments::Program program("certmgrctl",
                               "Manages the certificates, CRLs, preshared keys and tokens of certmgrd.\n");
    Context context;
    context.session.socket = bridge::DefaultClientSocketPath();
    AddOptions(program, context);
    AddCommands(program, context);
    if (argc > 1 && std::string(argv[1]) == kCompleteWord) {
        PrintCandidates(program, context, std::vector<std::string>(argv + 2, argv + argc));
        return kExitDone;
    }
    return Run(program, context, argc, argv);
}

}  // namespace
}  // namespace certmgrctl

int main(int argc, char** argv) {
    using namespace certmgrctl;
    return vpnhost::RunProgram("certmgrctl", kExitFailed, [&] { return RunCommandLine(argc, argv); });
}
