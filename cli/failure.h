// How a command ends: exit codes, and the exception that carries one.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace certmgrctl {

/// Documented in --help and the manual page: scripts rely on them.
enum ExitCode : int {
    kExitDone = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitNoDaemon = 3,
    kExitNotFound = 4,
    kExitAmbiguous = 5,
    kExitLogin = 6,
    kExitCancelled = 7,
};

/// Ends a command. Texts may hold what tokens and certificates say: they are escaped where they are printed.
class Failure : public std::runtime_error {
  public:
    /// `lines`: candidates, or what to do next.
    Failure(ExitCode code, const std::string& text, std::vector<std::string> lines = {})
        : std::runtime_error(text), code_(code), lines_(std::move(lines)) {}

    ExitCode code() const { return code_; }
    const std::vector<std::string>& lines() const { return lines_; }

  private:
    ExitCode code_;
    std::vector<std::string> lines_;
};

}  // namespace certmgrctl
