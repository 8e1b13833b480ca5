// Management bridge, server side: notifications to the connected clients.
#pragma once

#include <cstdint>
#include <string>

#include "platform/api.h"

namespace bridge::server {

/// Sends a notification to every connected client; returns at once. Does nothing when none is connected.
PLATFORM_API void NotifyClients(std::uint32_t code, const std::string& body);

/// Asks the connected clients and waits for the first answer. `message` holds the question and, on success, the
/// answer. `timeout_ms` below 0 waits without limit. False when no client could be asked, when the last one went
/// before it answered, or when the time ran out (`message` unchanged).
PLATFORM_API bool NotifyClientAndWaitResponse(std::uint32_t code, std::string& message, int timeout_ms);

}  // namespace bridge::server
