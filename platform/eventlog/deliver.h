// From a record to the sinks.
#pragma once

#include "platform/eventlog/sinks.h"

namespace eventlog {

/// The lowest severity that is written now.
Severity Level() noexcept;

/// Writes the record to every sink.
void Deliver(const Record& record);

}  // namespace eventlog
