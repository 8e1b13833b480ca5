#include <array>

#include "platform/asn1/ascii.h"
#include "platform/asn1/der.h"
#include "platform/asn1/dn.h"

namespace asn1 {
namespace {

enum CharClass : unsigned char {
    kTypeCharacter = 1,  // of attribute types
    kOrdinary = 2,
    kSpace = 4,
    kOtherBlank = 8,
    kSeparator = 16,  // ends a value
    kEscape = 32,
    kForbidden = 64,  // must be escaped
    kSpecial = 128,  // ordinary, but the value is no longer simple
};
constexpr unsigned kAnyBlank = kSpace | kOtherBlank;
constexpr unsigned kSimpleText = kOrdinary | kSpace;
constexpr unsigned kUnescapedText = kSimpleText | kOtherBlank | kSpecial;

constexpr unsigned char InitialClass(char c) {
    if (c == '\0' || c == '"') {
        return kForbidden;
    }
    if (static_cast<unsigned char>(c) < ' ' || static_cast<unsigned char>(c) >= 0x7F) {
        return kSpecial;
    }
    const bool type_character = IsAsciiLetter(c) || IsDigit(c) || c == '.' || c == '-';
    return type_character ? kOrdinary | kTypeCharacter : kOrdinary;
}

constexpr std::array<unsigned char, 256> MakeClasses() {
    std::array<unsigned char, 256> classes{};
    for (std::size_t c = 0; c < classes.size(); ++c) {
        classes[c] = InitialClass(static_cast<char>(c));
    }
    for (const char c : std::string_view("\t\r\n")) {
        classes[static_cast<unsigned char>(c)] = kOtherBlank;
    }
    for (const char c : std::string_view(",;+")) {
        classes[static_cast<unsigned char>(c)] = kSeparator;
    }
    classes[' '] = kSpace;
    classes['\\'] = kEscape;
    return classes;
}
constexpr std::array<unsigned char, 256> kClasses = MakeClasses();

bool IsIn(char c, unsigned classes) {
    return (kClasses[static_cast<unsigned char>(c)] & classes) != 0;
}

/// End of the run of characters of these classes that starts at `at`.
std::size_t RunEnd(std::string_view text, std::size_t at, unsigned classes) {
    while (at < text.size() && IsIn(text[at], classes)) {
        ++at;
    }
    return at;
}

/// What may stand behind a backslash as itself.
bool IsEscapable(char c) {
    return c != '\0' && std::string_view(" #=\"+,;<>\\").find(c) != std::string_view::npos;
}

}  // namespace

DnScanner::DnScanner(std::string_view printable) : text_(printable) {
    malformed_ = text_.size() > kMaxPrintableBytes;
    SkipBlanks();
    more_ = !malformed_ && at_ < text_.size();
}

bool DnScanner::Next(PrintedAttribute& attribute) {
    if (!more_ || malformed_) {
        return false;
    }
    attribute.startsRdn = starts_rdn_;
    rdn_count_ = starts_rdn_ ? 1 : rdn_count_ + 1;
    if (++count_ > kMaxNameAttributes || rdn_count_ > kMaxRdnAttributes || !ScanType(attribute) ||
        !ScanValue(attribute) || !TakeSeparator()) {
        return Fail();
    }
    return true;
}

void DnScanner::SkipBlanks() {
    at_ = RunEnd(text_, at_, kAnyBlank);
}

bool DnScanner::ScanType(PrintedAttribute& attribute) {
    SkipBlanks();
    const std::size_t end = RunEnd(text_, at_, kTypeCharacter);
    attribute.type = text_.substr(at_, end - at_);
    at_ = end;
    SkipBlanks();
    if (attribute.type.empty() || at_ == text_.size() || text_[at_] != '=') {
        return false;
    }
    ++at_;
    return true;
}

bool DnScanner::ScanValue(PrintedAttribute& attribute) {
    SkipBlanks();
    if (at_ < text_.size() && text_[at_] == '#') {
        return ScanHex(attribute);
    }
    if (at_ < text_.size() && text_[at_] == '"') {
        return ScanQuoted(attribute);
    }
    return ScanPlain(attribute);
}

bool DnScanner::ScanPlain(PrintedAttribute& attribute) {
    const std::size_t start = at_;
    std::size_t last_escape_end = at_;  // blanks in front of it belong to the value
    at_ = RunEnd(text_, at_, kSimpleText);
    bool simple = true;
    while (at_ < text_.size() && !IsIn(text_[at_], kSeparator)) {
        simple = false;
        at_ = RunEnd(text_, at_, kUnescapedText);
        if (at_ == text_.size() || IsIn(text_[at_], kSeparator)) {
            break;
        }
        if (IsIn(text_[at_], kForbidden) || !SkipEscape()) {
            return false;
        }
        last_escape_end = ++at_;
    }
    std::size_t end = at_;
    while (end > last_escape_end && IsIn(text_[end - 1], kAnyBlank)) {
        --end;
    }
    attribute.value = text_.substr(start, end - start);
    attribute.form = simple ? ValueForm::kSimple : ValueForm::kEscaped;
    return true;
}

bool DnScanner::ScanQuoted(PrintedAttribute& attribute) {
    const std::size_t start = ++at_;
    for (; at_ < text_.size() && text_[at_] != '"'; ++at_) {
        if (text_[at_] == '\0' || (text_[at_] == '\\' && !SkipEscape())) {
            return false;
        }
    }
    if (at_ == text_.size()) {
        return false;
    }
    attribute.value = text_.substr(start, at_ - start);
    attribute.form = ValueForm::kQuoted;
    ++at_;
    return true;
}

bool DnScanner::ScanHex(PrintedAttribute& attribute) {
    const std::size_t start = ++at_;
    while (at_ < text_.size() && HexDigit(text_[at_]) >= 0) {
        ++at_;
    }
    attribute.value = text_.substr(start, at_ - start);
    attribute.form = ValueForm::kHex;
    return !attribute.value.empty() && attribute.value.size() % 2 == 0;
}

/// From the backslash to the last character of the escape.
bool DnScanner::SkipEscape() {
    const std::string_view escape = text_.substr(at_ + 1, 2);
    if (!escape.empty() && IsEscapable(escape[0])) {
        ++at_;
        return true;
    }
    at_ += 2;
    return escape.size() == 2 && HexDigit(escape[0]) >= 0 && HexDigit(escape[1]) >= 0;
}

bool DnScanner::TakeSeparator() {
    SkipBlanks();
    more_ = at_ < text_.size();
    if (!more_) {
        return true;
    }
    starts_rdn_ = text_[at_] != '+';
    return IsIn(text_[at_++], kSeparator);
}

char TakeValueByte(std::string_view value, std::size_t& at) {
    const char c = value[at++];
    if (c != '\\') {
        return c;
    }
    const char escaped = value[at++];
    if (IsEscapable(escaped)) {
        return escaped;
    }
    return static_cast<char>(HexDigit(escaped) << 4 | HexDigit(value[at++]));
}

AttributeType ResolveType(std::string_view type) {
    static constexpr std::string_view kPrefix = "OID.";
    if (AsciiEqualIgnoringCase(type.substr(0, kPrefix.size()), kPrefix)) {
        type.remove_prefix(kPrefix.size());
        if (type.empty() || !IsDigit(type[0])) {
            return {};
        }
    }
    if (!IsDigit(type[0])) {
        return {FindAttributeByName(type), {}};
    }
    std::string content;
    if (!OidFromDotted(type, content)) {
        return {};
    }
    const OidRow* const row = FindOid(content);
    return row != nullptr && row->IsAttribute() ? AttributeType{row, {}} : AttributeType{nullptr, type};
}

bool HexValueToDer(std::string_view digits, std::string& der) {
    Tlv element;
    if (!FROM_HEX_STD_STRING(digits, der)) {
        return false;
    }
    DerReader reader(der);
    return reader.Next(element) && reader.AtEnd();
}

}  // namespace asn1
