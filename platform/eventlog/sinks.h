// Event log, the side of the program that hosts it: where messages go and which of them.
//
// A message is one entry: time (UTC), severity, message number, identity in brackets if there is one, text. Further
// lines of the text follow, each indented by at least four blanks: nothing that a peer or a token says can begin a
// line at the margin, where an entry begins.
//
// Before the first SetSinks, warnings and errors go to stderr.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/api.h"

namespace eventlog {

enum class Severity : std::uint8_t {
    kDebug = 0,
    kInfo = 1,
    kWarning = 2,
    kError = 3,
    kOff = 4,  // as a level: nothing is written
};

/// In the order of the enumerators.
inline constexpr std::array<std::string_view, 5> kSeverityNames{"debug", "info", "warning", "error", "off"};
PLATFORM_API std::string_view SeverityName(Severity severity) noexcept;

/// A message as it is written.
struct Record {
    Severity severity = Severity::kInfo;
    std::uint16_t code = 0;
    std::string ident;  // empty when the message has none
    std::string text;  // lines separated by line feeds, none at the end
};

enum class Colour : std::uint8_t { kAuto, kAlways, kNever };

struct Sinks {
    Severity level = Severity::kInfo;  // the lowest severity that is written

    bool to_stderr = true;
    Colour colour = Colour::kAuto;  // of the severity, on stderr; kAuto: on a terminal

    std::string file;  // path; empty: none. Created with mode 0640, opened for appending
    std::uint64_t file_max_bytes = 10U << 20;  // a larger file becomes NAME.1, NAME.1 becomes NAME.2, ...
    std::uint32_t file_count = 5;  // rotated files that are kept

    bool to_syslog = false;  // under the program's name, facility daemon; one record a line

    /// Called for every message, on the thread that sends it, without a lock held. Must not throw.
    std::function<void(const Record&)> callback;
};

/// Replaces all sinks; the log file is opened anew. False, with the reason in `error` and the old sinks at work, when
/// the file cannot be opened.
PLATFORM_API bool SetSinks(const Sinks& sinks, std::string& error);

}  // namespace eventlog
