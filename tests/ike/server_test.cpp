// A responder without sockets, at a clock that the test sets, among strangers.

#include <gtest/gtest.h>

#include <algorithm>

#include "ike/sa/initiator.h"
#include "ike/sa/server.h"
#include "tests/support/wait.h"

namespace ike_test {
namespace {

/// Without certificates, and so without the module.
ikeauth::ExchangeSettings Settings() {
    static const LPCFG::auth_ike_t rule;
    ikeauth::ExchangeSettings settings;
    settings.rule = &rule;
    settings.preshared_key = "none";
    return settings;
}

const ikeauth::Endpoints kEndpoints{"123456", "123456"};

struct Origin {
    const ikeauth::ExchangeSettings settings = Settings();
    ikeauth::Report report;
};
/// Does the key exchange and no more: it has no preshared key.
struct Stranger : Origin, ikeauth::Initiator {
    Stranger() : Initiator(settings, kEndpoints, report) { Start(); }
    using Initiator::Request;
};

/// IKE_SA_INIT.
std::string Init() {
    return Stranger().TakeOutgoing().front();
}

// What is no message at all: fuzz/ike.cpp.
TEST(ServerTest, OutlivesStrangers) {
    ikeauth::ExchangeSettings settings = Settings();
    ikeauth::Time now{};
    settings.clock = [&now] { return now; };
    ikeauth::Server server(settings, {}, false);
    const std::string init = Init();
    const unsigned count = test_support::LongRun(20000, 1000000);
    for (unsigned i = 0; i < count; ++i) {
        now += std::chrono::milliseconds(1);
        std::string datagram = ikeauth::RandomBytes(8) + init.substr(8);  // an SPI of its own
        datagram[28 + i % (init.size() - 28)] ^= static_cast<char>(1U << i % 8);
        if (i % 3 == 0) datagram = ikeauth::RandomBytes(1 + i * 7 % 600);
        server.Receive("peer " + std::to_string(i % 50), kEndpoints, datagram);
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

    /// How many answers come to the same datagram, sent over and over.
    std::size_t Answers(const std::string& datagram) {
        std::size_t count = 0;
        for (int i = 0; i < 100; ++i) {
            server.Receive("123456", kEndpoints, datagram);
            count += server.TakeOutgoing().size();
        }
        return count;
    }

    unsigned steps = 0;
    ikeauth::Ending ended = ikeauth::Ending::kAuthenticated;
    const ikeauth::Server::Listener listener{
        .on_step = [this](std::uint64_t, const ikeauth::Step&) { ++steps; },
        .on_ended = [this](const ikeauth::Responder& sa, const ikeauth::Report&) { ended = sa.outcome()->ending; }};
    ikeauth::Time now = ikeauth::Time{} + std::chrono::hours(1);
    ikeauth::ExchangeSettings settings = Settings();
    ikeauth::Server server{settings, listener, false};
    std::string last;
};

TEST(ServerTest, TellsWhatItCannotRead) {
    const std::string init = Init();
    Fixture fixture;
    for (const auto& [at, bytes, notify] : std::vector<std::tuple<std::size_t, std::string, unsigned>>{
             {30, {0, 3}, ikeauth::kInvalidSyntax},
             {16, "\xC8", ikeauth::kInvalidSyntax},  // not critical, but the SA is missing
             {17, "\x30", ikeauth::kInvalidMajorVersion},
             {17, "\x10", 0},
             {19, "\x28", 0},  // a response
             {23, "\x01", 0}}) {
        std::string datagram = init;
        datagram.replace(at, bytes.size(), bytes);
        EXPECT_EQ(fixture.Ask(datagram), notify) << at;
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
    const auto begin = [&](const std::string& address, ikeauth::Time::duration later = {}) {
        Stranger initiator;
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

TEST(ServerTest, RepetitionsCostLittle) {
    const ikeauth::Payload unknown{.type = 200, .critical = true, .body = "?"};
    for (const auto& [exchange, payload] : std::vector<std::pair<std::uint8_t, ikeauth::Payload>>{
             {ikeauth::kInformational, ikeauth::MakeNotify(1)}, {ikeauth::kAuth, unknown}}) {
        Fixture fixture;
        Stranger stranger;
        const std::string init = stranger.TakeOutgoing().front();
        fixture.Ask(init);
        stranger.Receive(fixture.last);
        const std::string bare = init.substr(0, 16) + '\0' + init.substr(17, 7) + std::string{0, 0, 0, 28};
        EXPECT_EQ(fixture.Answers(bare), 0U);
        EXPECT_EQ(fixture.Answers(init), ikeauth::kMaxRepeatedAnswers);
        stranger.Request(exchange, ikeauth::Payloads(128, payload));
        EXPECT_EQ(fixture.Answers(stranger.TakeOutgoing().back()), 1 + ikeauth::kMaxRepeatedAnswers);
        EXPECT_LT(fixture.steps, 20U);
        EXPECT_EQ(fixture.ended, ikeauth::Ending::kAuthInvalid);
        fixture.now += ikeauth::kPatience;
        fixture.server.Tick();
        EXPECT_EQ(fixture.server.size(), 0U);
    }
}

TEST(ServerTest, RefusedOnesLeadToCookies) {
    Fixture fixture;
    ikeauth::Message message;
    ikeauth::Flaw flaw;
    ASSERT_TRUE(ParseMessage(Init(), message, flaw));
    for (ikeauth::Payload& payload : message.payloads) {
        if (payload.type == ikeauth::kPayloadKe) std::fill(payload.body.begin() + 4, payload.body.end(), '\0');
    }
    const auto ask = [&] {
        ++message.header.initiator_spi;
        return fixture.Ask(EncodeMessage(message));
    };
    for (std::size_t i = 0; i < ikeauth::kCookieThreshold; ++i) ASSERT_EQ(ask(), ikeauth::kInvalidSyntax);
    EXPECT_EQ(ask(), ikeauth::kCookie);
    fixture.now += ikeauth::kRefusedLife;
    EXPECT_EQ(ask(), ikeauth::kInvalidSyntax);
}

}  // namespace
}  // namespace ike_test
