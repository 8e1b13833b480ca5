#include "ike/respond.h"

#include <csignal>
#include <iostream>

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

/// A server on its socket.
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
        return OpenCapture(options_.wire, capture_, error) &&
               Address::Resolve(options_.listen, options_.port, local, error) && socket_.Bind(local, error);
    }
    int Run() {
        std::cout << "ikeauth listens on " << socket_.local().text()
                  << ". It authenticates peers and carries no traffic." << std::endl;
        while (stop_requested == 0 && !IsDone()) {
            ReceiveSome();
            server_.Tick(steady_clock::now());
            SendAll();
            if (!more_) socket_.Wait(Wake());
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

    /// After the last exchange its SA is still taken down in order.
    bool IsDone() const { return options_.count != 0 && ended_ >= options_.count && server_.size() == 0; }
    Time Wake() const {
        const Time latest = steady_clock::now() + kLongestWait;
        return std::min(server_.wake().value_or(latest), latest);
    }
    void ReceiveSome() {
        Received received;
        more_ = true;
        for (unsigned i = 0; i < kBurst; ++i) {
            const ReceiveResult result = socket_.Receive(received);
            if (result == ReceiveResult::kNothing) {
                more_ = false;
                return;
            }
            if (result == ReceiveResult::kDatagram) Take(received);
        }
    }
    void Take(const Received& received) {
        capture_.Add(received.from, socket_.local(), received.marked, received.datagram);
        const Endpoints endpoints{.local = socket_.local().bytes(), .remote = received.from.bytes()};
        server_.Receive(PeerKey(received), endpoints, received.datagram, steady_clock::now());
        SendAll();
    }
    /// The address as the socket takes it, and how to answer.
    static std::string PeerKey(const Received& received) {
        return std::string(reinterpret_cast<const char*>(received.from.get()), received.from.size()) +
               (received.marked ? '\1' : '\0');
    }
    void SendAll() {
        for (const Packet& packet : server_.TakeOutgoing()) {
            Address to;
            std::copy_n(packet.peer.data(), packet.peer.size() - 1, reinterpret_cast<char*>(to.get()));
            const bool marked = packet.peer.back() != '\0';
            capture_.Add(socket_.local(), to, marked, packet.datagram);
            socket_.Send(to, marked, packet.datagram);
        }
    }
    void Show(std::uint64_t spi, const Step& step) const {
        if (options_.wire.json || options_.quiet) return;
        std::cout << TO_HEX_STD_STRING(NetworkOrder(spi)) << StepText(step) << std::flush;
    }
    void ShowEnd(const Responder& association, const Report& report) {
        const Outcome& outcome = *association.outcome();
        last_ = outcome.ending;
        ++ended_;
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
    UdpSocket socket_;
    Server server_;
    unsigned ended_ = 0;
    Ending last_ = Ending::kSilent;
    bool more_ = false;
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
        if (server.Open(error)) return server.Run();
        std::cerr << "ikeauth: " << error << "\n";
        return static_cast<int>(kExitCannotRun);
    };
    return WithRule(options.wire.config, options.wire.rule, run, log);
}

}  // namespace ikeauth
