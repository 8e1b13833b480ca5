// Completion in shells: their scripts ask the program itself what may come next.
#pragma once

#include <string>
#include <vector>

#include "arguments/arguments.h"
#include "cli/session.h"

namespace certmgrctl {

/// First argument of a call by a completion script.
inline constexpr const char* kCompleteWord = "__complete";

/// Prints what the last of the words may become, a line each: the word and, after a tab, what it means. ":files" alone:
/// names of files. Names of objects are asked of the daemon when there is one; no error is shown.
void PrintCandidates(const arguments::Command& program, Context& context, const std::vector<std::string>& words);

}  // namespace certmgrctl
