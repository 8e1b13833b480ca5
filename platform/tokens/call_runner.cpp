#include "platform/tokens/call_runner.h"

#include <algorithm>
#include <system_error>

namespace tokens {
namespace {

using Clock = std::chrono::steady_clock;

/// Threads of one module: enough for the calls of a busy host, few enough that a module that hangs every call does not
/// pile them up.
constexpr std::size_t kMaxThreads = 16;
/// With so many threads hanging a module is not probed: the others are for when it answers.
constexpr std::size_t kMaxHangingForProbe = kMaxThreads / 2;
/// An operation of many calls, the listing of a slow token say, takes no longer than so many limits.
constexpr unsigned kOperationLimits = 30;

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
    std::atomic<bool> abandoned{false};  // the call that the thread works at

    void Note(const char* name) {
        function.store(name, std::memory_order_relaxed);
        moment.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    Clock::time_point Moment() const {
        return Clock::time_point(Clock::duration(moment.load(std::memory_order_relaxed)));
    }
};

thread_local LastEntry* t_watched = nullptr;
thread_local const void* t_runner = nullptr;

}  // namespace

bool NoteModuleCall(const char* function) noexcept {
    if (t_watched == nullptr) return true;
    t_watched->Note(function);
    return !t_watched->abandoned;
}

struct CallRunner::Call {
    Call(std::function<void()> to_do, Kind of_kind) : work(std::move(to_do)), kind(of_kind) { entry.Note(""); }

    void Perform();

    std::function<void()> work;
    const Kind kind;
    LastEntry entry;
    std::condition_variable ended;
    std::atomic<bool> has_ended = false;  // no more to wait for
    // Guarded by State::mutex.
    bool started = false;
    bool finished = false;
    bool dropped = false;
    unsigned abandoned_in = 0;  // the period in which it was; 0: not
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
    std::size_t hanging = 0;  // abandoned calls that have not returned
    unsigned period = 1;  // begins anew when a probe returns: calls abandoned before do not count any more
    bool closing = false;
    Clock::time_point last_moment = Clock::time_point::max();  // no call is waited for beyond it
    std::atomic<std::uint64_t> arrivals = 0;  // calls ever queued
    // Changed under mutex.
    std::atomic<std::size_t> abandoned{0};  // of those that hang, the ones of this period
    // Fixed.
    std::function<void(const char*)> on_stuck;
    std::function<void()> on_recovered;

    bool Takes(Kind kind) const {
        if (closing) return false;
        return kind == Kind::kPost || abandoned == 0 || (kind == Kind::kProbe && hanging < kMaxHangingForProbe);
    }
    /// Whether a thread can begin the first call in the queue.
    bool CanBegin() const { return !queue.empty() && (abandoned == 0 || queue.front()->kind == Kind::kProbe); }
    void Abandon(Call& call);
    std::shared_ptr<Call> Next(std::unique_lock<std::mutex>& lock, bool served);
    void End(Call& call, std::unique_lock<std::mutex>& lock);
    bool Returned(const Call& call);
    void Drop(Call& call) {
        call.dropped = true;
        call.has_ended = true;
        call.ended.notify_one();
    }
};

/// Those that wait in the queue for an answer would wait in vain.
void CallRunner::State::Abandon(Call& call) {
    call.abandoned_in = period;
    call.entry.abandoned = true;
    ++hanging;
    ++abandoned;
    std::erase_if(queue, [this](const std::shared_ptr<Call>& queued) {
        if (queued->kind == Kind::kPost) return false;
        Drop(*queued);
        return true;
    });
}

/// After a call; true when the module answers again.
bool CallRunner::State::Returned(const Call& call) {
    const bool answered = abandoned == 0;
    if (call.abandoned_in != 0) {
        --hanging;
        if (call.abandoned_in == period) --abandoned;
    } else if (call.kind == Kind::kProbe) {
        ++period;
        abandoned = 0;
    }
    return !answered && abandoned == 0;
}

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
    return state_->abandoned == 0;
}

