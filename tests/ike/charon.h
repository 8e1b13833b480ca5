// strongSwan's charon beside the test: own ports, configuration and control socket, all in a temporary folder, everything on
// 127.0.0.1.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/ike/bad_network.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace ike_test {

inline constexpr const char* kCharonPath = "/usr/lib/ipsec/charon";

class Charon {
  public:
    /// Throws std::runtime_error with what it said when it does not come up.
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

    std::uint16_t port() const { return nat_port_; }
    /// Everything that it logged since the last Load.
    std::string Log() const { return process_->Err().substr(log_start_); }
    /// Waits until it has logged the text since then: what a peer sees of it may come before its log does.
    bool WaitForLog(const std::string& text);

  private:
    test_support::ProcessResult Swanctl(std::vector<std::string> words) const;

    const test_support::TempDir dir_;
    const std::uint16_t port_ = FreeUdpPort();
    const std::uint16_t nat_port_ = FreeUdpPort();
    const std::string socket_ = "unix://" + (dir_ / "vici").string();
    const test_support::Process::Environment environment_{{"SWANCTL_DIR", dir_ / "swanctl"},
                                                          {"STRONGSWAN_CONF", dir_ / "strongswan.conf"}};
    std::optional<test_support::Process> process_;
    std::size_t log_start_ = 0;
};

}  // namespace ike_test
