// A value that is reached under its lock, for the length of a full expression (so once in each), and whose changes can
// be waited for.
//
//     Guarded<Log> log;
//     log->records.push_back(record);
//     log.Wait([](const Log& now) { return now.records.size() == 2; });
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vendor_host {

template <typename T>
class Guarded {
  public:
    class Access {
      public:
        explicit Access(const Guarded& guarded) : guarded_(guarded), lock_(guarded.mutex_) {}
        ~Access() { guarded_.changed_.notify_all(); }
        Access(const Access&) = delete;
        Access& operator=(const Access&) = delete;
        T* operator->() const { return &guarded_.value_; }
        T& operator*() const { return guarded_.value_; }

      private:
        const Guarded& guarded_;
        const std::lock_guard<std::mutex> lock_;
    };

    /// For more than one expression.
    Access Lock() const { return Access(*this); }
    Access operator->() const { return Lock(); }
    /// Waits until it holds; false after 30 seconds.
    template <typename Condition>
    bool Wait(Condition condition) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return condition(value_); });
    }

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    mutable T value_{};
};

}  // namespace vendor_host
