#include "platform/bridge_socket.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace bridge {
namespace {

constexpr const char* kSystemSocket = "/run/certmgr/certmgr.sock";

/// The value of a variable that holds an absolute path; else empty.
std::string PathFrom(const char* variable) {
    const char* const value = secure_getenv(variable);
    return value != nullptr && value[0] == '/' ? value : "";
}

}  // namespace

std::string DefaultSocketPath() {
    if (geteuid() == 0) return kSystemSocket;
    std::string folder = PathFrom("XDG_RUNTIME_DIR");
    if (folder.empty()) folder = PathFrom("XDG_STATE_HOME");
    if (folder.empty() && !PathFrom("HOME").empty()) folder = PathFrom("HOME") + "/.local/state";
    return folder.empty() ? folder : folder + "/certmgr/certmgr.sock";
}

std::string DefaultClientSocketPath() {
    const std::string own = DefaultSocketPath();
    std::error_code ignored;
    return !own.empty() && std::filesystem::exists(own, ignored) ? own : kSystemSocket;
}

}  // namespace bridge
