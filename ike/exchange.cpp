#include "ike/exchange.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <utility>

#include "platform/base/descriptor.h"

namespace ikeauth {
namespace {

using vpnfc::Descriptor;

constexpr int kChannelDescriptor = 3;  // where a side finds its end of the socket pair

bool MakePair(Descriptor& a, Descriptor& b) {
    std::array<int, 2> fds{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()) != 0) return false;
    a = Descriptor(fds[0]);
    b = Descriptor(fds[1]);
    return true;
}

/// A side's process and what it prints.
class SideProcess {
  public:
    explicit SideProcess(char mark) : mark_(mark) {}
    ~SideProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Wait();
        }
    }
    SideProcess(const SideProcess&) = delete;
    SideProcess& operator=(const SideProcess&) = delete;

    bool Start(const std::vector<std::string>& arguments, const char* role, const Descriptor& channel);
    int output() const { return output_.get(); }
    /// Reads what is there, prints whole lines; false at the end.
    bool Pump(bool quiet, std::string& everything);
    /// Exit code, -1 when it did not exit by itself.
    int Wait();

  private:
    void PrintLines(bool quiet);

    char mark_;
    pid_t pid_ = -1;
    Descriptor output_;
    std::string line_;
};

bool SideProcess::Start(const std::vector<std::string>& arguments, const char* role, const Descriptor& channel) {
    std::array<int, 2> fds{};
    if (pipe2(fds.data(), O_CLOEXEC) != 0) return false;
    output_ = Descriptor(fds[0]);
    const Descriptor write_end(fds[1]);

    std::vector<std::string> words{"ikeauth", "side", "--role", role, "--fd", std::to_string(kChannelDescriptor)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDERR_FILENO);
    posix_spawn_file_actions_adddup2(&actions, channel.get(), kChannelDescriptor);
    const int rc = posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) pid_ = -1;
    return rc == 0;
}

void SideProcess::PrintLines(bool quiet) {
    std::size_t end = 0;
    while ((end = line_.find('\n')) != std::string::npos) {
        if (!quiet) std::cout << mark_ << " | " << line_.substr(0, end) << "\n";
        line_.erase(0, end + 1);
    }
    std::cout.flush();
}

bool SideProcess::Pump(bool quiet, std::string& everything) {
    std::array<char, 4096> buffer{};
    const ssize_t n = read(output_.get(), buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) {
        output_.Close();
        return false;
    }
    everything.append(buffer.data(), static_cast<std::size_t>(n));
    line_.append(buffer.data(), static_cast<std::size_t>(n));
    PrintLines(quiet);
    return true;
}

int SideProcess::Wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Shows both sides' output until both have closed it. False when the limit passed.
bool PumpBoth(SideProcess& initiator, SideProcess& responder, const ExchangeOptions& options, std::string& everything) {
    const auto deadline = std::chrono::steady_clock::now() + options.limit;
    while (initiator.output() >= 0 || responder.output() >= 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        std::array<pollfd, 2> entries{{{initiator.output(), POLLIN, 0}, {responder.output(), POLLIN, 0}}};
        if (poll(entries.data(), entries.size(), static_cast<int>(left.count())) < 0 && errno != EINTR) return false;
        if (entries[0].revents != 0) initiator.Pump(options.quiet, everything);
        if (entries[1].revents != 0) responder.Pump(options.quiet, everything);
    }
    return true;
}

/// Text without line breaks and continuation blanks, so that an expected text may span lines of the log.
std::string Flatten(const std::string& text) {
    std::string flat;
    for (const char c : text) {
        const bool blank = c == '\n' || c == '\t' || c == ' ' || c == '\\';
        if (!blank) {
            flat.push_back(c);
        } else if (!flat.empty() && flat.back() != ' ') {
            flat.push_back(' ');
        }
    }
    return flat;
}

int Judge(const ExchangeOptions& options, int initiator, int responder, const std::string& everything) {
    const bool success = initiator == kExitSuccess && responder == kExitSuccess;
    if (initiator == kExitCannotRun || responder == kExitCannotRun) return kExitCannotRun;
    if (options.expect.empty()) return success ? kExitSuccess : kExitRefused;
    if (success) {
        std::cout << "Not refused, although it should be\n";
        return kExitUnexpected;
    }
    const std::string shown = Flatten(everything);
    for (const std::string& text : options.expect) {
        if (shown.find(Flatten(text)) == std::string::npos) {
            std::cout << "Refused, but not with: " << text << "\n";
            return kExitUnexpected;
        }
    }
    for (const std::string& text : options.expect) std::cout << "Refused as expected: " << text << "\n";
    return kExitSuccess;
}

}  // namespace

int RunExchange(const ExchangeOptions& options) {
    Descriptor a;
    Descriptor b;
    SideProcess initiator('I');
    SideProcess responder('R');
    if (!MakePair(a, b) || !initiator.Start(options.initiator, "initiator", a) ||
        !responder.Start(options.responder, "responder", b)) {
        std::cerr << "ikeauth: the sides could not be started\n";
        return kExitCannotRun;
    }
    a.Close();
    b.Close();
    std::string everything;
    if (!PumpBoth(initiator, responder, options, everything)) {
        std::cerr << "ikeauth: the exchange did not end within " << options.limit.count() << " s\n";
        return kExitUnexpected;
    }
    const int initiator_code = initiator.Wait();
    const int responder_code = responder.Wait();
    return Judge(options, initiator_code, responder_code, everything);
}

}  // namespace ikeauth
