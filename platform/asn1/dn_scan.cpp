#include <array>

#include "platform/asn1/ascii.h"
#include "platform/asn1/der.h"
#include "platform/asn1/dn.h"

namespace asn1 {
namespace {

enum CharClass : unsigned char {
    kOrdinary,
    kBlank,
    kSeparator,  // ends a value
    kEscape,
    kForbidden,  // must be escaped
    kSpecial,  // ordinary, but the value is no longer simple
};

constexpr std::array<CharClass, 256> MakeClasses() {
    std::array<CharClass, 256> classes{};
    for (std::size_t c = 0; c < classes.size(); ++c) {
        classes[c] = c < ' ' || c >= 0x7F ? kSpecial : kOrdinary;
    }
    for (const char c : std::string_view(" \t\r\n")) {
        classes[static_cast<unsigned char>(c)] = kBlank;
    }
    for (const char c : std::string_view(",;+")) {
        classes[static_cast<unsigned char>(c)] = kSeparator;
    }
    classes['\\'] = kEscape;
    classes['"'] = kForbidden;
    classes['\0'] = kForbidden;
    return classes;
}
constexpr std::array<CharClass, 256> kClasses = MakeClasses();

CharClass ClassOf(char c) {
    return kClasses[static_cast<unsigned char>(c)];
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
    if (++count_ > kMaxNameAttributes || !ScanType(attribute) || !ScanValue(attribute) || !TakeSeparator()) {
        return Fail();
    }
    return true;
}

void DnScanner::SkipBlanks() {
    while (at_ < text_.size() && ClassOf(text_[at_]) == kBlank) {
        ++at_;
    }
}

bool DnScanner::ScanType(PrintedAttribute& attribute) {
    SkipBlanks();
    const std::size_t start = at_;
    while (at_ < text_.size() &&
           (IsAsciiLetter(text_[at_]) || IsDigit(text_[at_]) || text_[at_] == '.' || text_[at_] == '-')) {
        ++at_;
    }
    attribute.type = text_.substr(start, at_ - start);
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
    std::size_t end = at_;  // behind the last character that is no unescaped blank
    bool simple = true;
    for (; at_ < text_.size(); ++at_) {
        const CharClass kind = ClassOf(text_[at_]);
        if (kind == kOrdinary) {
            end = at_ + 1;
            continue;
        }
        if (kind == kSeparator) {
            break;
        }
        if (kind == kBlank) {
            simple = simple && text_[at_] == ' ';
            continue;
        }
        simple = false;
        if (kind == kForbidden || (kind == kEscape && !SkipEscape())) {
            return false;
        }
        end = at_ + 1;
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
    return ClassOf(text_[at_++]) == kSeparator;
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
