// Calls of the daemon's hooks.
#pragma once

#include "certmgr/certmgr.h"
#include "platform/event_codes.h"
#include "platform/guarded.h"

namespace CM {

/// Calls the hook, if there is one. What it throws is logged, and costs neither the other hooks their call nor the caller
/// its end.
template <typename... Parameters, typename... Arguments>
void Tell(void (*hook)(Parameters...), Arguments&&... arguments) {
    if (hook == nullptr) return;
    eventlog::Guarded(kMsgInternalError, "a hook of the daemon failed", [&] { hook(arguments...); });
}

}  // namespace CM
