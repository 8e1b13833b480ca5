#include "tests/programs/hosts.h"

#include <fstream>
#include <stdexcept>

namespace program_test {
namespace {

using test_pki::Cert;

Cert MakeHost(const std::string& name, int key_index, const Cert& issuer) {
    return test_pki::MakeCert({.key_index = key_index,
                               .subject = "CN=" + name + ", O=Test",
                               .ca = false,
                               .key_usage = "digitalSignature",
                               .eku = {"ipsecIKE"},
                               .san = {"DNS:" + name + ".example"}},
                              &issuer);
}

}  // namespace

Hosts::Hosts()
    : control_(directory_ / "control"),
      root_(test_pki::MakeCa("CN=Root, O=Test")),
      intermediate_(test_pki::MakeCa("CN=Issuing, O=Test", &root_, test_pki::KeyType::kEcP256, 1)),
      leaf_(MakeHost("alice", 2, intermediate_)) {
    Write("root.pem", root_.Pem());
    Write("issuing.pem", intermediate_.Pem());
    Provision("alice", leaf_);
    Provision("bob", MakeHost("bob", 3, intermediate_));
    WriteSettings("alice");
    WriteSettings("bob");
}

void Hosts::Write(const std::string& name, const std::string& content) const {
    std::ofstream(directory_ / name, std::ios::trunc) << content;
}

void Hosts::Provision(const std::string& host, const Cert& cert) const {
    Write(host + ".pem", cert.Pem());
    Write(host + ".key", test_pki::ToPem("PRIVATE KEY", test_pki::Pkcs8(cert.key)));
    const auto path = [&](const std::string& name) { return (directory_ / name).string(); };
    const auto result = test_support::Run({IKEAUTH_PATH, "provision", "--state", path(host + ".tokens"), "--label",
                                           host, "--pin-file", path(host + ".pin"), "--so-pin-file", path(host + ".so"),
                                           "--key", path(host + ".key"), "--cert", path(host + ".pem"), "--other",
                                           path("issuing.pem"), "--trusted", path("root.pem")});
    if (result.exit_code != 0) throw std::runtime_error("provision: " + result.out + result.err);
}

void Hosts::WriteSettings(const std::string& host, const std::string& extra) const {
    Write(host + ".toml",
          "[log]\ncolour = \"never\"\n[bridge]\nsocket = \"" + host + ".sock\"\n[tokens]\nsofthsm_directory = \"" +
              host + ".tokens\"\npoll_interval_milliseconds = 100\ncall_limit_milliseconds = 1000\n" +
              "[[tokens.provider]]\nname = \"forward\"\nmodule = \"" FORWARD_PKCS11_PATH "\"\n" +
              "[[tokens.pin_file]]\ntoken = \"" + host + "\"\npath = \"" + host + ".pin\"\n" + extra +
              "\n[[rule]]\nname = \"office\"\nid_local = [{fqdn = \"" + host + ".example\"}]\n" +
              "cert_local = [{subject_attrs = \"O=Test\"}]\ncert_remote = [{subject_attrs = \"O=Test\"}]\n");
}

}  // namespace program_test
