// `ikeauth respond`: answers initiators, says what happens and what it thinks of each.
#pragma once

#include <cstdint>
#include <string>

#include "ike/wire_options.h"

namespace ikeauth {

struct RespondOptions {
    WireOptions wire;
    std::string listen = "127.0.0.1";
    std::uint16_t port = kIkePort;
    std::uint16_t nat_port = 0;  // a second one; 0: 4500 when the port is 500, else none
    unsigned count = 0;  // exchanges that got to IKE_AUTH, then it ends; 0: until a signal
    bool cookies = false;
    bool quiet = false;  // one line for each exchange
};

/// Exit code: with a count the last exchange's ending, see StageHelp; else 0. What strangers begin is not counted.
int RunRespond(RespondOptions& options);

}  // namespace ikeauth
