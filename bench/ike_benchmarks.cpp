// Whole exchanges of IKE_SA_INIT, IKE_AUTH and the deletion of the SA, both sides in one thread, without sockets.

#include "bench/benchmarks.h"
#include "bench/register.h"
#include "bench/world.h"
#include "ike/sa/initiator.h"
#include "ike/sa/server.h"

namespace bench {
namespace {

/// One exchange. Adds the time that both sides spent in the module. How it ended for the initiator.
ikeauth::Outcome Exchange(const ikeauth::ExchangeSettings& settings, std::chrono::nanoseconds& in_module) {
    static const ikeauth::Endpoints endpoints{"123456", "123456"};
    const auto add = [&](const ikeauth::Responder& sa, const ikeauth::Report&) { in_module += sa.module_time(); };
    ikeauth::Server server(settings, {.on_ended = add}, false);
    ikeauth::Report report;
    ikeauth::Initiator initiator(settings, endpoints, report);
    initiator.Start();
    while (!initiator.finished()) {
        for (const std::string& datagram : initiator.TakeOutgoing()) server.Receive("", endpoints, datagram);
        const std::vector<ikeauth::Packet> answers = server.TakeOutgoing();
        if (answers.empty()) return {};
        for (const ikeauth::Packet& packet : answers) initiator.Receive(packet.datagram);
    }
    in_module += initiator.module_time();
    return initiator.outcome().value_or(ikeauth::Outcome{});
}

void IkeExchange(benchmark::State& state) {
    World& world = TheWorld();
    // The intermediate stands behind these.
    const StoreListReplaced replaced(&CM::CertStorage::otherCerts, world.Variants("Other CA", true, 10));
    const ikeauth::ExchangeSettings settings{.rule = &world.rule()};
    std::chrono::nanoseconds in_module{0};
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        const ikeauth::Outcome outcome = Exchange(settings, in_module);
        if (outcome.ending != ikeauth::Ending::kAuthenticated) state.SkipWithError(outcome.reason.c_str());
    }
    const std::chrono::nanoseconds all = std::chrono::steady_clock::now() - start;
    state.counters["figure"] = static_cast<double>(in_module.count()) / static_cast<double>(all.count());
}

}  // namespace

void RegisterIkeBenchmarks() {
    Register("ike_exchange", IkeExchange);
}

}  // namespace bench
