#include "cli/terminal/text.h"

#include <wchar.h>

#include <algorithm>
#include <utility>

#include "platform/asn1.h"
#include "platform/asn1/text.h"

namespace certmgrctl {
namespace {

std::size_t WidthOf(char32_t code_point) {
    const int width = wcwidth(static_cast<wchar_t>(code_point));
    return width < 0 ? 1 : static_cast<std::size_t>(width);
}

/// Where the text that fits into the columns ends.
std::size_t EndOfFit(std::string_view text, std::size_t columns) {
    std::size_t at = 0;
    std::size_t used = 0;
    while (at < text.size()) {
        std::size_t next = at;
        used += WidthOf(asn1::DecodeUtf8(text, next));
        if (used > columns) break;
        at = next;
    }
    return at;
}

void AppendBroken(std::vector<std::string>& lines, std::string_view line, std::size_t columns) {
    while (columns != 0 && Width(line) > columns) {
        const std::size_t fit = std::max<std::size_t>(EndOfFit(line, columns), 1);
        const std::size_t blank = line.substr(0, fit + 1).rfind(' ');
        const bool at_blank = blank != std::string_view::npos && blank > 0;
        const std::size_t end = at_blank ? blank : fit;
        lines.emplace_back(line.substr(0, end));
        line.remove_prefix(at_blank ? end + 1 : end);
    }
    lines.emplace_back(line);
}

}  // namespace

std::string Escaped(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t start = at;
        const char32_t code_point = asn1::DecodeUtf8(text, at);
        if (code_point == asn1::kBadCodePoint) at = start + 1;
        const std::string_view bytes = text.substr(start, at - start);
        if (code_point != asn1::kBadCodePoint && !asn1::IsHidden(code_point)) {
            escaped.append(bytes);
        } else {
            for (const char byte : bytes) escaped.append("\\").append(TO_HEX_STD_STRING({&byte, 1}));
        }
    }
    return escaped;
}

std::size_t Width(std::string_view text) {
    std::size_t columns = 0;
    for (std::size_t at = 0; at < text.size();) columns += WidthOf(asn1::DecodeUtf8(text, at));
    return columns;
}

std::string Cut(const std::string& text, std::size_t columns) {
    if (Width(text) <= columns || columns == 0) return text;
    return text.substr(0, EndOfFit(text, columns - 1)) + "…";
}

std::string Padded(std::string text, std::size_t columns) {
    const std::size_t width = Width(text);
    if (width < columns) text.append(columns - width, ' ');
    return text;
}

std::vector<std::string> Lines(const std::string& text, std::size_t columns) {
    std::vector<std::string> lines;
    std::string_view left = text;
    while (true) {
        const std::size_t end = left.find('\n');
        AppendBroken(lines, Escaped(left.substr(0, end)), columns);
        if (end == std::string_view::npos || end + 1 == left.size()) return lines;
        left.remove_prefix(end + 1);
    }
}

std::string Folded(std::string_view text) {
    std::string folded;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t start = at;
        const char32_t code_point = asn1::DecodeUtf8(text, at);
        if (code_point == asn1::kBadCodePoint) {
            at = start + 1;
            folded.push_back(text[start]);
        } else {
            asn1::AppendUtf8(folded, asn1::FoldCase(code_point));
        }
    }
    return folded;
}

std::string Quoted(std::string_view text) {
    return '"' + Escaped(text) + '"';
}

std::string Base64(std::string_view bytes) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char byte : bytes) {
        bits = bits << 8 | static_cast<unsigned char>(byte);
        for (count += 8; count >= 6; count -= 6) text.push_back(kDigits[bits >> (count - 6) & 63]);
    }
    if (count > 0) text.push_back(kDigits[bits << (6 - count) & 63]);
    while (text.size() % 4 != 0) text.push_back('=');
    return text;
}

}  // namespace certmgrctl
