// The commands, a group a file. Each function adds its commands to the program; they run when the arguments are parsed,
// print their result and end with a Failure when there is none.
#pragma once

#include <memory>

#include "arguments/arguments.h"
#include "cli/session.h"

namespace certmgrctl {

using arguments::Command;

void AddStatusCommands(Command& app, Context& context);  // status, reload
void AddTokenCommands(Command& app, Context& context);
void AddListCommands(Command& app, Context& context);  // list, show
void AddChainCommands(Command& app, Context& context);  // chain, verify
void AddImportCommand(Command& app, Context& context);
void AddExportCommand(Command& app, Context& context);
void AddDeleteCommand(Command& app, Context& context);
void AddRequestCommands(Command& app, Context& context);
void AddPresharedKeyCommands(Command& app, Context& context);
void AddCrlCommands(Command& app, Context& context);
void AddWatchCommand(Command& app, Context& context);
void AddAgentCommand(Command& app, Context& context);
void AddCompletionCommands(Command& app, Context& context);

/// Groups of --help.
inline constexpr const char* kGroupLook = "Looking";
inline constexpr const char* kGroupChange = "Changing";
inline constexpr const char* kGroupStay = "Staying";
inline constexpr const char* kGroupShell = "Shell";

/// A command whose options live as long as the program: `run(context, options)` is called when it was chosen.
template <typename Options, typename Run>
void OnChosen(Command command, Context& context, const std::shared_ptr<Options>& options, Run run) {
    command.OnChosen([&context, options, run] { run(context, *options); });
}

}  // namespace certmgrctl
