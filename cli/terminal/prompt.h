// Asking the person in front of the terminal, and reading secrets.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/base.h"

namespace certmgrctl {

/// Whether there is somebody to ask: standard input and standard error are a terminal.
bool CanAsk();

/// A line of standard input, without its end; nothing at the end of the input. Reads no byte beyond the line, so that
/// several readers take turns.
std::optional<std::string> ReadLine();

/// Asks, and reads a line. Failure: kExitUsage with `otherwise` (an option to use) when there is nobody to ask,
/// kExitCancelled when the input ends.
std::string Ask(const std::string& question, const std::string& otherwise);

/// Asks until the answer is yes or no; an empty one is no.
bool Confirmed(const std::string& question, const std::string& otherwise);

/// A secret from the first line of a file that nobody but its owner may read, of standard input ("-"), or, when `file` is
/// empty, typed without echo. Failure likewise.
vpnfc::SecretString ReadSecret(const std::string& file, const std::string& question, const std::string& otherwise);

/// What may come while somebody types: `happened` is asked at the beginning and whenever the descriptor can be read.
struct Interruption {
    int fd;
    std::function<bool()> happened;
};
/// A secret typed without echo, of somebody who is there (CanAsk); nothing when the interruption happened.
std::optional<vpnfc::SecretString> TypeSecret(const std::string& question, const Interruption& interruption);

/// Like ReadSecret; typed twice, so that a slip is noticed. Not empty.
vpnfc::SecretString ReadNewSecret(const std::string& file, const std::string& question, const std::string& otherwise);

}  // namespace certmgrctl
