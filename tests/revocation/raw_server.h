// A TCP server on 127.0.0.1 whose every connection is handled by a function.
#pragma once

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/sockets.h"

namespace revocation_test {

class RawServer {
  public:
    /// `handle` gets one connection at a time, which is closed when it returns. It must return when the peer is gone.
    explicit RawServer(std::function<void(int socket)> handle)
        : handle_(std::move(handle)), listener_(test_support::BindLoopback()) {
        test_support::Listen(listener_.fd, 16);
        thread_ = std::thread([this] { Serve(); });
    }
    ~RawServer() {
        shutdown(listener_.fd, SHUT_RDWR);
        thread_.join();
        close(listener_.fd);
    }
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    std::string Uri(const std::string& scheme, const std::string& path) const {
        return test_support::LoopbackUri(scheme, listener_.port, path);
    }

  private:
    void Serve() {
        for (int socket = 0; (socket = accept(listener_.fd, nullptr, nullptr)) >= 0;) {
            handle_(socket);
            close(socket);
        }
    }

    const std::function<void(int socket)> handle_;
    const test_support::BoundSocket listener_;
    std::thread thread_;
};

}  // namespace revocation_test
