// The program around an exchange: host libraries, module and rule.
#pragma once

#include <functional>
#include <string>

#include "platform/eventlog/sinks.h"
#include "platform/policy.h"

namespace ikeauth {

/// Starts the host libraries from a settings file, loads the module and runs the function with the rule of that name.
/// With a listener the log goes there, messages of exchanges on the thread that calls the module, and to no other place.
/// With `bridge_socket` clients can manage the module there and are asked which certificate to use: the function runs when
/// the first one has come. Gives the function's result, or kExitCannotRun, said on stderr.
int WithRule(const std::string& config, const std::string& rule,
             const std::function<int(const LPCFG::auth_ike_t&)>& run,
             const std::function<void(const eventlog::Record&)>& log = {}, const std::string& bridge_socket = {});

}  // namespace ikeauth
