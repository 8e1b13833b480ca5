// Runs calls into one module on threads of their own, so that a call that never returns costs its thread and nothing
// else.
//
// A call is watched by the thread that asked for it: when the module has not been entered anew or left for longer than
// the limit, or the call as a whole takes many times the limit, it is abandoned. From then on the runner takes no more,
// until every abandoned call has returned or a probe did. An abandoned call does not enter the module again, save for
// cleaning up, and ends on its own thread; what it works on must therefore belong to it, never to the thread that asked.
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

/// Tells the watcher of the call on this thread that the module is entered (again). False when the call was abandoned.
bool NoteModuleCall(const char* function) noexcept;

class CallRunner {
  public:
    using Milliseconds = std::chrono::milliseconds;

    /// `on_stuck` is told which function did not return, on the thread that asked for the call; `on_recovered` runs on
    /// the thread of the last abandoned call that returned.
    CallRunner(Milliseconds limit, std::function<void(const char*)> on_stuck, std::function<void()> on_recovered);
    ~CallRunner();
    CallRunner(const CallRunner&) = delete;
    CallRunner& operator=(const CallRunner&) = delete;

    /// Runs `work` and returns what it returned; nothing when it threw, was abandoned or not taken. `patience` multiplies
    /// the limit for what takes long by nature. `work` owns everything it touches.
    template <typename Work>
    auto Run(Work work, unsigned patience = 1) -> std::optional<std::invoke_result_t<Work&>> {
        return RunAs(Kind::kCall, std::move(work), patience);
    }

    /// The same while calls are abandoned: one that returns in time shows that the module answers again, whatever becomes
    /// of those. Not taken when so many threads hang that few are left.
    template <typename Work>
    auto Probe(Work work) -> std::optional<std::invoke_result_t<Work&>> {
        return RunAs(Kind::kProbe, std::move(work), 1);
    }

    /// Queues `work`, which nobody waits for; it waits itself while the module does not answer.
    void Post(std::function<void()> work);

    /// False while calls are abandoned.
    bool Answers() const;
    /// Whether this is a thread of the runner.
    bool OnWorker() const;
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
    enum class Kind : int { kCall, kProbe, kPost };

    template <typename Work>
    auto RunAs(Kind kind, Work work, unsigned patience) -> std::optional<std::invoke_result_t<Work&>> {
        struct Slot {
            explicit Slot(Work&& w) : work(std::move(w)) {}
            Work work;
            std::optional<std::invoke_result_t<Work&>> value;
        };
        auto slot = std::make_shared<Slot>(std::move(work));
        if (!Execute([slot] { slot->value.emplace(slot->work()); }, kind, patience)) return std::nullopt;
        return std::move(slot->value);
    }

    bool Execute(std::function<void()> work, Kind kind, unsigned patience);
    bool Await(const std::shared_ptr<Call>& call, unsigned patience, std::unique_lock<std::mutex>& lock);
    static void Work(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
    std::atomic<Milliseconds::rep> limit_;
};

}  // namespace tokens
