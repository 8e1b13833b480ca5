// A frame around what may throw and must not end more than itself: work of a thread of our own, a hook of the daemon's.
// From any thread.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

#include "platform/eventlog.h"

namespace eventlog {

/// Logs what was thrown at `where`; nothing where there is no memory for a line.
inline void LogThrown(std::uint16_t code, std::string_view where, const char* what) noexcept {
    try {
        TLogMessage(code).Attr(std::string(where).append(": ").append(what)).Send();
    } catch (...) {
        return;
    }
}

/// What `work` throws is logged and goes no further: it ends the work, not the process. False when it threw.
template <typename Work>
bool Guarded(std::uint16_t code, std::string_view where, Work work) noexcept {
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        LogThrown(code, where, error.what());
    } catch (...) {
        LogThrown(code, where, "failed for an unknown reason");
    }
    return false;
}

}  // namespace eventlog
