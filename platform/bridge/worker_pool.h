// Threads for commands: as many as there is work at once, so that none waits for another's.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace bridge {

class WorkerPool {
  public:
    WorkerPool() = default;
    ~WorkerPool() { Join(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Makes the first thread. Throws std::system_error when that fails.
    void Start();
    /// Queues `work`; starts another thread when all are busy, if one is to be had.
    void Post(std::function<void()> work);
    /// Waits for all that is queued, then ends the threads.
    void Join();

  private:
    void Run();

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> threads_;
    std::size_t idle_ = 0;  // threads that wait, or are about to
    bool ending_ = false;
};

}  // namespace bridge
