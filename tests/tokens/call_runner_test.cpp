// The threads that calls into a module run on.
#include "platform/tokens/call_runner.h"

#include <gtest/gtest.h>

#include <future>

#include "tests/support/wait.h"

namespace {

using std::chrono::milliseconds;
using tokens::CallRunner;

constexpr milliseconds kShort{50};

struct Runner {
    ~Runner() { EXPECT_TRUE(calls.Shutdown(test_support::kWaitLimit)) << "its threads use the other members"; }

    test_support::Watched<std::vector<std::string>> stuck;
    test_support::Event recovered;
    CallRunner calls{kShort,
                     [this](const char* function) { stuck.Update([&](auto& all) { all.emplace_back(function); }); },
                     [this] { recovered.Signal(); }};
};

/// A call that hangs until it is released. Copies hang together, and may outlive the test.
class HangingCall {
  public:
    int operator()() const {
        released_.wait();
        return 0;
    }
    void Release() { release_->set_value(); }

  private:
    std::shared_ptr<std::promise<void>> release_ = std::make_shared<std::promise<void>>();
    std::shared_future<void> released_ = release_->get_future().share();
};

TEST(CallRunner, WorkThatThrowsHasNoResult) {
    Runner runner;
    EXPECT_FALSE(runner.calls.Run([]() -> int { throw std::bad_alloc(); }).has_value());
    runner.calls.Post([] { throw std::bad_alloc(); });
    EXPECT_EQ(runner.calls.Run([] { return 7; }), 7);
    EXPECT_TRUE(runner.calls.Answers());
    EXPECT_TRUE(runner.stuck.Get().empty());
}

// An operation that makes progress may take longer than one call.
TEST(CallRunner, LongWorkOfShortCallsIsNotAbandoned) {
    Runner runner;
    const auto end = std::chrono::steady_clock::now() + 4 * kShort;
    EXPECT_TRUE(runner.calls.Run([end] {
        while (std::chrono::steady_clock::now() < end) tokens::NoteModuleCall("C_FindObjects");
        return true;
    }));
}

TEST(CallRunner, AHangingCallIsLeftBehindUntilItReturns) {
    Runner runner;
    HangingCall hang;
    auto owned = std::make_shared<int>(5);
    const std::weak_ptr<int> watch = owned;
    const auto result = runner.calls.Run([hang, owned = std::move(owned)] {
        tokens::NoteModuleCall("C_Sign");
        hang();
        return *owned;
    });
    EXPECT_FALSE(result.has_value());
    EXPECT_EQ(runner.stuck.Get(), std::vector<std::string>{"C_Sign"});
    EXPECT_FALSE(runner.calls.Answers());
    EXPECT_FALSE(runner.calls.Run([] { return 1; }).has_value()) << "no more calls meanwhile";
    EXPECT_FALSE(runner.calls.Probe(hang).has_value()) << "a probe hangs like a call";
    EXPECT_FALSE(watch.expired()) << "the call still works on what it owns";

    hang.Release();
    ASSERT_TRUE(runner.recovered.Wait());
    EXPECT_TRUE(runner.calls.Answers());
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(runner.calls.Run([] { return 1; }), 1);
    EXPECT_EQ(runner.recovered.Count(), 1U);
}

// A token that answers each call slowly does not keep its caller for ever, nor its thread.
TEST(CallRunner, EndlessWorkOfShortCallsIsAbandonedAndEnds) {
    Runner runner;
    const auto result = runner.calls.Run([] {
        while (tokens::NoteModuleCall("C_FindObjects")) std::this_thread::yield();
        return true;
    });
    EXPECT_FALSE(result.has_value());
    EXPECT_EQ(runner.stuck.Get(), std::vector<std::string>{"C_FindObjects"});
    ASSERT_TRUE(runner.recovered.Wait());
    EXPECT_TRUE(runner.calls.Answers());
}

// Calls may hang for ever; probes find out that others do not, as long as enough threads are left.
TEST(CallRunner, ProbesBringItBackButThreadsDoNotPileUp) {
    constexpr unsigned kMost = 8;
    Runner runner;
    HangingCall hang;
    std::atomic<int> posted{0};
    for (unsigned hanging = 1; hanging <= kMost; ++hanging) {
        ASSERT_FALSE(runner.calls.Run(hang).has_value());
        EXPECT_FALSE(runner.calls.Answers());
        runner.calls.Post([&posted] { ++posted; });
        EXPECT_EQ(posted, static_cast<int>(hanging) - 1) << "waits until the module answers";
        const bool probed = runner.calls.Probe([] { return true; }).has_value();
        EXPECT_EQ(probed, hanging < kMost);
        if (!probed) break;
        ASSERT_TRUE(runner.recovered.Wait(hanging));
        EXPECT_EQ(runner.calls.Run([&posted] { return posted.load(); }), static_cast<int>(hanging));
    }
    EXPECT_EQ(runner.stuck.Get().size(), kMost);
    hang.Release();
    ASSERT_TRUE(runner.recovered.Wait(kMost)) << "the last one returned";
    EXPECT_EQ(runner.calls.Run([] { return 7; }), 7);
    EXPECT_TRUE(runner.calls.Shutdown(test_support::kWaitLimit));
    EXPECT_EQ(posted, static_cast<int>(kMost));
}

TEST(CallRunner, HurryCutsWaitingShort) {
    test_support::Event stuck;
    HangingCall hang;
    CallRunner calls(
        test_support::kWaitLimit, [&](const char*) { stuck.Signal(); }, [] {});
    std::thread waiting([&] { EXPECT_FALSE(calls.Run(hang).has_value()); });
    calls.Hurry(kShort);
    waiting.join();
    EXPECT_EQ(stuck.Count(), 1U);
    hang.Release();
    EXPECT_TRUE(calls.Shutdown(test_support::kWaitLimit));
}

}  // namespace
