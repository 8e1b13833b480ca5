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

/// A server and what it answers.
struct Fixture {
    Fixture() {
        settings.clock = [this] { return now; };
    }
    /// The first payload's notify type of the answer; 0: there is none.
    unsigned Ask(std::string datagram, const std::string& address = "1234") {
        server.Receive(address + "56", {"123456", address + "56"}, datagram);
        ikeauth::Message answer;
        ikeauth::Flaw flaw;
        ikeauth::Notify notify;
        for (const ikeauth::Packet& packet : server.TakeOutgoing()) {
            EXPECT_TRUE(ParseMessage(packet.datagram, answer, flaw)) << flaw.text;
            if (!answer.payloads.empty() && answer.payloads.front().type == ikeauth::kPayloadNotify) {
                EXPECT_TRUE(Decode(answer.payloads.front().body, notify));
            }
            last = packet.datagram;
        }
        return notify.type;
    }

    ikeauth::Time now = ikeauth::Time{} + std::chrono::hours(1);
    ikeauth::ExchangeSettings settings = Noise::Settings();
    ikeauth::Server server{settings, {}, false};
    std::string last;
};

TEST(ServerTest, TellsWhatItCannotRead) {
    const std::string init = Noise().init();
    struct Case {
        std::size_t at;
        std::string bytes;
        unsigned notify;
    };
    Fixture fixture;
    for (const Case& c :
         std::vector<Case>{{30, {0, 3}, ikeauth::kInvalidSyntax},
                           {16, "\xC8", ikeauth::kInvalidSyntax},  // not critical, but the SA is missing
                           {17, "\x30", ikeauth::kInvalidMajorVersion},
                           {17, "\x10", 0},
                           {19, "\x28", 0},  // a response
                           {23, "\x01", 0}}) {
        std::string datagram = init;
        datagram.replace(c.at, c.bytes.size(), c.bytes);
        EXPECT_EQ(fixture.Ask(datagram), c.notify) << c.at;
    }
    std::string critical = init;
    critical[16] = '\xC8';
    critical[29] = '\x80';
    unsigned told = 0;
    for (int i = 0; i < 100; ++i) told += fixture.Ask(critical) == ikeauth::kUnsupportedCriticalPayload ? 1 : 0;
    EXPECT_EQ(told, ikeauth::kMaxRefusals - 2) << "a second has its limit";
    fixture.now += std::chrono::seconds(1);
    EXPECT_EQ(fixture.Ask(critical), ikeauth::kUnsupportedCriticalPayload);
    EXPECT_EQ(fixture.last.back(), '\xC8');
}

TEST(ServerTest, OneAddressHasItsShareAndACookieItsTime) {
    Fixture fixture;
    const ikeauth::Endpoints endpoints{"123456", "123456"};
    const auto begin = [&](const std::string& address, ikeauth::Time::duration later = {}) {
        ikeauth::Report report;
        ikeauth::Initiator initiator(fixture.settings, endpoints, report);
        initiator.Start();
        if (fixture.Ask(initiator.TakeOutgoing().front(), address) != ikeauth::kCookie) return 0U;
        initiator.Receive(fixture.last);
        fixture.now += later;
        return fixture.Ask(initiator.TakeOutgoing().front(), address);
    };
    for (std::size_t i = 0; i < ikeauth::kMaxHalfOpenOfOne + 5; ++i) begin("1234");
    EXPECT_EQ(fixture.server.size(), ikeauth::kMaxHalfOpenOfOne);
    begin("4321");
    EXPECT_EQ(fixture.server.size(), ikeauth::kMaxHalfOpenOfOne + 1);
    EXPECT_NE(begin("4321", ikeauth::kCookieLife), ikeauth::kCookie);
    EXPECT_EQ(begin("4321", 2 * ikeauth::kCookieLife), ikeauth::kCookie);
}

}  // namespace
}  // namespace ike_test
