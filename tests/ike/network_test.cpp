// Two ikeauth over networks that lose, double, delay and forge, translate addresses, and over all kinds of addresses.

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>

#include "ike/crypto/keys.h"
#include "ike/sa/fragments.h"
#include "tests/ike/bad_network.h"
#include "tests/ike/wire.h"

namespace ike_test {
namespace {

using Datagram = BadNetwork::Datagram;
using Datagrams = std::vector<std::string>;
constexpr std::uint8_t kAuth = 35;
constexpr std::uint8_t kInformational = 37;

// Each makes a rule with a memory of its own.

BadNetwork::Rule LosesEachAtFirst() {
    return [seen = std::set<std::string>()](const Datagram& datagram) mutable {
        return seen.insert(datagram.bytes).second ? Datagrams{} : Datagrams{datagram.bytes};
    };
}
BadNetwork::Rule DoublesEach() {
    return [](const Datagram& datagram) { return Datagrams{datagram.bytes, datagram.bytes}; };
}
/// The first of the responder's answers comes with its second one, so that the initiator has asked twice.
BadNetwork::Rule DelaysTheFirstAnswer() {
    return [answers = 0U, held = std::string()](const Datagram& datagram) mutable {
        if (datagram.to_responder || ++answers > 2) return Datagrams{datagram.bytes};
        if (answers == 2) return Datagrams{held, datagram.bytes};
        held = datagram.bytes;
        return Datagrams{};
    };
}
BadNetwork::Rule TurnsFragmentsRound() {
    return [held = std::map<bool, Datagrams>()](const Datagram& datagram) mutable {
        if (!datagram.is_fragment()) return Datagrams{datagram.bytes};
        Datagrams& parts = held[datagram.to_responder];
        parts.insert(parts.begin(), datagram.bytes);
        const bool whole = datagram.Byte(33) == datagram.Byte(35);  // low bytes of number and count
        return whole ? std::exchange(parts, {}) : Datagrams{};
    };
}
/// What somebody beside the path can send: noise, copies with a bit turned, cut ones, fragments with other totals.
BadNetwork::Rule AddsNoise() {
    return [number = 0U](const Datagram& datagram) mutable {
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
}
BadNetwork::Rule ChangesPortsBeforeAuth() {
    return [changed = false](const Datagram& datagram) mutable {
        if (datagram.to_responder && datagram.exchange() == kAuth && !std::exchange(changed, true)) {
            datagram.network->ChangePorts();
        }
        return Datagrams{datagram.bytes};
    };
}
/// What the initiator says of its own after IKE_AUTH never comes.
BadNetwork::Rule LosesTheInitiatorsFarewell() {
    return [](const Datagram& datagram) {
        const bool lost = datagram.to_responder && datagram.exchange() == kInformational && !datagram.is_response();
        return lost ? Datagrams{} : Datagrams{datagram.bytes};
    };
}
/// Somebody who saw IKE_AUTH sends it again once it is answered; only the responder's farewell can end the SA in order.
BadNetwork::Rule ReplaysAuthFromElsewhere() {
    return [request = std::string(), lose = LosesTheInitiatorsFarewell()](const Datagram& datagram) mutable {
        if (datagram.exchange() == kAuth && datagram.to_responder) request = datagram.bytes;
        if (datagram.exchange() == kAuth && !datagram.to_responder) datagram.network->SendFromElsewhere(request);
        return lose(datagram);
    };
}
BadNetwork::Rule LosesAllAfterAuth() {
    return [](const Datagram& datagram) {
        return datagram.exchange() == kInformational ? Datagrams{} : Datagrams{datagram.bytes};
    };
}
BadNetwork::Rule BreaksTheAnswer() {
    return [](const Datagram& datagram) {
        std::string bytes = datagram.bytes;
        if (!datagram.to_responder) bytes.replace(datagram.HeaderAt() + 30, 2, std::string{0, 3});  // a length
        return Datagrams{bytes};
    };
}

TEST_F(WireTest, BadNetworksChangeNoVerdict) {
    struct Case {
        const char* name;
        BadNetwork::Rule rule;
        std::vector<std::string> alice;
        std::vector<std::string> bob;
        std::string alice_verdict = "authenticated";
        std::string bob_verdict = "authenticated";
    };
    const std::vector<std::string> small{"--fragment-bytes", "300"};
    const std::vector<std::string> damaged{"--damage-signature"};
    for (const Case& c : std::vector<Case>{
             {"each is lost at first, fragments", LosesEachAtFirst(), small, small},
             {"each comes twice", DoublesEach(), small, small},
             {"each comes twice, cookies", DoublesEach(), {}, {"--cookies"}},
             {"late, cookies", DelaysTheFirstAnswer(), {}, {"--cookies"}},
             {"late, another group", DelaysTheFirstAnswer(), {}, {"--proposal", "aes128-sha512-modp2048"}},
             {"fragments turned round", TurnsFragmentsRound(), small, small},
             {"noise, fragments", AddsNoise(), small, small},
             {"other ports", ChangesPortsBeforeAuth(), {}, {}},
             {"no farewell", LosesTheInitiatorsFarewell(), {"--child"}, {}},
             {"replayed from elsewhere", ReplaysAuthFromElsewhere(), {}, {}},
             {"no farewell, refused", LosesTheInitiatorsFarewell(), {}, damaged, "signature-wrong", "peer-refused"},
             {"refused", LosesEachAtFirst(), {}, damaged, "signature-wrong", "peer-refused"},
             {"no word", LosesAllAfterAuth(), {}, {"--time-out", "1"}, "authenticated", "auth-silent"},
             {"broken answer", BreaksTheAnswer(), {"--time-out", "1"}, {"--time-out", "1"}, "malformed", "auth-silent"},
         }) {
        std::uint16_t port = 0;
        const auto bob = bob_.Respond(c.bob, port);
        const BadNetwork network({{0, port}}, c.rule);
        const auto alice = alice_.Probe(network.port(), c.alice);
        const auto bobs = Client::EndOf(*bob);
        EXPECT_NE(alice.out.find("verdict: " + c.alice_verdict + " "), std::string::npos) << c.name << "\n"
                                                                                          << alice.out;
        EXPECT_NE(bobs.out.find("verdict: " + c.bob_verdict + " "), std::string::npos) << c.name << "\n"
                                                                                       << bobs.out << alice.out;
    }
}

TEST_F(WireTest, ATranslatorIsSeenAndPortsAreLeft) {
    // Of this process alone: the ports are fixed.
    const std::string net = "." + std::to_string(getpid() / 250 % 250) + "." + std::to_string(getpid() % 250 + 1);
    const std::string translator = "127.1" + net;
    const std::string listen = "127.2" + net;
    std::uint16_t port = 0;
    try {
        const auto bob = bob_.Respond({"--listen", listen, "--port", "500"}, port);
        const auto pass = [](const Datagram& datagram) { return Datagrams{datagram.bytes}; };
        const BadNetwork network({{500, 500}, {4500, 4500}}, pass, translator, listen);
        const auto alice = alice_.Probe(500, {}, translator);
        const auto bobs = bob->Wait();
        EXPECT_NE(alice.out.find("port 4500 from here on"), std::string::npos) << alice.out;
        EXPECT_EQ(alice.exit_code, 0) << alice.out;
        EXPECT_EQ(bobs.exit_code, 0) << bobs.out;
    } catch (const std::exception& error) {
        IKE_CANNOT_RUN("ports 500 and 4500: " << error.what());
    }
}

TEST_F(WireTest, NoTranslatorIsSeenWhereThereIsNone) {
    for (const auto& [listen, host] : std::vector<std::pair<std::string, std::string>>{
             {"0.0.0.0", "127.0.0.1"}, {"0.0.0.0", "127.0.0.5"}, {"::1", "::1"}, {"::", "::1"}, {"::", "127.0.0.1"}}) {
        std::uint16_t port = 0;
        const auto bob = bob_.Respond({"--listen", listen, "--fragment-bytes", "400"}, port);
        const auto alice = alice_.Probe(port, {"--fragment-bytes", "400"}, host);
        const auto bobs = bob->Wait();
        EXPECT_EQ(alice.exit_code + bobs.exit_code, 0) << listen << alice.out << bobs.out;
        EXPECT_EQ((alice.out + bobs.out).find("address translation"), std::string::npos) << listen << bobs.out;
    }
}

TEST_F(WireTest, WhatNoMessageCarriesIsSaid) {
    Client::Contents contents = Contents("alice");
    contents.own = {test_pki::MakeCert({.subject = "CN=alice",
                                        .key_usage = "digitalSignature",
                                        .san = {"DNS:alice.example"},
                                        .extensions = {{"1.2.3.4", false, std::string(70000, '\5')}}},
                                       &root_)};
    std::uint16_t port = 0;
    const auto bob = bob_.Respond({"--time-out", "1"}, port);
    const auto alice = Client(contents).Probe(port, {});
    EXPECT_NE(alice.out.find("verdict: cannot-sign"), std::string::npos) << alice.out << alice.err;
    EXPECT_NE(alice.out.find("bytes, which"), std::string::npos) << alice.out;
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
