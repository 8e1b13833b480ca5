// `ikeauth probe`: an initiator that says step by step what happens, and why.
#pragma once

#include <cstdint>
#include <string>

#include "ike/udp/socket.h"
#include "ike/wire_options.h"

namespace ikeauth {

struct ProbeOptions {
    WireOptions wire;
    std::string host;
    std::uint16_t port = kIkePort;
    std::uint16_t nat_port = kNatPort;  // where it goes on when an address translator stands between
};

/// Exit code: the ending's, see StageHelp.
int RunProbe(ProbeOptions& options);

}  // namespace ikeauth
