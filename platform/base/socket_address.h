// Addresses of Unix-domain sockets.
#pragma once

#include <sys/un.h>

#include <cstring>
#include <string>

namespace vpnfc {

/// False, with the reason, when the path is empty or too long for one.
inline bool MakeSocketAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    address = {};
    address.sun_family = AF_UNIX;
    if (!path.empty() && path.size() < sizeof address.sun_path) {
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        return true;
    }
    error = path.empty()
                ? "no socket is named"
                : path + ": a socket's path has at most " + std::to_string(sizeof address.sun_path - 1) + " bytes";
    return false;
}

}  // namespace vpnfc
