#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <deque>
#include <iostream>
#include <set>

#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"
#include "platform/base.h"

namespace certmgrctl {
namespace {

using bridge::ClientEvent;

struct AgentOptions {
    bool once = false;
    bool no_pins = false;
};

/// A question that waits for its answer.
struct Question {
    std::uint32_t number = 0;
    std::vector<ListedCert> candidates;
};

/// Standard input is read only while a question is open, so that the lines of a script answer the questions in turn.
class Agent {
  public:
    Agent(Context& context, const AgentOptions& options)
        : context_(context), options_(options), asks_for_pins_(!options.no_pins && CanAsk()) {}

    /// Ends after the first answer when told so, with the daemon, and with standard input.
    void Run() {
        context_.session.Connect(true);
        context_.console.Note("Waiting for questions; Ctrl-C ends it.");
        while (!ended_) {
            TakeEvents();
            if (!shown_ && !questions_.empty()) ShowQuestion();
            if (pins_wanted_ && !shown_ && !ended_) AskForPins();
            WaitForMore();
        }
    }

  private:
    bridge::Client& client() { return context_.session.client(); }

    void TakeEvents() {
        constexpr bridge::Client::Milliseconds kNow{0};
        while (const auto event = client().Wait(kNow)) Take(*event);
        if (!client().connected()) context_.session.Fail(client().failure());
    }

    void Take(const ClientEvent& event) {
        switch (event.kind) {
            case ClientEvent::Kind::kNotification:
                if (event.code == bridge::kNotifyTokensChanged) pins_wanted_ = asks_for_pins_;
                break;
            case ClientEvent::Kind::kQuestion:
                TakeQuestion(event);
                break;
            case ClientEvent::Kind::kAnsweredByAnother:
                Drop(event.number, "Another client has answered.", "answered_by_another");
                break;
            case ClientEvent::Kind::kGivenUp:
                Drop(event.number, "Nobody waits for the answer any more.", "given_up");
                break;
        }
    }

    void TakeQuestion(const ClientEvent& event) {
        auto candidates = event.code == bridge::kQuestionSelectCertificate
                              ? certmgr_client::ParseCertificateQuestion(event.body)
                              : std::nullopt;
        if (!candidates) return Refuse(event.number);
        questions_.push_back({.number = event.number, .candidates = std::move(*candidates)});
    }

    /// The daemon counts on an answer of this client, whatever it asks.
    void Refuse(std::uint32_t number) {
        const bool taken = client().Answer(number, certmgr_client::CancelChoice());
        if (!taken && client().failure().code != bridge::Error::kStaleAnswer) context_.session.Fail(client().failure());
        ended_ = ended_ || options_.once;
        Tell("The daemon asked what this program cannot read; cancelled. Are both of one version?", number, "not_read");
    }

    /// A question that needs no answer any more.
    void Drop(std::uint32_t number, const char* text, const char* key) {
        const bool was_shown = shown_ && questions_.front().number == number;
        if (std::erase_if(questions_, [number](const Question& q) { return q.number == number; }) == 0) return;
        if (was_shown) EndQuestion(std::string("\n") + text, number, key);
    }

    void ShowQuestion() {
        const Question& question = questions_.front();
        shown_ = true;
        if (context_.console.json) {
            Json certs = Json::array();
            for (const ListedCert& cert : question.candidates) certs.push_back(ToJson(cert.token, cert.info));
            const Json json = {{"event", "question"}, {"number", question.number}, {"certificates", certs}};
            return context_.console.PrintJson(json, true);
        }
        context_.console.Print("\nSeveral certificates fit the connection. Which one shall be used?\n");
        Table table({{"#"}, {"CERTIFICATE", true}, {"ISSUER", true}, {"VALID UNTIL"}, {"TOKEN", true}});
        std::size_t number = 0;
        for (const ListedCert& cert : question.candidates) {
            table.Add({{std::to_string(++number)},
                       {NameOf(cert.info)},
                       {cert.info.issuer},
                       ExpiryCell(cert.info, vpnfc::CurrentTime()),
                       {cert.token.label}});
        }
        table.Print(context_.console);
        // What was typed before the question came is no answer to it.
        if (isatty(STDIN_FILENO) != 0) tcflush(STDIN_FILENO, TCIFLUSH);
        PromptForChoice();
    }

    void PromptForChoice() const {
        if (context_.console.json) return;
        std::cout << "\nNumber, or c to cancel: " << std::flush;
    }

    void WaitForMore() {
        const bool more_to_show = !shown_ && (!questions_.empty() || pins_wanted_);
        if (ended_ || more_to_show || client().has_events()) return;
        pollfd waiting[] = {{client().fd(), POLLIN, 0}, {shown_ ? STDIN_FILENO : -1, POLLIN, 0}};
        const int count = poll(waiting, std::size(waiting), -1);
        // What the daemon says goes first: the question may need no answer any more.
        if (count > 0 && waiting[0].revents == 0 && waiting[1].revents != 0) TakeLine();
    }

