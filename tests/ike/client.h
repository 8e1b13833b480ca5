// Hosts of ours: ikeauth with a SoftHSM2 token and settings of its own, in a temporary folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/pki.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace ike_test {

class Client {
  public:
    struct Contents {
        std::vector<test_pki::Cert> own{};
        std::vector<test_pki::Cert> others{};
        std::vector<test_pki::Cert> trusted{};
        std::string preshared_key{};  // under the name "shared"
        std::string rule{};  // lines of the rule "office"
        std::string label = "client";  // of the token
        std::string settings{};  // more lines of [tokens], then tables
    };
    explicit Client(Contents contents);

    /// Replaces the settings file; `more` are tables.
    void WriteSettings(const std::string& more = {}) const;
    std::string settings() const { return dir_ / "client.toml"; }
    /// An ikeauth command with the settings and the rule.
    std::vector<std::string> Words(std::vector<std::string> command, const std::vector<std::string>& options) const;
    test_support::ProcessResult Probe(std::uint16_t port, const std::vector<std::string>& options,
                                      const std::string& host = "127.0.0.1") const;

  private:
    const Contents contents_;
    const test_support::TempDir dir_;
};

/// `ikeauth respond`, which answers one initiator.
class Responder {
  public:
    Responder(const Client& client, const std::vector<std::string>& options, const std::string& port = "0");

    std::uint16_t port() const { return port_; }
    /// Its result when its one exchange has ended. What never got to IKE_AUTH is not counted: then it is told to end.
    test_support::ProcessResult End();

  private:
    test_support::Process process_;
    std::uint16_t port_ = 0;
};

}  // namespace ike_test
