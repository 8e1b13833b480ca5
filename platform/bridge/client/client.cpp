#include "platform/bridge_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "platform/base/files.h"
#include "platform/base/socket_address.h"
#include "platform/bridge/frame.h"
#include "platform/bridge/questions.h"

namespace bridge {
namespace {

using Kind = ClientFailure::Kind;
using Clock = std::chrono::steady_clock;

/// Room for a frame is made as it comes.
constexpr std::size_t kFirstRoom = 64U << 10;

}  // namespace

struct Client::Frame {
    FrameHeader header;
    vpnfc::SecretString payload;
};

class Client::Deadline {
  public:
    explicit Deadline(Milliseconds timeout) : forever_(timeout < Milliseconds(0)), end_(Clock::now() + timeout) {}

    /// For poll.
    int Left() const {
        if (forever_) return -1;
        const auto left = std::chrono::ceil<Milliseconds>(end_ - Clock::now()).count();
        return static_cast<int>(std::clamp<Milliseconds::rep>(left, 0, INT_MAX));
    }

  private:
    bool forever_;
    Clock::time_point end_;
};

bool Client::Connect(const ClientSettings& settings) {
    Disconnect();
    failure_ = {};
    const Deadline deadline(settings.timeout);
    return Open(settings.socket_path) && Greet(settings, deadline);
}

void Client::Disconnect() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    received_ = {};
    received_bytes_ = 0;
    events_.clear();
}

std::size_t Client::max_input_bytes() const {
    return max_frame_bytes_ < kCommandPrefixBytes ? 0 : max_frame_bytes_ - kCommandPrefixBytes;
}

bool Client::Open(const std::string& path) {
    sockaddr_un address{};
    std::string fault;
    if (!vpnfc::MakeSocketAddress(path, address, fault)) return Fail(Kind::kNoServer, fault);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ >= 0 && connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
    const int error = errno;
    const std::string text = path + ": " + std::strerror(error);
    return Lost(error == EACCES || error == EPERM ? Kind::kNotAllowed : Kind::kNoServer, text);
}

bool Client::Greet(const ClientSettings& settings, const Deadline& deadline) {
    max_frame_bytes_ = kMaxHelloBytes;
    const std::uint32_t flags = settings.answers_questions ? kHelloAnswers : 0;
    if (!SendFrame(MakeFrameOf(FrameType::kHello, 0, kProtocolVersion, flags, settings.name), deadline)) return false;
    Frame frame;
    if (!ReadFrame(frame, deadline)) return connected() ? Lost(failure_.kind, failure_.text) : false;
    if (frame.header.type == FrameType::kError) return TakeError(frame);
    std::uint32_t version = 0;
    std::uint64_t session = 0;
    try {
        CommandStreamIn(frame.payload.get()).fields(version, max_frame_bytes_, session, server_program_);
    } catch (const char*) {
        version = 0;
    }
    if (frame.header.type == FrameType::kHello && version == kProtocolVersion) return true;
    return Lost(Kind::kMalformed, settings.socket_path + " is served by something that does not speak this protocol");
}

bool Client::Call(std::uint32_t group, std::uint32_t command, std::string_view input, std::string& reply,
                  Milliseconds timeout) {
    failure_ = {};
    if (!connected()) return Fail(Kind::kDisconnected, "not connected");
    if (input.size() > max_input_bytes()) {
        return Fail(Kind::kServer, "the daemon takes " + std::to_string(max_input_bytes()) + " bytes at most",
                    Error::kProtocol);
    }
    const Deadline deadline(timeout);
    last_number_ = last_number_ % (kQuestionBit - 1) + 1;
    const std::uint32_t number = last_number_;
    return SendFrame(MakeCodedFrame(FrameType::kCommand, number, input, group, command), deadline) &&
           AwaitReply(number, reply, deadline);
}

bool Client::Answer(std::uint32_t question, std::string_view answer, Milliseconds timeout) {
    failure_ = {};
    if (!connected()) return Fail(Kind::kDisconnected, "not connected");
    const Deadline deadline(timeout);
    std::string ignored;
    return SendFrame(MakeFrame(FrameType::kAnswer, question, answer), deadline) &&
           AwaitReply(question, ignored, deadline);
}

std::optional<ClientEvent> Client::Wait(Milliseconds timeout) {
    failure_ = {};
    const Deadline deadline(timeout);
    while (events_.empty()) {
        Frame frame;
        if (!connected()) {
            Fail(Kind::kDisconnected, "not connected");
            return std::nullopt;
        }
        if (!ReadFrame(frame, deadline) || !TakeUnasked(frame)) return std::nullopt;
    }
    ClientEvent event = std::move(events_.front());
    events_.pop_front();
    return event;
}

// --- Failures ---

bool Client::Fail(Kind kind, std::string text, Error code) {
    failure_ = {.kind = kind, .code = code, .text = std::move(text)};
    return false;
}

bool Client::Lost(Kind kind, std::string text, Error code) {
    std::deque<ClientEvent> events = std::move(events_);
    Disconnect();
    events_ = std::move(events);  // what was said before
    return Fail(kind, std::move(text), code);
}

bool Client::LostByErrno(const char* what) {
    return Lost(Kind::kDisconnected, std::string("the connection broke: ") + what + ": " + std::strerror(errno));
}

/// Why the server closed the connection, when it said so.
void Client::ReadLastWords() {
    const Deadline at_once(Milliseconds(0));
    Frame frame;
    while (connected() && ReadFrame(frame, at_once) && TakeUnasked(frame)) {
    }
}

// --- Frames ---

