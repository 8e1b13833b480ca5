// Event log: numbered messages with text attributes, written under an identity.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/api.h"

/// The identity (connection, rule) under which a log line is written.
struct PLATFORM_API TLogIdent {
    enum Kind : std::uint8_t { kNone = 0, kConnection = 1, kExchange = 2 };
    enum Role : std::uint8_t { kNoRole = 0, kInitiator = 1, kResponder = 2 };

    std::uint64_t id = 0;
    std::uint32_t sub_id = 0;
    std::uint8_t kind = kNone;
    std::uint8_t role = kNoRole;

    /// Appends the text of the identity. Kind 1: `id` in hexadecimal (most significant byte first, 16 digits).
    /// Kind 2: `id`, ".", `sub_id` (8 digits), then ",I" for role 1 or ",R" for role 2. Any other kind: nothing.
    void toStr(std::string& appended) const;
};

/// One event-log message: a code, which selects the wording and the severity in the message catalogue, and text
/// attributes that the wording refers to by position. Not shared between threads.
///
///     TLogMessage(kMsgPeerCertSelected, ident).Attr(rendering).Send();
class PLATFORM_API TLogMessage {
  public:
    explicit TLogMessage(std::uint16_t code) : code_(code) {}
    TLogMessage(std::uint16_t code, const TLogIdent& ident) : code_(code), ident_(ident) {}

    TLogMessage& Attr(std::string_view text) & {
        attributes_.emplace_back(text);
        return *this;
    }
    TLogMessage&& Attr(std::string_view text) && { return std::move(this->Attr(text)); }

    /// Whether a message of that code would be written now. Lets callers skip costly renderings.
    static bool IsEnabled(std::uint16_t code) noexcept;

    /// Writes the message. Never blocks on I/O longer than the sink's own buffering.
    void Send() const;

    std::uint16_t code() const { return code_; }
    const TLogIdent& ident() const { return ident_; }
    const std::vector<std::string>& attributes() const { return attributes_; }

  private:
    std::uint16_t code_;
    TLogIdent ident_{};
    std::vector<std::string> attributes_;
};
