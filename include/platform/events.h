// Event manager: timers and deferred calls, run one after another on the event manager's own thread.
//
// Handlers of the module run on that thread, never two at once. A handler may set and delete timers, itself included.
#pragma once

#include "platform/api.h"

/// What a handler is told.
struct EM_Event {
    bool cancelled;  // the timer was deleted, or the event manager stopped, before it fired: release and return
    void* argument;
};

using EM_Handler = void (*)(const EM_Event& event);

/// Length of one unit of a timer delay.
inline constexpr unsigned EM_UNIT_MILLISECONDS = 100;

/// Arms a one-shot timer. A timer is identified by group, handler and argument; arming one that is already armed
/// keeps the earlier of the two moments. Delay in units; 0 fires as soon as the thread is free.
PLATFORM_API void EM_SetTimer(unsigned long group, unsigned long delay, EM_Handler handler, void* argument);

/// Disarms the timer, and every deferred call of that handler and argument. A handler that is running on the event
/// thread is waited for, unless this is the event thread. What was disarmed is called once with `cancelled` set, on
/// the calling thread, before this function returns. Harmless when nothing is armed, before start and after stop.
PLATFORM_API void EM_DelTimer(unsigned long group, EM_Handler handler, void* argument);

/// Queues one call of the handler; every call queued is made. Belongs to group 0 for EM_DelTimer.
PLATFORM_API void EM_AsyncCall(EM_Handler handler, void* argument);
