// The commands, a group a file. Each function adds its commands to the program; they run when the arguments are parsed,
// print their result and end with a Failure when there is none.
#pragma once

#include <CLI/CLI.hpp>

#include "cli/session.h"

namespace certmgrctl {

void AddStatusCommands(CLI::App& app, Context& context);  // status, reload
void AddTokenCommands(CLI::App& app, Context& context);
void AddListCommands(CLI::App& app, Context& context);  // list, show
void AddChainCommands(CLI::App& app, Context& context);  // chain, verify
void AddImportCommand(CLI::App& app, Context& context);
void AddExportCommand(CLI::App& app, Context& context);
void AddDeleteCommand(CLI::App& app, Context& context);
void AddRequestCommands(CLI::App& app, Context& context);
void AddPresharedKeyCommands(CLI::App& app, Context& context);
void AddCrlCommands(CLI::App& app, Context& context);
void AddWatchCommand(CLI::App& app, Context& context);
void AddAgentCommand(CLI::App& app, Context& context);
void AddCompletionCommands(CLI::App& app, Context& context);

/// Groups of --help.
inline constexpr const char* kGroupLook = "Looking";
inline constexpr const char* kGroupChange = "Changing";
inline constexpr const char* kGroupStay = "Staying";
inline constexpr const char* kGroupShell = "Shell";

/// A command whose options live as long as the program: `run(context, options)` is called when it was chosen.
template <typename Options, typename Run>
void OnChosen(CLI::App* command, Context& context, const std::shared_ptr<Options>& options, Run run) {
    command->callback([&context, options, run] { run(context, *options); });
}

}  // namespace certmgrctl
