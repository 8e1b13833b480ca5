#include "platform/bridge/worker_pool.h"

#include <pthread.h>

#include <exception>

#include "platform/event_codes.h"
#include "platform/eventlog.h"

namespace bridge {
namespace {

/// The outermost frame of a worker: what nobody caught ends the work at hand, not the process.
void Do(const std::function<void()>& work) noexcept {
    try {
        work();
    } catch (const std::exception& error) {
        TLogMessage(kMsgBridgeCommandFailed).Attr(error.what()).Send();
    } catch (const char* text) {
        TLogMessage(kMsgBridgeCommandFailed).Attr(text).Send();
    }
}

}  // namespace

void WorkerPool::Start() {
    const std::lock_guard lock(mutex_);
    threads_.emplace_back([this] { Run(); });
    ++idle_;
}

void WorkerPool::Post(std::function<void()> work) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(std::move(work));
    if (queue_.size() > idle_) {
        try {
            threads_.emplace_back([this] { Run(); });
            ++idle_;
        } catch (const std::exception&) {
            // No more threads to be had: the work waits for the others.
        }
    }
    changed_.notify_one();
}

void WorkerPool::Join() {
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        threads.swap(threads_);
    }
    changed_.notify_all();
    for (std::thread& thread : threads) thread.join();
}

void WorkerPool::Run() {
    pthread_setname_np(pthread_self(), "bridge-command");
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return ending_ || !queue_.empty(); });
        --idle_;
        if (queue_.empty()) return;
        std::function<void()> work = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        Do(work);
        work = nullptr;  // what it held goes outside the lock
        lock.lock();
        ++idle_;
    }
}

}  // namespace bridge
