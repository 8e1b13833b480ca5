// Two ikeauth on loopback, and a probe at ports where something else is.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/ike/wire.h"

namespace ike_test {
namespace {

TEST_F(WireTest, BothSidesSayTheSame) {
    const Side gcm{{"--proposal", "aes256gcm16-sha256-ecp256"}, 12, "proposals-refused"};
    const std::vector<std::pair<Side, Side>> cases = {
        {{{}, 0, "no child SA"}, {{}, 0, "signature right"}},
        {{{"--child"}, 0, "deleted at once"}, {{}, 0, "deleted at once"}},
        {{{"--payload", "pkcs7"}, 0, "PKCS #7 payloads"}, {{"--payload", "pkcs7"}, 0, "PKCS #7 payloads"}},
        {{{}, 0, "N(COOKIE)"}, {{"--cookies"}, 0, "verdict: authenticated (stage done)"}},
        {{{}, 0, "N(INVALID_KE_PAYLOAD)"}, {{"--proposal", "aes128-sha512-modp2048"}, 0, "MODP-2048"}},
        {{{"--fragment-bytes", "300"}, 0, "fragments"}, {{"--fragment-bytes", "300"}, 0, "fragments"}},
        {{{"--classic"}, 0, "ECDSA with SHA-256 on P-256"}, {}},
        {{{"--psk", "shared"}, 0, "preshared key right"}, {{"--psk", "shared"}, 0, "preshared key right"}},
        {{{"--psk", "shared"}, 15, "AUTHENTICATION_FAILED"}, {{}, 16, "method-refused"}},
        {{{"--psk", "unknown"}, 13, "no-preshared-key"}, {{"--time-out", "1"}, 14, "auth-silent"}},
        {{{"--time-out", "1", "--before-signing", "sleep 2"}}, {}},  // a slow token is not a slow peer
        {{{"--damage-signature"}, 15, "peer-refused"}, {{}, 16, "signature-wrong"}},
        // Allowed by the rule, which allows any, but not what the certificate says.
        {{{}, 16, "certificate-refused"}, {{"--announce-fqdn", "mallory.example"}, 15, "peer-refused"}},
        {{{}, 16, "signature-wrong"}, {{"--damage-signature"}, 15, "peer-refused"}},
        {{{"--proposal", "aes128-sha256-ecp256"}, 12, "when no connection of theirs fits the addresses"}, gcm},
    };
    for (const auto& [alice, bob] : cases) Exchange(alice, bob);
    for (const char* words : {"aes256", "aes256-sha256", "aes256-rot13-ecp256", "aes256-aes256gcm16-sha256-ecp256"}) {
        EXPECT_EQ(alice_.Probe(1, {"--proposal", words}).exit_code, 2) << words;
    }
}

TEST_F(WireTest, TheProbeSaysWhatIsAtThePort) {
    struct Case {
        std::vector<std::string> answers;
        std::string verdict;
        int exit_code;
        std::string advice;  // a part of it
    };
    for (const Case& c : std::vector<Case>{{{}, "silent", 10, "firewall"},
                                           {{"no such service\n"}, "not-ike", 11, "does not speak IKEv2"}}) {
        const BadNetwork stranger({{0, 0}}, [&c](const BadNetwork::Datagram&) { return c.answers; });
        const auto start = std::chrono::steady_clock::now();
        const auto result = alice_.Probe(stranger.port(), {"--time-out", "1", "--json"});
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        EXPECT_EQ(result.exit_code, c.exit_code) << result.out;
        const nlohmann::json report = nlohmann::json::parse(result.out);
        EXPECT_EQ(report["verdict"], c.verdict);
        EXPECT_EQ(report["stage"], "reach");
        EXPECT_NE(report["advice"].get<std::string>().find(c.advice), std::string::npos);
    }
    const auto closed = alice_.Probe(FreeUdpPort(), {});
    EXPECT_EQ(closed.exit_code, 10);
    EXPECT_NE(closed.out.find("verdict: unreachable (stage reach)"), std::string::npos) << closed.out;
    EXPECT_NE(closed.out.find("advice:  start the IKE daemon"), std::string::npos) << closed.out;
}

TEST_F(WireTest, TsharkFindsNothingMalformed) {
    if (test_support::Run({"tshark", "--version"}).exit_code != 0) return test_support::CannotRun("no tshark");
    for (const char* proposal : {"aes256gcm16-sha384-ecp384", "aes256-sha256-x25519"}) {
        const test_support::TempDir home;
        const std::filesystem::path table = home / ".config" / "wireshark" / "ikev2_decryption_table";
        create_directories(table.parent_path());
        const Responder bob(bob_, {});
        ASSERT_EQ(
            alice_.Probe(bob.port(), {"--child", "--proposal", proposal, "--pcap", home / "pcap", "--keys", table})
                .exit_code,
            0);
        const auto shown = test_support::Run(
            {"tshark", "-r", home / "pcap", "-d", "udp.port==" + std::to_string(bob.port()) + ",udpencap", "-V"},
            {{"HOME", home.path()}, {"XDG_CONFIG_HOME", home / ".config"}});
        for (const char* payload : {"Identification - Initiator", "Certificate Request", "Authentication",
                                    "Identification - Responder", "Traffic Selector - Responder", "Delete"}) {
            EXPECT_NE(shown.out.find("Payload: " + std::string(payload)), std::string::npos) << payload << shown.out;
        }
        EXPECT_EQ(shown.out.find("alformed"), std::string::npos) << shown.out;
        EXPECT_EQ(shown.out.find("incorrect"), std::string::npos) << shown.out;
    }
}

}  // namespace
}  // namespace ike_test
