// TCP sockets of 127.0.0.1 for the tests' servers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace test_support {

/// A TCP port of 127.0.0.1 that nobody else is given while this lives: connections are refused until this listens, or a
/// program that binds it as well, with SO_REUSEADDR.
class ReservedPort {
  public:
    /// Throws std::system_error, as Listen does.
    ReservedPort();
    ~ReservedPort();
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    void Listen() const;
    int socket() const { return socket_; }
    /// "127.0.0.1:port".
    std::string Address() const { return "127.0.0.1:" + std::to_string(number_); }
    /// "scheme://127.0.0.1:port/path".
    std::string Uri(const std::string& scheme, const std::string& path) const {
        return scheme + "://" + Address() + path;
    }

  private:
    int socket_;
    std::uint16_t number_ = 0;
};

/// False when the other side has hung up.
bool SendAll(int fd, std::string_view bytes);
/// Appends what has come; false when the other side, or this one's shutdown(2), has ended it.
bool Receive(int fd, std::string& text);

}  // namespace test_support
