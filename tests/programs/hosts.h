// Two hosts as the programs see them: tokens made by ikeauth, settings files, and a control file for the forwarding
// PKCS#11 module in front of SoftHSM2.
#pragma once

#include <string>

#include "tests/ike/client.h"
#include "tests/tokens/forward/control.h"

namespace program_test {

/// alice and bob, under one root.
struct Hosts {
    ike_test::Client::Contents Contents(const std::string& name, const test_pki::Cert& cert) const {
        const std::string pattern = " = [{subject_attrs = \"O=Test\"}]\n";
        const std::string rule =
            "id_local = [{fqdn = \"" + name + ".example\"}]\ncert_local" + pattern + "cert_remote" + pattern;
        const std::string settings =
            "poll_interval_milliseconds = 100\ncall_limit_milliseconds = 1000\n[[tokens.provider]]\n"
            "name = \"forward\"\nmodule = \"" FORWARD_PKCS11_PATH "\"\n[bridge]\nsocket = \"socket\"\n";
        return {{cert}, {intermediate}, {root}, {}, rule, name, settings};
    }
    test_pki::Cert MakeHost(const std::string& name) const {
        return test_pki::MakeCert({.subject = "CN=" + name + ", O=Test",
                                   .key_usage = "digitalSignature",
                                   .eku = {"ipsecIKE"},
                                   .san = {"DNS:" + name + ".example"}},
                                  &intermediate);
    }

    const test_support::TempDir directory{};
    const forward::Control control{directory / "control"};
    const test_pki::Cert root = test_pki::MakeCa("CN=Root, O=Test");
    const test_pki::Cert intermediate = test_pki::MakeCa("CN=Issuing, O=Test", &root);
    const test_pki::Cert leaf = MakeHost("alice");
    const ike_test::Client alice{Contents("alice", leaf)};
    const ike_test::Client bob{Contents("bob", MakeHost("bob"))};
};

}  // namespace program_test
