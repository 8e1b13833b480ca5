#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "tests/support/crl_servers.h"

namespace test_support {
namespace {

constexpr std::size_t kMaxHead = 65536;
/// Longer than any test: a held answer ends with Release or with the server.
constexpr std::chrono::hours kForever{1};

std::string HeadOf(const HostileServer::Answer& answer) {
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Answer\r\nConnection: close\r\n";
    if (!answer.location.empty()) head += "Location: " + answer.location + "\r\n";
    if (!answer.content_type.empty()) head += "Content-Type: " + answer.content_type + "\r\n";
    const std::uint64_t length = answer.claimed_length.value_or(answer.body.size());
    return head + "Content-Length: " + std::to_string(length) + "\r\n\r\n";
}

/// "/path" of "GET /path HTTP/1.1".
std::string PathOf(const std::string& head) {
    const std::size_t begin = head.find(' ') + 1;
    return head.substr(begin, head.find(' ', begin) - begin);
}

}  // namespace

HostileServer::HostileServer() {
    port_.Listen();
    acceptor_ = std::thread([this] { Accept(); });
}

HostileServer::~HostileServer() {
    state_.Update([this](State& state) {
        state.stopping = true;
        for (const int socket : state.sockets) shutdown(socket, SHUT_RDWR);
        shutdown(port_.socket(), SHUT_RDWR);
    });
    acceptor_.join();
    connections_.clear();
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

bool HostileServer::WaitForRequests(const std::string& path, unsigned count) {
    return state_.WaitUntil([&](const State& state) { return state.counts.requests.count(path) >= count; });
}

bool HostileServer::WaitForIdle() {
    return state_.WaitUntil([](const State& state) { return state.sockets.empty(); });
}

void HostileServer::Accept() {
    int socket = -1;
    while ((socket = accept4(port_.socket(), nullptr, nullptr, SOCK_CLOEXEC)) != -1) {
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
    std::string head;
    while (!head.ends_with("\r\n\r\n") && head.size() < kMaxHead && Receive(socket, head)) continue;
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
        state.counts.requests.insert(path);
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
    std::string ignored;
    while (answer.silent && Receive(socket, ignored)) ignored.clear();
    if (answer.silent) return;
    std::string bytes = HeadOf(answer) + answer.body;
    bytes.resize(answer.close_after.value_or(bytes.size()));
    const std::size_t step = answer.byte_interval.count() != 0 ? 1 : bytes.size();
    for (std::size_t at = 0; at < bytes.size(); at += step) {
        const bool stopping = state_.WaitUntil([](const State& now) { return now.stopping; }, answer.byte_interval);
        if (stopping || !SendAll(socket, std::string_view(bytes).substr(at, step))) return;
    }
}

}  // namespace test_support
