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
    test_support::Watched<std::vector<std::string>> stuck;
    test_support::Event recovered;
    CallRunner calls{kShort,
                     [this](const char* function) { stuck.Update([&](auto& all) { all.emplace_back(function); }); },
                     [this] { recovered.Signal(); }};
};

TEST(CallRunner, GivesResultsBack) {
    Runner runner;
    EXPECT_EQ(runner.calls.Run([] { return 7; }), 7);
    auto moved = runner.calls.Run([text = std::make_unique<std::string>("owned")] { return *text; });
    EXPECT_EQ(moved, "owned");
}

// A call that makes progress may take as long as it likes.
TEST(CallRunner, LongWorkOfShortCallsIsNotAbandoned) {
    Runner runner;
    const auto end = std::chrono::steady_clock::now() + 4 * kShort;
    EXPECT_TRUE(runner.calls.Run([end] {
        while (std::chrono::steady_clock::now() < end) tokens::NoteModuleCall("C_FindObjects");
        return true;
    }));
    EXPECT_TRUE(runner.calls.Answers());
}

TEST(CallRunner, AHangingCallIsLeftBehindUntilItReturns) {
    Runner runner;
    auto release = std::make_shared<std::promise<void>>();
    std::shared_future<void> released = release->get_future().share();
    auto owned = std::make_shared<int>(5);
    const std::weak_ptr<int> watch = owned;
    const auto result = runner.calls.Run([released, owned = std::move(owned)] {
        tokens::NoteModuleCall("C_Sign");
        released.wait();
        return *owned;
    });
    EXPECT_FALSE(result.has_value());
    EXPECT_EQ(runner.stuck.Get(), std::vector<std::string>{"C_Sign"});
    EXPECT_FALSE(runner.calls.Answers());
    EXPECT_FALSE(runner.calls.Run([] { return 1; }).has_value()) << "no more calls meanwhile";
    EXPECT_FALSE(watch.expired()) << "the call still works on what it owns";

    release->set_value();
    ASSERT_TRUE(runner.recovered.Wait());
    EXPECT_TRUE(runner.calls.Answers());
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(runner.calls.Run([] { return 1; }), 1);
}

TEST(CallRunner, ShutdownLeavesAHangingCallBehind) {
    auto release = std::make_shared<std::promise<void>>();
    // Shared with the thread that is left behind.
    const auto recovered = std::make_shared<test_support::Event>();
    {
        CallRunner calls(
            kShort, [](const char*) {}, [recovered] { recovered->Signal(); });
        const auto result = calls.Run([released = release->get_future().share()] {
            released.wait();
            return 0;
        });
        EXPECT_FALSE(result.has_value());
        EXPECT_FALSE(calls.Shutdown(kShort));
        EXPECT_FALSE(calls.Run([] { return 1; }).has_value());
    }
    release->set_value();
    EXPECT_TRUE(recovered->Wait()) << "the call outlives its runner";
}

TEST(CallRunner, HurryCutsWaitingShort) {
    test_support::Event stuck;
    auto release = std::make_shared<std::promise<void>>();
    CallRunner calls(
        test_support::kWaitLimit, [&](const char*) { stuck.Signal(); }, [] {});
    std::thread waiting([&] {
        EXPECT_FALSE(calls
                         .Run([released = release->get_future().share()] {
                             released.wait();
                             return 0;
                         })
                         .has_value());
    });
    calls.Hurry(kShort);
    waiting.join();
    EXPECT_EQ(stuck.Count(), 1U);
    release->set_value();
    EXPECT_TRUE(calls.Shutdown(test_support::kWaitLimit));
}

}  // namespace
