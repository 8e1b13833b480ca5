#include <platform/bridge.h>

#include <algorithm>

#include "reset.h"
#include "vendor_host.h"

namespace {

struct Bridge {
    std::mutex mutex;
    std::vector<vendor_host::Notification> notifications;
    std::vector<vendor_host::Notification> questions;
    vendor_host::Answer answer;
};

Bridge& State() {
    static Bridge& bridge = *new Bridge;  // lives as long as the process
    return bridge;
}

}  // namespace

namespace bridge::server {

void NotifyClients(std::uint32_t code, const std::string& body) {
    const std::lock_guard lock(State().mutex);
    State().notifications.push_back({code, body});
}

bool NotifyClientAndWaitResponse(std::uint32_t code, std::string& message, int timeout_ms) {
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
