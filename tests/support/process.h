// Runs a program and keeps what it writes.
//
//     const auto result = test_support::Run({"openssl", "version"});
//     ASSERT_EQ(result.exit_code, 0) << result.err;
//
//     test_support::Process daemon({"certmgrd", "--settings", path});
//     ASSERT_TRUE(daemon.WaitForOutput("ready"));
//     daemon.Kill(SIGTERM);
//     EXPECT_EQ(daemon.Wait().exit_code, 0);
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/wait.h"

namespace test_support {

struct ProcessResult {
    int exit_code = -1;  // 128 + signal when killed by one; -1 when it could not be started
    bool timed_out = false;  // killed because the limit was reached
    std::string out;
    std::string err;
};

/// A program that runs beside the test. The destructor kills it if it still runs.
class Process {
  public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    /// `argv[0]` is looked up in PATH. `environment` is added to the caller's. Standard input is /dev/null.
    explicit Process(const std::vector<std::string>& argv, const Environment& environment = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    /// Signals this process alone, while it runs.
    void Kill(int signal = SIGKILL);
    /// Waits until standard output or standard error holds the text that many times; false when the program ends without
    /// it or at the limit.
    bool WaitForOutput(const std::string& text, std::chrono::milliseconds limit = kWaitLimit, unsigned times = 1);
    /// What was written so far.
    std::string Out() const;
    std::string Err() const;
    /// Waits for the end; kills it at the limit.
    ProcessResult Wait(std::chrono::milliseconds limit = kWaitLimit);

  private:
    void ReadAll(int out_fd, int err_fd);
    void Append(std::string& stream, const char* data, std::size_t size);

    pid_t pid_ = -1;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::string out_;
    std::string err_;
    bool ended_ = false;
    int exit_code_ = -1;
};

/// Runs a program to its end.
ProcessResult Run(const std::vector<std::string>& argv, const Process::Environment& environment = {},
                  std::chrono::milliseconds limit = kWaitLimit);

}  // namespace test_support
