#include <platform/events.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

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
    void Arm(Item item);
    void Disarm(unsigned long group, EM_Handler handler, void* argument);
    std::size_t Advance(unsigned long units);
    void SetMode(EventMode mode);
    void Drop();
    std::size_t Pending();

  private:
    bool RunOne_(Lock& lock, unsigned long end);
    void Thread();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Item> items_;  // in the order of arming
    std::optional<Item> running_;
    std::thread::id running_thread_;
    bool stop_ = false;
    std::thread thread_;
    unsigned long now_ = 0;  // units
};

EventManager& Manager() {
    static EventManager& manager = *new EventManager;  // lives as long as the process
    return manager;
}

/// Runs the item with the earliest moment, of several the one armed first, if it is due by then and no other runs. Gives
/// the lock up meanwhile.
bool EventManager::RunOne_(Lock& lock, unsigned long end) {
    const auto next = std::ranges::min_element(items_, {}, &Item::moment);
    if (running_ || next == items_.end() || next->moment > end) return false;
    const Item item = *next;
    items_.erase(next);
    running_ = item;
    running_thread_ = std::this_thread::get_id();
    now_ = std::max(now_, item.moment);
    lock.unlock();
    item.handler({false, item.argument});
    lock.lock();
    running_.reset();
    changed_.notify_all();
    return true;
}

void EventManager::Arm(Item item) {
    const std::lock_guard lock(mutex_);
    item.moment += now_;
    const auto armed = std::ranges::find_if(items_, [&](const Item& other) {
        return !item.deferred && !other.deferred && other.Is(item.group, item.handler, item.argument);
    });
    if (armed != items_.end()) {
        armed->moment = std::min(armed->moment, item.moment);
    } else {
        items_.push_back(item);
    }
    changed_.notify_all();
}

void EventManager::Disarm(unsigned long group, EM_Handler handler, void* argument) {
    Lock lock(mutex_);
    const auto is = [&](const Item& item) { return item.Is(group, handler, argument); };
    std::size_t taken = std::erase_if(items_, is);
    if (running_thread_ != std::this_thread::get_id() || !running_) {
        changed_.wait(lock, [&] { return !running_ || !is(*running_); });
        taken += std::erase_if(items_, is);  // what the handler armed again while it was waited for
    }
    changed_.notify_all();
    lock.unlock();
    for (; taken > 0; --taken) handler({true, argument});
}

std::size_t EventManager::Advance(unsigned long units) {
    Lock lock(mutex_);
    const unsigned long end = now_ + units;
    std::size_t count = 0;
    while (RunOne_(lock, end)) ++count;
    now_ = end;
    return count;
}

void EventManager::Thread() {
    Lock lock(mutex_);
    while (!stop_) {
        if (!RunOne_(lock, ~0UL)) changed_.wait(lock);
    }
}

void EventManager::SetMode(EventMode mode) {
    if ((mode == EventMode::kThreaded) == thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        stop_ = mode == EventMode::kManual;
        changed_.notify_all();
    }
    if (mode == EventMode::kManual) {
        thread_.join();
    } else {
        thread_ = std::thread([this] { Thread(); });
    }
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

}  // namespace

void EM_SetTimer(unsigned long group, unsigned long delay, EM_Handler handler, void* argument) {
    Manager().Arm({group, handler, argument, false, delay});
}
void EM_DelTimer(unsigned long group, EM_Handler handler, void* argument) {
    Manager().Disarm(group, handler, argument);
}
void EM_AsyncCall(EM_Handler handler, void* argument) {
    Manager().Arm({0, handler, argument, true, 0});
}

namespace vendor_host {

void SetEventMode(EventMode mode) {
    Manager().SetMode(mode);
}
std::size_t Advance(unsigned long units) {
    return Manager().Advance(units);
}
std::size_t PendingEvents() {
    return Manager().Pending();
}
void ResetEvents() {
    Manager().Drop();
}

}  // namespace vendor_host
