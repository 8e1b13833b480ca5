// The server of the management bridge: its socket, its clients, its thread.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/bridge/bridge_host.h"
#include "platform/bridge/questions.h"
#include "platform/bridge/session.h"
#include "platform/bridge/socket_file.h"
#include "platform/bridge/worker_pool.h"

namespace bridge {

class Server {
  public:
    explicit Server(Settings settings) : settings_(std::move(settings)) {}
    ~Server() { Stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    bool Start(std::string& error);
    void Stop();
    void Apply(const Settings& settings);

    // From any thread.
    void Notify(std::uint32_t code, const std::string& body);
    bool Ask(std::uint32_t code, std::string& message, int timeout_ms);
    std::size_t SessionCount() const;
    /// Runs on the I/O thread; dropped when that has ended.
    template <typename Work>
    void Post(Work work) {
        asio::post(io_, std::move(work));
    }

    // For sessions. On the I/O thread but for Settled.
    const Settings& settings() const { return settings_; }
    Questions& questions() { return questions_; }
    WorkerPool& workers() { return workers_; }
    /// Told to clients that were asked.
    void CloseQuestion(std::uint32_t number, CloseReason reason, const Session* but);
    /// The connection is closed, its commands may still run.
    void Disconnected(Session& session);
    /// Nothing of the session runs any more.
    void Settled(std::uint64_t id);

  private:
    using SessionPtr = std::shared_ptr<Session>;

    void Accept();
    void Admit(Session::Socket socket);
    void Begin(const SessionPtr& session);
    void LogRefusal(const Peer& peer, const std::string& why);
    void Refuse(Session::Socket& socket, const Peer& peer, const std::string& why);
    void Run();
    void Watch();

    asio::io_context io_{1};
    asio::local::stream_protocol::acceptor acceptor_{io_};
    asio::steady_timer watch_timer_{io_};
    asio::steady_timer accept_timer_{io_};
    std::thread thread_;
    SocketFile socket_file_;
    Questions questions_;
    WorkerPool workers_;

    // Of the I/O thread.
    Settings settings_;
    std::map<std::uint64_t, SessionPtr> connected_;
    std::uint64_t last_id_ = 0;
    bool stopping_ = false;
    unsigned refusals_ = 0;  // since then
    Session::Clock::time_point refusals_since_{};

    mutable std::mutex mutex_;
    std::condition_variable settled_;
    // Guarded by mutex_.
    std::map<std::uint64_t, SessionPtr> sessions_;  // until they have settled
    bool stopping_seen_ = false;  // none comes any more
};

}  // namespace bridge
