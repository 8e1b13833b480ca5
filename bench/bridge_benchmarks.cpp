// A daemon with many certificates, as its clients see it: commands a second over the socket, and its resident memory.
// The certificates are on the token of p11-kit's trust module, which reads them from one file.

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/benchmarks.h"
#include "bench/register.h"
#include "bench/world.h"
#include "cli/client/manager.h"
#include "tests/support/pki.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace bench {
namespace {

using benchmark::State;
using certmgr_client::CertSelector;

/// certmgrd with that many certificates, and a connection to it.
class Daemon {
  public:
    explicit Daemon(int certificates) : process_({CERTMGRD_PATH, "--config", Settings(certificates)}) {
        const bool serves =
            Await([this] { return client_.Connect({.socket_path = directory_ / "socket", .name = "bench"}); });
        if (!serves || !Await([&] { return Lists(static_cast<std::size_t>(certificates)); })) {
            throw std::runtime_error("certmgrd: " + process_.Err() + client_.failure().text);
        }
    }
    ~Daemon() {
        client_.Disconnect();
        process_.Kill(SIGTERM);
        process_.Wait();
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    certmgr_client::Manager& manager() { return manager_; }
    /// The list that the certificates are in.
    CertSelector selector() const { return selector_; }
    double ResidentMebibytes() const {
        std::ifstream statm("/proc/" + std::to_string(process_.pid()) + "/statm");
        double total = 0;
        double resident = 0;
        statm >> total >> resident;
        return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
    }

  private:
    /// A token for each thousand of them: what the trust module needs grows with the square.
    std::string Settings(int certificates) const {
        constexpr int kOnAToken = 1000;
        std::ofstream bundle;
        std::string paths;
        int written = 0;
        for (const CM::X509Cert* cert : MakeVariants(TheWorld().root(), "Listed", true, certificates)) {
            if (written++ % kOnAToken == 0) {
                const std::string path = directory_ / (std::to_string(written) + ".pem");
                paths += (paths.empty() ? "" : ":") + path;
                bundle = std::ofstream(path);
            }
            bundle << test_pki::ToPem("CERTIFICATE", cert->rawCert);
        }
        std::ofstream(directory_ / "certmgr.toml")
            << "[bridge]\nsocket = \"socket\"\n[log]\nlevel = \"warning\"\n[[tokens.provider]]\nname = "
               "\"trust\"\nmodule = \""
            << TRUST_MODULE_PATH << "\"\ninit_args = \"paths='" << paths << "'\"\n";
        return directory_ / "certmgr.toml";
    }

    /// The daemon's own threads read the tokens, after it said that it runs.
    template <typename Condition>
    static bool Await(Condition condition) {
        const auto end = std::chrono::steady_clock::now() + test_support::kWaitLimit;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    bool Lists(std::size_t wanted) {
        for (const CertSelector selector : {CertSelector::kTrusted, CertSelector::kIntermediate}) {
            selector_ = selector;
            const auto list = manager_.ListCertificates(selector);
            if (list && list->size() >= wanted) return true;
        }
        return false;
    }

    test_support::TempDir directory_;
    test_support::Process process_;
    bridge::Client client_;
    certmgr_client::Manager manager_{client_};
    CertSelector selector_ = CertSelector::kIntermediate;
};

/// Runs until the program ends.
Daemon& TheDaemon(int certificates) {
    static std::map<int, std::unique_ptr<Daemon>> daemons;
    std::unique_ptr<Daemon>& daemon = daemons[certificates];
    if (!daemon) daemon = std::make_unique<Daemon>(certificates);
    return *daemon;
}

void ListMany(State& state, int certificates) {
    Daemon& daemon = TheDaemon(certificates);
    for (auto _ : state) {
        const auto listed = daemon.manager().ListCertificates(daemon.selector());
        Require(listed && listed->size() >= static_cast<std::size_t>(certificates), state);
    }
}

void ShowOne(State& state, int certificates) {
    Daemon& daemon = TheDaemon(certificates);
    const auto listed = daemon.manager().ListCertificates(daemon.selector());
    for (auto _ : state) {
        const auto details = daemon.manager().CertificateDetails(listed->back().token, listed->back().info);
        Require(details && details->found, state);
    }
}

void ResidentMemory(State& state, int certificates) {
    for (auto _ : state) state.counters["figure"] = TheDaemon(certificates).ResidentMebibytes();
}

}  // namespace

void RegisterBridgeBenchmarks() {
    Register("bridge_list_1000", ListMany, 1000);
    Register("bridge_show_1000", ShowOne, 1000);
    Register("bridge_show_10000", ShowOne, 10000);
    for (const int certificates : {1, 1000, 10000}) {
        RegisterOnce(("daemon_memory_" + std::to_string(certificates)).c_str(), ResidentMemory, certificates);
    }
}

}  // namespace bench
