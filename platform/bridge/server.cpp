#include "platform/bridge/server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <asio/buffer.hpp>
#include <optional>
#include <system_error>
#include <vector>

#include "platform/event_codes.h"
#include "platform/guarded.h"

namespace bridge {
namespace {

using std::chrono::milliseconds;

/// After a failed accept, of too many open files say.
constexpr milliseconds kAcceptPause{100};
/// How long a client may take none of the last words.
constexpr milliseconds kLastWordsLimit{2000};
/// Log lines about refused clients in a minute.
constexpr unsigned kMaxRefusalsLogged = 10;
/// Sessions kept for root and the process's own user, who could not help otherwise.
constexpr std::uint32_t kReservedSessions = 4;

std::optional<ucred> CredentialsOf(int socket) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
    return credentials;
}

/// The groups of the process at the other end, the first one included.
std::vector<gid_t> GroupsOf(int socket, gid_t first) {
    std::vector<gid_t> groups(64);
    socklen_t length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    int result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
    if (result != 0 && errno == ERANGE) {
        groups.resize(length / sizeof(gid_t));
        result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
    }
    groups.resize(result == 0 ? length / sizeof(gid_t) : 0);
    groups.push_back(first);
    return groups;
}

bool IsOwn(const ucred& peer) {
    return peer.uid == 0 || peer.uid == geteuid();
}

/// Half of a small number of sessions stays for the others.
std::uint32_t SessionLimit(const Settings& settings, const ucred& peer) {
    const std::uint32_t reserved = std::min(kReservedSessions, settings.max_sessions / 2);
    return IsOwn(peer) ? settings.max_sessions : settings.max_sessions - reserved;
}

bool MayConnect(const Settings& settings, int socket, const ucred& peer) {
    const auto has = [](const std::vector<std::uint32_t>& list, std::uint32_t id) {
        return std::find(list.begin(), list.end(), id) != list.end();
    };
    if (IsOwn(peer) || has(settings.users, peer.uid)) return true;
    if (settings.groups.empty()) return false;
    const std::vector<gid_t> groups = GroupsOf(socket, peer.gid);
    return std::any_of(groups.begin(), groups.end(), [&](gid_t group) { return has(settings.groups, group); });
}

}  // namespace

bool Server::Start(std::string& error) {
    if (!socket_file_.Open(settings_.socket_path, settings_.socket_mode, error)) return false;
    acceptor_.assign(asio::local::stream_protocol(), socket_file_.TakeSocket());
    Accept();
    Watch();
    try {
        workers_.Start();
        thread_ = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        error = "its threads cannot be made";
        return false;
    }
    return true;
}

void Server::Run() {
    pthread_setname_np(pthread_self(), "bridge");
    // No memory, most likely: the client at hand loses.
    while (!eventlog::Guarded(kMsgBridgeCommandFailed, "bridge", [this] { io_.run(); })) continue;
}

void Server::Stop() {
    questions_.Stop();
    if (!thread_.joinable()) return;
    Post([this] {
        stopping_ = true;
        std::error_code ignored;
        acceptor_.close(ignored);
        const auto connected = connected_;
        for (const auto& [id, session] : connected) session->Finish();
        const std::lock_guard lock(mutex_);
        stopping_seen_ = true;
        settled_.notify_all();
    });
    {
        std::unique_lock lock(mutex_);
        settled_.wait(lock, [this] { return stopping_seen_ && sessions_.empty(); });
    }
    workers_.Join();
    io_.stop();
    thread_.join();
    socket_file_.Close();
}

void Server::Apply(const Settings& settings) {
    Post([this, settings] {
        const std::string path = settings_.socket_path;
        settings_ = settings;
        settings_.socket_path = path;
    });
}

void Server::Notify(std::uint32_t code, const std::string& body) {
    Post([this, frame = ShareFrame(MakeCodedFrame(FrameType::kNotification, 0, body, code))] {
        const auto connected = connected_;  // a client that is dropped leaves the list
        for (const auto& [id, session] : connected) {
            if (session->greeted()) session->Send(frame);
        }
    });
}

