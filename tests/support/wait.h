// Waiting for an event, with a generous limit: a test that waits never sleeps.
//
//     test_support::Event done;
//     start_something([&] { done.Signal(); });
//     ASSERT_TRUE(done.Wait());
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace test_support {

/// How often: CERTMGR_LONG_RUNS asks for the long run.
inline unsigned LongRun(unsigned usual, unsigned long_run) {
    return std::getenv("CERTMGR_LONG_RUNS") != nullptr ? long_run : usual;
}

/// Long enough for a loaded machine under a sanitizer; reached only by a fault.
inline constexpr std::chrono::seconds kWaitLimit{60};

/// A value guarded by a mutex, whose changes can be waited for.
template <typename T>
class Watched {
  public:
    Watched() = default;
    explicit Watched(T value) : value_(std::move(value)) {}

    /// Changes the value under the lock and wakes whoever waits.
    template <typename Change>
    void Update(Change&& change) {
        {
            const std::lock_guard lock(mutex_);
            change(value_);
        }
        changed_.notify_all();
    }
    /// Waits until the condition holds; false at the limit.
    template <typename Condition>
    bool WaitUntil(Condition&& condition, std::chrono::milliseconds limit = kWaitLimit) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return condition(std::as_const(value_)); });
    }
    T Get() const {
        const std::lock_guard lock(mutex_);
        return value_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    T value_{};
};

/// Counts; waiting is for a number of signals.
class Event {
  public:
    void Signal() {
        count_.Update([](unsigned& count) { ++count; });
    }
    bool Wait(unsigned signals = 1, std::chrono::milliseconds limit = kWaitLimit) {
        return count_.WaitUntil([signals](unsigned count) { return count >= signals; }, limit);
    }
    unsigned Count() const { return count_.Get(); }

  private:
    Watched<unsigned> count_;
};

}  // namespace test_support
