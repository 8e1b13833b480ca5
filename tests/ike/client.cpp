#include "tests/ike/client.h"

#include <algorithm>
#include <stdexcept>

namespace ike_test {

using test_pki::Cert;

Client::Client(Contents contents) : contents_(std::move(contents)) {
    std::vector<std::string> words = {IKEAUTH_PATH,    "provision",  "--state",    dir_ / "tokens", "--label",
                                      contents_.label, "--pin-file", dir_ / "pin", "--so-pin-file", dir_ / "so-pin"};
    unsigned number = 0;
    const auto add = [&](const char* option, const std::string& content, const std::string& name = {}) {
        const std::string file = "file" + std::to_string(number++);
        dir_.Write(file, content);
        words.insert(words.end(), {option, name + (dir_ / file).string()});
    };
    for (const Cert& cert : contents_.own) {
        add("--cert", cert.Pem());
        add("--key", cert.KeyPem());
    }
    for (const Cert& cert : contents_.others) add("--other", cert.Pem());
    for (const Cert& cert : contents_.trusted) add("--trusted", cert.Pem());
    if (!contents_.preshared_key.empty()) add("--psk", contents_.preshared_key, "shared=");
    const auto result = test_support::Run(words);
    if (result.exit_code != 0) throw std::runtime_error("provision: " + result.out + result.err);
    WriteSettings();
}

void Client::WriteSettings(const std::string& more) const {
    dir_.Write("client.toml", "[tokens]\nsofthsm_directory = \"tokens\"\n" + contents_.settings +
                                  "[[tokens.pin_file]]\ntoken = \"" + contents_.label + "\"\npath = \"pin\"\n" + more +
                                  "[[rule]]\nname = \"office\"\n" + contents_.rule);
}

std::vector<std::string> Client::Words(std::vector<std::string> command,
                                       const std::vector<std::string>& options) const {
    command.insert(command.begin(), IKEAUTH_PATH);
    command.insert(command.end(), {"--config", settings(), "--rule", "office"});
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

test_support::ProcessResult Client::Probe(std::uint16_t port, const std::vector<std::string>& options,
                                          const std::string& host) const {
    return test_support::Run(Words({"probe", host, "--port", std::to_string(port)}, options));
}

Responder::Responder(const Client& client, const std::vector<std::string>& options, const std::string& port)
    : process_(client.Words({"respond", "--port", port, "--count", "1"}, options)) {
    if (!process_.WaitForOutput("carries no traffic")) throw std::runtime_error(process_.Out() + process_.Err());
    const std::string out = process_.Out();
    const std::size_t end = std::min(out.find(" and port"), out.find(". It"));
    port_ = static_cast<std::uint16_t>(std::stoul(out.substr(out.rfind(':', end) + 1)));
}

test_support::ProcessResult Responder::End() {
    process_.WaitForOutput("advice: ");
    const std::string out = process_.Out();
    const bool counted =
        out.find("(stage negotiate)") == std::string::npos && out.find("no IKE_AUTH") == std::string::npos;
    if (!counted) process_.Kill(SIGTERM);
    return process_.Wait();
}

}  // namespace ike_test
