#include "platform/bridge.h"

namespace bridge::server {

// No listener is offered yet, so no client can be connected.
void NotifyClients(std::uint32_t /*code*/, const std::string& /*body*/) {}

bool NotifyClientAndWaitResponse(std::uint32_t /*code*/, std::string& /*message*/, int /*timeout_ms*/) {
    return false;
}

}  // namespace bridge::server
