// The server and its clients: commands, order, notifications, questions, limits, and clients that misbehave.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

#include "platform/bridge/frame.h"
#include "platform/event_codes.h"
#include "tests/bridge/bridge_fixture.h"

namespace bridge_test {
namespace {

using bridge::Client;
using bridge::ClientEvent;
using bridge::Error;
using bridge::FrameType;
using Kind = bridge::ClientFailure::Kind;
using test_support::Event;

constexpr std::uint32_t kGroup = 100;

enum TestCommand : std::uint32_t { kEcho, kShortInput, kThrow, kBlock, kZeros, kOrder };

class TestListener : public CommandListener {
  public:
    TestListener() : CommandListener(kGroup) { AddCommandListener(this); }
    ~TestListener() override { DelCommandListener(this); }

    bool ExecCommand(BridgeSession& /*session*/, long number, const std::string& input, std::string& output) override {
        CommandStreamIn in(input);
        switch (number) {
            case kEcho:
                output = input;
                return true;
            case kShortInput: {
                output = "half";
                std::uint64_t value = 0;
                in.fields(value);
                return true;
            }
            case kThrow:
                throw std::runtime_error("trouble");
            case kBlock:
                entered.Signal();
                release.Wait();
                output = "released";
                return true;
            case kZeros: {
                std::uint32_t count = 0;
                in.fields(count);
                output.assign(count, '\0');
                return true;
            }
            case kOrder:
                order.Update([&](std::string& all) { all += input; });
                return true;
            default:
                return false;
        }
    }
    void OnOpenSession(BridgeSession* /*session*/) override {
        ++opened;
        if (throws) throw std::runtime_error("opening");
    }
    void OnCloseSession(BridgeSession* /*session*/) override {
        closed.Signal();
        if (throws) throw "closing";
    }
    void OnOpenFirstSession() override { ++first; }
    void OnCloseLastSession() override { last.Signal(); }
    void OnCloseLastSessionWithUser(BridgeSession* session) override { last_user = session->User(); }

