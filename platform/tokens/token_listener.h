// The token manager's commands on the management bridge.
#pragma once

#include <string>

#include "platform/api.h"
#include "platform/bridge.h"

namespace tokens {

/// Serves group bridge::kGroupTokens while it lives (platform/token_commands.h). PINs are wiped after use and never
/// logged; the rules of token_host.h about PINs that failed hold here, too.
class PLATFORM_API TokenListener final : public CommandListener {
  public:
    TokenListener();
    ~TokenListener() override;

    bool ExecCommand(BridgeSession& session, long number, const std::string& input, std::string& output) override;
};

}  // namespace tokens
