// The event log, the parameter server and the bridge.
#include <algorithm>
#include <iomanip>
#include <sstream>

#include "vendor_host.h"

namespace {

struct State {
    std::vector<vendor_host::LogRecord> records;
    std::set<std::uint16_t> disabled;
    std::vector<vendor_host::Notification> notifications;
    std::vector<vendor_host::Notification> questions;
    vendor_host::Answer answer;
    std::map<std::uint32_t, CommandListener*> listeners;
};

vendor_host::Guarded<State>& Host() {
    static auto& host = *new vendor_host::Guarded<State>;  // lives as long as the process
    return host;
}

/// Assignment leaves the block's mutex alone.
template <typename Block>
void BackToDefaults(Block& block) {
    const vpnfc::ObjectLock lock(block);
    block = Block();
}

}  // namespace

// Left in place when the process ends: it is read while static objects are being destroyed.
LPARAMS::Server& LPARAMS::server = *new LPARAMS::Server;

void TLogIdent::toStr(std::string& appended) const {
    if (kind != kConnection && kind != kExchange) return;
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setfill('0') << std::setw(16) << id;
    if (kind == kExchange) text << '.' << std::setw(8) << sub_id;
    if (kind == kExchange && role != kNoRole) text << (role == kInitiator ? ",I" : ",R");
    appended += text.str();
}

bool TLogMessage::IsEnabled(std::uint16_t code) noexcept {
    return !Host()->disabled.contains(code);
}

void TLogMessage::Send() const {
    if (!IsEnabled(code_)) return;
    vendor_host::LogRecord record{code_, {}, attributes_};
    ident_.toStr(record.ident);
    Host()->records.push_back(std::move(record));
}

// Weak: a test may bring a bridge of its own.
#define OWN_BRIDGE_WINS __attribute__((weak))

OWN_BRIDGE_WINS bool AddCommandListener(CommandListener* listener) {
    return Host()->listeners.emplace(listener->group(), listener).second;
}

OWN_BRIDGE_WINS void DelCommandListener(CommandListener* listener) {
    const auto host = Host().Lock();
    std::erase_if(host->listeners, [listener](const auto& entry) { return entry.second == listener; });
}

OWN_BRIDGE_WINS void bridge::server::NotifyClients(std::uint32_t code, const std::string& body) {
    Host()->notifications.push_back({code, body});
}

OWN_BRIDGE_WINS bool bridge::server::NotifyClientAndWaitResponse(std::uint32_t code, std::string& message,
                                                                 int timeout_ms) {
    Host()->questions.push_back({code, message});
    const vendor_host::Answer answer = Host()->answer;
    const std::optional<std::string> text = answer ? answer(code, message, timeout_ms) : std::nullopt;
    if (text) message = *text;
    return text.has_value();
}

namespace vendor_host {

void Reset() {
    ResetEvents();
    ResetTokens();
    BackToDefaults(LPARAMS::server.cert);
    BackToDefaults(LPARAMS::server.log);
    const auto host = Host().Lock();
    auto listeners = std::move(host->listeners);
    *host = {};
    host->listeners = std::move(listeners);
}

std::string LogRecord::Text() const {
    std::string text;
    for (const std::string& attribute : attributes) text += (text.empty() ? "" : " ") + attribute;
    return text;
}

std::vector<LogRecord> Messages() {
    return Host()->records;
}

std::vector<LogRecord> FindMessages(std::uint16_t code) {
    std::vector<LogRecord> found = Messages();
    std::erase_if(found, [code](const LogRecord& record) { return record.code != code; });
    return found;
}

std::string AllText() {
    std::string text;
    for (const LogRecord& record : Messages()) {
        text += std::to_string(record.code) + " [" + record.ident + "] " + record.Text() + "\n";
    }
    return text;
}

bool Logged(const std::string& text, std::uint16_t code) {
    return std::ranges::any_of(FindMessages(code),
                               [&](const LogRecord& record) { return record.Text().find(text) != std::string::npos; });
}

void ClearMessages() {
    Host()->records.clear();
}
void DisableMessage(std::uint16_t code) {
    Host()->disabled.insert(code);
}

std::vector<Notification> Notifications() {
    return Host()->notifications;
}
std::vector<Notification> Questions() {
    return Host()->questions;
}
void SetAnswer(Answer answer) {
    Host()->answer = std::move(answer);
}

CommandListener* Listener(std::uint32_t group) {
    const auto host = Host().Lock();
    const auto found = host->listeners.find(group);
    return found == host->listeners.end() ? nullptr : found->second;
}

}  // namespace vendor_host
