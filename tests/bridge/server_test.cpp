// The server and its clients: commands, order, notifications, questions, limits, and clients that misbehave.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

enum TestCommand : std::uint32_t { kEcho, kThrow, kBlock, kZeros, kOrder };

class TestListener : public CommandListener {
  public:
    TestListener() : CommandListener(kGroup) { AddCommandListener(this); }
    ~TestListener() override { DelCommandListener(this); }

    bool ExecCommand(BridgeSession& /*session*/, long number, const std::string& input, std::string& output) override {
        std::uint32_t count = 0;
        switch (number) {
            case kEcho:
                output = input;
                return true;
            case kThrow:
                throw std::runtime_error("trouble");
            case kBlock:
                entered.Signal();
                release.Wait();
                return true;
            case kZeros:
                output = "half";
                CommandStreamIn(input).fields(count);
                output.assign(count, '\0');
                return true;
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

/// Whether the server answers.
bool Echoes(Client& client, const std::string& text = "still here") {
    std::string reply;
    return client.Call(kGroup, kEcho, text, reply) && reply == text;
}

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
    void Hello() const { Send(bridge::MakeFrameOf(FrameType::kHello, 0, 1U, 0U, std::string("raw"))); }
    void Command(std::uint32_t command, const std::string& input, std::uint32_t number = 1) const {
        Send(bridge::MakeCodedFrame(FrameType::kCommand, number, input, kGroup, command));
    }
    /// Everything until the server closes.
    std::string ReadAll() const {
        std::string all;
        std::array<char, 65536> buffer{};
        while (const auto count = std::max<ssize_t>(0, recv(fd_, buffer.data(), buffer.size(), 0))) {
            all.append(buffer.data(), static_cast<std::size_t>(count));
        }
        return all;
    }

  private:
    int fd_;
};

std::string Number(std::uint32_t value) {
    std::string bytes;
    CommandStreamOut(bytes).fields(value);
    return bytes;
}

class ServerTest : public BridgeTest {
  protected:
    ServerTest() {
        settings_.max_frame_bytes = 4U << 20;
        settings_.max_pending_bytes = 8U << 20;
        Start();
    }
    ~ServerTest() override { listener_.release.Signal(); }

    TestListener listener_;
};

TEST_F(ServerTest, CommandsEndInAnAnswerOrAnErrorOfTheirOwn) {
    const std::tuple<std::uint32_t, std::uint32_t, std::string, Error, const char*> cases[] = {
        {kGroup, kZeros, "123", Error::kMalformed, "CommandStreamError"},
        {kGroup, kThrow, "", Error::kFailed, "the command failed; the log says why"},
        {kGroup, 99, "", Error::kUnknownCommand, "command group 100 has no command 99"},
        {7, 0, "", Error::kUnknownGroup, "there is no command group 7"},
        {kGroup, kZeros, Number(settings_.max_frame_bytes + 1), Error::kReplyTooLarge, "the answer has 4194305 bytes"},
    };
    const auto client = Connect();
    EXPECT_EQ(client->server_program(), "test 1");
    for (const auto& [group, command, input, code, text] : cases) {
        SCOPED_TRACE(text);
        std::string reply = "before";
        EXPECT_FALSE(client->Call(group, command, input, reply));
        const auto& failure = client->failure();
        EXPECT_EQ(std::tuple(failure.kind, failure.code, failure.text, reply),
                  std::tuple(Kind::kServer, code, text, "before"));
        EXPECT_TRUE(Echoes(*client)) << "the session goes on";
    }
    EXPECT_EQ(vendor_host::FindMessages(kMsgBridgeCommandFailed).at(0).Text(), "100/1: trouble");
    std::string large(settings_.max_frame_bytes - bridge::kCommandPrefixBytes, 'x');
    EXPECT_TRUE(Echoes(*client, large));
    large.push_back('x');
    EXPECT_FALSE(Echoes(*client, large));
    EXPECT_TRUE(client->connected());
}

TEST_F(ServerTest, CommandsOfASessionRunInOrder) {
    const RawClient client(settings_.socket_path);
    client.Hello();
    std::string expected;
    for (std::uint32_t i = 1; i <= 200; ++i) {
        client.Command(kOrder, std::to_string(i) + ",", i);
        expected += std::to_string(i) + ",";
    }
    EXPECT_TRUE(listener_.order.WaitUntil([&](const std::string& all) { return all == expected; }));
}

TEST_F(ServerTest, ALongCommandHoldsUpItsOwnSessionAlone) {
    const auto slow = Connect();
    std::string reply;
    EXPECT_FALSE(slow->Call(kGroup, kBlock, {}, reply, std::chrono::milliseconds(20)));
    EXPECT_EQ(slow->failure().kind, Kind::kTimeout);
    EXPECT_TRUE(Echoes(*Connect()));
    listener_.release.Signal();
    EXPECT_TRUE(Echoes(*slow)) << "not the answer of the call that was given up";
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
    EXPECT_EQ(std::tuple(listener_.opened.load(), listener_.first.load(), listener_.last_user.load()),
              std::tuple(count + 1, 1U, geteuid()));
}

// A listener that throws is logged; the sessions, the other listeners and the process go on.
TEST_F(ServerTest, ListenersMayThrow) {
    listener_.throws = true;
    auto client = Connect();
    EXPECT_TRUE(Echoes(*client));
    client->Disconnect();
    EXPECT_TRUE(listener_.closed.Wait());
    bridge::Stop();  // waits for the session
    for (const char* text : {"100: opening", "100: closing"}) {
        EXPECT_TRUE(vendor_host::Logged(text, kMsgBridgeCommandFailed)) << text;
    }
}

TEST_F(ServerTest, WhatCannotBeClosesTheSessionAndNothingElse) {
    const std::string hello = bridge::MakeFrameOf(FrameType::kHello, 0, 1U, 0U, std::string("raw"));
    const auto& frame = bridge::MakeFrame;
    const auto echo = [](std::uint32_t number) {
        return bridge::MakeCodedFrame(FrameType::kCommand, number, "", kGroup, kEcho);
    };
    const std::string cut = "the hello is too short";
    const std::string too_long(9, '\xFF');
    const std::string says_long = "a frame of 4294967295 bytes is too long";
    const std::string version_2 = bridge::MakeFrameOf(FrameType::kHello, 0, 2U, 0U, std::string());
    const std::pair<std::string, std::string> cases[] = {
        {echo(1), "the first frame must be a hello"},
        {bridge::BeginFrame(FrameType::kHello, 0, 4097), "a frame of 4097 bytes is too long"},
        {frame(FrameType::kHello, 0, Number(1)), cut},
        {frame(FrameType::kHello, 0, Number(1) + Number(0) + Number(0xFFFFFFFF)), cut},  // a name of 4 GiB
        {version_2, "version 2 of the protocol is not spoken here, only 1"},
        {hello + hello, "a second hello"},
        {hello + too_long, says_long},
        {hello + frame(static_cast<FrameType>(0), 1, ""), "a client cannot send frames of type 0"},
        {hello + frame(FrameType::kQuestion, 1, ""), "a client cannot send frames of type 6"},
        {hello + frame(FrameType::kCommand, 5, "1234567") + too_long, says_long},
        {hello + echo(0x80000001), "the number of a command has its highest bit set"},
    };
    for (const auto& [bytes, text] : cases) {
        SCOPED_TRACE(text);
        const RawClient client(settings_.socket_path);
        client.Send(bytes);
        const std::string all = client.ReadAll();
        const auto code = static_cast<std::uint32_t>(Error::kProtocol);
        EXPECT_TRUE(all.ends_with(bridge::MakeFrameOf(FrameType::kError, 0, code, text))) << all;
        const bool short_command = bytes.find("1234567") != std::string::npos;
        EXPECT_EQ(all.find("a command begins with its group and its number") != std::string::npos, short_command);
    }
    // Cut anywhere, a client is just gone.
    const std::string whole = hello + bridge::MakeCodedFrame(FrameType::kCommand, 1, "x", kGroup, kEcho);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const RawClient client(settings_.socket_path);
        client.Send(whole.substr(0, length));
    }
    EXPECT_TRUE(Echoes(*Connect()));
}

TEST_F(ServerTest, QuestionsAreDecidedByTheFirstAnswer) {
    using Answer = std::optional<std::string>;
    const auto wait = [](int timeout) -> Answer {
        std::string message = "which?";
        const bool answered = bridge::server::NotifyClientAndWaitResponse(6, message, timeout);
        EXPECT_TRUE(answered || message == "which?");
        return answered ? Answer(message) : std::nullopt;
    };
    const auto ask = [&] { return std::async(std::launch::async, wait, -1); };
    const auto question = [](Client& client) {
        const auto event = client.Wait(test_support::kWaitLimit).value();
        EXPECT_EQ(event.kind, ClientEvent::Kind::kQuestion);
        EXPECT_EQ(std::pair(event.code, event.body), std::pair(6U, std::string("which?")));
        return event.number;
    };
    const auto bystander = Connect();
    EXPECT_EQ(wait(-1), std::nullopt);  // nobody answers questions

    auto first = Connect(true);
    auto second = Connect(true);
    auto answer = ask();
    const std::uint32_t number = question(*first);
    EXPECT_EQ(question(*second), number);
    const auto late = Connect(true);  // is asked, too
    EXPECT_EQ(question(*late), number);
    const auto stale = [](Client& client, std::uint32_t asked) {
        return !client.Answer(asked, "too late") && client.failure().code == Error::kStaleAnswer;
    };
    EXPECT_TRUE(stale(*bystander, number) && stale(*first, number + 1)) << "neither theirs nor asked";
    EXPECT_TRUE(second->Answer(number, "second"));
    EXPECT_EQ(answer.get(), "second");
    for (Client* const other : {first.get(), late.get()}) {
        const auto event = other->Wait(test_support::kWaitLimit).value();
        EXPECT_EQ(std::pair(event.kind, event.number), std::pair(ClientEvent::Kind::kAnsweredByAnother, number));
    }
    EXPECT_TRUE(stale(*first, number));

    // The last one that goes takes the question with it.
    answer = ask();
    question(*first);
    first->Disconnect();
    second->Disconnect();
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    late->Disconnect();
    EXPECT_EQ(answer.get(), std::nullopt);

    first = Connect(true);
    EXPECT_EQ(wait(1), std::nullopt);
    const std::uint32_t given_up = question(*first);
    EXPECT_EQ(first->Wait(test_support::kWaitLimit)->kind, ClientEvent::Kind::kGivenUp);
    EXPECT_TRUE(stale(*first, given_up));

    answer = ask();
    question(*first);
    bridge::Stop();
    EXPECT_EQ(answer.get(), std::nullopt);
    EXPECT_EQ(wait(-1), std::nullopt);
}

TEST_F(ServerTest, NotificationsReachEveryClientAndAreKeptDuringCalls) {
    const auto one = Connect();
    const auto two = Connect();
    bridge::server::NotifyClients(9, "body");
    EXPECT_TRUE(Echoes(*one));
    for (Client* const client : {one.get(), two.get()}) {
        const auto event = client->Wait(test_support::kWaitLimit).value();
        EXPECT_EQ(std::pair(event.code, event.body), std::pair(9U, std::string("body")));
    }
    EXPECT_FALSE(one->Wait(std::chrono::milliseconds(0)).has_value());
    EXPECT_EQ(one->failure().kind, Kind::kTimeout);
}

TEST_F(ServerTest, AClientThatDoesNotReadIsDropped) {
    const RawClient deaf(settings_.socket_path);
    deaf.Hello();
    deaf.Command(kOrder, "x");
    ASSERT_TRUE(listener_.order.WaitUntil([](const std::string& all) { return all == "x"; }));
    for (int i = 0; i < 4; ++i) bridge::server::NotifyClients(9, std::string(3U << 20, 'x'));
    EXPECT_TRUE(listener_.closed.Wait());
    for (const std::string& part :
         {"(raw, user " + std::to_string(geteuid()), std::string("does not take what is sent")}) {
        EXPECT_TRUE(vendor_host::Logged(part, kMsgBridgeClientDropped)) << part;
    }
    EXPECT_TRUE(Echoes(*Connect()));
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

TEST_F(LimitsTest, SilentStalledAndDrippingClientsAreDroppedInTime) {
    settings_.stall_limit = std::chrono::milliseconds(100);
    Start();
    const RawClient silent(settings_.socket_path);
    EXPECT_EQ(silent.ReadAll(), "");
    const RawClient stalled(settings_.socket_path);
    stalled.Hello();
    stalled.Command(kZeros, Number(8U << 20));
    EXPECT_TRUE(listener_.closed.Wait());
    const auto idle = Connect();
    const RawClient half(settings_.socket_path);
    half.Hello();
    half.Send(bridge::BeginFrame(FrameType::kCommand, 1, 1000) + "half");
    half.ReadAll();
    // A frame that comes byte by byte is not waited for without end.
    const RawClient dripping(settings_.socket_path);
    dripping.Hello();
    dripping.Send(bridge::BeginFrame(FrameType::kCommand, 1, 1000000));
    for (unsigned sent = 0; !listener_.closed.Wait(3, std::chrono::milliseconds(20)); ++sent) {
        ASSERT_LT(sent, 1000U);
        dripping.Send("x");
    }
    const auto dropped = vendor_host::FindMessages(kMsgBridgeClientDropped);
    ASSERT_EQ(dropped.size(), 4U);
    EXPECT_NE(dropped[2].Text().find("does not go on with a frame it began"), std::string::npos);
    EXPECT_NE(dropped[3].Text().find("does not end a frame it began"), std::string::npos);
    EXPECT_TRUE(Echoes(*idle));
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
    const auto apply = [&] {
        std::string error;
        ASSERT_TRUE(bridge::Apply(settings_, error)) << error;
    };
    settings_.users = {12345};
    apply();
    EXPECT_TRUE(connect_as(12345, 54321));
    settings_.users.clear();
    settings_.groups = {54321};
    apply();
    EXPECT_TRUE(connect_as(12346, 54321));
    EXPECT_FALSE(connect_as(12346, 54322));
    settings_.max_sessions = 2;
    apply();
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
        EXPECT_TRUE(!bridge::Start(settings_, error) && error.find(part) != std::string::npos) << error;
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
