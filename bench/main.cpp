// Benchmarks of the module against libcrypto and plain PKCS#11 calls, in one run. Ends in a table of ratios; the exit
// code is 1 when a goal is missed.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/table.h"
#include "bench/world.h"

namespace bench {
namespace {

std::unique_ptr<World> world;

const std::vector<Row> kRows = {
    {"leaf from DER to CM::X509Cert / d2i_X509", "leaf_parse", "leaf_parse_peer", Goal::kRatioBelow, 0.35},
    {"the same on two threads, against one", "leaf_parse_two_threads", "leaf_parse", Goal::kSpeedupAbove, 1.8},
    {"d2i_X509 on two threads, against one", "leaf_parse_peer_two_threads", "leaf_parse_peer", Goal::kSpeedupReported},
    {"peer verification / d2i_X509 of both + X509_verify_cert", "peer_verify", "peer_verify_peer", Goal::kRatioBelow,
     0.35},
    {"the same, 1,000 other certificates in the store", "peer_verify_1000", "peer_verify_peer", Goal::kReported},
    {"the same, log level warning", "peer_verify_quiet", "peer_verify_peer", Goal::kReported},
    {"chain of three: 1,000 other CAs in the store / 10", "chain_1000", "chain_10", Goal::kRatioBelow, 1.5},
    {"chain of three: 100,000 other CAs in the store / 10", "chain_100000", "chain_10", Goal::kRatioBelow, 1.5},
    {"local selection of 10 personal certificates, the last", "select_10", "", Goal::kReported},
    {"local selection of 1,000 personal certificates, the last", "select_1000", "", Goal::kTimeBelow, 1000},
    {"first reload, 1,000 certificates / plain calls + parsing", "reload_first", "plain_list_and_parse",
     Goal::kRatioBelow, 1.5},
    {"reload, nothing changed / plain calls", "reload_unchanged", "plain_list", Goal::kRatioBelow, 1.3},
    {"IKEv2 signature RSA-2048 / plain C_SignInit + C_Sign", "ike2_sign", "plain_sign", Goal::kRatioBelow, 1.1},
    {"RSA-2048 verification on the token / libcrypto", "token_verify", "libcrypto_verify", Goal::kReported},
    {"CRL of 1,000,000 entries, DER to ready / d2i_X509_CRL", "crl_read", "crl_read_peer", Goal::kRatioBelow, 0.5},
    {"memory that it adds to its DER, in DERs", "crl_memory", "", Goal::kFigureBelow, 0.5},
    {"the same, libcrypto", "crl_memory_peer", "", Goal::kFigureReported},
    {"signature, look-up and coverage for a certificate, warm", "crl_verdict", "", Goal::kTimeBelow, 10},
    {"look-up of 1,000 serial numbers in turn / in 10,000 entries", "crl_look_up_1000000", "crl_look_up_10000",
     Goal::kRatioBelow, 1.5},
    {"peer verification, 10,000-entry CRLs in the cache / no CRLs", "peer_crls", "peer_no_crls", Goal::kRatioBelow,
     1.1},
    {"64 checks at once for a dead address, time-out 3 s", "checks_of_dead", "", Goal::kTimeBelow, 3.3e6},
    {"1,000 checks while another peer's address hangs / without", "checks_beside_hanging", "checks", Goal::kRatioBelow,
     1.1},
    {"two ikeauth sides, RSA-2048: exchanges a second", "ike_exchange", "", Goal::kRateReported},
    {"share of it spent in the module", "ike_exchange", "", Goal::kFigureReported},
    {"daemon: lists of 1,000 certificates a second", "bridge_list_1000", "", Goal::kRateReported},
    {"daemon: details of one of 1,000 certificates a second", "bridge_show_1000", "", Goal::kRateReported},
    {"daemon: one certificate of 10,000 in detail / of 1,000", "bridge_show_10000", "bridge_show_1000",
     Goal::kRatioBelow, 1.5},
    {"daemon's resident memory with 1 certificate, in MiB", "daemon_memory_1", "", Goal::kFigureReported},
    {"the same, 1,000 certificates", "daemon_memory_1000", "", Goal::kFigureReported},
    {"the same, 10,000 certificates", "daemon_memory_10000", "", Goal::kFigureReported},
};

}  // namespace

World& TheWorld() {
    return *world;
}

}  // namespace bench

int main(int argc, char** argv) {
    // Ours and the peer's repetitions take turns: what the machine does meanwhile meets both. An argument undoes it.
    std::string in_turn = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments(argv, argv + argc);
    arguments.insert(arguments.begin() + 1, in_turn.data());
    arguments.push_back(nullptr);
    int count = argc + 1;
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
    try {
        std::fprintf(stderr, "Filling SoftHSM2 tokens ...\n");
        bench::world = std::make_unique<bench::World>();
        bench::RegisterBenchmarks();
        bench::RegisterCrlBenchmarks();
        bench::RegisterIkeBenchmarks();
        bench::RegisterBridgeBenchmarks();
        bench::Medians medians;
        benchmark::RunSpecifiedBenchmarks(&medians);
        bench::world.reset();
        const int missed = bench::PrintTable(bench::kRows, medians);
        return missed == 0 ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "certmgr_bench: %s\n", error.what());
        return 2;
    }
}
