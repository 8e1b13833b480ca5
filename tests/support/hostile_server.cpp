#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tests/support/crl_servers.h"
#include "tests/support/sockets.h"

namespace test_support {
namespace {

constexpr std::size_t kMaxHead = 65536;
constexpr int kBacklog = 512;
/// Longer than any test: a held answer ends with Release or with the server.
constexpr std::chrono::hours kForever{1};

std::string HeadOf(const HostileServer::Answer& answer) {
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Answer\r\nConnection: close\r\n";
    if (!answer.location.empty()) head += "Location: " + answer.location + "\r\n";
    if (!answer.content_type.empty()) head += "Content-Type: " + answer.content_type + "\r\n";
    if (answer.claimed_length || answer.padding == 0) {
        head += "Content-Length: " + std::to_string(answer.claimed_length.value_or(answer.body.size())) + "\r\n";
    }
    return head + "\r\n";
}

/// "/path" of "GET /path HTTP/1.1".
std::string PathOf(const std::string& head) {
    const std::size_t begin = head.find(' ') + 1;
    return head.substr(begin, head.find(' ', begin) - begin);
}

}  // namespace

HostileServer::HostileServer() {
    const BoundSocket bound = BindLoopback();
    listener_ = bound.fd;
    port_ = bound.port;
    Listen(listener_, kBacklog);
    acceptor_ = std::thread([this] { Accept(); });
}

HostileServer::~HostileServer() {
    state_.Update([this](State& state) {
        state.stopping = true;
        for (const int socket : state.sockets) shutdown(socket, SHUT_RDWR);
        shutdown(listener_, SHUT_RDWR);
    });
    acceptor_.join();
    connections_.clear();
    close(listener_);
}

std::string HostileServer::Uri(const std::string& path, const std::string& scheme) const {
    return LoopbackUri(scheme, port_, path);
}

void HostileServer::Set(const std::string& path, Answer answer) {
    state_.Update([&](State& state) { state.answers[path] = std::make_shared<const Answer>(std::move(answer)); });
}

void HostileServer::Hold(const std::string& path) {
    state_.Update([&](State& state) { state.held.insert(path); });
}

void HostileServer::Release(const std::string& path) {
    state_.Update([&](State& state) { state.held.erase(path); });
}

unsigned HostileServer::Requests(const std::string& path) const {
    const Counts all = counts();
    const auto found = all.requests_of.find(path);
    return found == all.requests_of.end() ? 0 : found->second;
}

bool HostileServer::WaitForRequests(const std::string& path, unsigned count) {
    return state_.WaitUntil([&](const State& state) {
        const auto found = state.counts.requests_of.find(path);
        return found != state.counts.requests_of.end() && found->second >= count;
    });
}

bool HostileServer::WaitForIdle() {
    return state_.WaitUntil([](const State& state) { return state.sockets.empty(); });
}

void HostileServer::Accept() {
    int socket = -1;
    while ((socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) != -1) {
        bool stopping = false;
        state_.Update([&](State& state) {
            stopping = state.stopping;
            if (stopping) return;
            state.sockets.insert(socket);
            ++state.counts.connections;
        });
        if (stopping) {
            close(socket);
            return;
        }
        connections_.remove_if([](const std::future<void>& connection) {
            return connection.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
        connections_.push_back(std::async(std::launch::async, [this, socket] { Serve(socket); }));
    }
}

void HostileServer::Serve(int socket) {
    const std::string head = ReadUntil(socket, "\r\n\r\n", kMaxHead);
    if (head.ends_with("\r\n\r\n")) {
        if (const std::shared_ptr<const Answer> answer = AnswerFor(head)) Reply(socket, *answer);
    }
    state_.Update([&](State& state) {
        state.sockets.erase(socket);
        close(socket);  // under the lock: a closed number may be another connection's at once
    });
}

std::shared_ptr<const HostileServer::Answer> HostileServer::AnswerFor(const std::string& head) {
    const std::string path = PathOf(head);
    auto answer = std::make_shared<const Answer>(Answer{.status = 404});
    state_.Update([&](State& state) {
        ++state.counts.requests;
        ++state.counts.requests_of[path];
        state.counts.last_head = head;
        const auto found = state.answers.find(path);
        if (found != state.answers.end()) answer = found->second;
    });
    bool stopping = false;
    state_.WaitUntil(
        [&](const State& state) {
            stopping = state.stopping;
            return stopping || !state.held.contains(path);
        },
        kForever);
    return stopping ? nullptr : answer;
}

void HostileServer::Reply(int socket, const Answer& answer) {
    if (answer.silent) {
        WaitForHangUp(socket);
        return;
    }
    const std::string bytes = HeadOf(answer) + answer.body;
    const std::string_view sent = std::string_view(bytes).substr(0, answer.close_after.value_or(bytes.size()));
    const bool slowly = answer.byte_interval.count() != 0;
    const bool complete = slowly ? SendSlowly(socket, sent, answer.byte_interval) : Send(socket, sent);
    if (complete && !answer.close_after) SendPadding(socket, answer.padding);
}

bool HostileServer::Send(int socket, std::string_view bytes) {
    if (!SendAll(socket, bytes)) return false;
    state_.Update([&](State& state) { state.counts.bytes_sent += bytes.size(); });
    return true;
}

bool HostileServer::SendSlowly(int socket, std::string_view bytes, std::chrono::milliseconds interval) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const bool stopping = state_.WaitUntil([](const State& state) { return state.stopping; }, interval);
        if (stopping || !Send(socket, bytes.substr(i, 1))) return false;
    }
    return true;
}

void HostileServer::SendPadding(int socket, std::uint64_t size) {
    const std::string block(65536, '\0');
    while (size > 0) {
        const std::uint64_t now = std::min<std::uint64_t>(size, block.size());
        if (!Send(socket, std::string_view(block).substr(0, now))) return;
        size -= now;
    }
}

}  // namespace test_support
