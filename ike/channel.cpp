#include "ike/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "platform/bridge.h"

namespace ikeauth {

bool Channel::Wait(short events) const {
    pollfd entry{descriptor_.get(), events, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, static_cast<int>(time_limit_.count()));
    } while (ready < 0 && errno == EINTR);
    return ready == 1;
}

bool Channel::Send(const std::string& message) {
    std::string frame;
    CommandStreamOut(frame).fields(message);
    std::size_t sent = 0;
    while (sent < frame.size()) {
        if (!Wait(POLLOUT)) return false;
        const ssize_t n = send(descriptor_.get(), frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR) return false;
        if (n > 0) sent += static_cast<std::size_t>(n);
    }
    return true;
}

bool Channel::ReadExactly(char* data, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        if (!Wait(POLLIN)) return false;
        const ssize_t n = recv(descriptor_.get(), data + got, size - got, 0);
        if (n == 0 || (n < 0 && errno != EINTR)) return false;
        if (n > 0) got += static_cast<std::size_t>(n);
    }
    return true;
}

bool Channel::Receive(std::string& message) {
    std::string head(sizeof(std::uint32_t), '\0');
    if (!ReadExactly(head.data(), head.size())) return false;
    std::uint32_t size = 0;
    CommandStreamIn(head).fields(size);
    if (size > kMaxMessageBytes) return false;
    message.resize(size);
    return ReadExactly(message.data(), message.size());
}

}  // namespace ikeauth
