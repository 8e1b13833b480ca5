// The token manager's commands through the socket of the management bridge.
#include "cli/client/manager.h"
#include "platform/bridge/bridge_host.h"
#include "platform/tokens/token_listener.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using certmgr_client::Manager;
class CommandsTest : public TokenTest {
  protected:
    CommandsTest() {
        StartDirect();
        const std::string path = directory_ / "bridge.sock";
        std::string error;
        EXPECT_TRUE(bridge::Start({.socket_path = path}, error)) << error;
        EXPECT_TRUE(client_.Connect({.socket_path = path})) << client_.failure().text;
    }
    ~CommandsTest() override { bridge::Stop(); }

    std::uint32_t Login(const PKCS11::TokenInfo& token, const std::string& pin) {
        return manager_.Login(token, Secret(pin), true).value().status;
    }

    tokens::TokenListener listener_;
    bridge::Client client_;
    Manager manager_{client_};
};

TEST_F(CommandsTest, AnAbsentTokenIsSaidToBe) {
    PKCS11::TokenInfo absent = NewToken("one", false).info;
    absent.id += 1;
    EXPECT_EQ(Login(absent, "1234"), PKCS11::kPinTokenNotPresent);
    EXPECT_EQ(manager_.Logout(absent)->status, PKCS11::kPinTokenNotPresent);
    EXPECT_EQ(manager_.ListTokens()->tokens.at(1).flags, 0U) << "a slot to be initialised";
}

TEST_F(CommandsTest, PinsAreChangedByThoseWhoMay) {
    const TestToken token = NewToken("one", false);
    const std::string second = RandomPin() + "2";
    const std::string third = RandomPin() + "3";
    const std::string officer = RandomPin() + "4";
    const std::tuple<PKCS11::PinRole, std::string, std::string, std::uint32_t> steps[] = {
        {PKCS11::kPinOfUser, token.pin, second, PKCS11::kPinDone},
        {PKCS11::kPinOfUser, token.pin, third, PKCS11::kPinWrong},
        {PKCS11::kPinOfUser, token.pin, third, PKCS11::kPinKnownWrong},
        {PKCS11::kPinOfUser, second, token.pin, PKCS11::kPinDone},
        {PKCS11::kPinOfUser, token.pin, second, PKCS11::kPinDone},  // it was the right one again
        {PKCS11::kPinOfUser, second, "", PKCS11::kPinTokenFailed},
        {PKCS11::kPinOfUser, second, "1", PKCS11::kPinTokenFailed},  // the token wants four
        {PKCS11::kPinOfSecurityOfficer, token.so_pin + "x", officer, PKCS11::kPinWrong},
        {PKCS11::kPinOfSecurityOfficer, token.so_pin, officer, PKCS11::kPinDone},
        {PKCS11::kPinOfUserByOfficer, officer, third, PKCS11::kPinDone},
        {static_cast<PKCS11::PinRole>(3), officer, third, PKCS11::kPinTokenFailed},
    };
    for (const auto& step : steps) {
        const auto& [role, old_pin, new_pin, status] = step;
        const auto answer = manager_.ChangePin(token.info, role, Secret(old_pin), Secret(new_pin), true);
        EXPECT_EQ(answer.value().status, status) << &step - steps;
    }
    for (const std::string& wrong : {second, std::string(), std::string(1000, '1')}) {
        EXPECT_EQ(Login(token.info, wrong), PKCS11::kPinWrong);
    }
    EXPECT_EQ(Login(token.info, third), PKCS11::kPinDone);
    for (const std::string& report : Reports::Instance().All()) {
        for (const std::string& pin : {token.pin, token.so_pin, second, third, officer}) {
            EXPECT_EQ(report.find(pin), std::string::npos) << report;
        }
    }
}

TEST_F(CommandsTest, ShortInputIsMalformed) {
    constexpr std::uint64_t kNoToken = 0;
    const std::string text = "text";
    std::string inputs[PKCS11::kCommandChangePin + 1];
    CommandStreamOut(inputs[PKCS11::kCommandLogin]).fields(kNoToken, text, false);
    CommandStreamOut(inputs[PKCS11::kCommandLogout]).fields(kNoToken);
    CommandStreamOut(inputs[PKCS11::kCommandInitToken]).fields(text, text, text, text);
    CommandStreamOut(inputs[PKCS11::kCommandChangePin]).fields(kNoToken, 0U, text, text, false);
    std::string reply;
    for (std::uint32_t command = PKCS11::kCommandLogin; command <= PKCS11::kCommandChangePin; ++command) {
        for (std::size_t at = 0; at < inputs[command].size(); ++at) {
            EXPECT_FALSE(client_.Call(bridge::kGroupTokens, command, inputs[command].substr(0, at), reply));
            EXPECT_EQ(client_.failure().code, bridge::Error::kMalformed) << command << " cut at " << at;
            const std::string absurd = std::string(inputs[command]).replace(at, 4, 4, '\xFF');
            EXPECT_TRUE(client_.Call(bridge::kGroupTokens, command, absurd, reply) ||
                        client_.failure().code == bridge::Error::kMalformed)
                << command << " absurd at " << at;
        }
    }
    EXPECT_FALSE(client_.Call(bridge::kGroupTokens, 5, {}, reply));
    EXPECT_EQ(client_.failure().code, bridge::Error::kUnknownCommand);
}

}  // namespace
}  // namespace token_test
