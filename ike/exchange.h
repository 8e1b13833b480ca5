// Runs both sides of an exchange as processes of their own, joined by a socket pair, and shows what they say.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace ikeauth {

struct ExchangeOptions {
    std::vector<std::string> initiator;  // arguments of `ikeauth side` for each side, without --fd and --role
    std::vector<std::string> responder;
    std::vector<std::string> expect;  // texts that the refusal must show; none: the exchange must succeed
    bool quiet = false;  // only the verdict
    std::chrono::seconds limit{60};  // of the whole exchange
};

/// Exit codes of `ikeauth`.
enum ExitCode : int {
    kExitSuccess = 0,
    kExitRefused = 1,  // one side refused the other, or could not authenticate
    kExitCannotRun = 2,  // wrong arguments or settings, or files or tokens that cannot be used
    kExitUnexpected = 3,  // refused, but not with the expected text; or accepted against expectation
};

/// Prints the sides' event logs line by line, "I | " for the initiator and "R | " for the responder. With
/// expected texts a refusal that shows them all is success. Bounded by the limit.
int RunExchange(const ExchangeOptions& options);

}  // namespace ikeauth
