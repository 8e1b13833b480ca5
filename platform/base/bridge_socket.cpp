#include "platform/bridge_socket.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "platform/base/files.h"

namespace bridge {
namespace {

constexpr const char* kSystemSocket = "/run/certmgr/certmgr.sock";

}  // namespace

std::string DefaultSocketPath() {
    if (geteuid() == 0) return kSystemSocket;
    const std::string runtime = vpnfc::PathFromEnvironment("XDG_RUNTIME_DIR");
    const std::string folder = runtime.empty() ? vpnfc::StateFolder() : runtime + "/certmgr";
    return folder.empty() ? folder : folder + "/certmgr.sock";
}

std::string DefaultClientSocketPath() {
    const std::string own = DefaultSocketPath();
    std::error_code ignored;
    return !own.empty() && std::filesystem::exists(own, ignored) ? own : kSystemSocket;
}

}  // namespace bridge
