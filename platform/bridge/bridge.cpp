#include "platform/bridge.h"

#include <memory>
#include <mutex>

#include "platform/bridge/bridge_host.h"
#include "platform/bridge/server.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"

namespace bridge {
namespace {

struct Host {
    std::mutex mutex;
    std::shared_ptr<Server> server;  // guarded by mutex; null when none runs
};

/// Never destroyed: whoever notifies may do so late.
Host& TheHost() {
    static Host* const host = new Host;
    return *host;
}

std::shared_ptr<Server> Running() {
    const std::lock_guard lock(TheHost().mutex);
    return TheHost().server;
}

void Publish(std::shared_ptr<Server> server) {
    const std::lock_guard lock(TheHost().mutex);
    TheHost().server.swap(server);
}

std::string FindFault(const Settings& settings) {
    if (settings.max_frame_bytes < kMaxHelloBytes) return "max_frame_bytes is too small";
    if (settings.max_pending_bytes < std::uint64_t{settings.max_frame_bytes} + kRoomBesideFrame) {
        return "max_pending_bytes has no room for a frame of max_frame_bytes";
    }
    return settings.max_sessions == 0 ? "max_sessions is 0" : "";
}

}  // namespace

bool Start(const Settings& settings, std::string& error) {
    error = Running() != nullptr ? "the bridge runs already" : FindFault(settings);
    if (!error.empty()) return false;
    const auto server = std::make_shared<Server>(settings);
    Publish(server);  // first: clients come at once, and are told what happens from then on
    if (!server->Start(error)) {
        Stop();
        return false;
    }
    TLogMessage(kMsgBridgeReady).Attr(settings.socket_path).Send();
    return true;
}

bool Apply(const Settings& settings, std::string& error) {
    const std::shared_ptr<Server> server = Running();
    error = server == nullptr ? "the bridge does not run" : FindFault(settings);
    if (!error.empty()) return false;
    server->Apply(settings);
    return true;
}

void Stop() {
    std::shared_ptr<Server> server;
    {
        const std::lock_guard lock(TheHost().mutex);
        server.swap(TheHost().server);
    }
    if (server != nullptr) server->Stop();
}

std::size_t SessionCount() {
    const std::shared_ptr<Server> server = Running();
    return server == nullptr ? 0 : server->SessionCount();
}

namespace server {

void NotifyClients(std::uint32_t code, const std::string& body) {
    if (const auto server = Running()) server->Notify(code, body);
}

bool NotifyClientAndWaitResponse(std::uint32_t code, std::string& message, int timeout_ms) {
    const auto server = Running();
    return server != nullptr && server->Ask(code, message, timeout_ms);
}

}  // namespace server

}  // namespace bridge
