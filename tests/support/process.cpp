#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

namespace test_support {

namespace {

/// The read end does not block, neither end is inherited.
std::array<int, 2> MakePipe() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) == 0) fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return ends;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> out;
    for (std::string& text : texts) out.push_back(text.data());
    out.push_back(nullptr);
    return out;
}

/// The caller's environment without what is given anew, which may be secret: no command line.
std::vector<std::string> Merged(const Process::Environment& environment) {
    std::vector<std::string> lines;
    for (const auto& [name, value] : environment) lines.push_back(name + "=" + value);
    for (char** line = environ; *line != nullptr; ++line) {
        const std::string_view text(*line);
        const auto names_it = [text](const auto& given) { return text.starts_with(given.first + "="); };
        if (std::ranges::none_of(environment, names_it)) lines.emplace_back(text);
    }
    return lines;
}

pid_t Spawn(std::vector<std::string> argv, const Process::Environment& environment, int out_fd, int err_fd) {
    std::vector<std::string> lines = Merged(environment);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_fd, STDERR_FILENO);
    pid_t pid = -1;
    const int error =
        posix_spawnp(&pid, argv.front().c_str(), &actions, nullptr, Pointers(argv).data(), Pointers(lines).data());
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

}  // namespace

Process::Process(const std::vector<std::string>& argv, const Environment& environment) {
    const std::array<int, 2> out = MakePipe();
    const std::array<int, 2> err = MakePipe();
    pid_ = Spawn(argv, environment, out[1], err[1]);
    close(out[1]);
    close(err[1]);
    if (pid_ > 0) {
        reader_ = std::thread([this, out_fd = out[0], err_fd = err[0]] { ReadAll(out_fd, err_fd); });
    } else {
        close(out[0]);
        close(err[0]);
        state_.Update([](State& state) { state.ended = true; });
    }
}

Process::~Process() {
    Kill();
    if (reader_.joinable()) reader_.join();
}

void Process::Kill(int signal) {
    state_.Update([&](const State& state) {
        if (!state.ended) kill(pid_, signal);
    });
}

/// Reads until the process ends, not until the pipes close: a grandchild may keep them.
void Process::ReadAll(int out_fd, int err_fd) {
    const int pid_fd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    std::array<pollfd, 3> fds{{{pid_fd, POLLIN, 0}, {out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}}};
    const std::array<std::string ProcessResult::*, 3> streams{nullptr, &ProcessResult::out, &ProcessResult::err};
    std::array<char, 8192> buffer{};
    bool ended = false;
    while (!ended) {
        poll(fds.data(), fds.size(), -1);
        ended = fds[0].revents != 0;
        for (std::size_t i = 1; i < fds.size(); ++i) {
            ssize_t count = 0;
            while (fds[i].fd >= 0 && (count = read(fds[i].fd, buffer.data(), buffer.size())) > 0) {
                const std::string_view text(buffer.data(), static_cast<std::size_t>(count));
                state_.Update([&](State& state) { (state.result.*streams[i]) += text; });
            }
            if (count == 0 && (fds[i].revents & POLLHUP) != 0) fds[i].fd = -1;
        }
    }
    state_.Update([&](State& state) {  // under the lock: Kill must not meet a reaped process identifier
        int status = 0;
        waitpid(pid_, &status, 0);
        state.result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        state.ended = true;
    });
    for (const int fd : {pid_fd, out_fd, err_fd}) close(fd);
}

bool Process::WaitForOutput(const std::string& text, std::chrono::milliseconds limit, unsigned times) {
    const auto enough = [&](const State& now) {
        return CountOf(now.result.out, text) + CountOf(now.result.err, text) >= times;
    };
    state_.WaitUntil([&](const State& now) { return now.ended || enough(now); }, limit);
    return enough(state_.Get());
}

ProcessResult Process::Wait(std::chrono::milliseconds limit) {
    const auto ended = [](const State& now) { return now.ended; };
    const bool timed_out = !state_.WaitUntil(ended, limit);
    if (timed_out) Kill();
    state_.WaitUntil(ended);
    ProcessResult result = state_.Get().result;
    result.timed_out = timed_out;
    return result;
}

unsigned CountOf(const std::string& text, const std::string& part) {
    unsigned count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

ProcessResult Run(const std::vector<std::string>& argv, const Process::Environment& environment,
                  std::chrono::milliseconds limit) {
    return Process(argv, environment).Wait(limit);
}

}  // namespace test_support
