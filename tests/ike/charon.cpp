#include "tests/ike/charon.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace ike_test {
namespace {

// No plugin that multicasts, listens elsewhere or touches the system's routes.
constexpr const char* kPlugins =
    "random nonce openssl pem pkcs1 pkcs7 pkcs8 x509 pubkey revocation constraints curl hmac kdf kernel-netlink "
    "socket-default vici";

}  // namespace

bool PeersRequired() {
    const char* value = std::getenv("CERTMGR_REQUIRE_PEERS");
    return value != nullptr && *value != '\0';
}

std::uint16_t FreeUdpPort() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no UDP port");
    }
    close(fd);
    return ntohs(address.sin_port);
}

void WriteFile(const std::filesystem::path& path, const std::string& content, bool is_private) {
    create_directories(path.parent_path());
    std::ofstream(path, std::ios::trunc) << content;
    if (is_private) chmod(path.c_str(), S_IRUSR | S_IWUSR);
}

Charon::Charon() {
    WriteFile(dir_ / "strongswan.conf", "charon {\n port = " + std::to_string(port_) +
                                            "\n port_nat_t = " + std::to_string(nat_port_) + "\n load = " + kPlugins +
                                            "\n install_routes = no\n install_virtual_ip = no\n rsa_pss = no\n"
                                            " filelog {\n stderr {\n default = 1\n cfg = 2\n flush_line = yes\n }\n }\n"
                                            " plugins {\n vici {\n socket = unix://" +
                                            (dir_ / "vici").string() +
                                            "\n }\n socket-default {\n use_ipv6 = no\n }\n }\n}\n");
    // Its file of the process number is at a fixed place: each has a /run of its own, so that several tests may run.
    process_ = std::make_unique<test_support::Process>(
        std::vector<std::string>{"unshare", "--mount", "sh", "-c",
                                 "mount -t tmpfs none /run && exec " + std::string(kCharonPath)},
        test_support::Process::Environment{{"STRONGSWAN_CONF", (dir_ / "strongswan.conf").string()}});
    running_ = process_->WaitForOutput("spawning 16 worker threads");
}

test_support::ProcessResult Charon::Swanctl(std::vector<std::string> words) const {
    words.insert(words.begin(), "swanctl");
    words.insert(words.end(), {"--uri", "unix://" + (dir_ / "vici").string()});
    return test_support::Run(words, {{"SWANCTL_DIR", (dir_ / "swanctl").string()},
                                     {"STRONGSWAN_CONF", (dir_ / "strongswan.conf").string()}});
}

std::string Charon::Load(const Configuration& configuration) {
    remove_all(dir_ / "swanctl");
    for (const auto& [name, content] : configuration.files) WriteFile(dir_ / "swanctl" / name, content);
    WriteFile(dir_ / "swanctl" / "swanctl.conf", "connections {\n peer {\n version = 2\n local_addrs = 127.0.0.1\n" +
                                                     configuration.connection + "}\n}\nsecrets {\n" +
                                                     configuration.secrets + "}\n");
    Swanctl({"--flush-certs"});
    const auto result = Swanctl({"--load-all", "--clear", "--noprompt"});
    log_start_ = process_->Err().size();
    return result.exit_code == 0 ? "" : result.out + result.err;
}

test_support::ProcessResult Charon::Initiate(bool child) {
    return Swanctl({"--initiate", child ? "--child" : "--ike", child ? "net" : "peer", "--timeout", "20"});
}

std::string Charon::Log() const {
    return process_->Err().substr(log_start_);
}

bool Charon::WaitForLog(const std::string& text) {
    const std::string before = process_->Err().substr(0, log_start_);
    unsigned times = 1;
    for (std::size_t at = before.find(text); at != std::string::npos; at = before.find(text, at + 1)) ++times;
    return process_->WaitForOutput(text, std::chrono::seconds(20), times);
}

Client::Client(const Contents& contents) {
    std::vector<std::string> words = {IKEAUTH_PATH, "provision",  "--state",    dir_ / "tokens", "--label",
                                      "client",     "--pin-file", dir_ / "pin", "--so-pin-file", dir_ / "so-pin"};
    unsigned number = 0;
    const auto add = [&](const char* option, const std::string& content, bool is_private = false) {
        const std::filesystem::path path = dir_ / ("file" + std::to_string(number++));
        WriteFile(path, content, is_private);
        words.insert(words.end(), {option, path});
    };
    for (const test_pki::Cert& cert : contents.own) {
        add("--cert", cert.Pem());
        add("--key", test_pki::ToPem("PRIVATE KEY", test_pki::Pkcs8(cert.key)), true);
    }
    for (const test_pki::Cert& cert : contents.others) add("--other", cert.Pem());
    for (const test_pki::Cert& cert : contents.trusted) add("--trusted", cert.Pem());
    if (!contents.preshared_key.empty()) {
        add("--psk", contents.preshared_key, true);
        words.back().insert(0, "shared=");
    }
    const auto result = test_support::Run(words);
    if (result.exit_code != 0) throw std::runtime_error("provision: " + result.out + result.err);
    WriteFile(dir_ / "client.toml",
              "[certificates]\ncrl_download_timeout_seconds = 5\n[tokens]\nsofthsm_directory = \"tokens\"\n"
              "[[tokens.pin_file]]\ntoken = \"client\"\npath = \"pin\"\n[[rule]]\nname = \"office\"\n" +
                  contents.rule);
}

std::vector<std::string> Client::Words(const std::string& command, const std::vector<std::string>& options) const {
    std::vector<std::string> words = {IKEAUTH_PATH, command, "--config", dir_ / "client.toml", "--rule", "office"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

test_support::ProcessResult Client::Probe(std::uint16_t port, const std::vector<std::string>& options,
                                          const std::string& host) const {
    std::vector<std::string> words = Words("probe", options);
    words.insert(words.begin() + 2, {host, "--port", std::to_string(port)});
    return test_support::Run(words);
}

test_support::ProcessResult Client::EndOf(test_support::Process& responder) {
    responder.WaitForOutput("advice: ");
    const std::string out = responder.Out();
    const bool counted =
        out.find("(stage negotiate)") == std::string::npos && out.find("no IKE_AUTH") == std::string::npos;
    if (!counted) responder.Kill(SIGTERM);
    return responder.Wait();
}

std::unique_ptr<test_support::Process> Client::Respond(const std::vector<std::string>& options, std::uint16_t& port,
                                                       bool only_one) const {
    std::vector<std::string> words = Words("respond", options);
    if (std::find(words.begin(), words.end(), "--port") == words.end()) words.insert(words.end(), {"--port", "0"});
    words.insert(words.end(), {"--count", only_one ? "1" : "0"});
    auto process = std::make_unique<test_support::Process>(words);
    if (!process->WaitForOutput("carries no traffic")) throw std::runtime_error(process->Out() + process->Err());
    const std::string out = process->Out();
    const std::size_t end = std::min(out.find(" and port"), out.find(". It"));
    port = static_cast<std::uint16_t>(std::stoul(out.substr(out.rfind(':', end) + 1)));
    return process;
}

}  // namespace ike_test
