// Framed messages over a connected stream socket, with a limit on size and on waiting.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "platform/base/descriptor.h"

namespace ikeauth {

/// Largest message: a thousand certificates of 4 KiB.
inline constexpr std::size_t kMaxMessageBytes = 4U << 20;

/// One end of the exchange. Owns the descriptor. Used by one thread.
class Channel {
  public:
    explicit Channel(int descriptor, std::chrono::milliseconds time_limit = std::chrono::seconds(30))
        : descriptor_(descriptor), time_limit_(time_limit) {}

    /// Sends one message: its length (32 bits, little-endian) and its bytes.
    bool Send(const std::string& message);
    /// Receives one message. False when the peer has gone, sends too much or nothing within the limit.
    bool Receive(std::string& message);

  private:
    bool Wait(short events) const;
    bool ReadExactly(char* data, std::size_t size);

    vpnfc::Descriptor descriptor_;
    std::chrono::milliseconds time_limit_;
};

}  // namespace ikeauth
