// The connection to the daemon, and what every command works with.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/client/manager.h"
#include "cli/failure.h"
#include "cli/terminal/console.h"
#include "platform/bridge_client.h"

namespace certmgrctl {

/// Connects when the first command is sent. What does not reach its end is a Failure.
class Session {
  public:
    std::string socket;  // --socket

    /// `answers_questions`: the daemon may ask this client.
    void Connect(bool answers_questions = false);
    bridge::Client& client() { return client_; }
    certmgr_client::Manager& manager();

    /// What a command gave, or a Failure.
    template <typename Result>
    Result Take(std::optional<Result> result) {
        if (!result) Fail(manager_.failure());
        return std::move(*result);
    }
    void Check(bool done) {
        if (!done) Fail(manager_.failure());
    }
    [[noreturn]] void Fail(const bridge::ClientFailure& failure) const;

  private:
    bridge::Client client_;
    certmgr_client::Manager manager_{client_};
};

struct Context {
    Console console;
    Session session;
};

}  // namespace certmgrctl
