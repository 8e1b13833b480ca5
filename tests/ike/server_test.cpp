// A responder without sockets, at a clock that the test sets, among strangers.

#include <gtest/gtest.h>

#include <cstdlib>

#include "ike/sa/server.h"
#include "tests/ike/noise.h"

namespace ike_test {
namespace {

TEST(ServerTest, OutlivesStrangers) {
    const char* wanted = std::getenv("IKE_RANDOM_DATAGRAMS");  // a million takes a minute
    const unsigned count = wanted != nullptr ? static_cast<unsigned>(std::stoul(wanted)) : 50000;
    ikeauth::ExchangeSettings settings = Noise::Settings();
    ikeauth::Time now{};
    settings.clock = [&now] { return now; };
    ikeauth::Server server(settings, {}, false);
    Noise noise;
    for (unsigned i = 0; i < count; ++i) {
        now += std::chrono::milliseconds(1);
        server.Receive("peer " + std::to_string(i % 50), {"123456", "123456"}, noise.Next(i));
        server.Tick();
        server.TakeOutgoing();
        ASSERT_LE(server.size(), ikeauth::kMaxHalfOpen);
    }
    now += std::chrono::minutes(1);
    server.Tick();
    EXPECT_EQ(server.size(), 0U);
}

}  // namespace
}  // namespace ike_test
