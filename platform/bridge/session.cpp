#include "platform/bridge/session.h"

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/read.hpp>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "platform/base/files.h"
#include "platform/bridge/listeners.h"
#include "platform/bridge/server.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"

namespace bridge {
namespace {

/// Payload is made room for as it comes, from this many bytes on: a header alone costs nothing.
constexpr std::size_t kFirstRoom = 64U << 10;
/// Commands of one client that wait; more are left in the socket. Bytes: of their input.
constexpr std::size_t kMaxQueuedCommands = 16;
constexpr std::size_t kMaxQueuedBytes = 1U << 20;
constexpr std::size_t kMaxNameBytes = 64;
/// While more waits to be sent to a client, nothing is read from it.
constexpr std::size_t kMaxUnsentBytes = 1U << 20;
/// What a frame that waits costs beside its bytes.
constexpr std::size_t kFrameCharge = 128;
constexpr std::size_t kReadAtOnce = 64U << 10;
/// A frame that has begun must end in that many times the stall limit, however it comes.
constexpr int kFrameStalls = 4;

std::string ErrorFrame(std::uint32_t number, Error code, const std::string& text) {
    return MakeFrameOf(FrameType::kError, number, static_cast<std::uint32_t>(code), text);
}

}  // namespace

Questions::SharedFrame ShareFrame(std::string frame) {
    return {new std::string(std::move(frame)), [](std::string* text) {
                vpnfc::SecureWipe(*text);
                delete text;
            }};
}

Session::Session(Server& server, Socket socket, std::uint64_t id, Peer peer)
    : server_(server),
      max_frame_bytes_(server.settings().max_frame_bytes),
      max_pending_bytes_(server.settings().max_pending_bytes),
      socket_(std::move(socket)),
      id_(id),
      peer_(peer) {}

std::string Session::Describe() const {
    return "session " + std::to_string(id_) + " (" + name_ + ", user " + std::to_string(peer_.user) + ", process " +
           std::to_string(peer_.process) + ")";
}

void Session::Start() {
    ReadHeader();
}

/// A step that throws, of no memory say, costs its own session alone.
template <typename Step>
void Session::Guard(Step step) {
    try {
        step();
    } catch (const std::exception& error) {
        Drop(error.what());
    }
}

// --- Reading ---

/// Asked before each read how much to read at most; the handler beside it keeps the session.
auto Session::NoteRead() {
    return [this](const std::error_code& error, std::size_t count) {
        if (count != 0) {
            last_read_ = Clock::now();
            if (!std::exchange(frame_begun_, true)) frame_begun_at_ = last_read_;
        }
        return error ? 0 : kReadAtOnce;
    };
}

void Session::ReadHeader() {
    frame_begun_ = false;
    reading_ = !closed_ && !finishing_ && !QueueIsFull() && pending_bytes_ <= kMaxUnsentBytes;
    if (!reading_) return;
    asio::async_read(socket_, asio::buffer(header_bytes_), NoteRead(),
                     [self = shared_from_this()](const std::error_code& error, std::size_t) {
                         if (error) return self->Drop({});
                         self->header_ = ParseHeader(self->header_bytes_);
                         self->payload_read_ = 0;
                         self->payload_ = {};
                         self->Guard([&] { self->ReadPayload(); });
                     });
}

void Session::ReadPayload() {
    if (closed_) return;
    if (header_.length > (greeted_ ? max_frame_bytes_ : kMaxHelloBytes)) {
        return Fail("a frame of " + std::to_string(header_.length) + " bytes is too long");
    }
    if (payload_read_ == header_.length) return OnFrame();
    if (!GrowPayload()) return Drop("there is no memory for its frame");
    std::string& payload = payload_.edit();
    asio::async_read(socket_, asio::buffer(payload.data() + payload_read_, payload.size() - payload_read_), NoteRead(),
                     [self = shared_from_this()](const std::error_code& error, std::size_t count) {
                         if (error) return self->Drop({});
                         self->payload_read_ += count;
                         self->Guard([&] { self->ReadPayload(); });
                     });
}

bool Session::GrowPayload() {
    const std::size_t room = std::min<std::size_t>(header_.length, std::max(kFirstRoom, 2 * payload_read_));
    try {
        vpnfc::Reserve(payload_, room);
    } catch (const std::bad_alloc&) {
        return false;
    }
    payload_.edit().resize(room);
    return true;
}

void Session::OnFrame() {
    if (finishing_) return;
    if (!greeted_ && header_.type != FrameType::kHello) return Fail("the first frame must be a hello");
    switch (header_.type) {
        case FrameType::kHello:
            OnHello();
            break;
        case FrameType::kCommand:
            OnCommand();
            break;
        case FrameType::kAnswer:
            OnAnswer();
            break;
        default:
            Fail("a client cannot send frames of type " + std::to_string(static_cast<int>(header_.type)));
    }
    ReadHeader();
}

void Session::OnHello() {
    if (greeted_) return Fail("a second hello");
    std::uint32_t version = 0;
    std::uint32_t flags = 0;
    std::string name;
    try {
        CommandStreamIn(payload_.get()).fields(version, flags, name);
    } catch (const char*) {
        return Fail("the hello is too short");
    }
    if (version != kProtocolVersion) {
        return Fail("version " + std::to_string(version) + " of the protocol is not spoken here, only " +
                    std::to_string(kProtocolVersion));
    }
    name_ = name.substr(0, kMaxNameBytes);
    greeted_ = true;
    answers_ = (flags & kHelloAnswers) != 0;
    if (answers_) server_.questions().ClientJoined();  // whoever is told to listeners, or has the hello, can be asked
    Queue({.kind = JobKind::kOpened});
    Send(ShareFrame(
        MakeFrameOf(FrameType::kHello, 0, kProtocolVersion, max_frame_bytes_, id_, server_.settings().program)));
    if (!answers_) return;
    for (const SharedFrame& question : server_.questions().Announced()) Send(question);
}

void Session::OnCommand() {
    if ((header_.number & kQuestionBit) != 0) return Fail("the number of a command has its highest bit set");
    Job job{.kind = JobKind::kCommand};
    job.command.number = header_.number;
    if (payload_.get().size() < kCommandPrefixBytes) {
        return SendError(header_.number, Error::kMalformed, "a command begins with its group and its number");
    }
    CommandStreamIn(payload_.get()).fields(job.command.group, job.command.command);
    job.command.input = std::move(payload_);
    job.command.input.edit().erase(0, kCommandPrefixBytes);
    ++queued_commands_;
    queued_bytes_ += job.command.input.get().size();
    Queue(std::move(job));
}

void Session::OnAnswer() {
    if (answers_ && server_.questions().Answer(header_.number, payload_.get())) {
        Send(ShareFrame(MakeFrame(FrameType::kReply, header_.number, {})));
        server_.CloseQuestion(header_.number, CloseReason::kAnsweredByAnother, this);
    } else {
        SendError(header_.number, Error::kStaleAnswer, "the question is not open any more");
    }
}

/// What the client sent cannot be: says so, and closes.
void Session::Fail(const std::string& text) {
    TLogMessage(kMsgBridgeClientDropped).Attr(Describe() + ": " + text).Send();
    FinishWith(Error::kProtocol, text);
}

// --- Writing ---

void Session::Send(SharedFrame frame) {
    if (closed_) return;
    pending_bytes_ += frame->size() + kFrameCharge;
    if (pending_bytes_ > max_pending_bytes_) return Drop("it does not take what is sent to it");
    Guard([&] {
        to_send_.push_back(std::move(frame));
        if (to_send_.size() > 1) return;
        last_progress_ = Clock::now();
        WriteNext();
    });
}

void Session::SendError(std::uint32_t number, Error code, const std::string& text) {
    Send(ShareFrame(ErrorFrame(number, code, text)));
}

void Session::WriteNext() {
    const std::string& frame = *to_send_.front();
    socket_.async_write_some(asio::buffer(frame.data() + sent_of_first_, frame.size() - sent_of_first_),
                             [self = shared_from_this()](const std::error_code& error, std::size_t count) {
                                 if (error) return self->Drop({});
                                 if (!self->closed_) self->Guard([&] { self->OnWritten(count); });
                             });
}

void Session::OnWritten(std::size_t count) {
    last_progress_ = Clock::now();
    sent_of_first_ += count;
    pending_bytes_ -= count;
    if (sent_of_first_ == to_send_.front()->size()) {
        sent_of_first_ = 0;
        pending_bytes_ -= kFrameCharge;
        to_send_.pop_front();
    }
    if (!to_send_.empty()) WriteNext();
    if (!reading_) ReadHeader();
    CloseWhenDone();
}

void Session::CheckStall(Clock::time_point now, std::chrono::milliseconds limit) {
    const bool waits = !to_send_.empty() || !greeted_;
    if (waits && now - last_progress_ >= limit) {
        return Drop(greeted_ ? "it does not take what is sent to it" : "it does not say hello");
    }
    if (!frame_begun_ || finishing_) return;
    if (now - last_read_ >= limit) return Drop("it does not go on with a frame it began");
    if (now - frame_begun_at_ >= kFrameStalls * limit) Drop("it does not end a frame it began");
}

// --- Closing ---

void Session::Finish() {
    if (closed_) return;
    if (!greeted_) return Drop({});
    FinishWith(Error::kStopping, "the server stops");
}

/// Takes nothing more; closes when the command that runs is answered and everything is sent.
void Session::FinishWith(Error code, const std::string& text) {
    finishing_ = true;
    DropQueue();
    SendError(0, code, text);
    CloseWhenDone();
}

void Session::CloseWhenDone() {
    if (finishing_ && queued_commands_ == 0 && to_send_.empty()) Drop({});
}

void Session::Drop(std::string_view why) noexcept {
    if (closed_) return;
    closed_ = true;
    LogDrop(why);
    std::error_code ignored;
    socket_.close(ignored);
    to_send_.clear();
    DropQueue();
    if (answers_) server_.questions().ClientLeft();
    server_.Disconnected(*this);
    if (greeted_) {
        CloseJobs();
    } else {
        server_.Settled(id_);
    }
}

void Session::LogDrop(std::string_view why) const noexcept {
    if (why.empty()) return;
    try {
        TLogMessage(kMsgBridgeClientDropped).Attr(Describe().append(": ").append(why)).Send();
    } catch (const std::exception&) {
        // The client goes all the same.
    }
}

// --- Commands ---

bool Session::QueueIsFull() const {
    return queued_commands_ >= kMaxQueuedCommands || queued_bytes_ > kMaxQueuedBytes;
}

/// Commands that have not begun.
void Session::DropQueue() {
    const std::lock_guard lock(jobs_mutex_);
    std::erase_if(jobs_, [this](const Job& job) {
        if (job.kind != JobKind::kCommand) return false;
        --queued_commands_;
        queued_bytes_ -= job.command.input.get().size();
        return true;
    });
}

void Session::Queue(Job job) {
    {
        const std::lock_guard lock(jobs_mutex_);
        jobs_.push_back(std::move(job));
    }
    StartJobs();
}

void Session::StartJobs() {
    {
        const std::lock_guard lock(jobs_mutex_);
        if (std::exchange(jobs_run_, true)) return;
    }
    try {
        server_.workers().Post([self = shared_from_this()] { self->RunJobs(); });
    } catch (const std::exception&) {
        const std::lock_guard lock(jobs_mutex_);
        jobs_run_ = false;
        throw;
    }
}

/// Tells the listeners when the command that runs is done. Without a worker it does so itself.
void Session::CloseJobs() noexcept {
    {
        const std::lock_guard lock(jobs_mutex_);
        close_pending_ = true;
    }
    try {
        StartJobs();
    } catch (const std::exception&) {
        RunJobs();
    }
}

void Session::RunJobs() {
    const auto self = shared_from_this();
    for (Job job; NextJob(job); job = Job()) {
        try {
            RunJob(job);
        } catch (const std::exception& error) {
            DropLater(error.what());
        }
    }
}

/// From a worker. A session whose jobs go wrong, of no memory say, ends.
void Session::DropLater(const char* why) noexcept {
    try {
        server_.Post([self = shared_from_this(), text = std::string(why)] { self->Drop(text); });
    } catch (const std::exception&) {
        // It is dropped when it stalls.
    }
}

bool Session::NextJob(Job& job) {
    const std::lock_guard lock(jobs_mutex_);
    jobs_run_ = !jobs_.empty() || close_pending_;
    if (!jobs_run_) return false;
    if (jobs_.empty()) {
        close_pending_ = false;
        job.kind = JobKind::kClosed;
    } else {
        job = std::move(jobs_.front());
        jobs_.pop_front();
    }
    return true;
}

void Session::RunJob(Job& job) {
    switch (job.kind) {
        case JobKind::kOpened:
            opened_ = true;
            Listeners::Instance().SessionOpened(*this);
            break;
        case JobKind::kCommand:
            server_.Post([self = shared_from_this(), answer = Execute(job.command),
                          bytes = job.command.input.get().size()] { self->OnCommandDone(answer, bytes); });
            break;
        case JobKind::kClosed:
            CloseListeners();
            server_.Settled(id_);
            break;
    }
}

/// Whatever fails, the session settles: a server that stops waits for it.
void Session::CloseListeners() noexcept {
    try {
        if (opened_) Listeners::Instance().SessionClosed(*this);
    } catch (const std::exception&) {
        // Of no memory: what the listeners keep for the session stays.
    }
}

/// The frame that answers the command. On a worker.
Session::SharedFrame Session::Execute(const Command& command) {
    const auto fail = [&](Error code, const std::string& text) {
        return ShareFrame(ErrorFrame(command.number, code, text));
    };
    const auto log = [&](const std::string& text) {
        TLogMessage(kMsgBridgeCommandFailed)
            .Attr(std::to_string(command.group) + "/" + std::to_string(command.command) + ": " + text)
            .Send();
    };
    try {
        vpnfc::SecretString output;
        switch (
            Listeners::Instance().Execute(*this, command.group, command.command, command.input.get(), output.edit())) {
            case ExecResult::kDone:
                break;
            case ExecResult::kUnknownGroup:
                return fail(Error::kUnknownGroup, "there is no command group " + std::to_string(command.group));
            case ExecResult::kUnknownCommand:
                return fail(Error::kUnknownCommand, "command group " + std::to_string(command.group) +
                                                        " has no command " + std::to_string(command.command));
        }
        if (output.get().size() > max_frame_bytes_) {
            return fail(Error::kReplyTooLarge, "the answer has " + std::to_string(output.get().size()) + " bytes");
        }
        return ShareFrame(MakeFrame(FrameType::kReply, command.number, output.get()));
    } catch (const char* text) {
        if (std::string_view(text) == "CommandStreamError") return fail(Error::kMalformed, text);
        log(text);
    } catch (const std::exception& error) {
        log(error.what());
    }
    return fail(Error::kFailed, "the command failed; the log says why");
}

void Session::OnCommandDone(const SharedFrame& answer, std::size_t input_bytes) {
    --queued_commands_;
    queued_bytes_ -= input_bytes;
    Send(answer);
    Guard([&] {
        if (!reading_) ReadHeader();
    });
    CloseWhenDone();
}

}  // namespace bridge
