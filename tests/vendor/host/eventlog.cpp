#include <platform/asn1.h>
#include <platform/eventlog.h>

#include <algorithm>
#include <cstddef>

#include "reset.h"
#include "vendor_host.h"

namespace {

template <typename T>
std::string BigEndian(T number) {
    std::string bytes;
    for (int shift = static_cast<int>(sizeof number) * 8 - 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(number >> shift);
    }
    return bytes;
}

struct EventLog {
    std::mutex mutex;
    std::vector<vendor_host::LogRecord> records;
    std::set<std::uint16_t> disabled;
};

EventLog& Log() {
    static EventLog& log = *new EventLog;  // lives as long as the process
    return log;
}

}  // namespace

void TLogIdent::toStr(std::string& appended) const {
    if (kind != kConnection && kind != kExchange) return;
    appended += TO_HEX_STD_STRING(BigEndian(id));
    if (kind != kExchange) return;
    appended += "." + TO_HEX_STD_STRING(BigEndian(sub_id));
    if (role == kInitiator) appended += ",I";
    if (role == kResponder) appended += ",R";
}

bool TLogMessage::IsEnabled(std::uint16_t code) noexcept {
    EventLog& log = Log();
    const std::lock_guard lock(log.mutex);
    return log.disabled.count(code) == 0;
}

void TLogMessage::Send() const {
    if (!IsEnabled(code_)) return;
    vendor_host::LogRecord record{code_, {}, attributes_};
    ident_.toStr(record.ident);
    EventLog& log = Log();
    const std::lock_guard lock(log.mutex);
    log.records.push_back(std::move(record));
}

namespace vendor_host {

std::string LogRecord::Text() const {
    std::string text;
    for (const std::string& attribute : attributes) text += (text.empty() ? "" : " ") + attribute;
    return text;
}

std::vector<LogRecord> Messages() {
    const std::lock_guard lock(Log().mutex);
    return Log().records;
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
    const std::vector<LogRecord> records = Messages();
    return std::any_of(records.begin(), records.end(), [&](const LogRecord& record) {
        return (code == 0 || record.code == code) && record.Text().find(text) != std::string::npos;
    });
}

void ClearMessages() {
    const std::lock_guard lock(Log().mutex);
    Log().records.clear();
}

void SetMessageEnabled(std::uint16_t code, bool enabled) {
    const std::lock_guard lock(Log().mutex);
    if (enabled) {
        Log().disabled.erase(code);
    } else {
        Log().disabled.insert(code);
    }
}

void ResetEventLog() {
    const std::lock_guard lock(Log().mutex);
    Log().records.clear();
    Log().disabled.clear();
}

}  // namespace vendor_host
