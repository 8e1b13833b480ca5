#include "tests/ike/charon.h"

#include <stdexcept>

namespace ike_test {

Charon::Charon() {
    // No plugin that multicasts, listens elsewhere or touches the system's routes.
    dir_.Write(
        "strongswan.conf",
        "charon {\n port = " + std::to_string(port_) + "\n port_nat_t = " + std::to_string(nat_port_) +
            "\n load = random nonce openssl pem pkcs1 pkcs7 pkcs8 x509 pubkey revocation constraints curl hmac kdf "
            "kernel-netlink socket-default vici\n install_routes = no\n install_virtual_ip = no\n rsa_pss = no\n"
            " filelog {\n stderr {\n default = 1\n cfg = 2\n flush_line = yes\n }\n }\n plugins {\n"
            " vici {\n socket = " +
            socket_ + "\n }\n socket-default {\n use_ipv6 = no\n }\n }\n}\n");
    // Its file of the process number is at a fixed place: each has a /run of its own, so that several tests may run.
    const std::string start = "mount -t tmpfs none /run && exec " + std::string(kCharonPath);
    process_.emplace(std::vector<std::string>{"unshare", "--mount", "sh", "-c", start}, environment_);
    if (!process_->WaitForOutput("spawning 16 worker threads")) {
        throw std::runtime_error(process_->Out() + process_->Err());
    }
}

test_support::ProcessResult Charon::Swanctl(std::vector<std::string> words) const {
    words.insert(words.begin(), "swanctl");
    words.insert(words.end(), {"--uri", socket_});
    return test_support::Run(words, environment_);
}

std::string Charon::Load(const Configuration& configuration) {
    remove_all(dir_ / "swanctl");
    for (const auto& [name, content] : configuration.files) dir_.Write("swanctl/" + name, content);
    dir_.Write("swanctl/swanctl.conf", "connections {\n peer {\n version = 2\n local_addrs = 127.0.0.1\n" +
                                           configuration.connection + "}\n}\nsecrets {\n" + configuration.secrets +
                                           "}\n");
    Swanctl({"--flush-certs"});
    const auto result = Swanctl({"--load-all", "--clear", "--noprompt"});
    log_start_ = process_->Err().size();
    return result.exit_code == 0 ? "" : result.out + result.err;
}

test_support::ProcessResult Charon::Initiate(bool child) {
    return Swanctl({"--initiate", child ? "--child" : "--ike", child ? "net" : "peer", "--timeout", "20"});
}

bool Charon::WaitForLog(const std::string& text) {
    const unsigned before = test_support::CountOf(process_->Err().substr(0, log_start_), text);
    return process_->WaitForOutput(text, std::chrono::seconds(20), before + 1);
}

}  // namespace ike_test
