#include "platform/tokens/call_runner.h"

#include <algorithm>
#include <system_error>

namespace tokens {
namespace {

using Clock = std::chrono::steady_clock;

/// Threads of one module: enough for the calls of a busy host, few enough that a module that hangs every call does not
/// pile them up.
constexpr std::size_t kMaxThreads = 16;

/// A sleeping thread needs longer to wake up than most tokens in software to answer: who waits for an answer, or for the
/// next call, looks out for it that long before going to sleep.
constexpr std::chrono::microseconds kWatchForAnswer(1000);
constexpr std::chrono::microseconds kWatchForCall(100);

/// Waits, giving way to other threads, until `ready` or the time is over.
template <typename Ready>
void WatchFor(std::chrono::microseconds time, const Ready& ready) {
    const Clock::time_point end = Clock::now() + time;
    while (!ready() && Clock::now() < end) std::this_thread::yield();
}

/// The entry into the module that a thread made last.
struct LastEntry {
    std::atomic<Clock::rep> moment{0};
    std::atomic<const char*> function{""};

    void Note(const char* name) {
        function.store(name, std::memory_order_relaxed);
        moment.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    Clock::time_point Moment() const {
        return Clock::time_point(Clock::duration(moment.load(std::memory_order_relaxed)));
    }
};

thread_local LastEntry* t_watched = nullptr;

}  // namespace

void NoteModuleCall(const char* function) noexcept {
    if (t_watched != nullptr) t_watched->Note(function);
}

struct CallRunner::Call {
    std::function<void()> work;
    LastEntry entry;
    std::condition_variable ended;
    std::atomic<bool> has_ended = false;  // no more to wait for
    // Guarded by State::mutex.
    bool started = false;
    bool finished = false;
    bool dropped = false;
    bool abandoned = false;
};

/// Outlives the runner as long as an abandoned call runs.
struct CallRunner::State {
    std::mutex mutex;
    std::condition_variable work_or_end;
    std::condition_variable thread_ended;
    // Guarded by mutex.
    std::deque<std::shared_ptr<Call>> queue;
    std::vector<Call*> watched;  // those that somebody waits for
    std::unordered_map<std::thread::id, std::thread> threads;
    std::vector<std::thread::id> ended_threads;
    std::size_t idle = 0;
    std::size_t abandoned = 0;
    bool closing = false;
    Clock::time_point last_moment = Clock::time_point::max();  // no call is waited for beyond it
    std::atomic<std::uint64_t> arrivals = 0;  // calls ever queued
    // Fixed.
    std::function<void(const char*)> on_stuck;
    std::function<void()> on_recovered;
};

CallRunner::CallRunner(Milliseconds limit, std::function<void(const char*)> on_stuck,
                       std::function<void()> on_recovered)
    : state_(std::make_shared<State>()), limit_(limit.count()) {
    state_->on_stuck = std::move(on_stuck);
    state_->on_recovered = std::move(on_recovered);
}

CallRunner::~CallRunner() {
    Shutdown(Milliseconds(0));
}

void CallRunner::SetLimit(Milliseconds limit) {
    limit_.store(limit.count(), std::memory_order_relaxed);
}

bool CallRunner::Answers() const {
    const std::lock_guard lock(state_->mutex);
    return state_->abandoned == 0;
}

void CallRunner::Post(std::function<void()> work) {
    Execute(std::move(work), 0);
}

/// Patience 0: nobody waits.
bool CallRunner::Execute(std::function<void()> work, unsigned patience) {
    State& state = *state_;
    auto call = std::make_shared<Call>();
    call->work = std::move(work);
    call->entry.Note("");

    std::unique_lock lock(state.mutex);
    if (state.closing || state.abandoned > 0) return false;
    if (state.idle <= state.queue.size() && state.threads.size() < kMaxThreads) {
        try {
            std::thread thread(Work, state_);
            const std::thread::id id = thread.get_id();
            state.threads.emplace(id, std::move(thread));
        } catch (const std::system_error&) {
            if (state.threads.empty()) return false;
        }
    }
    state.queue.push_back(call);
    ++state.arrivals;
    state.work_or_end.notify_one();
    if (patience == 0) return true;

    lock.unlock();
    WatchFor(kWatchForAnswer, [&] { return call->has_ended.load(); });
    lock.lock();
    const auto deadline = [&] { return std::min(call->entry.Moment() + limit() * patience, state.last_moment); };
    state.watched.push_back(call.get());
    while (!call->finished && !call->dropped && Clock::now() < deadline()) call->ended.wait_until(lock, deadline());
    std::erase(state.watched, call.get());
    if (call->finished || call->dropped) return call->finished;
    if (!call->started) {  // every thread is busy; those calls have watchers of their own
        std::erase(state.queue, call);
        return false;
    }
    call->abandoned = true;
    ++state.abandoned;
    const char* const function = call->entry.function.load(std::memory_order_relaxed);
    lock.unlock();
    state.on_stuck(function);
    return false;
}

void CallRunner::Hurry(Milliseconds limit) {
    const std::lock_guard lock(state_->mutex);
    state_->last_moment = Clock::now() + limit;
    for (Call* const call : state_->watched) call->ended.notify_one();
}

void CallRunner::Work(const std::shared_ptr<State>& state) {
    std::unique_lock lock(state->mutex);
    for (bool served = false;; served = true) {
        ++state->idle;
        if (served && state->queue.empty()) {
            const std::uint64_t seen = state->arrivals;
            lock.unlock();
            WatchFor(kWatchForCall, [&] { return state->arrivals != seen; });
            lock.lock();
        }
        state->work_or_end.wait(lock, [&] { return state->closing || !state->queue.empty(); });
        --state->idle;
        if (state->queue.empty()) break;
        const std::shared_ptr<Call> call = std::move(state->queue.front());
        state->queue.pop_front();
        call->started = true;
        lock.unlock();

        call->entry.Note("");
        t_watched = &call->entry;
        call->work();
        call->work = nullptr;  // what it owned may be a session to close: still watched
        t_watched = nullptr;

        lock.lock();
        call->finished = true;
        call->has_ended = true;
        if (!call->abandoned) {
            call->ended.notify_one();
        } else if (--state->abandoned == 0) {
            lock.unlock();
            state->on_recovered();
            lock.lock();
        }
    }
    state->ended_threads.push_back(std::this_thread::get_id());
    state->thread_ended.notify_all();
}

bool CallRunner::Shutdown(Milliseconds limit) {
    std::unordered_map<std::thread::id, std::thread> threads;
    std::vector<std::thread::id> ended;
    std::deque<std::shared_ptr<Call>> dropped;
    {
        std::unique_lock lock(state_->mutex);
        state_->closing = true;
        dropped.swap(state_->queue);
        for (const auto& call : dropped) {
            call->dropped = true;
            call->has_ended = true;
            call->ended.notify_one();
        }
        state_->work_or_end.notify_all();
        state_->thread_ended.wait_for(lock, limit,
                                      [&] { return state_->ended_threads.size() == state_->threads.size(); });
        threads.swap(state_->threads);
        ended.swap(state_->ended_threads);
    }
    bool all_ended = true;
    for (auto& [id, thread] : threads) {
        const bool thread_ended = std::find(ended.begin(), ended.end(), id) != ended.end();
        all_ended = all_ended && thread_ended;
        thread_ended ? thread.join() : thread.detach();
    }
    return all_ended;
}

}  // namespace tokens
