#include "tests/tokens/fixture.h"

#include <openssl/rand.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "platform/eventlog/sinks.h"

namespace token_test {

using PKCS11::TokenInfo;

std::string RandomPin() {
    std::uint32_t number = 0;
    RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number);
    return std::to_string(10000000 + number % 90000000);
}

Reports& Reports::Instance() {
    static Reports reports;
    return reports;
}

void Reports::Clear() {
    reports_.Update([](auto& reports) { reports.clear(); });
}

void Reports::Add(const std::string& report) {
    reports_.Update([&](auto& reports) { reports.push_back(report); });
}

void Reports::Install() {
    Clear();
    PKCS11::Callbacks.tokenInserted = [](const TokenInfo& token) { Instance().Add("inserted " + token.label); };
    PKCS11::Callbacks.tokenRemoved = [](const TokenInfo& token) { Instance().Add("removed " + token.label); };
    PKCS11::Callbacks.tokenLogin = [](const TokenInfo& token, bool own) {
        Instance().Add("login " + token.label + (own ? " own " : " seen ") + (token.loggedIn ? "in" : "out"));
    };
    PKCS11::Callbacks.providerInserted = [](const PKCS11::ProviderInfo& provider, unsigned long count) {
        Instance().Add("provider " + provider.name + (provider.available ? " ready " : " failed ") +
                       std::to_string(count));
    };
    eventlog::Sinks sinks;
    sinks.to_stderr = false;
    sinks.callback = [](const eventlog::Record& record) {
        Instance().Add("log " + std::to_string(record.code) + " " + record.text);
    };
    std::string error;
    EXPECT_TRUE(eventlog::SetSinks(sinks, error)) << error;
}

void Reports::Remove() {
    PKCS11::Callbacks.tokenInserted = nullptr;
    PKCS11::Callbacks.tokenRemoved = nullptr;
    PKCS11::Callbacks.tokenLogin = nullptr;
    PKCS11::Callbacks.providerInserted = nullptr;
}

bool Reports::WaitFor(const std::string& part, std::size_t times) {
    return reports_.WaitUntil([&](const auto& reports) { return CountIn(reports, part) >= times; });
}

std::size_t Reports::CountIn(const std::vector<std::string>& reports, const std::string& part) {
    return static_cast<std::size_t>(
        std::ranges::count_if(reports, [&](const std::string& report) { return report.find(part) != report.npos; }));
}

TokenTest::TokenTest() : control_(directory_ / "control") {
    std::string error;
    EXPECT_TRUE(tokens::PrepareSoftHsm((directory_ / "state").string(), error)) << error;
    settings_.poll_interval = std::chrono::milliseconds(50);
    reports_.Install();
}

TokenTest::~TokenTest() {
    control_.Set({});
    tokens::Stop();
    reports_.Remove();
}

void TokenTest::StartDirect() {
    settings_.providers = {{.name = "softhsm", .module_path = tokens::SoftHsmModulePath()}};
    Start();
}

void TokenTest::StartForward() {
    settings_.providers = {{.name = "forward", .module_path = FORWARD_PKCS11_PATH, .init_args = control_.InitArgs()}};
    Start();
}

void TokenTest::Start() {
    std::string error;
    ASSERT_TRUE(tokens::Start(settings_, error)) << error;
}

void TokenTest::Apply() {
    std::string error;
    ASSERT_TRUE(tokens::Apply(settings_, error)) << error;
}

TestToken TokenTest::NewToken(const std::string& label, bool logged_in) {
    TestToken token{{}, RandomPin(), RandomPin()};
    std::string error;
    EXPECT_TRUE(tokens::InitToken(settings_.providers.at(0).name, label, Secret(token.so_pin), Secret(token.pin),
                                  token.info, error))
        << error;
    EXPECT_TRUE(!logged_in || LogIn(token) == tokens::PinResult::kDone);
    return token;
}

tokens::PinResult TokenTest::LogIn(const TestToken& token, tokens::FewTries few_tries) {
    return tokens::Login(token.info, Secret(token.pin), few_tries);
}

void TokenTest::AddPinFile(const std::string& token, const std::string& pin, unsigned mode, bool login_on_insertion) {
    const std::string path = (directory_ / ("pin-" + std::to_string(settings_.pin_files.size()))).string();
    std::ofstream(path) << pin << '\n';
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    settings_.pin_files.push_back({.token = token, .path = path, .login_on_insertion = login_on_insertion});
}

void TokenTest::SetAndWait(const std::vector<std::string>& directives, const std::string& report, std::size_t times) {
    control_.Set(directives);
    ASSERT_TRUE(reports_.WaitFor(report, times)) << report;
}

bool TokenTest::IsListed(const std::string& label) const {
    return std::ranges::count(ListedTokens(), label, &TokenInfo::label) > 0;
}

bool TokenTest::WaitUntilListed(const std::string& label, bool listed) {
    const auto end = std::chrono::steady_clock::now() + test_support::kWaitLimit;
    while (std::chrono::steady_clock::now() < end) {
        if (IsListed(label) == listed) return true;
        PKCS11::Manager::Instance().ReloadTokensContent(1);
    }
    return false;
}

void TokenTest::Import(const TokenInfo& token, pki_alg_t alg, const test_pki::Key& key, const std::string& id) {
    PKCS11::TokenSession session(token, PKCS11::TokenSession::kPrivate);
    ASSERT_TRUE(session.opened());
    ASSERT_TRUE(session.CreatePrivKeyObject(alg, id, test_pki::Pkcs8(key), false));
    ASSERT_TRUE(session.CreatePubKeyObject(alg, id, test_pki::Spki(key)));
}

}  // namespace token_test
