// ikeauth: two processes authenticate each other, or say why not.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/programs/hosts.h"

namespace program_test {
namespace {

TEST(ExchangeTest, SaysHowItEnded) {
    const Hosts hosts;
    const struct {
        std::vector<std::string> options;
        int exit_code;
        std::string text;
    } cases[] = {
        {{}, 0, "initiator: success: authenticated as CN=alice, O=Test, peer CN=bob, O=Test"},
        {{"--ike", "1", "--payload", "pkcs7"}, 0, "responder: success"},
        {{"--fault", "damage-signature"}, 1, "CM::Ike2Verify failed: Invalid signature"},
        {{"--fault", "damage-signature", "--ike", "1"}, 1, "Can't ike verify on token"},
        {{"--fault", "announce-fqdn=mallory.example", "--expect", "No certificate matches"}, 0, "Refused as expected"},
        {{"--fault", "damage-signature", "--expect", "something else"}, 3, "Refused, but not with: something else"},
        {{"--fault", "damage-signature", "--expect", "Invalid signature", "--expect", "and more"},
         3,
         "Refused, but not with: and more"},
        {{"--expect", "anything"}, 3, "Not refused, although it should be"},
        {{"--ike", "3"}, 2, "--ike"},
        {{"--rule", "no such rule"}, 2, ""},
        {{"--help"}, 0, "Exit codes:"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words{IKEAUTH_PATH,  "exchange",           "--initiator", hosts.alice.settings(),
                                       "--responder", hosts.bob.settings(), "--rule",      "office"};
        words.insert(words.end(), c.options.begin(), c.options.end());
        const auto result = test_support::Run(words);
        EXPECT_EQ(result.exit_code, c.exit_code) << c.text << "\n" << result.out << result.err;
        EXPECT_NE((result.out + result.err).find(c.text), std::string::npos) << result.out << result.err;
    }
}

TEST(ProvisionTest, ReadsNoPinThatOthersCouldRead) {
    const test_support::TempDir dir;
    dir.Write("pin", "12345678\n");
    ASSERT_EQ(chmod((dir / "pin").c_str(), 0644), 0);
    const auto refused = test_support::Run({IKEAUTH_PATH, "provision", "--state", dir / "tokens", "--label", "carol",
                                            "--pin-file", dir / "pin", "--so-pin-file", dir / "so-pin"});
    EXPECT_EQ(refused.exit_code, 2);
    EXPECT_NE(refused.err.find("its mode must be 0600"), std::string::npos) << refused.err;
    EXPECT_FALSE(exists(dir / "tokens"));
}

}  // namespace
}  // namespace program_test
