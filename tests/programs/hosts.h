// Two hosts as the programs see them: tokens made by ikeauth, settings files, and a control file for the forwarding
// PKCS#11 module in front of SoftHSM2.
#pragma once

#include <string>

#include "tests/support/pki.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/tokens/forward/control.h"

namespace program_test {

class Hosts {
  public:
    /// Tokens and settings of alice and bob, under one root.
    Hosts();

    std::string Settings(const std::string& host) const { return directory_ / (host + ".toml"); }
    /// Replaces a settings file; `extra` stands before the rule.
    void WriteSettings(const std::string& host, const std::string& extra = {}) const;
    void Write(const std::string& name, const std::string& content) const;

    const forward::Control& control() const { return control_; }
    test_support::Process::Environment Environment() const {
        return {{"FORWARD_PKCS11_CONTROL", control_.path().string()}};
    }
    const test_pki::Cert& leaf() const { return leaf_; }
    const test_pki::Cert& intermediate() const { return intermediate_; }

  private:
    void Provision(const std::string& host, const test_pki::Cert& cert) const;

    test_support::TempDir directory_;
    forward::Control control_;
    test_pki::Cert root_;
    test_pki::Cert intermediate_;
    test_pki::Cert leaf_;  // alice's
};

}  // namespace program_test
