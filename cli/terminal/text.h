// Texts as a terminal shows them. Text is UTF-8; what tokens, certificates and files say is escaped before it is shown.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/text.h"

namespace certmgrctl {

/// Control and formatting characters, those that turn the direction of writing included, and bytes that are not UTF-8 as
/// a backslash and two digits each: a terminal obeys none of them.
std::string Escaped(std::string_view text);

/// Columns that an escaped text takes.
std::size_t Width(std::string_view text);

/// The text in at most that many columns; what does not fit ends in an ellipsis.
std::string Cut(const std::string& text, std::size_t columns);

/// Blanks appended up to that many columns.
std::string Padded(std::string text, std::size_t columns);

/// The lines of a text, each broken at blanks to at most that many columns; 0: not broken.
std::vector<std::string> Lines(const std::string& text, std::size_t columns = 0);

/// For comparison without regard to case.
std::string Folded(std::string_view text);

/// A text that is not the program's own, in quotes.
std::string Quoted(std::string_view text);

/// Bytes for JSON (RFC 4648, section 4).
std::string Base64(std::string_view bytes);

using vpnfc::Counted;

}  // namespace certmgrctl
