// A token manager on real SoftHSM2 tokens in a temporary directory, directly or through the forwarding module.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/tokens.h"
#include "platform/tokens/token_host.h"
#include "tests/support/pki.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"
#include "tests/tokens/forward/control.h"

namespace token_test {

/// A fresh PIN of eight digits.
std::string RandomPin();
inline vpnfc::SecretString Secret(std::string_view text) {
    return vpnfc::SecretString(text);
}
inline std::vector<PKCS11::TokenInfo> ListedTokens() {
    return PKCS11::Manager::Instance().EnumTokens();
}

struct TestToken {
    PKCS11::TokenInfo info{};
    std::string so_pin{};
    std::string pin{};
};

/// What the callbacks and the event log reported, in order: "inserted one", "removed one", "login one own|seen in|out",
/// "provider forward ready 1", "log 203 ...".
class Reports {
  public:
    static Reports& Instance();

    void Clear();
    /// Installs the callbacks and the log's sink.
    void Install();
    void Remove();
    void Add(const std::string& report);

    bool WaitFor(const std::string& part, std::size_t times = 1);
    std::size_t Count(const std::string& part) const { return CountIn(All(), part); }
    std::vector<std::string> All() const { return reports_.Get(); }

  private:
    static std::size_t CountIn(const std::vector<std::string>& reports, const std::string& part);

    test_support::Watched<std::vector<std::string>> reports_;
};

/// Collects what a session reports.
class ErrorLog : public PKCS11::Logger {
  public:
    void OnDeviceError(const PKCS11::TokenInfo& token, const char* function, const char* result) override {
        errors.push_back(token.label + " " + function + " " + result);
    }
    std::vector<std::string> errors{};
};

class TokenTest : public testing::Test {
  protected:
    TokenTest();
    ~TokenTest() override;

    /// SoftHSM2 itself, provider "softhsm".
    void StartDirect();
    /// SoftHSM2 behind the forwarding module, provider "forward".
    void StartForward();
    /// With the settings as they are.
    void Start();
    void Apply();

    /// A new token, logged in if wanted.
    TestToken NewToken(const std::string& label, bool logged_in = true);
    tokens::PinResult LogIn(const TestToken& token, tokens::FewTries few_tries = tokens::FewTries::kRefuse);
    /// Writes a PIN file with that mode and names it in the settings.
    void AddPinFile(const std::string& token, const std::string& pin, unsigned mode = 0600,
                    bool login_on_insertion = true);
    /// Replaces the directives and waits for a report.
    void SetAndWait(const std::vector<std::string>& directives, const std::string& report, std::size_t times = 1);
    bool IsListed(const std::string& label) const;
    bool WaitUntilListed(const std::string& label, bool listed = true);

    /// Puts a key pair on the token with the token manager.
    static void Import(const PKCS11::TokenInfo& token, pki_alg_t alg, const test_pki::Key& key, const std::string& id);

    test_support::TempDir directory_;
    forward::Control control_;
    tokens::Settings settings_{};
    Reports& reports_ = Reports::Instance();
};

}  // namespace token_test