    void TakeLine() {
        const auto line = ReadLine();
        if (!line) throw Failure(kExitCancelled, "standard input ended before the question was answered");
        // A terminal shows what is typed; a log of a script's answers shall, too.
        if (isatty(STDIN_FILENO) == 0 && !context_.console.json) context_.console.Print(Escaped(*line));
        const Question& question = questions_.front();
        const std::string word = Folded(*line);
        if (word == "c" || word == "cancel") return Answer(certmgr_client::CancelChoice(), "Cancelled.", "cancelled");
        std::size_t number = 0;
        const char* const end = word.data() + word.size();
        const bool whole = std::from_chars(word.data(), end, number).ptr == end;
        if (!whole || number == 0 || number > question.candidates.size()) return PromptForChoice();
        const ListedCert& chosen = question.candidates[number - 1];
        Answer(certmgr_client::ChooseCertificate(chosen.info), "Chosen: " + Escaped(NameOf(chosen.info)) + ".",
               "chosen");
    }

    void Answer(const std::string& answer, const std::string& text, const char* key) {
        const std::uint32_t number = questions_.front().number;
        const bool taken = client().Answer(number, answer);
        questions_.pop_front();
        if (taken) return EndQuestion(text, number, key);
        if (client().failure().code != bridge::Error::kStaleAnswer) context_.session.Fail(client().failure());
        EndQuestion("Too late: the question needs no answer any more.", number, "too_late");
    }

    void EndQuestion(const std::string& text, std::uint32_t number, const char* key) {
        shown_ = false;
        ended_ = options_.once;
        Tell(text, number, key);
    }

    void Tell(const std::string& text, std::uint32_t number, const char* key) const {
        if (context_.console.json) {
            return context_.console.PrintJson(Json{{"event", key}, {"number", number}}, true);
        }
        context_.console.Print(text);
        std::cout << std::flush;
    }

    /// Once for each token as long as it waits for a login. Questions go first: an exchange waits for them.
    void AskForPins() {
        pins_wanted_ = false;
        std::set<std::uint64_t> waiting;
        for (const auto& status : context_.session.Take(context_.session.manager().ListTokens()).tokens) {
            const bool waits = status.info.loginRequired && !status.info.loggedIn && !status.info.pinPad &&
                               (status.flags & PKCS11::kUserPinSet) != 0;
            if (!waits || !IsInitialised(status)) continue;
            waiting.insert(status.info.id);
            if (pins_wanted_ || !asked_.insert(status.info.id).second) continue;
            pins_wanted_ = !AskForPin(status.info);
            if (pins_wanted_) asked_.erase(status.info.id);
        }
        std::erase_if(asked_, [&](std::uint64_t id) { return !waiting.contains(id); });
    }

    /// False when a question came meanwhile.
    bool AskForPin(const TokenInfo& token) {
        const Interruption question{client().fd(), [this] { return QuestionsWait(); }};
        const auto pin = TypeSecret(PinQuestion(token) + " (Enter: not now)", question);
        if (!pin || pin->empty()) return pin.has_value();
        const auto reply = context_.session.Take(context_.session.manager().Login(token, *pin));
        context_.console.Note(reply.status == PKCS11::kPinDone
                                  ? "Logged in to token \"" + token.label + "\"."
                                  : "Not logged in: " + reply.text + ". Try again with certmgrctl token login.");
        return true;
    }

    bool QuestionsWait() {
        TakeEvents();
        return !questions_.empty() || ended_;
    }

    Context& context_;
    const AgentOptions& options_;
    bool asks_for_pins_;
    bool pins_wanted_ = asks_for_pins_;  // tokens are to be looked at for those that wait for a login
    bool shown_ = false;  // the first question stands on the terminal
    bool ended_ = false;
    std::deque<Question> questions_;
    std::set<std::uint64_t> asked_;  // tokens whose PIN was asked for
};

}  // namespace

void AddAgentCommand(Command& app, Context& context) {
    const auto options = std::make_shared<AgentOptions>();
    Command agent = app.AddCommand("agent", "Answer which certificate to use, and give PINs");
    agent.Group(kGroupStay);
    agent.Footer(
        "Answers are lines of standard input: the number of a certificate, or c to\n"
        "cancel. A question that several agents are asked is answered by the first.");
    agent.AddFlag("--once", options->once, "End after the first question");
    agent.AddFlag("--no-pins", options->no_pins, "Do not ask for PINs of tokens");
    OnChosen(agent, context, options, [](Context& c, const AgentOptions& o) { Agent(c, o).Run(); });
}

}  // namespace certmgrctl
