// Management bridge: command streams, and on the server side notifications to the connected clients.
//
// A command stream is a flat sequence of fields, without names or tags. Numbers are little-endian; 64-bit numbers and
// times take 8 bytes, 32-bit numbers and algorithm codes 4, a bool 1 (only the byte 1 reads as true); a string is its
// byte count (32 bits) and the bytes.
#pragma once

#include <climits>
#include <concepts>
#include <cstddef>
#include <cstdint>
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
    void write(const std::string& text) {
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

namespace bridge::server {

/// Sends a notification to every connected client; returns at once. Does nothing when none is connected.
PLATFORM_API void NotifyClients(std::uint32_t code, const std::string& body);

/// Asks the connected clients and waits for the first answer. `message` holds the question and, on success, the
/// answer. `timeout_ms` below 0 waits without limit. False when no client could be asked, when the last one went
/// before it answered, or when the time ran out (`message` unchanged).
PLATFORM_API bool NotifyClientAndWaitResponse(std::uint32_t code, std::string& message, int timeout_ms);

}  // namespace bridge::server
