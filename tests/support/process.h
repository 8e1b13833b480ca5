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

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
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
    std::string Out() const { return state_.Get().result.out; }
    std::string Err() const { return state_.Get().result.err; }
    /// Waits for the end; kills it at the limit.
    ProcessResult Wait(std::chrono::milliseconds limit = kWaitLimit);

  private:
    struct State {
        ProcessResult result;
        bool ended = false;
    };
    void ReadAll(int out_fd, int err_fd);

    pid_t pid_ = -1;
    Watched<State> state_;
    std::thread reader_;
};

/// Ends a test whose programs are not there: as failed where .ci/run wants them, else as skipped.
inline void CannotRun(const std::string& why) {
    const char* required = std::getenv("CERTMGR_REQUIRE_PEERS");
    if (required != nullptr && *required != '\0') FAIL() << why;
    GTEST_SKIP() << why;
}

/// How often the text contains the part.
unsigned CountOf(const std::string& text, const std::string& part);

/// Runs a program to its end.
ProcessResult Run(const std::vector<std::string>& argv, const Process::Environment& environment = {},
                  std::chrono::milliseconds limit = kWaitLimit);

}  // namespace test_support
