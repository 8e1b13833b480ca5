// Two ikeauth over networks that lose, double, delay and forge, translate addresses, and over all kinds of addresses.

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>

#include "ike/crypto/keys.h"
#include "ike/sa/fragments.h"
#include "tests/ike/wire.h"

namespace ike_test {
namespace {

using Datagram = BadNetwork::Datagram;
using Datagrams = std::vector<std::string>;
constexpr std::uint8_t kAuth = 35;
constexpr std::uint8_t kInformational = 37;

// What they remember begins anew with each copy.

const BadNetwork::Rule kLosesEachAtFirst = [seen = std::set<std::string>()](const Datagram& datagram) mutable {
    return seen.insert(datagram.bytes).second ? Datagrams{} : Datagrams{datagram.bytes};
};
const BadNetwork::Rule kDoublesEach = [](const Datagram& datagram) {
    return Datagrams{datagram.bytes, datagram.bytes};
};
/// The first of the responder's answers comes with its second one, so that the initiator has asked twice.
const BadNetwork::Rule kDelaysTheFirstAnswer = [answers = 0U, held = std::string()](const Datagram& datagram) mutable {
    if (datagram.to_responder || ++answers > 2) return Datagrams{datagram.bytes};
    if (answers == 2) return Datagrams{held, datagram.bytes};
    held = datagram.bytes;
    return Datagrams{};
};
const BadNetwork::Rule kTurnsFragmentsRound = [held = std::map<bool, Datagrams>()](const Datagram& datagram) mutable {
    if (!datagram.is_fragment()) return Datagrams{datagram.bytes};
    Datagrams& parts = held[datagram.to_responder];
    parts.insert(parts.begin(), datagram.bytes);
    const bool whole = datagram.Byte(33) == datagram.Byte(35);  // low bytes of number and count
    return whole ? std::exchange(parts, {}) : Datagrams{};
};
/// What somebody beside the path can send: noise, copies with a bit turned, cut ones, fragments with other totals.
const BadNetwork::Rule kAddsNoise = [number = 0U](const Datagram& datagram) mutable {
    Datagrams all{ikeauth::RandomBytes(1 + ++number % 90)};
    for (std::size_t at = number % 5; at < datagram.bytes.size(); at += 1 + datagram.bytes.size() / 12) {
        std::string changed = datagram.bytes;
        changed[at] = static_cast<char>(changed[at] ^ (1U << number % 8));
        if (datagram.exchange() >= kAuth) all.push_back(changed);
        all.push_back(datagram.bytes.substr(0, at));
    }
    all.push_back(datagram.bytes);
    return all;
};
const BadNetwork::Rule kChangesPortsBeforeAuth = [changed = false](const Datagram& datagram) mutable {
    const bool now = datagram.to_responder && datagram.exchange() == kAuth;
    if (now && !std::exchange(changed, true)) datagram.network->ChangePorts();
    return Datagrams{datagram.bytes};
};
/// What the initiator says of its own after IKE_AUTH never comes.
const BadNetwork::Rule kLosesTheInitiatorsFarewell = [](const Datagram& datagram) {
    const bool lost = datagram.to_responder && datagram.exchange() == kInformational && !datagram.is_response();
    return lost ? Datagrams{} : Datagrams{datagram.bytes};
};
/// Somebody who saw IKE_AUTH sends it again once it is answered; only the responder's farewell can end the SA in order.
const BadNetwork::Rule kReplaysAuthFromElsewhere = [request = std::string()](const Datagram& datagram) mutable {
    if (datagram.exchange() == kAuth && datagram.to_responder) request = datagram.bytes;
    if (datagram.exchange() == kAuth && !datagram.to_responder) datagram.network->SendFromElsewhere(request);
    return kLosesTheInitiatorsFarewell(datagram);
};
const BadNetwork::Rule kLosesAllAfterAuth = [](const Datagram& datagram) {
    return datagram.exchange() == kInformational ? Datagrams{} : Datagrams{datagram.bytes};
};
const BadNetwork::Rule kBreaksTheAnswer = [](const Datagram& datagram) {
    std::string bytes = datagram.bytes;
    if (!datagram.to_responder) bytes.replace(datagram.HeaderAt() + 30, 2, std::string{0, 3});  // a length
    return Datagrams{bytes};
};

TEST_F(WireTest, BadNetworksChangeNoVerdict) {
    struct Case {
        const char* name;
        const BadNetwork::Rule& rule;
        Side alice;
        Side bob;
    };
    const Side small{{"--fragment-bytes", "300"}};
    const Side refusing{{}, 16, "verdict: signature-wrong"};
    const Side refused{{"--damage-signature"}, 15, "verdict: peer-refused"};
    const Side left_alone{{"--time-out", "1"}, 14, "verdict: auth-silent"};
    for (const Case& c : std::vector<Case>{
             {"each is lost at first, fragments", kLosesEachAtFirst, small, small},
             {"each comes twice", kDoublesEach, small, small},
             {"each comes twice, cookies", kDoublesEach, {}, {{"--cookies"}}},
             {"late, cookies", kDelaysTheFirstAnswer, {}, {{"--cookies"}}},
             {"late, another group", kDelaysTheFirstAnswer, {}, {{"--proposal", "aes128-sha512-modp2048"}}},
             {"fragments turned round", kTurnsFragmentsRound, small, small},
             {"noise, fragments", kAddsNoise, small, small},
             {"other ports", kChangesPortsBeforeAuth, {}, {}},
             {"no farewell", kLosesTheInitiatorsFarewell, {{"--child"}}, {}},
             {"replayed from elsewhere", kReplaysAuthFromElsewhere, {}, {}},
             {"no farewell, refused", kLosesTheInitiatorsFarewell, refusing, refused},
             {"refused", kLosesEachAtFirst, refusing, refused},
             {"no word", kLosesAllAfterAuth, {}, left_alone},
             {"broken answer", kBreaksTheAnswer, {{"--time-out", "1"}, 12, "verdict: malformed"}, left_alone},
         }) {
        SCOPED_TRACE(c.name);
        Exchange(c.alice, c.bob, c.rule);
    }
}

TEST_F(WireTest, ATranslatorIsSeenAndPortsAreLeft) {
    // Of this process alone: the ports are fixed.
    const std::string net = "." + std::to_string(getpid() / 250 % 250) + "." + std::to_string(getpid() % 250 + 1);
    const std::string translator = "127.1" + net;
    const std::string listen = "127.2" + net;
    try {
        Responder bob(bob_, {"--listen", listen}, "500");
        const auto pass = [](const Datagram& datagram) { return Datagrams{datagram.bytes}; };
        const BadNetwork network({{500, 500}, {4500, 4500}}, pass, translator, listen);
        const auto alice = alice_.Probe(500, {}, translator);
        EXPECT_NE(alice.out.find("port 4500 from here on"), std::string::npos) << alice.out;
        EXPECT_EQ(alice.exit_code + bob.End().exit_code, 0) << alice.out;
    } catch (const std::exception& error) {
        return test_support::CannotRun(std::string("ports 500 and 4500: ") + error.what());
    }
}

TEST_F(WireTest, NoTranslatorIsSeenWhereThereIsNone) {
    for (const auto& [listen, host] : std::vector<std::pair<std::string, std::string>>{
             {"0.0.0.0", "127.0.0.1"}, {"0.0.0.0", "127.0.0.5"}, {"::1", "::1"}, {"::", "::1"}, {"::", "127.0.0.1"}}) {
        Responder responder(bob_, {"--listen", listen, "--fragment-bytes", "400"});
        const auto alice = alice_.Probe(responder.port(), {"--fragment-bytes", "400"}, host);
        const auto bob = responder.End();
        EXPECT_EQ(alice.exit_code + bob.exit_code, 0) << listen << alice.out << bob.out;
        EXPECT_EQ((alice.out + bob.out).find("address translation"), std::string::npos) << listen << bob.out;
    }
}

TEST_F(WireTest, WhatNoMessageCarriesIsSaid) {
    const Client large(Contents("alice", {{"1.2.3.4", false, std::string(70000, '\5')}}));
    const auto result = large.Probe(Responder(bob_, {"--time-out", "1"}).port(), {});
    EXPECT_NE(result.out.find("verdict: cannot-sign"), std::string::npos) << result.out << result.err;
    EXPECT_NE(result.out.find("bytes, which"), std::string::npos) << result.out;
}

TEST(FragmentTest, OneMessageIsPutTogetherFromOneCutting) {
    ikeauth::Reassembly reassembly;
    std::string whole;
    std::uint8_t first = 0;
    const auto add = [&](std::uint16_t number, std::uint16_t count, const char* text, std::uint32_t id = 1) {
        const ikeauth::Header header{.exchange = kAuth, .message_id = id};
        return reassembly.Add(header, {number, count}, static_cast<std::uint8_t>(number), text, whole, first);
    };
    EXPECT_FALSE(add(2, 2, "old"));
    EXPECT_FALSE(add(2, 3, "b"));  // cut smaller: anew
    EXPECT_FALSE(add(1, 2, "old"));  // late
    EXPECT_FALSE(add(2, 3, "B"));  // doubled
    EXPECT_FALSE(add(1, 3, "a"));
    EXPECT_TRUE(add(3, 3, "c"));
    EXPECT_EQ(whole, "abc");
    EXPECT_EQ(first, 1);
    EXPECT_FALSE(add(1, 2, "a", 2));
    EXPECT_FALSE(add(2, 2, "b", 3));  // of another message
}

}  // namespace
}  // namespace ike_test
