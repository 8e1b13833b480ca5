// Runs calls into one module on threads of their own, so that a call that never returns costs its thread and nothing
// else.
//
// A call is watched by the thread that asked for it: when the module has not been entered anew or left for longer than
// the limit, the call is abandoned. From then on, until every abandoned call has returned, the runner takes no more. An
// abandoned call goes on to the end on its own thread; what it works on must therefore belong to it, never to the
// thread that asked.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tokens {

/// Tells the watcher of the call on this thread that the module is entered (again).
void NoteModuleCall(const char* function) noexcept;

class CallRunner {
  public:
    using Milliseconds = std::chrono::milliseconds;

    /// `on_stuck` is told which function did not return, on the thread that asked for the call; `on_recovered` runs on
    /// the thread of the last abandoned call that returned.
    CallRunner(Milliseconds limit, std::function<void(const char*)> on_stuck, std::function<void()> on_recovered);
    ~CallRunner();
    CallRunner(const CallRunner&) = delete;
    CallRunner& operator=(const CallRunner&) = delete;

    /// Runs `work` and returns what it returned; nothing when the call was abandoned or not taken. `patience` multiplies
    /// the limit for what takes long by nature. `work` owns everything it touches.
    template <typename Work>
    auto Run(Work work, unsigned patience = 1) -> std::optional<std::invoke_result_t<Work&>> {
        struct Slot {
            explicit Slot(Work&& w) : work(std::move(w)) {}
            Work work;
            std::optional<std::invoke_result_t<Work&>> value;
        };
        auto slot = std::make_shared<Slot>(std::move(work));
        if (!Execute([slot] { slot->value.emplace(slot->work()); }, patience)) return std::nullopt;
        return std::move(slot->value);
    }

    /// Queues `work`, which nobody waits for.
    void Post(std::function<void()> work);

    /// False while an abandoned call has not returned.
    bool Answers() const;
    void SetLimit(Milliseconds limit);
    Milliseconds limit() const { return Milliseconds(limit_.load(std::memory_order_relaxed)); }

    /// From now on no call is waited for longer than this: the host is about to stop.
    void Hurry(Milliseconds limit);
    /// Ends the threads; queued calls are dropped. Threads that do not end within the limit are left to themselves:
    /// false.
    bool Shutdown(Milliseconds limit);

  private:
    struct Call;
    struct State;

    bool Execute(std::function<void()> work, unsigned patience);
    static void Work(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
    std::atomic<Milliseconds::rep> limit_;
};

}  // namespace tokens
