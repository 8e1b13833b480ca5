// One client: its frames, its commands in order, and what waits to be sent to it.
#pragma once

#include <array>
#include <asio/local/stream_protocol.hpp>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/base.h"
#include "platform/bridge/frame.h"
#include "platform/bridge/questions.h"

namespace bridge {

class Server;

/// The process at the other end of a socket.
struct Peer {
    std::uint32_t user = 0;
    std::int32_t process = 0;
};

/// A frame to send, wiped when it was sent to all.
Questions::SharedFrame ShareFrame(std::string frame);

/// Everything but Id, User and the running of commands belongs to the I/O thread.
class Session final : public BridgeSession, public std::enable_shared_from_this<Session> {
  public:
    using Socket = asio::local::stream_protocol::socket;
    using SharedFrame = Questions::SharedFrame;
    using Clock = std::chrono::steady_clock;

    Session(Server& server, Socket socket, std::uint64_t id, Peer peer);

    std::uint64_t Id() const override { return id_; }
    std::uint32_t User() const override { return peer_.user; }

    /// "session 4 (certmgrctl, user 1000, process 4711)", for log lines.
    std::string Describe() const;

    void Start();
    /// Queues a frame. A client that lets too much wait is dropped.
    void Send(SharedFrame frame);
    void SendError(std::uint32_t number, Error code, const std::string& text);

    bool answers() const { return answers_; }
    bool greeted() const { return greeted_; }

    /// Takes no more commands; closes when the one that runs is answered.
    void Finish();
    /// Closes the connection at once. `why` is logged unless empty.
    void Drop(std::string_view why) noexcept;
    /// Drops a client that takes nothing of what waits for it, does not go on with a frame, or did not say hello in time.
    void CheckStall(Clock::time_point now, std::chrono::milliseconds limit);

  private:
    struct Command {
        std::uint32_t number = 0;
        std::uint32_t group = 0;
        std::uint32_t command = 0;
        vpnfc::SecretString input;
    };

    template <typename Step>
    void Guard(Step step);

    void ReadHeader();
    void ReadPayload();
    auto NoteRead();
    bool GrowPayload();
    void OnFrame();
    void OnHello();
    void OnCommand();
    void OnAnswer();
    void Fail(const std::string& text);
    void FinishWith(Error code, const std::string& text);
    void WriteNext();
    void OnWritten(std::size_t count);
    void CloseWhenDone();
    void LogDrop(std::string_view why) const noexcept;

    // Commands.
    enum class JobKind : std::uint8_t { kOpened, kCommand, kClosed };
    struct Job {
        JobKind kind = JobKind::kCommand;
        Command command{};
    };
    void Queue(Job job);
    void StartJobs();
    void CloseJobs() noexcept;
    void RunJobs();
    bool NextJob(Job& job);
    void RunJob(Job& job);
    void CloseListeners() noexcept;
    void DropLater(const char* why) noexcept;
    SharedFrame Execute(const Command& command);
    void OnCommandDone(const SharedFrame& answer, std::size_t input_bytes);
    bool QueueIsFull() const;
    void DropQueue();

    Server& server_;
    const std::uint32_t max_frame_bytes_;
    const std::uint64_t max_pending_bytes_;
    Socket socket_;
    const std::uint64_t id_;
    const Peer peer_;

    // Of the I/O thread, to the jobs.
    // Of the client's hello.
    std::string name_ = "no hello";
    bool greeted_ = false;
    bool answers_ = false;

    // Of the frame that is read.
    HeaderBytes header_bytes_{};
    FrameHeader header_;
    vpnfc::SecretString payload_;
    std::size_t payload_read_ = 0;
    bool reading_ = false;
    bool frame_begun_ = false;
    Clock::time_point frame_begun_at_{};
    Clock::time_point last_read_{};

    std::deque<SharedFrame> to_send_;
    std::size_t sent_of_first_ = 0;
    std::size_t pending_bytes_ = 0;  // with a charge for each frame
    Clock::time_point last_progress_ = Clock::now();
    bool finishing_ = false;
    bool closed_ = false;

    std::size_t queued_commands_ = 0;
    std::size_t queued_bytes_ = 0;
    std::mutex jobs_mutex_;
    // Guarded by jobs_mutex_.
    std::deque<Job> jobs_;
    bool jobs_run_ = false;
    bool close_pending_ = false;  // instead of a job: nothing of a closing may fail
    // Of the jobs.
    bool opened_ = false;
};

}  // namespace bridge
