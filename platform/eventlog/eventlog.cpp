#include "platform/eventlog.h"

#include <cinttypes>
#include <cstdio>

void TLogIdent::toStr(std::string& appended) const {
    char text[32];
    if (kind != kConnection && kind != kExchange) return;
    std::snprintf(text, sizeof text, "%016" PRIx64, id);
    appended += text;
    if (kind != kExchange) return;
    std::snprintf(text, sizeof text, ".%08" PRIx32, sub_id);
    appended += text;
    if (role == kInitiator) appended += ",I";
    if (role == kResponder) appended += ",R";
}

bool TLogMessage::IsEnabled(std::uint16_t /*code*/) noexcept {
    return true;
}

void TLogMessage::Send() const {
    std::string line;
    ident_.toStr(line);
    for (const std::string& attribute : attributes_) line += " " + attribute;
    std::fprintf(stderr, "%u %s\n", code_, line.c_str());
}