    std::atomic<bool> throws{false};
    std::atomic<unsigned> opened{0};
    std::atomic<unsigned> first{0};
    std::atomic<unsigned> last_user{0};
    Event closed;
    Event last;
    Event entered;
    Event release;
    test_support::Watched<std::string> order;
};

sockaddr_un Address(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// A client that sends what it likes.
class RawClient {
  public:
    explicit RawClient(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = Address(path);
        static_cast<void>(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    ~RawClient() { close(fd_); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    void Send(const std::string& bytes) const {
        static_cast<void>(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    void Hello(std::uint32_t flags = 0) const {
        Send(bridge::MakeFrameOf(FrameType::kHello, 0, bridge::kProtocolVersion, flags, std::string("raw")));
    }
    /// Everything until the server closes.
    std::string ReadAll() const {
        std::string all;
        std::string buffer(65536, '\0');
        for (ssize_t count = 1; count > 0;) {
            count = recv(fd_, buffer.data(), buffer.size(), 0);
            if (count > 0) all.append(buffer, 0, static_cast<std::size_t>(count));
        }
        return all;
    }

  private:
    int fd_;
};

class ServerTest : public BridgeTest {
  protected:
    ServerTest() {
        settings_.max_frame_bytes = 4U << 20;
        settings_.max_pending_bytes = 8U << 20;
        Start();
    }
    ~ServerTest() override { listener_.release.Signal(); }

    static std::string Number(std::uint32_t value) {
        std::string bytes;
        CommandStreamOut(bytes).fields(value);
        return bytes;
    }

    TestListener listener_;
};

TEST_F(ServerTest, CommandsEndInAnAnswerOrAnErrorOfTheirOwn) {
    struct Case {
        const char* name;
        std::uint32_t group;
        std::uint32_t command;
        std::string input;
        Error code;
        const char* text;
    };
    const Case cases[] = {
        {"short input", kGroup, kShortInput, "1234567", Error::kMalformed, "CommandStreamError"},
        {"exception", kGroup, kThrow, "", Error::kFailed, "the command failed; the log says why"},
        {"command", kGroup, 99, "", Error::kUnknownCommand, "command group 100 has no command 99"},
        {"group", 7, 0, "", Error::kUnknownGroup, "there is no command group 7"},
        {"reply too large", kGroup, kZeros, Number(settings_.max_frame_bytes + 1), Error::kReplyTooLarge,
         "the answer has 4194305 bytes"},
    };
    const auto client = Connect();
    EXPECT_EQ(client->server_program(), "test 1");
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        std::string reply = "before";
        EXPECT_FALSE(client->Call(test.group, test.command, test.input, reply));
        EXPECT_EQ(client->failure().kind, Kind::kServer);
        EXPECT_EQ(client->failure().code, test.code);
        EXPECT_EQ(client->failure().text, test.text);
        EXPECT_EQ(reply, "before");
        // The session goes on.
        EXPECT_TRUE(client->Call(kGroup, kEcho, "still here", reply));
        EXPECT_EQ(reply, "still here");
    }
    EXPECT_EQ(vendor_host::FindMessages(kMsgBridgeCommandFailed).at(0).Text(), "100/2: trouble");
    std::string large(settings_.max_frame_bytes - bridge::kCommandPrefixBytes, 'x');
    std::string reply;
    EXPECT_TRUE(client->Call(kGroup, kEcho, large, reply));
    EXPECT_TRUE(reply == large);
    large.push_back('x');
    EXPECT_FALSE(client->Call(kGroup, kEcho, large, reply));
    EXPECT_TRUE(client->connected());
}

TEST_F(ServerTest, CommandsOfASessionRunInOrder) {
    const RawClient client(settings_.socket_path);
    client.Hello();
    std::string expected;
    for (std::uint32_t i = 1; i <= 200; ++i) {
        client.Send(bridge::MakeCodedFrame(FrameType::kCommand, i, std::to_string(i) + ",", kGroup, kOrder));
        expected += std::to_string(i) + ",";
    }
    EXPECT_TRUE(listener_.order.WaitUntil([&](const std::string& all) { return all == expected; }));
}

TEST_F(ServerTest, ALongCommandHoldsUpItsOwnSessionAlone) {
    const auto slow = Connect();
    std::string reply;
    EXPECT_FALSE(slow->Call(kGroup, kBlock, {}, reply, std::chrono::milliseconds(20)));
    EXPECT_EQ(slow->failure().kind, Kind::kTimeout);
    EXPECT_TRUE(Connect()->Call(kGroup, kEcho, "quick", reply));
    EXPECT_EQ(reply, "quick");
    listener_.release.Signal();
    EXPECT_TRUE(slow->Call(kGroup, kEcho, "next", reply));
    EXPECT_EQ(reply, "next") << "not the answer of the call that was given up";
}

TEST_F(ServerTest, ListenersSeeSessionsComeAndGo) {
    const unsigned count = test_support::LongRun(2000, 100000);
    const auto stays = Connect();
    for (unsigned i = 0; i < count; ++i) {
        Client client;
        // The limit counts those whose end the listeners have not seen yet.
        while (!client.Connect({.socket_path = settings_.socket_path})) {
            ASSERT_EQ(client.failure().code, Error::kRefused) << client.failure().text;
        }
    }
    EXPECT_TRUE(listener_.closed.Wait(count));
    EXPECT_EQ(listener_.last.Count(), 0U);
    stays->Disconnect();
    EXPECT_TRUE(listener_.last.Wait());
    EXPECT_EQ(listener_.opened, count + 1);
    EXPECT_EQ(listener_.first, 1U);
    EXPECT_EQ(listener_.last_user, geteuid());
}

// A listener that throws is logged; the sessions, the other listeners and the process go on.
TEST_F(ServerTest, ListenersMayThrow) {
    listener_.throws = true;
    auto client = Connect();
    std::string reply;
    EXPECT_TRUE(client->Call(kGroup, kEcho, "x", reply));
    client->Disconnect();
    EXPECT_TRUE(listener_.closed.Wait());
    bridge::Stop();  // waits for the session
    for (const char* text : {"100: opening", "100: closing"}) {
        EXPECT_TRUE(vendor_host::Logged(text, kMsgBridgeCommandFailed)) << text;
    }
}

TEST_F(ServerTest, WhatCannotBeClosesTheSessionAndNothingElse) {
    const std::string hello = bridge::MakeFrameOf(FrameType::kHello, 0, 1U, 0U, std::string("raw"));
    struct Case {
        const char* name;
        std::string bytes;
        const char* text;
        const char* before = "";
    };
    const Case cases[] = {
        {"command before hello", bridge::MakeCodedFrame(FrameType::kCommand, 1, "", kGroup, kEcho),
         "the first frame must be a hello"},
        {"long hello", bridge::BeginFrame(FrameType::kHello, 0, 4097), "a frame of 4097 bytes is too long"},
        {"cut hello", bridge::MakeFrame(FrameType::kHello, 0, Number(1)), "the hello is too short"},
        {"name of 4 GiB", bridge::MakeFrame(FrameType::kHello, 0, Number(1) + Number(0) + Number(0xFFFFFFFF)),
         "the hello is too short"},
        {"version", bridge::MakeFrameOf(FrameType::kHello, 0, 2U, 0U, std::string()),
         "version 2 of the protocol is not spoken here, only 1"},
        {"second hello", hello + hello, "a second hello"},
        {"length", hello + std::string(9, '\xFF'), "a frame of 4294967295 bytes is too long"},
        {"type 0", hello + bridge::MakeFrame(static_cast<FrameType>(0), 1, ""),
         "a client cannot send frames of type 0"},
        {"type of the server", hello + bridge::MakeFrame(FrameType::kQuestion, 1, ""),
         "a client cannot send frames of type 6"},
        {"short command", hello + bridge::MakeFrame(FrameType::kCommand, 5, "1234567") + std::string(9, '\xFF'),
         "a frame of 4294967295 bytes is too long", "a command begins with its group and its number"},
        {"number", hello + bridge::MakeCodedFrame(FrameType::kCommand, 0x80000001, "", kGroup, kEcho),
         "the number of a command has its highest bit set"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        const RawClient client(settings_.socket_path);
        client.Send(test.bytes);
        const std::string all = client.ReadAll();
        const std::string error = bridge::MakeFrameOf(
            FrameType::kError, 0, static_cast<std::uint32_t>(Error::kProtocol), std::string(test.text));
        EXPECT_TRUE(all.ends_with(error)) << all;
        EXPECT_NE(all.find(test.before), std::string::npos) << all;
    }
    // Cut anywhere, a client is just gone.
    const std::string whole = hello + bridge::MakeCodedFrame(FrameType::kCommand, 1, "x", kGroup, kEcho);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const RawClient client(settings_.socket_path);
        client.Send(whole.substr(0, length));
    }
    std::string reply;
    EXPECT_TRUE(Connect()->Call(kGroup, kEcho, "alive", reply));
}

TEST_F(ServerTest, QuestionsAreDecidedByTheFirstAnswer) {
    using Answer = std::optional<std::string>;
    const auto ask = [] {
        return std::async(std::launch::async, []() -> Answer {
            std::string message = "which?";
            return bridge::server::NotifyClientAndWaitResponse(6, message, -1) ? Answer(message) : std::nullopt;
        });
    };
    const auto question = [](Client& client) {
        const auto event = client.Wait(test_support::kWaitLimit);
        EXPECT_TRUE(event.has_value() && event->kind == ClientEvent::Kind::kQuestion);
        EXPECT_EQ(event->body, "which?");
        EXPECT_EQ(event->code, 6U);
        return event->number;
    };
    const auto bystander = Connect();
    EXPECT_EQ(ask().get(), std::nullopt);  // nobody answers questions

    auto first = Connect(true);
    auto second = Connect(true);
    auto answer = ask();
    const std::uint32_t number = question(*first);
    EXPECT_EQ(question(*second), number);
    const auto late = Connect(true);  // is asked, too
    EXPECT_EQ(question(*late), number);
    for (const auto& [client, asked] : {std::pair(bystander.get(), number), {first.get(), number + 1}}) {
        EXPECT_FALSE(client->Answer(asked, "neither theirs nor asked"));
        EXPECT_EQ(client->failure().code, Error::kStaleAnswer);
    }
    EXPECT_TRUE(second->Answer(number, "second"));
    EXPECT_EQ(answer.get(), "second");
    for (Client* const other : {first.get(), late.get()}) {
        const auto event = other->Wait(test_support::kWaitLimit);
        ASSERT_TRUE(event.has_value());
        EXPECT_EQ(event->kind, ClientEvent::Kind::kAnsweredByAnother);
        EXPECT_EQ(event->number, number);
    }
    EXPECT_FALSE(first->Answer(number, "first"));
    EXPECT_EQ(first->failure().code, Error::kStaleAnswer);

    // The last one that goes takes the question with it.
    answer = ask();
    question(*first);
    first->Disconnect();
    second->Disconnect();
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    late->Disconnect();
    EXPECT_EQ(answer.get(), std::nullopt);

    first = Connect(true);
    std::string message = "which?";
    EXPECT_FALSE(bridge::server::NotifyClientAndWaitResponse(6, message, 1));
    EXPECT_EQ(message, "which?");
    const std::uint32_t given_up = question(*first);
    EXPECT_EQ(first->Wait(test_support::kWaitLimit)->kind, ClientEvent::Kind::kGivenUp);
    EXPECT_FALSE(first->Answer(given_up, "late"));

    answer = ask();
    question(*first);
    bridge::Stop();
    EXPECT_EQ(answer.get(), std::nullopt);
    EXPECT_FALSE(bridge::server::NotifyClientAndWaitResponse(6, message, -1));
}

TEST_F(ServerTest, NotificationsReachEveryClientAndAreKeptDuringCalls) {
    const auto one = Connect();
    const auto two = Connect();
    bridge::server::NotifyClients(9, "body");
    std::string reply;
    EXPECT_TRUE(one->Call(kGroup, kEcho, {}, reply));
    for (Client* const client : {one.get(), two.get()}) {
        const auto event = client->Wait(test_support::kWaitLimit);
        ASSERT_TRUE(event.has_value());
        EXPECT_EQ(event->code, 9U);
        EXPECT_EQ(event->body, "body");
    }
    EXPECT_FALSE(one->Wait(std::chrono::milliseconds(0)).has_value());
    EXPECT_EQ(one->failure().kind, Kind::kTimeout);
}

TEST_F(ServerTest, AClientThatDoesNotReadIsDropped) {
    const RawClient deaf(settings_.socket_path);
    deaf.Hello();
    deaf.Send(bridge::MakeCodedFrame(FrameType::kCommand, 1, "x", kGroup, kOrder));
    ASSERT_TRUE(listener_.order.WaitUntil([](const std::string& all) { return all == "x"; }));
    for (int i = 0; i < 4; ++i) bridge::server::NotifyClients(9, std::string(3U << 20, 'x'));
    EXPECT_TRUE(listener_.closed.Wait());
    const auto dropped = vendor_host::FindMessages(kMsgBridgeClientDropped);
    ASSERT_EQ(dropped.size(), 1U);
    EXPECT_NE(dropped[0].Text().find("(raw, user " + std::to_string(geteuid())), std::string::npos);
    EXPECT_NE(dropped[0].Text().find("does not take what is sent to it"), std::string::npos);
    std::string reply;
    EXPECT_TRUE(Connect()->Call(kGroup, kEcho, "alive", reply));
}

TEST_F(ServerTest, StopWaitsForTheCommandAndLetsItsAnswerOut) {
    const auto client = Connect();
    std::string reply;
    auto call = std::async(std::launch::async, [&] { return client->Call(kGroup, kBlock, {}, reply); });
    ASSERT_TRUE(listener_.entered.Wait());
    auto stop = std::async(std::launch::async, [] { bridge::Stop(); });
    const RawClient late(settings_.socket_path);
    listener_.release.Signal();
    stop.get();
    EXPECT_FALSE(std::filesystem::exists(settings_.socket_path));
    const bool answered = call.get();
    EXPECT_TRUE(answered || client->failure().code == Error::kStopping) << client->failure().text;
    EXPECT_FALSE(client->Wait(test_support::kWaitLimit).has_value() && client->connected());
}

class LimitsTest : public BridgeTest {
  protected:
    TestListener listener_;
};

TEST_F(LimitsTest, SilentAndStalledClientsAreDroppedInTime) {
    settings_.stall_limit = std::chrono::milliseconds(100);
    Start();
    const RawClient silent(settings_.socket_path);
    EXPECT_EQ(silent.ReadAll(), "");
    const RawClient stalled(settings_.socket_path);
    stalled.Hello();
    std::string size;
    CommandStreamOut(size).fields(8U << 20);
    stalled.Send(bridge::MakeCodedFrame(FrameType::kCommand, 1, size, kGroup, kZeros));
    EXPECT_TRUE(listener_.closed.Wait());
    const auto idle = Connect();
    const RawClient half(settings_.socket_path);
    half.Hello();
    half.Send(bridge::BeginFrame(FrameType::kCommand, 1, 1000) + "half");
    half.ReadAll();
    const auto dropped = vendor_host::FindMessages(kMsgBridgeClientDropped);
    ASSERT_EQ(dropped.size(), 3U);
    EXPECT_NE(dropped[2].Text().find("does not go on with a frame it began"), std::string::npos);
    std::string reply;
    EXPECT_TRUE(idle->Call(kGroup, kEcho, {}, reply));
}

// A frame that comes byte by byte is not waited for without end.
TEST_F(LimitsTest, DrippingClientsAreDroppedInTime) {
    settings_.stall_limit = std::chrono::milliseconds(100);
    Start();
    const RawClient client(settings_.socket_path);
    client.Hello();
    client.Send(bridge::BeginFrame(FrameType::kCommand, 1, 1000000));
    for (unsigned sent = 0; !listener_.closed.Wait(1, std::chrono::milliseconds(20)); ++sent) {
        ASSERT_LT(sent, 1000U);
        client.Send("x");
    }
    EXPECT_TRUE(vendor_host::Logged("does not end a frame it began", kMsgBridgeClientDropped));
}

TEST_F(LimitsTest, SessionsAreLimited) {
    settings_.max_sessions = 2;
    Start();
    const auto one = Connect();
    const auto two = Connect();
    Client three;
    EXPECT_FALSE(three.Connect({.socket_path = settings_.socket_path}));
    EXPECT_EQ(three.failure().kind, Kind::kNotAllowed);
    EXPECT_EQ(three.failure().text, "the daemon says: 2 sessions are open already");
    EXPECT_EQ(vendor_host::FindMessages(kMsgBridgeClientRefused).size(), 1U);
    one->Disconnect();
    EXPECT_TRUE(listener_.closed.Wait());
    while (bridge::SessionCount() > 1) std::this_thread::yield();
    EXPECT_TRUE(three.Connect({.socket_path = settings_.socket_path})) << three.failure().text;
}

TEST_F(LimitsTest, UsersAreCheckedByTheKernelsWord) {
    if (geteuid() != 0) GTEST_SKIP() << "needs another user";
    settings_.socket_mode = 0666;
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    Start();
    const auto connect_as = [&](uid_t user, gid_t group) {
        const pid_t child = fork();
        if (child == 0) {
            Client client;
            const bool changed = setgid(group) == 0 && setuid(user) == 0;
            _exit(changed && client.Connect({.socket_path = settings_.socket_path}) ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WEXITSTATUS(status) == 0;
    };
    EXPECT_FALSE(connect_as(12345, 54321));
    EXPECT_EQ(vendor_host::FindMessages(kMsgBridgeClientRefused).size(), 1U);
    std::string error;
    settings_.users = {12345};
    ASSERT_TRUE(bridge::Apply(settings_, error)) << error;
    EXPECT_TRUE(connect_as(12345, 54321));
    settings_.users.clear();
    settings_.groups = {54321};
    ASSERT_TRUE(bridge::Apply(settings_, error)) << error;
    EXPECT_TRUE(connect_as(12346, 54321));
    EXPECT_FALSE(connect_as(12346, 54322));
    settings_.max_sessions = 2;
    ASSERT_TRUE(bridge::Apply(settings_, error)) << error;
    while (bridge::SessionCount() > 0) std::this_thread::yield();
    const auto own = Connect();
    EXPECT_FALSE(connect_as(12346, 54321));  // the rest is kept for root and the server's user
    EXPECT_TRUE(Connect()->connected());
}

TEST_F(LimitsTest, TheSocketOfADeadServerIsReplacedThatOfALivingOneIsNot) {
    Start();
    struct stat status {};
    ASSERT_EQ(stat(settings_.socket_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    bridge::Stop();

    const auto refused = [&](const std::string& part) {
        std::string error;
        EXPECT_FALSE(bridge::Start(settings_, error));
        EXPECT_NE(error.find(part), std::string::npos) << error;
    };
    const int lock = open((settings_.socket_path + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    refused("is served by another process (process " + std::to_string(getpid()) + ")");
    close(lock);
    const sockaddr_un address = Address(settings_.socket_path);
    const int other = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(other, 1), 0);
    refused("is served by another process");
    close(other);
    Start();  // it is dead now
    Connect();
    bridge::Stop();

    std::ofstream(settings_.socket_path) << "precious";
    refused("is there and is no socket");
    settings_.socket_path = "relative";
    refused("must be absolute");
    settings_.socket_path = directory_ / std::string(200, 'x');
    refused("at most 107 bytes");
    ASSERT_EQ(chmod((directory_ / "run").c_str(), 0777), 0);
    settings_.socket_path = directory_ / "run" / "bridge.sock2";
    refused("can be written by others");
}

}  // namespace
}  // namespace bridge_test
