#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

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

std::vector<std::string> EnvironmentWith(const Process::Environment& added) {
    std::vector<std::string> out;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        bool replaced = false;
        for (const auto& [name, value] : added) replaced = replaced || text.starts_with(name + "=");
        if (!replaced) out.emplace_back(text);
    }
    for (const auto& [name, value] : added) out.push_back(name + "=" + value);
    return out;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> out;
    for (std::string& text : texts) out.push_back(text.data());
    out.push_back(nullptr);
    return out;
}

pid_t Spawn(std::vector<std::string> argv, const Process::Environment& environment, int out_fd, int err_fd) {
    std::vector<std::string> env = EnvironmentWith(environment);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_fd, STDERR_FILENO);
    pid_t pid = -1;
    const int error =
        posix_spawnp(&pid, argv.front().c_str(), &actions, nullptr, Pointers(argv).data(), Pointers(env).data());
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
        ended_ = true;
    }
}

Process::~Process() {
    Kill();
    if (reader_.joinable()) reader_.join();
}

void Process::Kill(int signal) {
    const std::lock_guard lock(mutex_);
    if (!ended_) kill(pid_, signal);
}

void Process::Append(std::string& stream, const char* data, std::size_t size) {
    {
        const std::lock_guard lock(mutex_);
        stream.append(data, size);
    }
    changed_.notify_all();
}

/// Reads until the process ends, not until the pipes close: a grandchild may keep them.
void Process::ReadAll(int out_fd, int err_fd) {
    const int pid_fd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    std::array<pollfd, 3> fds{{{pid_fd, POLLIN, 0}, {out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}}};
    const std::array<std::string*, 3> streams{nullptr, &out_, &err_};
    std::array<char, 8192> buffer{};
    bool ended = false;
    while (!ended) {
        poll(fds.data(), fds.size(), -1);
        ended = fds[0].revents != 0;
        for (std::size_t i = 1; i < fds.size(); ++i) {
            ssize_t count = 0;
            while (fds[i].fd >= 0 && (count = read(fds[i].fd, buffer.data(), buffer.size())) > 0) {
                Append(*streams[i], buffer.data(), static_cast<std::size_t>(count));
            }
            if (count == 0 && (fds[i].revents & POLLHUP) != 0) fds[i].fd = -1;
        }
    }
    {
        const std::lock_guard lock(mutex_);  // Kill must not meet a reaped process identifier
        int status = 0;
        waitpid(pid_, &status, 0);
        exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        ended_ = true;
    }
    changed_.notify_all();
    close(pid_fd);
    close(out_fd);
    close(err_fd);
}

bool Process::WaitForOutput(const std::string& text, std::chrono::milliseconds limit, unsigned times) {
    std::unique_lock lock(mutex_);
    const auto count = [&](const std::string& stream) {
        unsigned found = 0;
        for (auto at = stream.find(text); at != std::string::npos; at = stream.find(text, at + 1)) ++found;
        return found;
    };
    const auto enough = [&] { return count(out_) + count(err_) >= times; };
    changed_.wait_for(lock, limit, [&] { return ended_ || enough(); });
    return enough();
}

std::string Process::Out() const {
    const std::lock_guard lock(mutex_);
    return out_;
}

std::string Process::Err() const {
    const std::lock_guard lock(mutex_);
    return err_;
}

ProcessResult Process::Wait(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    const bool timed_out = !changed_.wait_for(lock, limit, [this] { return ended_; });
    if (timed_out) kill(pid_, SIGKILL);
    changed_.wait(lock, [this] { return ended_; });
    return {exit_code_, timed_out, out_, err_};
}

ProcessResult Run(const std::vector<std::string>& argv, const Process::Environment& environment,
                  std::chrono::milliseconds limit) {
    return Process(argv, environment).Wait(limit);
}

}  // namespace test_support
