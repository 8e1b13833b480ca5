// Event manager, the side of the program that hosts it: start, stop, posted work and signals.
#pragma once

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>

#include "platform/api.h"

namespace events {

/// How long Stop waits for the handler that is running.
inline constexpr std::chrono::seconds kStopLimit{10};

/// Starts the event thread; what was armed before runs from now on. False when the thread is there already, or
/// cannot be made.
PLATFORM_API bool Start();

/// Ends the event thread after the handler that is running, then calls everything still armed with `cancelled` set,
/// on the calling thread. What is armed later waits for the next Start. False, with the thread left to itself, when
/// the running handler did not return within the limit: EM_DelTimer would wait for it too, so leave the process
/// without taking down what the handler uses. False at once on the event thread. Harmless when not started.
PLATFORM_API bool Stop(std::chrono::milliseconds limit = kStopLimit);

/// Runs `work` once on the event thread. Work that is still waiting at Stop is dropped without being called.
PLATFORM_API void Post(std::function<void()> work);

/// Takes over signals of the process: from construction on they are kept for Run instead of their default action.
/// One object at a time for a signal.
class PLATFORM_API SignalLoop {
  public:
    explicit SignalLoop(std::initializer_list<int> signals);
    ~SignalLoop();
    SignalLoop(const SignalLoop&) = delete;
    SignalLoop& operator=(const SignalLoop&) = delete;

    /// Calls `on_signal` on the calling thread for each signal that comes, until it returns false.
    void Run(const std::function<bool(int)>& on_signal);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace events
