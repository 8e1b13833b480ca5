// Management bridge, the side of the client: a connection to the daemon's socket. Links without the module and without
// the host libraries.
//
//     bridge::Client client;
//     if (!client.Connect({.socket_path = path, .name = "certmgrctl"})) return Complain(client.failure());
//     std::string reply;
//     if (!client.Call(bridge::kGroupCertificates, 16, {}, reply)) return Complain(client.failure());
//
// Used by one thread at a time. What arrives while an answer is awaited is kept for Wait. No function throws.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base.h"
#include "platform/bridge.h"

namespace bridge {

/// Why something did not work.
struct ClientFailure {
    enum class Kind : std::uint8_t {
        kNone,
        kNoServer,  // nobody serves the socket
        kNotAllowed,  // the socket's file refuses this user
        kDisconnected,  // the server ended the connection, or it broke; the client is not connected any more
        kTimeout,  // no answer in time; one that comes later is dropped
        kInterrupted,  // a signal came; the command goes on at the server, its answer is dropped
        kServer,  // the server refused what was sent: `code` says why
        kMalformed,  // the server sent what cannot be; the client is not connected any more
    };
    Kind kind = Kind::kNone;
    Error code = Error::kFailed;  // of kServer
    std::string text{};  // for people, without a full stop
};

struct ClientSettings {
    std::string socket_path{};
    std::string name{};  // shown in the server's log
    bool answers_questions = false;  // the server asks only clients that say so
    std::chrono::milliseconds timeout{30000};  // of connecting
};

/// What the server said by itself.
struct ClientEvent {
    enum class Kind : std::uint8_t {
        kNotification,  // code, body
        kQuestion,  // number, code, body: to be answered
        kAnsweredByAnother,  // number: the question needs no answer any more
        kGivenUp,  // number: likewise, nobody waits for it
    };
    Kind kind = Kind::kNotification;
    std::uint32_t number = 0;
    std::uint32_t code = 0;
    std::string body{};
};

class Client {
  public:
    using Milliseconds = std::chrono::milliseconds;
    /// Waits without limit.
    static constexpr Milliseconds kForever{-1};

    Client() = default;
    ~Client() { Disconnect(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Connect(const ClientSettings& settings);
    void Disconnect();
    bool connected() const { return fd_ >= 0; }

    /// Carries out a command and waits for its answer. What is copied of `input` and of the answer on the way is wiped.
    /// False, with `reply` unchanged, when that failed.
    bool Call(std::uint32_t group, std::uint32_t command, std::string_view input, std::string& reply,
              Milliseconds timeout = kForever);

    /// The next notification or question. Nothing at the time-out, after a signal and when the connection is gone:
    /// failure() tells them apart.
    std::optional<ClientEvent> Wait(Milliseconds timeout = kForever);

    /// Answers a question. False with code kStaleAnswer when it needs no answer any more.
    bool Answer(std::uint32_t question, std::string_view answer, Milliseconds timeout = kForever);

    /// Of the last function that was false or gave nothing.
    const ClientFailure& failure() const { return failure_; }
    /// Name and version of the program at the other end.
    const std::string& server_program() const { return server_program_; }
    /// Largest input of a command.
    std::size_t max_input_bytes() const;
    /// To be polled together with others; readable means that Wait may have something.
    int fd() const { return fd_; }
    /// Whether Wait has something at once.
    bool has_events() const { return !events_.empty(); }

  private:
    struct Frame;
    class Deadline;

    bool Fail(ClientFailure::Kind kind, std::string text, Error code = Error::kFailed);
    bool Open(const std::string& path);
    bool Greet(const ClientSettings& settings, const Deadline& deadline);
    bool Lost(ClientFailure::Kind kind, std::string text, Error code = Error::kFailed);
    bool LostByErrno(const char* what);
    bool Ready(short events, const Deadline& deadline);
    bool SendAll(std::string_view bytes, const Deadline& deadline);
    bool SendFrame(std::string frame, const Deadline& deadline);
    bool ReadMore(std::size_t wanted, const Deadline& deadline);
    bool ReadFrame(Frame& frame, const Deadline& deadline);
    bool AwaitReply(std::uint32_t number, std::string& reply, const Deadline& deadline);
    bool TakeUnasked(Frame& frame);
    bool TakeError(const Frame& frame);
    void ReadLastWords();

    int fd_ = -1;
    std::uint32_t last_number_ = 0;
    std::uint32_t max_frame_bytes_ = 0;
    std::string server_program_;
    std::deque<ClientEvent> events_;
    ClientFailure failure_;
    vpnfc::SecretString received_;  // a frame, as far as it came
    std::size_t received_bytes_ = 0;
};

}  // namespace bridge
