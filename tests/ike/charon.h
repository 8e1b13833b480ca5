// strongSwan's charon beside the test: own ports, configuration and control socket, all in a temporary folder, everything on
// 127.0.0.1. And a client of ours with a SoftHSM2 token.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/pki.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace ike_test {

inline constexpr const char* kCharonPath = "/usr/lib/ipsec/charon";

/// Whether a program to test against must be there, as .ci/run says; where not, its tests may be skipped.
bool PeersRequired();
/// Ends a test that cannot run here: as failed, or as skipped.
#define IKE_CANNOT_RUN(why)                 \
    do {                                    \
        if (PeersRequired()) FAIL() << why; \
        GTEST_SKIP() << why;                \
    } while (false)

/// A UDP port that was free a moment ago.
std::uint16_t FreeUdpPort();
void WriteFile(const std::filesystem::path& path, const std::string& content, bool is_private = false);

class Charon {
  public:
    Charon();

    /// The text of `connections.peer`, certificates and keys by file name, preshared keys; replaces what there was.
    struct Configuration {
        std::string connection{};
        std::vector<std::pair<std::string, std::string>> files{};  // "x509ca/root.pem" and content
        std::string secrets{};
    };
    /// What swanctl said when it failed; else empty.
    std::string Load(const Configuration& configuration);
    /// With a child, "net", or without any.
    test_support::ProcessResult Initiate(bool child);

    bool running() const { return running_; }
    std::uint16_t port() const { return nat_port_; }
    /// Everything that it logged since the last Load.
    std::string Log() const;
    /// Waits until it has logged the text since then: what a peer sees of it may come before its log does.
    bool WaitForLog(const std::string& text);
    std::string Trouble() const { return process_->Out() + process_->Err(); }

  private:
    test_support::ProcessResult Swanctl(std::vector<std::string> words) const;

    test_support::TempDir dir_;
    std::uint16_t port_ = FreeUdpPort();
    std::uint16_t nat_port_ = FreeUdpPort();
    std::unique_ptr<test_support::Process> process_;
    bool running_ = false;
    std::size_t log_start_ = 0;
};

/// A host of ours: token, settings, rule "office".
class Client {
  public:
    struct Contents {
        std::vector<test_pki::Cert> own{};
        std::vector<test_pki::Cert> others{};
        std::vector<test_pki::Cert> trusted{};
        std::string preshared_key{};  // under the name "shared"
        std::string rule{};  // lines of the rule
    };
    explicit Client(const Contents& contents);

    /// `ikeauth` with the settings and the rule, run to its end.
    test_support::ProcessResult Probe(std::uint16_t port, const std::vector<std::string>& options,
                                      const std::string& host = "127.0.0.1") const;
    /// Answers initiators, one or until it is told to stop. The port is in `port` when this returns.
    std::unique_ptr<test_support::Process> Respond(const std::vector<std::string>& options, std::uint16_t& port,
                                                   bool only_one = true) const;
    /// Its result when its one exchange has ended. What never got to IKE_AUTH is not counted: then it is told to end.
    static test_support::ProcessResult EndOf(test_support::Process& responder);
    const test_support::TempDir& dir() const { return dir_; }

  private:
    std::vector<std::string> Words(const std::string& command, const std::vector<std::string>& options) const;

    test_support::TempDir dir_;
};

}  // namespace ike_test
