// String types of ASN.1 as UTF-8 text, and text folded for comparison.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace asn1 {

inline constexpr char32_t kBadCodePoint = 0xFFFFFFFF;

/// Decodes the UTF-8 sequence at `at` and moves `at` behind it; `at` must be inside the text. kBadCodePoint for what
/// RFC 3629 does not allow: cut-off, over-long, surrogate and too large sequences.
char32_t DecodeUtf8(std::string_view text, std::size_t& at) noexcept;
/// Bytes of the sequence that a lead byte of 0x80 and more announces.
constexpr std::size_t Utf8SequenceLength(char lead) noexcept {
    const auto byte = static_cast<unsigned char>(lead);
    return byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
}
void AppendUtf8(std::string& text, char32_t code_point);
/// Bytes of the longest beginning of at most `limit` bytes that does not end within a character.
constexpr std::size_t Utf8PrefixLength(std::string_view text, std::size_t limit) noexcept {
    if (text.size() <= limit) return text.size();
    std::size_t length = limit;
    while (length > 0 && limit - length < 4 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
    return length;
}
/// Controls, and what shows nothing or changes the place of what stands beside it: marks of direction, separators of lines,
/// fillers, annotations, tags. kBadCodePoint is not among them.
bool IsHidden(char32_t code_point) noexcept;
bool IsUtf8(std::string_view text) noexcept;
bool IsAscii(std::string_view text) noexcept;
/// All characters are in the repertoire of PrintableString.
bool IsPrintable(std::string_view text) noexcept;

/// UTF-8 text of a value of a string type: `text` is a view into the content, or into `buffer` when the bytes had to be
/// converted. TeletexString is taken as Latin-1. False when the type is not UTF8String, PrintableString, NumericString,
/// TeletexString, IA5String, VisibleString, UniversalString or BMPString, or when the content is not valid in it
/// (surrogates included; the types within ASCII accept all of ASCII, NUL included).
bool StringTypeToUtf8(unsigned char tag, std::string_view content, std::string& buffer, std::string_view& text);

/// Simple case folding (Unicode, status C and S) of ASCII, Latin-1, Latin Extended-A, Greek and Cyrillic; every other
/// character is itself.
char32_t FoldCase(char32_t code_point) noexcept;
/// The characters that RFC 4518 maps to SPACE.
bool IsSpace(char32_t code_point) noexcept;

}  // namespace asn1
