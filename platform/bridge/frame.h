// Frames: what server and client send each other. docs/bridge.md describes the protocol.
//
// A frame is a header of nine bytes (length of the payload, type, number) and the payload. Numbers are little-endian, as
// everywhere on the bridge.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/bridge.h"

namespace bridge {

enum class FrameType : std::uint8_t {
    kHello = 1,  // both ways, first
    kCommand = 2,  // client: group, command, input
    kReply = 3,  // server: output of a command; nothing for an answer that was taken
    kError = 4,  // server: code, text
    kNotification = 5,  // server: code, body
    kQuestion = 6,  // server: code, body
    kAnswer = 7,  // client: the answer
    kQuestionClosed = 8,  // server: why
};

inline constexpr std::uint32_t kProtocolVersion = 1;
inline constexpr std::size_t kHeaderBytes = 9;
/// Group and command in front of a command's input.
inline constexpr std::size_t kCommandPrefixBytes = 8;
/// Largest payload before the hello.
inline constexpr std::uint32_t kMaxHelloBytes = 4096;
/// Set in the numbers of questions, clear in those of commands.
inline constexpr std::uint32_t kQuestionBit = 0x80000000;
/// Flag of the client's hello: it answers questions.
inline constexpr std::uint32_t kHelloAnswers = 1;

struct FrameHeader {
    std::uint32_t length = 0;
    FrameType type = FrameType::kHello;
    std::uint32_t number = 0;
};

using HeaderBytes = std::array<char, kHeaderBytes>;

inline FrameHeader ParseHeader(const HeaderBytes& bytes) {
    CommandStreamIn in(std::string_view(bytes.data(), bytes.size()));
    FrameHeader header;
    in.fields(header.length);
    header.type = static_cast<FrameType>(bytes[sizeof header.length]);
    CommandStreamIn tail(std::string_view(bytes.data() + sizeof header.length + 1, sizeof header.number));
    tail.fields(header.number);
    return header;
}

/// The header of a frame whose payload has `length` bytes, with room for them behind it.
inline std::string BeginFrame(FrameType type, std::uint32_t number, std::size_t length) {
    std::string frame;
    frame.reserve(kHeaderBytes + length);
    CommandStreamOut out(frame);
    out.fields(static_cast<std::uint32_t>(length));
    frame.push_back(static_cast<char>(type));
    out.fields(number);
    return frame;
}

inline std::string MakeFrame(FrameType type, std::uint32_t number, std::string_view payload) {
    return BeginFrame(type, number, payload.size()).append(payload);
}

/// A frame whose payload is fields, without an intermediate copy for the last one to see.
template <typename... Fields>
std::string MakeFrameOf(FrameType type, std::uint32_t number, const Fields&... fields) {
    std::string payload;
    CommandStreamOut(payload).fields(fields...);
    return MakeFrame(type, number, payload);
}

/// A code and a body: commands have two codes.
template <typename... Codes>
std::string MakeCodedFrame(FrameType type, std::uint32_t number, std::string_view body, Codes... codes) {
    std::string frame = BeginFrame(type, number, sizeof...(codes) * sizeof(std::uint32_t) + body.size());
    CommandStreamOut(frame).fields(static_cast<std::uint32_t>(codes)...);
    return frame.append(body);
}

}  // namespace bridge
