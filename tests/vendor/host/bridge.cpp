#include <platform/bridge.h>

#include <algorithm>
#include <map>

#include "reset.h"
#include "vendor_host.h"

namespace {

struct Bridge {
    std::mutex mutex;
    std::vector<vendor_host::Notification> notifications;
    std::vector<vendor_host::Notification> questions;
    vendor_host::Answer answer;
    std::map<std::uint32_t, CommandListener*> listeners;
};

Bridge& State() {
    static Bridge& bridge = *new Bridge;  // lives as long as the process
    return bridge;
}

}  // namespace

// Weak: a test may bring a bridge of its own.
#define OWN_BRIDGE_WINS __attribute__((weak))

OWN_BRIDGE_WINS bool AddCommandListener(CommandListener* listener) {
    const std::lock_guard lock(State().mutex);
    return State().listeners.emplace(listener->group(), listener).second;
}

OWN_BRIDGE_WINS void DelCommandListener(CommandListener* listener) {
    const std::lock_guard lock(State().mutex);
    std::erase_if(State().listeners, [listener](const auto& entry) { return entry.second == listener; });
}

namespace bridge::server {

OWN_BRIDGE_WINS void NotifyClients(std::uint32_t code, const std::string& body) {
    const std::lock_guard lock(State().mutex);
    State().notifications.push_back({code, body});
}

OWN_BRIDGE_WINS bool NotifyClientAndWaitResponse(std::uint32_t code, std::string& message, int timeout_ms) {
    vendor_host::Answer answer;
    {
        const std::lock_guard lock(State().mutex);
        State().questions.push_back({code, message});
        answer = State().answer;
    }
    if (!answer) return false;
    std::optional<std::string> text = answer(code, message, timeout_ms);
    if (!text) return false;
    message = std::move(*text);
    return true;
}

}  // namespace bridge::server

namespace vendor_host {

std::vector<Notification> Notifications() {
    const std::lock_guard lock(State().mutex);
    return State().notifications;
}

CommandListener* Listener(std::uint32_t group) {
    const std::lock_guard lock(State().mutex);
    const auto found = State().listeners.find(group);
    return found == State().listeners.end() ? nullptr : found->second;
}

std::size_t NotificationCount(std::uint32_t code) {
    const std::vector<Notification> all = Notifications();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [code](const Notification& one) { return one.code == code; }));
}

std::vector<Notification> Questions() {
    const std::lock_guard lock(State().mutex);
    return State().questions;
}

void SetAnswer(Answer answer) {
    const std::lock_guard lock(State().mutex);
    State().answer = std::move(answer);
}

void ResetBridge() {
    const std::lock_guard lock(State().mutex);
    State().notifications.clear();
    State().questions.clear();
    State().answer = nullptr;
}

}  // namespace vendor_host
