// The bridge's server on a socket of its own, and clients of it.
#pragma once

#include <gtest/gtest.h>

#include "platform/bridge/bridge_host.h"
#include "platform/bridge_client.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"
#include "tests/vendor/host/vendor_host.h"

namespace bridge_test {

class BridgeTest : public testing::Test {
  protected:
    BridgeTest() {
        vendor_host::Reset();
        settings_.socket_path = directory_ / "run" / "bridge.sock";
        settings_.program = "test 1";
    }
    ~BridgeTest() override { bridge::Stop(); }

    void Start() {
        std::string error;
        ASSERT_TRUE(bridge::Start(settings_, error)) << error;
    }
    std::unique_ptr<bridge::Client> Connect(bool answers = false) const {
        auto client = std::make_unique<bridge::Client>();
        const bool connected =
            client->Connect({.socket_path = settings_.socket_path, .name = "tester", .answers_questions = answers});
        EXPECT_TRUE(connected) << client->failure().text;
        return client;
    }

    test_support::TempDir directory_;
    bridge::Settings settings_;
};

}  // namespace bridge_test
