#include "platform/asn1/text.h"

#include <algorithm>
#include <iterator>

#include "platform/asn1/ascii.h"
#include "platform/asn1/der.h"

namespace asn1 {
namespace {

constexpr char32_t kMaxCodePoint = 0x10FFFF;

constexpr bool IsSurrogate(char32_t c) {
    return c >= 0xD800 && c <= 0xDFFF;
}

/// BMPString and UniversalString: big-endian units of a fixed width.
bool WideToUtf8(std::string_view content, std::size_t width, std::string& text) {
    if (content.size() % width != 0) {
        return false;
    }
    text.clear();
    text.reserve(content.size());
    for (std::size_t at = 0; at < content.size(); at += width) {
        char32_t code_point = 0;
        for (std::size_t i = 0; i < width; ++i) {
            code_point = code_point << 8 | static_cast<unsigned char>(content[at + i]);
        }
        if (code_point > kMaxCodePoint || IsSurrogate(code_point)) {
            return false;
        }
        AppendUtf8(text, code_point);
    }
    return true;
}

void Latin1ToUtf8(std::string_view content, std::string& text) {
    text.clear();
    text.reserve(content.size() * 2);
    for (const char c : content) {
        AppendUtf8(text, static_cast<unsigned char>(c));
    }
}

constexpr bool IsBetween(char32_t c, char32_t first, char32_t last) {
    return c - first <= last - first;
}

char32_t FoldLatin(char32_t c) {
    if (IsBetween(c, 0xC0, 0xDE)) {
        return c == 0xD7 ? c : c + 0x20;
    }
    if (c == 0xB5) {
        return 0x3BC;  // micro sign
    }
    if (c < 0x100 || c == 0x130 || c == 0x131 || c == 0x138 || c == 0x149) {
        return c;
    }
    if (c == 0x178) {
        return 0xFF;
    }
    if (c == 0x17F) {
        return 's';
    }
    // Pairs of capital and small letters; in two stretches the capital is the odd one.
    const bool odd_capitals = IsBetween(c, 0x139, 0x148) || IsBetween(c, 0x179, 0x17E);
    return odd_capitals ? c + (c & 1) : c | 1;
}

char32_t FoldGreek(char32_t c) {
    if (IsBetween(c, 0x391, 0x3AB) && c != 0x3A2) {
        return c + 0x20;
    }
    if (IsBetween(c, 0x388, 0x38A)) {
        return c + 0x25;
    }
    switch (c) {
        case 0x386:
            return 0x3AC;
        case 0x38C:
            return 0x3CC;
        case 0x38E:
        case 0x38F:
            return c + 0x3F;
        case 0x3C2:
            return 0x3C3;  // final sigma
        default:
            return c;
    }
}

char32_t FoldCyrillic(char32_t c) {
    if (IsBetween(c, 0x400, 0x40F)) {
        return c + 0x50;
    }
    if (IsBetween(c, 0x410, 0x42F)) {
        return c + 0x20;
    }
    if (c == 0x4C0) {
        return 0x4CF;
    }
    if (IsBetween(c, 0x4C1, 0x4CE)) {
        return c + (c & 1);
    }
    const bool pairs = IsBetween(c, 0x460, 0x481) || IsBetween(c, 0x48A, 0x4BF) || IsBetween(c, 0x4D0, 0x52F);
    return pairs ? c | 1 : c;
}

}  // namespace

char32_t DecodeUtf8(std::string_view text, std::size_t& at) noexcept {
    const auto lead = static_cast<unsigned char>(text[at++]);
    if (lead < 0x80) {
        return lead;
    }
    const std::size_t following = Utf8SequenceLength(static_cast<char>(lead)) - 1;
    if (lead < 0xC2 || lead > 0xF4 || text.size() - at < following) {
        return kBadCodePoint;
    }
    char32_t code_point = lead & (0x3FU >> following);
    for (std::size_t i = 0; i < following; ++i) {
        const auto next = static_cast<unsigned char>(text[at++]);
        if ((next & 0xC0) != 0x80) {
            return kBadCodePoint;
        }
        code_point = code_point << 6 | (next & 0x3F);
    }
    static constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    const bool allowed = code_point >= kSmallest[following] && code_point <= kMaxCodePoint && !IsSurrogate(code_point);
    return allowed ? code_point : kBadCodePoint;
}

void AppendUtf8(std::string& text, char32_t code_point) {
    const auto append = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (code_point < 0x80) {
        append(code_point);
        return;
    }
    if (code_point < 0x800) {
        append(0xC0 | code_point >> 6);
    } else {
        if (code_point < 0x10000) {
            append(0xE0 | code_point >> 12);
        } else {
            append(0xF0 | code_point >> 18);
            append(0x80 | (code_point >> 12 & 0x3F));
        }
        append(0x80 | (code_point >> 6 & 0x3F));
    }
    append(0x80 | (code_point & 0x3F));
}

bool IsHidden(char32_t code_point) noexcept {
    struct Range {
        char32_t first;
        char32_t last;
    };
    static constexpr Range kHidden[] = {{0, 0x1F},        {0x7F, 0x9F},      {0xAD, 0xAD},     {0x61C, 0x61C},
                                        {0x200B, 0x200F}, {0x2028, 0x202E},  {0x2060, 0x206F}, {0xFEFF, 0xFEFF},
                                        {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF}};
    return std::any_of(std::begin(kHidden), std::end(kHidden),
                       [=](const Range& range) { return IsBetween(code_point, range.first, range.last); });
}

bool IsUtf8(std::string_view text) noexcept {
    for (std::size_t at = 0; at < text.size();) {
        if (DecodeUtf8(text, at) == kBadCodePoint) {
            return false;
        }
    }
    return true;
}

bool IsAscii(std::string_view text) noexcept {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool IsPrintable(std::string_view text) noexcept {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return IsAsciiLetter(c) || IsDigit(c) ||
               (c != '\0' && std::string_view(" '()+,-./:=?").find(c) != std::string_view::npos);
    });
}

