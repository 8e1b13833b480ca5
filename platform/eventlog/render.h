// From a message to its text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/eventlog/catalogue.h"

namespace eventlog {

/// Bytes of one attribute that are shown: a report on a full certificate payload.
inline constexpr std::size_t kMaxAttributeBytes = 32U << 10;
/// Bytes of a whole text, after escaping: an entry stays readable whatever a peer sends.
inline constexpr std::size_t kMaxTextBytes = 64U << 10;

/// Text of a message. Attributes are made safe: a continuation (an unescaped backslash before a line feed) becomes an
/// indented line, a tab a blank; other control characters, what reorders text and bytes that are not UTF-8 are
/// shown as \n, \xNN or \u{NNNN}. Attributes that the wording does not mention follow at the end.
std::string RenderText(const Wording& wording, const std::vector<std::string>& attributes);

}  // namespace eventlog