bool Server::Ask(std::uint32_t code, std::string& message, int timeout_ms) {
    const std::optional<std::uint32_t> number = questions_.Open(code, message);
    if (!number.has_value()) return false;
    Post([this, number = *number] {
        const Questions::SharedFrame frame = questions_.Announce(number);
        if (frame == nullptr) return;
        const auto connected = connected_;
        for (const auto& [id, session] : connected) {
            if (session->answers()) session->Send(frame);
        }
    });
    std::optional<std::string> answer = questions_.Await(*number, timeout_ms);
    if (!answer.has_value()) {
        Post([this, number = *number] { CloseQuestion(number, CloseReason::kGivenUp, nullptr); });
        return false;
    }
    message = std::move(*answer);
    return true;
}

void Server::CloseQuestion(std::uint32_t number, CloseReason reason, const Session* but) {
    const auto frame = ShareFrame(MakeFrameOf(FrameType::kQuestionClosed, number, static_cast<std::uint32_t>(reason)));
    const auto connected = connected_;
    for (const auto& [id, session] : connected) {
        if (session->answers() && session.get() != but) session->Send(frame);
    }
}

std::size_t Server::SessionCount() const {
    const std::lock_guard lock(mutex_);
    return sessions_.size();
}

void Server::Accept() {
    acceptor_.async_accept([this](const std::error_code& error, Session::Socket socket) {
        if (!acceptor_.is_open() || error == asio::error::operation_aborted) return;
        if (!error) {
            Accept();  // first: the rest may throw
            return Admit(std::move(socket));
        }
        accept_timer_.expires_after(kAcceptPause);
        accept_timer_.async_wait([this](const std::error_code& cancelled) {
            if (!cancelled && acceptor_.is_open()) Accept();
        });
    });
}

void Server::Admit(Session::Socket socket) {
    const std::optional<ucred> credentials = CredentialsOf(socket.native_handle());
    const Peer peer = credentials.has_value() ? Peer{credentials->uid, credentials->pid} : Peer{};
    if (!credentials.has_value() || !MayConnect(settings_, socket.native_handle(), *credentials)) {
        return Refuse(socket, peer, "user " + std::to_string(peer.user) + " may not connect");
    }
    const std::size_t open = SessionCount();
    if (open >= SessionLimit(settings_, *credentials)) {
        return Refuse(socket, peer, std::to_string(open) + " sessions are open already");
    }
    Begin(std::make_shared<Session>(*this, std::move(socket), ++last_id_, peer));
}

void Server::Begin(const SessionPtr& session) {
    try {
        {
            const std::lock_guard lock(mutex_);
            sessions_.emplace(session->Id(), session);
        }
        connected_.emplace(session->Id(), session);
        session->Start();
    } catch (const std::exception&) {
        session->Drop({});
        throw;
    }
}

void Server::Refuse(Session::Socket& socket, const Peer& peer, const std::string& why) {
    LogRefusal(peer, why);
    std::error_code ignored;
    const std::string frame = MakeFrameOf(FrameType::kError, 0, static_cast<std::uint32_t>(Error::kRefused), why);
    socket.non_blocking(true, ignored);
    socket.write_some(asio::buffer(frame), ignored);
    socket.close(ignored);
}

void Server::LogRefusal(const Peer& peer, const std::string& why) {
    if (++refusals_ > kMaxRefusalsLogged) return;
    TLogMessage(kMsgBridgeClientRefused)
        .Attr("user " + std::to_string(peer.user) + ", process " + std::to_string(peer.process) + ": " + why +
              (refusals_ == kMaxRefusalsLogged ? "; more in this minute are not logged" : ""))
        .Send();
}

void Server::Disconnected(Session& session) {
    connected_.erase(session.Id());
}

void Server::Settled(std::uint64_t id) {
    SessionPtr last;  // goes outside the lock
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(id);
    if (found == sessions_.end()) return;
    last = std::move(found->second);
    sessions_.erase(found);
    settled_.notify_all();
}

/// Looks at the clients now and then.
void Server::Watch() {
    const milliseconds interval = std::clamp(settings_.stall_limit / 4, milliseconds(10), milliseconds(1000));
    watch_timer_.expires_after(interval);
    watch_timer_.async_wait([this](const std::error_code& cancelled) {
        if (cancelled) return;
        Watch();  // first: the rest may throw
        const auto now = Session::Clock::now();
        const milliseconds limit = stopping_ ? std::min(settings_.stall_limit, kLastWordsLimit) : settings_.stall_limit;
        const auto connected = connected_;
        for (const auto& [id, session] : connected) session->CheckStall(now, limit);
        if (now - refusals_since_ > std::chrono::minutes(1)) {
            refusals_since_ = now;
            refusals_ = 0;
        }
    });
}

}  // namespace bridge