bool StringTypeToUtf8(unsigned char tag, std::string_view content, std::string& buffer, std::string_view& text) {
    bool valid = false;
    switch (tag) {
        case kTagUtf8String:
            text = content;
            return IsUtf8(content);
        case kTagPrintableString:
        case kTagNumericString:
        case kTagIa5String:
        case kTagVisibleString:
            text = content;
            return IsAscii(content);
        case kTagTeletexString:
            Latin1ToUtf8(content, buffer);
            valid = true;
            break;
        case kTagBmpString:
            valid = WideToUtf8(content, 2, buffer);
            break;
        case kTagUniversalString:
            valid = WideToUtf8(content, 4, buffer);
            break;
        default:
            return false;
    }
    text = buffer;
    return valid;
}

char32_t FoldCase(char32_t code_point) noexcept {
    if (code_point < 0x80) {
        return IsBetween(code_point, 'A', 'Z') ? code_point + 0x20 : code_point;
    }
    if (code_point < 0x180) {
        return FoldLatin(code_point);
    }
    if (IsBetween(code_point, 0x370, 0x3FF)) {
        return FoldGreek(code_point);
    }
    return IsBetween(code_point, 0x400, 0x52F) ? FoldCyrillic(code_point) : code_point;
}

bool IsSpace(char32_t code_point) noexcept {
    if (code_point <= 0xA0) {
        return code_point == ' ' || IsBetween(code_point, '\t', '\r') || code_point == 0x85 || code_point == 0xA0;
    }
    return code_point == 0x1680 || IsBetween(code_point, 0x2000, 0x200A) || code_point == 0x2028 ||
           code_point == 0x2029 || code_point == 0x202F || code_point == 0x205F || code_point == 0x3000;
}

}  // namespace asn1