bool CallRunner::OnWorker() const {
    return t_runner == state_.get();
}

void CallRunner::Post(std::function<void()> work) {
    Execute(std::move(work), Kind::kPost, 0);
}

bool CallRunner::Execute(std::function<void()> work, Kind kind, unsigned patience) {
    State& state = *state_;
    const auto call = std::make_shared<Call>(std::move(work), kind);
    std::unique_lock lock(state.mutex);
    if (!state.Takes(kind)) return false;
    if (state.idle <= state.queue.size() && state.threads.size() < kMaxThreads) {
        try {
            std::thread thread(Work, state_);
            const std::thread::id id = thread.get_id();
            state.threads.emplace(id, std::move(thread));
        } catch (const std::system_error&) {
            if (state.threads.empty()) return false;
        }
    }
    kind == Kind::kProbe ? state.queue.push_front(call) : state.queue.push_back(call);
    ++state.arrivals;
    state.work_or_end.notify_one();
    return kind == Kind::kPost || Await(call, patience, lock);
}

/// Waits until the call finished, or has to be given up.
bool CallRunner::Await(const std::shared_ptr<Call>& call, unsigned patience, std::unique_lock<std::mutex>& lock) {
    State& state = *state_;
    const Clock::time_point begin = Clock::now();
    const auto deadline = [&] {
        const Clock::time_point whole = begin + limit() * (kOperationLimits + patience);
        return std::min({call->entry.Moment() + limit() * patience, whole, state.last_moment});
    };
    lock.unlock();
    WatchFor(kWatchForAnswer, [&] { return call->has_ended.load(); });
    lock.lock();
    state.watched.push_back(call.get());
    while (!call->finished && !call->dropped && Clock::now() < deadline()) call->ended.wait_until(lock, deadline());
    std::erase(state.watched, call.get());
    if (call->finished || call->dropped) return call->finished;
    if (!call->started) {  // every thread is busy; those calls have watchers of their own
        std::erase(state.queue, call);
        return false;
    }
    state.Abandon(*call);
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

/// Waits for the next call to begin; null when the runner closes. `served`: the thread comes from a call.
std::shared_ptr<CallRunner::Call> CallRunner::State::Next(std::unique_lock<std::mutex>& lock, bool served) {
    ++idle;
    if (served && queue.empty()) {
        const std::uint64_t seen = arrivals;
        lock.unlock();
        WatchFor(kWatchForCall, [&] { return arrivals != seen; });
        lock.lock();
    }
    work_or_end.wait(lock, [&] { return closing || CanBegin(); });
    --idle;
    if (closing) return nullptr;
    std::shared_ptr<Call> call = std::move(queue.front());
    queue.pop_front();
    call->started = true;
    return call;
}

void CallRunner::Call::Perform() {
    entry.Note("");
    t_watched = &entry;
    try {
        work();
    } catch (...) {
        entry.Note("");  // out of memory, most likely: the call has no result
    }
    work = nullptr;  // what it owned may be a session to close: still watched
    t_watched = nullptr;
}

/// Tells who waits for the call and, when the module answers again, the owner of the runner.
void CallRunner::State::End(Call& call, std::unique_lock<std::mutex>& lock) {
    call.finished = true;
    call.has_ended = true;
    call.ended.notify_one();
    if (!Returned(call)) return;
    work_or_end.notify_all();
    lock.unlock();
    try {
        on_recovered();
    } catch (...) {
        call.entry.Note("");  // out of memory: whoever polls the module finds out, too
    }
    lock.lock();
}

void CallRunner::Work(const std::shared_ptr<State>& state) {
    t_runner = state.get();
    std::unique_lock lock(state->mutex);
    for (bool served = false;; served = true) {
        const std::shared_ptr<Call> call = state->Next(lock, served);
        if (call == nullptr) break;
        lock.unlock();
        call->Perform();
        lock.lock();
        state->End(*call, lock);
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
        for (const auto& call : dropped) state_->Drop(*call);
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
