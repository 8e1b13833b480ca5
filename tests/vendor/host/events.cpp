#include <platform/events.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "reset.h"
#include "vendor_host.h"

namespace {

using vendor_host::EventMode;
using Lock = std::unique_lock<std::mutex>;

/// A timer, or a deferred call (group 0, due at once, never folded).
struct Item {
    unsigned long group;
    EM_Handler handler;
    void* argument;
    bool deferred;
    unsigned long moment;

    bool Is(unsigned long g, EM_Handler h, void* a) const { return group == g && handler == h && argument == a; }
};

class EventManager {
  public:
    void Arm(const Item& item, unsigned long delay);
    void Disarm(unsigned long group, EM_Handler handler, void* argument);
    std::size_t RunDue();
    std::size_t Advance(unsigned long units);
    void SetMode(EventMode mode);
    void Drop();
    std::size_t Pending();
    bool WaitIdle();

  private:
    using Clock = std::chrono::steady_clock;

    unsigned long Now_() const;
    std::vector<Item>::iterator Next_();
    bool RunOne_(Lock& lock);
    void Thread();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Item> items_;  // in the order of arming
    std::optional<Item> running_;
    std::thread::id running_thread_;
    EventMode mode_ = EventMode::kManual;
    bool stop_ = false;
    std::thread thread_;
    unsigned long base_ = 0;  // units; in threaded mode the units at `start_`
    Clock::time_point start_{};
};

EventManager& Manager() {
    static EventManager& manager = *new EventManager;  // lives as long as the process
    return manager;
}

unsigned long EventManager::Now_() const {
    if (mode_ == EventMode::kManual) return base_;
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
    return base_ + static_cast<unsigned long>(passed.count());
}

/// The item with the earliest moment; of several the one armed first.
std::vector<Item>::iterator EventManager::Next_() {
    return std::min_element(items_.begin(), items_.end(),
                            [](const Item& a, const Item& b) { return a.moment < b.moment; });
}

/// Runs the next item if it is due and no other runs. Gives the lock up meanwhile.
bool EventManager::RunOne_(Lock& lock) {
    if (running_) {
        if (running_thread_ == std::this_thread::get_id()) return false;
        changed_.wait(lock, [this] { return !running_; });
    }
    const auto next = Next_();
    if (next == items_.end() || next->moment > Now_()) return false;
    running_ = *next;
    running_thread_ = std::this_thread::get_id();
    items_.erase(next);
    const Item item = *running_;
    lock.unlock();
    item.handler({false, item.argument});
    lock.lock();
    running_.reset();
    changed_.notify_all();
    return true;
}

void EventManager::Arm(const Item& item, unsigned long delay) {
    const std::lock_guard lock(mutex_);
    const unsigned long moment = Now_() + delay;
    const auto armed = std::find_if(items_.begin(), items_.end(), [&](const Item& other) {
        return !item.deferred && !other.deferred && other.Is(item.group, item.handler, item.argument);
    });
    if (armed != items_.end()) {
        armed->moment = std::min(armed->moment, moment);
    } else {
        items_.push_back({item.group, item.handler, item.argument, item.deferred, moment});
    }
    changed_.notify_all();
}

void EventManager::Disarm(unsigned long group, EM_Handler handler, void* argument) {
    std::size_t taken = 0;
    const auto take = [&] {
        taken += std::erase_if(items_, [&](const Item& item) { return item.Is(group, handler, argument); });
    };
    {
        Lock lock(mutex_);
        take();
        if (running_thread_ != std::this_thread::get_id() || !running_) {
            changed_.wait(lock, [&] { return !running_ || !running_->Is(group, handler, argument); });
            take();  // what the handler armed again while it was waited for
        }
        changed_.notify_all();
    }
    for (; taken > 0; --taken) handler({true, argument});
}

std::size_t EventManager::RunDue() {
    Lock lock(mutex_);
    std::size_t count = 0;
    while (RunOne_(lock)) ++count;
    return count;
}

std::size_t EventManager::Advance(unsigned long units) {
    std::size_t count = RunDue();
    Lock lock(mutex_);
    const unsigned long end = base_ + units;
    for (auto next = Next_(); next != items_.end() && next->moment <= end; next = Next_()) {
        base_ = std::max(base_, next->moment);
        if (!RunOne_(lock)) break;
        ++count;
    }
    base_ = end;
    return count;
}

void EventManager::Thread() {
    Lock lock(mutex_);
    while (!stop_) {
        if (RunOne_(lock)) continue;
        const auto next = Next_();
        if (next == items_.end()) {
            changed_.wait(lock);
        } else {
            changed_.wait_until(lock, start_ + std::chrono::milliseconds(next->moment - base_));
        }
    }
}

void EventManager::SetMode(EventMode mode) {
    Lock lock(mutex_);
    if (mode == mode_) return;
    if (mode == EventMode::kThreaded) {
        start_ = Clock::now();
        mode_ = mode;
        stop_ = false;
        thread_ = std::thread([this] { Thread(); });
        return;
    }
    stop_ = true;
    changed_.notify_all();
    lock.unlock();
    thread_.join();
    lock.lock();
    base_ = Now_();
    mode_ = mode;
}

void EventManager::Drop() {
    SetMode(EventMode::kManual);
    const std::lock_guard lock(mutex_);
    items_.clear();
}

std::size_t EventManager::Pending() {
    const std::lock_guard lock(mutex_);
    return items_.size();
}

bool EventManager::WaitIdle() {
    Lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30), [this] { return items_.empty() && !running_; });
}

}  // namespace

void EM_SetTimer(unsigned long group, unsigned long delay, EM_Handler handler, void* argument) {
    Manager().Arm({group, handler, argument, false, 0}, delay);
}

void EM_DelTimer(unsigned long group, EM_Handler handler, void* argument) {
    Manager().Disarm(group, handler, argument);
}

void EM_AsyncCall(EM_Handler handler, void* argument) {
    Manager().Arm({0, handler, argument, true, 0}, 0);
}

namespace vendor_host {

void SetEventMode(EventMode mode) {
    Manager().SetMode(mode);
}
std::size_t RunDue() {
    return Manager().RunDue();
}
std::size_t Advance(unsigned long units) {
    return Manager().Advance(units);
}
std::size_t PendingEvents() {
    return Manager().Pending();
}
bool WaitEventsIdle() {
    return Manager().WaitIdle();
}
void ResetEvents() {
    Manager().Drop();
}

}  // namespace vendor_host
