// Two ikeauth that talk to each other.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/ike/bad_network.h"
#include "tests/ike/client.h"

namespace ike_test {

/// One end of an exchange: its options, and how it ends.
struct Side {
    std::vector<std::string> options{};
    int exit_code = 0;
    std::string text{};  // in what it prints
};

/// Alice and Bob, hosts under one root: each an ikeauth with a token.
class WireTest : public testing::Test {
  protected:
    Client::Contents Contents(const std::string& name, const std::vector<test_pki::Extension>& extensions = {}) const {
        const test_pki::Cert host = test_pki::MakeCert({.subject = "CN=" + name,
                                                        .key_usage = "digitalSignature",
                                                        .eku = {"ipsecIKE"},
                                                        .san = {"DNS:" + name + ".example"},
                                                        .extensions = extensions},
                                                       &root_);
        const std::string rule = "id_local = [{fqdn = \"" + name + ".example\"}]\n";
        return {.own = {host}, .trusted = {root_}, .preshared_key = "one key for both", .rule = rule};
    }
    /// Alice is the initiator; over a bad network if there is a rule.
    void Exchange(const Side& alice, const Side& bob, const BadNetwork::Rule& rule = {}) const {
        Responder responder(bob_, bob.options);
        std::optional<BadNetwork> network;
        if (rule) network.emplace(std::vector<BadNetwork::Ports>{{0, responder.port()}}, rule);
        const auto alices = alice_.Probe(network ? network->port() : responder.port(), alice.options);
        const auto bobs = responder.End();
        const std::string everything = alices.out + alices.err + "\n--- bob:\n" + bobs.out + bobs.err;
        EXPECT_EQ(alices.exit_code, alice.exit_code) << everything;
        EXPECT_EQ(bobs.exit_code, bob.exit_code) << everything;
        EXPECT_NE(alices.out.find(alice.text), std::string::npos) << alice.text << everything;
        EXPECT_NE(bobs.out.find(bob.text), std::string::npos) << bob.text << everything;
    }

    const test_pki::Cert root_ = test_pki::MakeCa("CN=Root");
    const Client alice_{Contents("alice")};
    const Client bob_{Contents("bob")};
};

}  // namespace ike_test
