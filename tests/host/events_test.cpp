// Timers, deferred calls and signals.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "platform/eventlog.h"
#include "platform/events.h"
#include "platform/events/event_host.h"
#include "platform/params.h"
#include "tests/support/wait.h"

namespace {

using namespace std::chrono_literals;

constexpr unsigned long kFar = 1000UL * 3600;  // units: never in a test

// What handlers did, in order: "a" called, "a!" cancelled.
struct Journal {
    test_support::Watched<std::vector<std::string>> entries;

    void Note(const std::string& entry) {
        entries.Update([&](auto& list) { list.push_back(entry); });
    }
    bool WaitFor(std::size_t count) {
        return entries.WaitUntil([count](const auto& list) { return list.size() >= count; });
    }
};

struct Tag {
    Journal& journal;
    std::string name;
};

void NoteTag(const EM_Event& event) {
    const Tag& tag = *static_cast<const Tag*>(event.argument);
    tag.journal.Note(event.cancelled ? tag.name + "!" : tag.name);
}

// A handler that holds the event thread until it is let go, and then arms its own timer again.
struct Blocker {
    test_support::Event started;
    test_support::Event release;
    std::atomic<bool> finished = false;
    std::atomic<unsigned> cancelled = 0;
};

void Block(const EM_Event& event) {
    Blocker& blocker = *static_cast<Blocker*>(event.argument);
    if (event.cancelled) {
        ++blocker.cancelled;
        return;
    }
    blocker.started.Signal();
    EXPECT_TRUE(blocker.release.Wait());
    EM_SetTimer(1, kFar, Block, event.argument);
    blocker.finished = true;
}

class Events : public testing::Test {
  protected:
    ~Events() override { EXPECT_TRUE(events::Stop()); }

    Journal journal_;
    Tag a_{journal_, "a"};
    Tag b_{journal_, "b"};
    Tag c_{journal_, "c"};

