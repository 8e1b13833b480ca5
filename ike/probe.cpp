#include "ike/probe.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "ike/exchange.h"
#include "ike/host.h"
#include "ike/report_text.h"
#include "ike/sa/initiator.h"
#include "ike/udp/capture.h"

namespace ikeauth {
namespace {

/// One initiator on its socket.
class Probe {
  public:
    Probe(const ProbeOptions& options, Report& report) : options_(options), report_(report) {}

    bool Open(std::string& error) {
        return OpenCapture(options_.wire, capture_, error) &&
               Address::Resolve(options_.host, options_.port, peer_, error) && Reconnect(error);
    }
    Outcome Run() {
        report_.Start();
        Initiator initiator(options_.wire.settings, endpoints_, report_);
        initiator.Start();
        while (!initiator.finished()) {
            SendAll(initiator);
            if (initiator.finished()) break;
            UdpSocket::Wait({&socket_}, initiator.wake());
            ReceiveAll(initiator);
            initiator.Tick();
        }
        SendAll(initiator);
        capture_.AddKeys(initiator);
        return initiator.outcome().value_or(Outcome{});
    }

  private:
    static constexpr unsigned kBurst = 64;  // datagrams before the time is looked at

    bool Reconnect(std::string& error) {
        socket_ = UdpSocket();
        if (!socket_.Connect(peer_, error)) return false;
        endpoints_ = {.local = socket_.local().bytes(), .remote = peer_.bytes()};
        return true;
    }
    bool marked() const { return peer_.port() != kIkePort && socket_.local().port() != kIkePort; }

    void SendAll(Initiator& initiator) {
        for (const std::string& datagram : initiator.TakeOutgoing()) {
            capture_.Add(socket_.local(), peer_, marked(), datagram);
            if (socket_.Send({}, peer_, marked(), datagram)) continue;
            const int code = errno;
            report_.Add("failed", "to send: " + std::string(std::strerror(code)));
            NoteFailure(initiator, code);
        }
    }
    void ReceiveAll(Initiator& initiator) {
        Received received;
        for (unsigned i = 0; i < kBurst; ++i) {
            const ReceiveResult result = socket_.Receive(received);
            if (result == ReceiveResult::kRefused) return NoteFailure(initiator, errno);
            if (result == ReceiveResult::kNothing) return;
            capture_.Add(peer_, socket_.local(), received.marked, received.datagram);
            initiator.Receive(received.datagram);
            if (initiator.nat_detected() && peer_.port() == kIkePort) return GoToNatPort();
        }
    }
    /// What passes by itself is left to the repetition.
    static void NoteFailure(Initiator& initiator, int code) {
        if (code == ECONNREFUSED) {
            initiator.Unreachable("nobody listens at that port", {});
        } else if (code == ENETUNREACH || code == EHOSTUNREACH || code == EADDRNOTAVAIL) {
            initiator.Unreachable(std::strerror(code), "check the routes of this host and the address of the peer");
        } else if (code == EACCES || code == EPERM) {
            initiator.Unreachable(std::strerror(code), "check the firewall of this host: it keeps the datagrams back");
        }
    }
    void GoToNatPort() {
        std::string error;
        peer_.set_port(options_.nat_port);
        report_.Add("chosen", "port " + std::to_string(options_.nat_port) + " from here on");
        if (!Reconnect(error)) report_.Add("ignored", error);
    }

    const ProbeOptions& options_;
    Report& report_;
    Capture capture_;
    Address peer_;
    UdpSocket socket_;
    Endpoints endpoints_;
};

int ProbeByRule(ProbeOptions& options, const LPCFG::auth_ike_t& rule, Report& report) {
    options.wire.settings.rule = &rule;
    std::string error;
    Probe probe(options, report);
    if (!probe.Open(error)) {
        std::cerr << "ikeauth: " << error << "\n";
        return kExitCannotRun;
    }
    const Outcome outcome = probe.Run();
    if (options.wire.json) {
        std::cout << ToJson(outcome, report).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        std::cout << OutcomeText(outcome);
    }
    return Info(outcome.ending).exit_code;
}

}  // namespace

int RunProbe(ProbeOptions& options) {
    if (!ReadProposals(options.wire)) return kExitCannotRun;
    Report report([&options](const Step& step) {
        if (!options.wire.json) std::cout << StepText(step) << std::flush;
    });
    const auto log = [&report](const eventlog::Record& record) {
        if (record.ident.empty()) {
            std::cerr << LogText(record) << "\n";  // of the program, on any thread
        } else {
            report.Add("log", LogText(record));
        }
    };
    return WithRule(
        options.wire.config, options.wire.rule,
        [&](const LPCFG::auth_ike_t& rule) { return ProbeByRule(options, rule, report); }, log);
}

}  // namespace ikeauth
