#include "platform/events.h"

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/event_codes.h"
#include "platform/events/event_host.h"
#include "platform/guarded.h"

namespace {

using Clock = std::chrono::steady_clock;

// Ten years: keeps the moment of any delay inside the clock's range.
constexpr unsigned long kMaxDelayUnits = 10UL * 366 * 24 * 3600 * (1000 / EM_UNIT_MILLISECONDS);

// What EM_SetTimer and EM_AsyncCall queue. A timer is queued once per identity, a deferred call as often as it was made.
struct Item {
    unsigned long group = 0;
    EM_Handler handler = nullptr;
    void* argument = nullptr;
    bool deferred = false;

    void Call(bool cancelled) const { handler(EM_Event{cancelled, argument}); }
    auto Key() const {
        return std::tuple(group, reinterpret_cast<std::uintptr_t>(handler), reinterpret_cast<std::uintptr_t>(argument),
                          deferred);
    }
};

struct ItemLess {
    bool operator()(const Item& a, const Item& b) const { return a.Key() < b.Key(); }
};

class EventManager {
  public:
    void Arm(const Item& item, unsigned long delay);
    void Disarm(unsigned long group, EM_Handler handler, void* argument);
    bool Start();
    bool Stop(std::chrono::milliseconds limit);

  private:
    // Moment, then order of arming: items of the same moment run in the order in which they came.
    using Due = std::pair<Clock::time_point, std::uint64_t>;

    void Enqueue_unlocked_(const Item& item, Clock::time_point moment);
    void Take_unlocked_(const Item& item, std::vector<Item>& taken);
    bool Runs_unlocked_(unsigned long group, EM_Handler handler, void* argument) const;
    void RunThread();
    void RunDue();

    std::mutex mutex_;
    std::condition_variable changed_;  // a handler returned, or the thread ended
    std::map<Due, Item> queue_;
    std::multimap<Item, Due, ItemLess> index_;  // the same items by identity
    std::uint64_t armed_ = 0;
    std::optional<Item> running_;
    std::thread thread_;
    bool ended_ = true;

    asio::io_context io_{1};
    asio::steady_timer timer_{io_};  // touched on the event thread only
};

// Never destroyed: static destructors of other libraries still disarm their timers.
EventManager& Manager() {
    static EventManager& manager = *new EventManager;
    return manager;
}

void EventManager::Enqueue_unlocked_(const Item& item, Clock::time_point moment) {
    const Due due{moment, ++armed_};
    const bool first = queue_.empty() || due < queue_.begin()->first;
    queue_.emplace(due, item);
    index_.emplace(item, due);
    if (first && !ended_) asio::post(io_, [this] { RunDue(); });
}

void EventManager::Take_unlocked_(const Item& item, std::vector<Item>& taken) {
    const auto [begin, end] = index_.equal_range(item);
    for (auto i = begin; i != end; ++i) {
        taken.push_back(i->first);
        queue_.erase(i->second);
    }
    index_.erase(begin, end);
}

bool EventManager::Runs_unlocked_(unsigned long group, EM_Handler handler, void* argument) const {
    return running_ && running_->group == group && running_->handler == handler && running_->argument == argument;
}

void EventManager::Arm(const Item& item, unsigned long delay) {
    const Clock::time_point moment =
        Clock::now() + std::chrono::milliseconds(EM_UNIT_MILLISECONDS) * std::min(delay, kMaxDelayUnits);
    const std::lock_guard lock(mutex_);
    if (!item.deferred) {
        const auto armed = index_.find(item);
        if (armed != index_.end()) {
            if (armed->second.first <= moment) return;
            queue_.erase(armed->second);
            index_.erase(armed);
        }
    }
    Enqueue_unlocked_(item, moment);
}

void EventManager::Disarm(unsigned long group, EM_Handler handler, void* argument) {
    std::vector<Item> taken;
    const auto take = [&] {
        Take_unlocked_({group, handler, argument, false}, taken);
        if (group == 0) Take_unlocked_({group, handler, argument, true}, taken);
    };
    {
        std::unique_lock lock(mutex_);
        take();
        if (std::this_thread::get_id() != thread_.get_id()) {
            changed_.wait(lock, [&] { return !Runs_unlocked_(group, handler, argument); });
            take();  // what the handler armed again while it was waited for
        }
    }
    for (const Item& item : taken) item.Call(true);
}

bool EventManager::Start() {
    const std::lock_guard lock(mutex_);
    if (thread_.joinable()) return false;
    io_.restart();
    try {
        thread_ = std::thread([this] { RunThread(); });
    } catch (const std::system_error&) {
        return false;
    }
    ended_ = false;
    return true;
}

bool EventManager::Stop(std::chrono::milliseconds limit) {
    std::vector<Item> cancelled;
    std::thread ended;
    {
        std::unique_lock lock(mutex_);
        if (std::this_thread::get_id() == thread_.get_id()) return false;
        io_.stop();
        if (!changed_.wait_for(lock, limit, [this] { return ended_; })) return false;
        ended = std::move(thread_);
        for (const auto& [due, item] : queue_) cancelled.push_back(item);
        queue_.clear();
        index_.clear();
    }
    if (ended.joinable()) ended.join();
    for (const Item& item : cancelled) item.Call(true);
    return true;
}

void EventManager::RunThread() {
    pthread_setname_np(pthread_self(), "events");
    const auto keep_running = asio::make_work_guard(io_);
    const auto run = [this] {
        asio::post(io_, [this] { RunDue(); });
        io_.run();
    };
    while (!eventlog::Guarded(kMsgInternalError, "an event handler failed", run)) {
        const std::lock_guard lock(mutex_);
        running_.reset();
        changed_.notify_all();
    }
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

// One item a turn, so that a full queue cannot keep the loop from being stopped.
void EventManager::RunDue() {
    std::unique_lock lock(mutex_);
    if (queue_.empty()) return;
    const auto first = queue_.begin();
    const Due due = first->first;
    if (due.first > Clock::now()) {
        timer_.expires_at(due.first);
        timer_.async_wait([this](const std::error_code& error) {
            if (!error) RunDue();
        });
        return;
    }
    const Item item = first->second;
    queue_.erase(first);
    const auto [begin, end] = index_.equal_range(item);
    index_.erase(std::find_if(begin, end, [&](const auto& entry) { return entry.second == due; }));
    running_ = item;
    lock.unlock();
    item.Call(false);
    lock.lock();
    running_.reset();
    changed_.notify_all();
    asio::post(io_, [this] { RunDue(); });
}

}  // namespace

void EM_SetTimer(unsigned long group, unsigned long delay, EM_Handler handler, void* argument) {
    Manager().Arm({group, handler, argument, false}, delay);
}

void EM_DelTimer(unsigned long group, EM_Handler handler, void* argument) {
    Manager().Disarm(group, handler, argument);
}

void EM_AsyncCall(EM_Handler handler, void* argument) {
    Manager().Arm({0, handler, argument, true}, 0);
}

namespace events {

bool Start() {
    return Manager().Start();
}

bool Stop(std::chrono::milliseconds limit) {
    return Manager().Stop(limit);
}

void Post(std::function<void()> work) {
    auto owned = std::make_unique<std::function<void()>>(std::move(work));
    EM_AsyncCall(
        [](const EM_Event& event) {
            const std::unique_ptr<std::function<void()>> taken(static_cast<std::function<void()>*>(event.argument));
            if (!event.cancelled) (*taken)();
        },
        owned.release());
}

}  // namespace events