    using Names = std::vector<std::string>;
};

TEST_F(Events, RunInOrderAndFoldByIdentity) {
    // Armed before the start, so that the order does not depend on the event thread.
    EM_SetTimer(1, kFar, NoteTag, &a_);
    EM_SetTimer(1, 0, NoteTag, &a_);  // the earlier moment wins
    EM_SetTimer(1, kFar, NoteTag, &a_);  // and stays
    EM_SetTimer(2, 0, NoteTag, &a_);  // another group: another timer
    EM_AsyncCall(NoteTag, &b_);
    EM_AsyncCall(NoteTag, &b_);  // every call is made
    EM_SetTimer(1, 1, NoteTag, &c_);
    ASSERT_TRUE(events::Start());
    EXPECT_FALSE(events::Start());
    ASSERT_TRUE(journal_.WaitFor(5));
    EXPECT_EQ(journal_.entries.Get(), (Names{"a", "a", "b", "b", "c"}));

    // A timer that fired is no longer armed.
    EM_DelTimer(1, NoteTag, &a_);
    EXPECT_EQ(journal_.entries.Get().size(), 5U);
}

TEST_F(Events, AnEarlierTimerWakesTheWaitingThread) {
    ASSERT_TRUE(events::Start());
    EM_SetTimer(1, kFar, NoteTag, &a_);
    EM_SetTimer(1, ~0UL, NoteTag, &b_);  // the longest delay there is does not overflow into the past
    EM_SetTimer(1, 1, NoteTag, &c_);
    ASSERT_TRUE(journal_.WaitFor(1));
    EXPECT_EQ(journal_.entries.Get(), Names{"c"});
    ASSERT_TRUE(events::Stop());
    EXPECT_EQ(journal_.entries.Get(), (Names{"c", "a!", "b!"}));
}

TEST_F(Events, DisarmedCallsAreCancelledOnce) {
    for (const bool running : {false, true}) {
        SCOPED_TRACE(running);
        if (running) {
            ASSERT_TRUE(events::Start());
        }
        EM_SetTimer(0, kFar, NoteTag, &a_);
        EM_SetTimer(1, kFar, NoteTag, &a_);
        EM_DelTimer(1, NoteTag, &a_);
        EM_DelTimer(1, NoteTag, &a_);
        EXPECT_EQ(journal_.entries.Get(), Names{"a!"});
        if (!running) {  // with a running event thread the calls may be made before they are disarmed
            EM_AsyncCall(NoteTag, &a_);
            EM_AsyncCall(NoteTag, &a_);
        }
        EM_DelTimer(0, NoteTag, &a_);
        EXPECT_EQ(journal_.entries.Get().size(), running ? 2U : 4U);
        journal_.entries.Update([](auto& list) { list.clear(); });
    }
}

TEST_F(Events, DisarmingWaitsForTheRunningHandlerAndTakesWhatItArmed) {
    Blocker blocker;
    ASSERT_TRUE(events::Start());
    EM_SetTimer(1, 0, Block, &blocker);
    ASSERT_TRUE(blocker.started.Wait());
    EM_DelTimer(1, NoteTag, &a_);  // another handler is not waited for
    std::thread deleter([&] {
        EM_DelTimer(1, Block, &blocker);
        EXPECT_TRUE(blocker.finished);
    });
    blocker.release.Signal();
    deleter.join();
    EXPECT_EQ(blocker.cancelled, 1U);
}

void DisarmOneself(const EM_Event& event) {
    if (event.cancelled) return;
    EM_SetTimer(1, kFar, DisarmOneself, event.argument);
    EM_DelTimer(1, DisarmOneself, event.argument);  // must not wait for itself
    EXPECT_FALSE(events::Stop());
    static_cast<test_support::Event*>(event.argument)->Signal();
}

TEST_F(Events, AHandlerMayDisarmItselfAndCannotStopItsOwnThread) {
    test_support::Event done;
    ASSERT_TRUE(events::Start());
    EM_SetTimer(1, 0, DisarmOneself, &done);
    EXPECT_TRUE(done.Wait());
    EM_DelTimer(1, DisarmOneself, &done);
}

TEST_F(Events, StopIsBoundedAndWhatComesLaterWaitsForTheNextStart) {
    Blocker blocker;
    ASSERT_TRUE(events::Start());
    EM_SetTimer(1, 0, Block, &blocker);
    ASSERT_TRUE(blocker.started.Wait());
    EM_AsyncCall(NoteTag, &a_);
    EXPECT_FALSE(events::Stop(1ms));  // the handler hangs
    blocker.release.Signal();
    EXPECT_TRUE(events::Stop());
    EXPECT_EQ(journal_.entries.Get(), Names{"a!"});
    EXPECT_EQ(blocker.cancelled, 1U);

    EM_SetTimer(1, 0, NoteTag, &b_);
    EXPECT_EQ(journal_.entries.Get().size(), 1U);
    ASSERT_TRUE(events::Start());
    EXPECT_TRUE(journal_.WaitFor(2));
}

TEST_F(Events, ManyThreadsLoseNoCall) {
    constexpr unsigned kThreads = 8;
    constexpr unsigned kCalls = 200;
    static std::atomic<unsigned> calls;
    static std::atomic<unsigned> timers;
    calls = 0;
    timers = 0;
    const EM_Handler count_call = [](const EM_Event&) { ++calls; };
    const EM_Handler count_timer = [](const EM_Event&) { ++timers; };
    ASSERT_TRUE(events::Start());
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (unsigned i = 0; i < kCalls; ++i) {
                EM_AsyncCall(count_call, nullptr);
                EM_SetTimer(1, i % 2, count_timer, nullptr);
                if (i % 16 == 0) EM_DelTimer(i % 32 == 0 ? 0 : 1, i % 32 == 0 ? count_call : count_timer, nullptr);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(events::Stop());
    EXPECT_EQ(calls, kThreads * kCalls);
    EXPECT_LE(timers, kThreads * kCalls);
}

TEST_F(Events, PostedWorkRunsOnTheEventThreadOrIsDropped) {
    test_support::Event done;
    std::thread::id ran_on;
    ASSERT_TRUE(events::Start());
    events::Post([&] {
        ran_on = std::this_thread::get_id();
        done.Signal();
    });
    ASSERT_TRUE(done.Wait());
    EXPECT_NE(ran_on, std::this_thread::get_id());
    ASSERT_TRUE(events::Stop());
    events::Post([] { ADD_FAILURE() << "ran after the stop"; });
    ASSERT_TRUE(events::Stop());
}

TEST(SignalLoop, KeepsSignalsFromItsConstructionOn) {
    events::SignalLoop signals{SIGHUP, SIGTERM};
    std::vector<int> seen;
    raise(SIGHUP);
    signals.Run([&](int number) {
        seen.push_back(number);
        if (number == SIGHUP) raise(SIGTERM);
        return number != SIGTERM;
    });
    EXPECT_EQ(seen, (std::vector<int>{SIGHUP, SIGTERM}));
}

// The module's static objects come here when the process ends: nothing of the host may be gone.
struct UsesTheHostAtExit {
    ~UsesTheHostAtExit() {
        EM_SetTimer(
            1, 0, [](const EM_Event&) {}, this);
        EM_DelTimer(
            1, [](const EM_Event&) {}, this);
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        TLogMessage(0).Attr(LPARAMS::server.cert.ignore_key_usage.name).Send();
    }
};
const UsesTheHostAtExit uses_the_host_at_exit;

}  // namespace
