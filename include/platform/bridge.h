// Management bridge: command streams, the commands that the libraries of the daemon offer to clients, and notifications
// and questions to the clients that are connected.
//
// A command stream is a flat sequence of fields, without names or tags. Numbers are little-endian; 64-bit numbers and
// times take 8 bytes, 32-bit numbers and algorithm codes 4, a bool 1 (only the byte 1 reads as true); a string is its
// byte count (32 bits) and the bytes.
#pragma once

#include <climits>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "platform/api.h"

/// Integers that a command stream carries.
template <typename T>
concept CommandStreamNumber = std::same_as<T, std::uint32_t> || std::same_as<T, std::uint64_t>;

/// Writer: appends to a byte string of the caller's.
class CommandStreamOut {
  public:
    explicit CommandStreamOut(std::string& bytes) : bytes_(bytes) {}

    /// Writes the fields one after another.
    template <typename... Fields>
    void fields(const Fields&... values) {
        (write(values), ...);
    }

    /// Makes room for that many bytes, so that what is secret is not copied while the byte string grows.
    void reserve(std::size_t bytes) { bytes_.reserve(bytes_.size() + bytes); }

  private:
    template <CommandStreamNumber T>
    void write(T value) {
        for (std::size_t i = 0; i < sizeof value; ++i) {
            bytes_.push_back(static_cast<char>(value >> (i * CHAR_BIT) & 0xFF));
        }
    }
    template <std::same_as<bool> T>
    void write(T value) {
        bytes_.push_back(value ? '\1' : '\0');
    }
    void write(std::string_view text) {
        write(static_cast<std::uint32_t>(text.size()));
        bytes_.append(text);
    }

    std::string& bytes_;
};

/// Reader of bytes that the caller keeps alive. A read past the end throws the C string "CommandStreamError"; fields
/// read before it keep their new values, and every later read throws as well.
class CommandStreamIn {
  public:
    explicit CommandStreamIn(std::string_view bytes) : bytes_(bytes) {}

    /// Reads the fields one after another.
    template <typename... Fields>
    void fields(Fields&... values) {
        (read(values), ...);
    }

    /// Whether nothing is left.
    bool at_end() const { return position_ >= bytes_.size(); }

  private:
    std::string_view take(std::size_t count) {
        const std::size_t start = position_;
        position_ += count;
        if (position_ > bytes_.size()) throw "CommandStreamError";
        return bytes_.substr(start, count);
    }
    template <CommandStreamNumber T>
    void read(T& value) {
        T number = 0;
        const std::string_view raw = take(sizeof number);
        for (std::size_t i = 0; i < raw.size(); ++i) {
            number |= static_cast<T>(static_cast<unsigned char>(raw[i])) << (i * CHAR_BIT);
        }
        value = number;
    }
    template <std::same_as<bool> T>
    void read(T& value) {
        value = take(1).front() == '\1';
    }
    void read(std::string& text) {
        std::uint32_t count = 0;
        read(count);
        text = take(count);
    }

    std::string_view bytes_;
    std::size_t position_ = 0;  // past the end after a failure; counts of 32 bits cannot make it wrap
};

/// A connected client. Lives from OnOpenSession until OnCloseSession has returned.
class PLATFORM_API BridgeSession {
  public:
    virtual ~BridgeSession() = default;
    /// Unique as long as the server runs.
    virtual std::uint64_t Id() const = 0;
    /// User number of the client's process, as the kernel tells it.
    virtual std::uint32_t User() const = 0;

  protected:
    BridgeSession() = default;
    BridgeSession(const BridgeSession&) = default;
    BridgeSession& operator=(const BridgeSession&) = default;
};

/// Serves the commands of one group. The functions are called from threads of the bridge: those of one session one after
/// another in the order in which things happened, those of several sessions at the same time.
class PLATFORM_API CommandListener {
  public:
    virtual ~CommandListener() = default;
    CommandListener(const CommandListener&) = delete;
    CommandListener& operator=(const CommandListener&) = delete;

