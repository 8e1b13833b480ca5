// Two ikeauth that talk to each other.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/ike/charon.h"

namespace ike_test {

/// Alice and Bob, hosts under one root: each an ikeauth with a token.
class WireTest : public testing::Test {
  protected:
    static test_pki::Cert Host(const std::string& name, const test_pki::Cert& root) {
        return test_pki::MakeCert({.subject = "CN=" + name,
                                   .key_usage = "digitalSignature",
                                   .eku = {"ipsecIKE"},
                                   .san = {"DNS:" + name + ".example"}},
                                  &root);
    }
    Client::Contents Contents(const std::string& name) const {
        return {.own = {Host(name, root_)},
                .trusted = {root_},
                .preshared_key = "one key for both",
                .rule = "id_local = [{fqdn = \"" + name + ".example\"}]\n"};
    }
    test_support::ProcessResult Exchange(const std::vector<std::string>& initiator,
                                         const std::vector<std::string>& responder,
                                         test_support::ProcessResult* other = nullptr) const {
        std::uint16_t port = 0;
        const auto process = bob_.Respond(responder, port);
        const auto result = alice_.Probe(port, initiator);
        const auto bobs = Client::EndOf(*process);
        if (other != nullptr) *other = bobs;
        return result;
    }

    const test_pki::Cert root_ = test_pki::MakeCa("CN=Root");
    const Client alice_{Contents("alice")};
    const Client bob_{Contents("bob")};
};

}  // namespace ike_test
