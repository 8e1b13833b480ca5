#include "platform/eventlog.h"

#include <spdlog/fmt/fmt.h>

#include "platform/eventlog/catalogue.h"
#include "platform/eventlog/deliver.h"
#include "platform/eventlog/render.h"

using eventlog::Severity;

void TLogIdent::toStr(std::string& appended) const {
    if (kind != kConnection && kind != kExchange) return;
    appended += fmt::format("{:016x}", id);
    if (kind != kExchange) return;
    appended += fmt::format(".{:08x}", sub_id);
    if (role == kInitiator) appended += ",I";
    if (role == kResponder) appended += ",R";
}

bool TLogMessage::IsEnabled(std::uint16_t code) noexcept {
    return eventlog::LowestSeverity(eventlog::FindWording(code)) >= eventlog::Level();
}

void TLogMessage::Send() const {
    const eventlog::Wording& wording = eventlog::FindWording(code_);
    const bool success =
        !wording.success.empty() && !attributes_.empty() && attributes_[0].starts_with(wording.success);
    eventlog::Record record;
    record.severity = success ? Severity::kInfo : wording.severity;
    if (record.severity < eventlog::Level()) return;
    record.code = code_;
    ident_.toStr(record.ident);
    record.text = eventlog::RenderText(wording, attributes_);
    eventlog::Deliver(record);
}