    /// Carries out a command. `input` is wiped after the call, `output` (empty at first) after it was sent. False for an
    /// unknown number. An exception becomes an error of this command alone, and `output` is dropped: the text
    /// "CommandStreamError" tells the client that its input is malformed.
    virtual bool ExecCommand(BridgeSession& session, long number, const std::string& input, std::string& output) = 0;

    virtual void OnOpenSession(BridgeSession* /*session*/) {}
    virtual void OnCloseSession(BridgeSession* /*session*/) {}
    virtual void OnOpenFirstSession() {}  // before its OnOpenSession
    virtual void OnCloseLastSession() {}  // after its OnCloseSession
    virtual void OnCloseLastSessionWithUser(BridgeSession* /*session*/) {}  // that user has no other; likewise

    std::uint32_t group() const { return group_; }

  protected:
    explicit CommandListener(std::uint32_t group) : group_(group) {}

  private:
    std::uint32_t group_;
};

/// Routes the commands of the listener's group to it, and tells it of sessions that open from now on and of all that
/// close. The listener is borrowed. False when the group is taken.
PLATFORM_API bool AddCommandListener(CommandListener* listener);

/// Ends that; waits for what the listener is doing, so not to be called by itself. No call is made to it afterwards.
/// Harmless for one that was not added.
PLATFORM_API void DelCommandListener(CommandListener* listener);

/// What a listener keeps for each session: for pointers an ordered map that owns what they point at. Not locked.
template <typename Cookie>
class BridgeSessionCookies;

template <typename T>
class BridgeSessionCookies<T*> {
  public:
    /// Replaces, and destroys, what the session had.
    void Set(const BridgeSession* session, std::unique_ptr<T> cookie) { cookies_[session] = std::move(cookie); }
    /// Null when the session has nothing.
    T* Find(const BridgeSession* session) const {
        const auto found = cookies_.find(session);
        return found == cookies_.end() ? nullptr : found->second.get();
    }
    void Erase(const BridgeSession* session) { cookies_.erase(session); }

  private:
    std::map<const BridgeSession*, std::unique_ptr<T>> cookies_;
};

namespace bridge {

/// Groups of commands.
inline constexpr std::uint32_t kGroupCertificates = 8;
inline constexpr std::uint32_t kGroupTokens = 9;

/// Codes of notifications and questions.
inline constexpr std::uint32_t kQuestionSelectCertificate = 6;
inline constexpr std::uint32_t kNotifyCertListChanged = 9;
inline constexpr std::uint32_t kNotifyTokensChanged = 10;

/// Why a client's frame was not answered as it wished. docs/bridge.md describes them.
enum class Error : std::uint32_t {
    kMalformed = 1,  // the input of a command is too short for its fields
    kUnknownGroup = 2,
    kUnknownCommand = 3,
    kStaleAnswer = 4,  // no open question of this client has that number
    kFailed = 5,  // the command failed inside; the log of the daemon says why
    kReplyTooLarge = 6,  // the answer of a command does not fit into a frame
    kProtocol = 7,  // a frame that cannot be; the session is closed
    kRefused = 8,  // this user may not connect, or there are too many sessions; the session is closed
    kStopping = 9,  // the server stops
};

}  // namespace bridge

namespace bridge::server {

/// Sends a notification to every connected client; returns at once. Does nothing when none is connected.
PLATFORM_API void NotifyClients(std::uint32_t code, const std::string& body);

/// Asks the connected clients that answer questions, and those that connect meanwhile, and waits for the first answer;
/// the others are told that it was given. `message` holds the question and, on success, the answer. `timeout_ms` below 0
/// waits without limit. False when no client could be asked, when the last one went before it answered, when the time
/// ran out or the bridge stopped (`message` unchanged).
PLATFORM_API bool NotifyClientAndWaitResponse(std::uint32_t code, std::string& message, int timeout_ms);

}  // namespace bridge::server