/// Waits until the socket can be read, or written.
bool Client::Ready(short events, const Deadline& deadline) {
    pollfd entry{.fd = fd_, .events = events, .revents = 0};
    const int count = poll(&entry, 1, deadline.Left());
    if (count > 0) return true;
    if (count == 0) return Fail(Kind::kTimeout, "the daemon did not answer in time");
    return errno == EINTR ? Fail(Kind::kInterrupted, "interrupted") : LostByErrno("poll");
}

bool Client::SendFrame(std::string frame, const Deadline& deadline) {
    const vpnfc::SecretString owned(std::move(frame));
    return SendAll(owned.get(), deadline);
}

/// A frame that was begun is sent whole, or the connection is lost.
bool Client::SendAll(std::string_view bytes, const Deadline& deadline) {
    while (!bytes.empty()) {
        const ssize_t count = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno == EPIPE || errno == ECONNRESET) {
            ReadLastWords();
            return connected() ? Lost(Kind::kDisconnected, "the daemon closed the connection") : false;
        }
        if (errno != EAGAIN && errno != EINTR) return LostByErrno("send");
        if (Ready(POLLOUT, deadline) || failure_.kind == Kind::kInterrupted) continue;
        return connected() ? Lost(failure_.kind, failure_.text) : false;
    }
    failure_ = {};
    return true;
}

/// Until `wanted` bytes of the frame are there.
bool Client::ReadMore(std::size_t wanted, const Deadline& deadline) {
    while (received_bytes_ < wanted) {
        if (received_bytes_ == received_.get().size()) {
            const std::size_t room = std::min(wanted, std::max(kFirstRoom, 2 * received_bytes_));
            vpnfc::Reserve(received_, room);
            received_.edit().resize(room);
        }
        const std::size_t room = std::min(wanted, received_.get().size()) - received_bytes_;
        const ssize_t count = recv(fd_, received_.edit().data() + received_bytes_, room, MSG_DONTWAIT);
        if (count > 0) {
            received_bytes_ += static_cast<std::size_t>(count);
        } else if (count == 0 || errno == ECONNRESET) {
            return Lost(Kind::kDisconnected, "the daemon closed the connection");
        } else if (errno != EAGAIN && errno != EINTR) {
            return LostByErrno("recv");
        } else if (!Ready(POLLIN, deadline)) {
            return false;
        }
    }
    return true;
}

bool Client::ReadFrame(Frame& frame, const Deadline& deadline) {
    if (!ReadMore(kHeaderBytes, deadline)) return false;
    HeaderBytes header{};
    std::copy_n(received_.get().begin(), header.size(), header.begin());
    frame.header = ParseHeader(header);
    // A frame of the server may hold an output of the full size and what stands in front of it.
    if (frame.header.length > std::max(max_frame_bytes_, kMaxHelloBytes) + kCommandPrefixBytes) {
        return Lost(Kind::kMalformed, "the daemon sent a frame that is too long");
    }
    const std::size_t size = kHeaderBytes + frame.header.length;
    if (!ReadMore(size, deadline)) return false;
    frame.payload = vpnfc::SecretString(std::string_view(received_.get()).substr(kHeaderBytes, frame.header.length));
    received_ = {};
    received_bytes_ = 0;
    return true;
}

bool Client::AwaitReply(std::uint32_t number, std::string& reply, const Deadline& deadline) {
    while (true) {
        Frame frame;
        if (!ReadFrame(frame, deadline)) return false;
        const bool mine = frame.header.number == number;
        if (mine && frame.header.type == FrameType::kReply) {
            reply = std::move(frame.payload.edit());
            return true;
        }
        if (mine && frame.header.type == FrameType::kError) return TakeError(frame);
        if (!TakeUnasked(frame)) return false;
    }
}

/// What no call waits for. False when it ends the connection.
bool Client::TakeUnasked(Frame& frame) {
    ClientEvent event{.number = frame.header.number};
    CommandStreamIn in(frame.payload.get());
    try {
        switch (frame.header.type) {
            case FrameType::kNotification:
            case FrameType::kQuestion: {
                const bool question = frame.header.type == FrameType::kQuestion;
                event.kind = question ? ClientEvent::Kind::kQuestion : ClientEvent::Kind::kNotification;
                in.fields(event.code);
                event.body = frame.payload.get().substr(sizeof event.code);
                break;
            }
            case FrameType::kQuestionClosed: {
                std::uint32_t reason = 0;
                in.fields(reason);
                const bool answered = reason == static_cast<std::uint32_t>(CloseReason::kAnsweredByAnother);
                event.kind = answered ? ClientEvent::Kind::kAnsweredByAnother : ClientEvent::Kind::kGivenUp;
                break;
            }
            case FrameType::kReply:
                return true;  // of a call that was given up
            case FrameType::kError:
                return frame.header.number != 0 || TakeError(frame);
            default:
                throw "CommandStreamError";
        }
    } catch (const char*) {
        return Lost(Kind::kMalformed, "the daemon sent a frame that cannot be");
    }
    events_.push_back(std::move(event));
    return true;
}

/// An error without a number ends the connection.
bool Client::TakeError(const Frame& frame) {
    std::uint32_t code = 0;
    std::string text;
    try {
        CommandStreamIn(frame.payload.get()).fields(code, text);
    } catch (const char*) {
        return Lost(Kind::kMalformed, "the daemon sent an error that cannot be");
    }
    const auto error = static_cast<Error>(code);
    if (frame.header.number != 0) return Fail(Kind::kServer, text, error);
    return Lost(error == Error::kRefused ? Kind::kNotAllowed : Kind::kDisconnected, "the daemon says: " + text, error);
}

}  // namespace bridge
