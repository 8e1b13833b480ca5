#include "ike/respond.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <utility>
#include <vector>

#include "ike/exchange.h"
#include "ike/host.h"
#include "ike/report_text.h"
#include "ike/sa/server.h"
#include "ike/wire/bytes.h"

namespace ikeauth {
namespace {

using std::chrono::steady_clock;

volatile std::sig_atomic_t stop_requested = 0;

void RequestStop(int /*signal*/) {
    stop_requested = 1;
}

/// Signals interrupt the wait instead of ending the process.
void CatchSignals() {
    struct sigaction action {};
    action.sa_handler = RequestStop;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

/// How a datagram came and how to answer it, as the server keeps it.
struct Route {
    Address from;
    Address to;
    std::uint8_t socket = 0;
    bool marked = false;

    Route(const Address& peer, const Address& own, std::uint8_t index, bool has_marker)
        : from(peer), to(own), socket(index), marked(has_marker) {}
    explicit Route(const std::string& bytes) {
        socket = static_cast<std::uint8_t>(bytes[0]);
        marked = bytes[1] != '\0';
        from = Address(std::string_view(bytes).substr(2, bytes.size() / 2 - 1));
        to = Address(std::string_view(bytes).substr(bytes.size() / 2 + 1));
    }
    std::string Bytes() const {
        return std::string{static_cast<char>(socket), marked ? '\1' : '\0'} + from.Raw() + to.Raw();
    }
};

/// A server on its sockets.
class Listening {
  public:
    explicit Listening(const RespondOptions& options)
        : options_(options),
          server_(options.wire.settings,
                  {.on_step = [this](std::uint64_t spi, const Step& step) { Show(spi, step); },
                   .on_ended = [this](const Responder& sa, const Report& report) { ShowEnd(sa, report); }},
                  options.cookies) {}

    bool Open(std::string& error) {
        Address local;
        if (!OpenCapture(options_.wire, capture_, error) ||
            !Address::Resolve(options_.listen, options_.port, local, error) || !sockets_[0].Bind(local, error)) {
            return false;
        }
        const std::uint16_t automatic = options_.port == kIkePort ? kNatPort : std::uint16_t{0};
        local.set_port(options_.nat_port != 0 ? options_.nat_port : automatic);
        return local.port() == 0 || sockets_.emplace_back().Bind(local, error);
    }
    int Run() {
        std::cout << "ikeauth listens on " << sockets_[0].local().text()
                  << (sockets_.size() > 1 ? " and port " + std::to_string(sockets_[1].local().port()) : "")
                  << ". It authenticates peers and carries no traffic." << std::endl;
        while (stop_requested == 0 && !IsDone()) {
            more_ = false;
            for (std::size_t i = 0; i < sockets_.size(); ++i) ReceiveSome(static_cast<std::uint8_t>(i));
            server_.Tick();
            SendAll();
            if (!more_) WaitForMore();
        }
        return options_.count == 0 ? 0 : Info(last_).exit_code;
    }
    /// A message of the module; steps come between them on this thread.
    void ShowLog(const eventlog::Record& record) const {
        if (!options_.wire.json && !options_.quiet)
            std::cout << "log " << record.ident << " " << LogText(record) << "\n";
    }

  private:
    static constexpr unsigned kBurst = 64;  // datagrams before what is due gets its turn
    /// The wait is cut so that a signal that came just before it is seen.
    static constexpr std::chrono::milliseconds kLongestWait{500};

    /// After the last exchange its SA is still taken down in order. What strangers have begun is left.
    bool IsDone() const { return options_.count != 0 && ended_ >= options_.count && server_.established() == 0; }
    void WaitForMore() const {
        const Time latest = steady_clock::now() + kLongestWait;
        std::vector<const UdpSocket*> sockets;
        sockets.reserve(sockets_.size());
        for (const UdpSocket& socket : sockets_) sockets.push_back(&socket);
        UdpSocket::Wait(sockets, std::min(server_.wake().value_or(latest), latest));
    }
    void ReceiveSome(std::uint8_t index) {
        for (unsigned i = 0; i < kBurst; ++i) {
            Received received;
            const ReceiveResult result = sockets_[index].Receive(received);
            if (result == ReceiveResult::kNothing) return;
            if (result == ReceiveResult::kDatagram) Take(index, received);
        }
        more_ = true;
    }
    void Take(std::uint8_t index, const Received& received) {
        capture_.Add(received.from, received.to, received.marked, received.datagram);
        const Endpoints endpoints{.local = received.to.bytes(), .remote = received.from.bytes()};
        server_.Receive(Route{received.from, received.to, index, received.marked}.Bytes(), endpoints,
                        received.datagram);
        SendAll();
    }
    void SendAll() {
        for (const Packet& packet : server_.TakeOutgoing()) {
            const Route route(packet.peer);
            capture_.Add(route.to, route.from, route.marked, packet.datagram);
            if (sockets_[route.socket].Send(route.to, route.from, route.marked, packet.datagram)) continue;
            // The same over and over would let strangers fill a log.
            if (std::exchange(send_error_, errno) == errno) continue;
            std::cerr << "ikeauth: nothing can be sent to " << route.from.text() << ": " << std::strerror(errno)
                      << "\n";
        }
    }
    void Show(std::uint64_t spi, const Step& step) const {
        if (options_.wire.json || options_.quiet) return;
        std::cout << TO_HEX_STD_STRING(NetworkOrder(spi)) << StepText(step) << std::flush;
    }
    void ShowEnd(const Responder& association, const Report& report) {
        const Outcome& outcome = *association.outcome();
        const bool counted = association.peer_has_keys();
        if (counted || ended_ == 0) last_ = outcome.ending;
        if (counted) ++ended_;
        capture_.AddKeys(association);
        if (options_.wire.json) {
            std::cout << ToJson(outcome, report).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                      << std::endl;
        } else if (options_.quiet) {
            std::cout << Info(outcome.ending).name << ": " << outcome.reason << std::endl;
        } else {
            std::cout << OutcomeText(outcome) << std::flush;
        }
    }

    const RespondOptions& options_;
    Capture capture_;
    std::vector<UdpSocket> sockets_ = std::vector<UdpSocket>(1);
    Server server_;
    unsigned ended_ = 0;
    Ending last_ = Ending::kSilent;
    bool more_ = false;
    int send_error_ = 0;
};

}  // namespace

int RunRespond(RespondOptions& options) {
    if (!ReadProposals(options.wire)) return kExitCannotRun;
    CatchSignals();
    Listening* listening = nullptr;
    const auto log = [&listening](const eventlog::Record& record) {
        if (record.ident.empty()) {
            std::cerr << LogText(record) << "\n";  // of the program, on any thread
        } else if (listening != nullptr) {
            listening->ShowLog(record);
        }
    };
    const auto run = [&](const LPCFG::auth_ike_t& rule) {
        options.wire.settings.rule = &rule;
        Listening server(options);
        listening = &server;
        std::string error;
        int code = kExitCannotRun;
        if (server.Open(error)) {
            code = server.Run();
        } else {
            std::cerr << "ikeauth: " << error << "\n";
        }
        listening = nullptr;
        return code;
    };
    return WithRule(options.wire.config, options.wire.rule, run, log);
}

}  // namespace ikeauth
