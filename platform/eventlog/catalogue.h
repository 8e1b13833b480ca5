// The message catalogue: wording and severity of every message code.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/eventlog/sinks.h"

namespace eventlog {

struct Wording {
    std::uint16_t code;
    Severity severity;
    /// %1 to %9 stand for the attributes; "\n\t" begins an indented line.
    std::string_view text;
    /// A message whose first attribute begins with this is of severity info.
    std::string_view success{};
};

/// Wording of a code. A code that the catalogue lacks gets a wording of its own, so that nothing is lost.
const Wording& FindWording(std::uint16_t code) noexcept;

/// The lowest severity that a message of that wording can have.
constexpr Severity LowestSeverity(const Wording& wording) {
    return wording.success.empty() ? wording.severity : Severity::kInfo;
}

}  // namespace eventlog
