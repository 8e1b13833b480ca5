// Timers, deferred calls and signals.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
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
struct Tag {
    test_support::Watched<std::vector<std::string>>& journal;
    std::string name;
};

void NoteTag(const EM_Event& event) {
    const Tag& tag = *static_cast<const Tag*>(event.argument);
    tag.journal.Update([&](auto& list) { list.push_back(event.cancelled ? tag.name + "!" : tag.name); });
}

// A handler that holds the event thread until it is let go, and then arms its own timer again.
struct Blocker {
    test_support::Event started;
    test_support::Event release;
    test_support::Event cancelled;
    std::atomic<bool> finished = false;
};

void Block(const EM_Event& event) {
    Blocker& blocker = *static_cast<Blocker*>(event.argument);
    if (event.cancelled) return blocker.cancelled.Signal();
    blocker.started.Signal();
    EXPECT_TRUE(blocker.release.Wait());
    EM_SetTimer(1, kFar, Block, event.argument);
    blocker.finished = true;
}

class Events : public testing::Test {
  protected:
    ~Events() override { EXPECT_TRUE(events::Stop()); }

    using Names = std::vector<std::string>;
    bool WaitFor(std::size_t count) {
        return journal_.WaitUntil([count](const Names& list) { return list.size() >= count; });
    }

    test_support::Watched<Names> journal_;
    Tag a_{journal_, "a"};
    Tag b_{journal_, "b"};
    Tag c_{journal_, "c"};
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
    ASSERT_TRUE(WaitFor(5));
    EXPECT_EQ(journal_.Get(), (Names{"a", "a", "b", "b", "c"}));

    // A timer that fired is no longer armed.
    EM_DelTimer(1, NoteTag, &a_);
    EXPECT_EQ(journal_.Get().size(), 5U);
}

TEST_F(Events, AnEarlierTimerWakesTheWaitingThread) {
    ASSERT_TRUE(events::Start());
    EM_SetTimer(1, kFar, NoteTag, &a_);
    EM_SetTimer(1, ~0UL, NoteTag, &b_);  // the longest delay there is does not overflow into the past
    EM_SetTimer(1, 1, NoteTag, &c_);
    ASSERT_TRUE(WaitFor(1));
    ASSERT_TRUE(events::Stop());
    EXPECT_EQ(journal_.Get(), (Names{"c", "a!", "b!"}));
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
        EXPECT_EQ(journal_.Get(), Names{"a!"});
        if (!running) {  // with a running event thread the calls may be made before they are disarmed
            EM_AsyncCall(NoteTag, &a_);
            EM_AsyncCall(NoteTag, &a_);
        }
        EM_DelTimer(0, NoteTag, &a_);
        EXPECT_EQ(journal_.Get().size(), running ? 2U : 4U);
        journal_.Update([](auto& list) { list.clear(); });
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
    EXPECT_EQ(blocker.cancelled.Count(), 1U);
}

void DisarmOneself(const EM_Event& event) {
    if (event.cancelled) return;
    EM_SetTimer(1, kFar, DisarmOneself, event.argument);
    EM_DelTimer(1, DisarmOneself, event.argument);  // must not wait for itself
    EXPECT_FALSE(events::Stop());
    static_cast<test_support::Event*>(event.argument)->Signal();
    throw std::runtime_error("thrown");
}

TEST_F(Events, AHandlerMayDisarmItselfAndThrowAndCannotStopItsOwnThread) {
    test_support::Event done;
    ASSERT_TRUE(events::Start());
    EM_SetTimer(1, 0, DisarmOneself, &done);
    EXPECT_TRUE(done.Wait());
    EM_DelTimer(1, DisarmOneself, &done);
    EM_SetTimer(1, 0, NoteTag, &a_);
    EXPECT_TRUE(WaitFor(1)) << "others run all the same";
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
    EXPECT_EQ(journal_.Get(), Names{"a!"});
    EXPECT_EQ(blocker.cancelled.Count(), 1U);

    EM_SetTimer(1, 0, NoteTag, &b_);
    EXPECT_EQ(journal_.Get().size(), 1U);
    ASSERT_TRUE(events::Start());
    EXPECT_TRUE(WaitFor(2));
}

TEST_F(Events, ManyThreadsLoseNoCall) {
    static std::atomic<unsigned> calls;
    calls = 0;
    const EM_Handler count_call = [](const EM_Event&) { ++calls; };
    const EM_Handler do_nothing = [](const EM_Event&) {};
    ASSERT_TRUE(events::Start());
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (unsigned i = 0; i < 200; ++i) {
                EM_AsyncCall(count_call, nullptr);
                EM_SetTimer(1, i % 2, do_nothing, nullptr);
                if (i % 16 == 0) EM_DelTimer(i % 32 == 0 ? 0 : 1, i % 32 == 0 ? count_call : do_nothing, nullptr);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(events::Stop());
    EXPECT_EQ(calls, 8 * 200U);
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
