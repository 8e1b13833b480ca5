// Comparison of printable names by RFC 5280, 7.1. Names are compared for every candidate of every selection, so the
// common case (ASCII without escapes) allocates nothing.
#include <array>
#include <utility>
#include <vector>

#include "platform/asn1/ascii.h"
#include "platform/asn1/der.h"
#include "platform/asn1/dn.h"
#include "platform/asn1/text.h"

namespace asn1 {
namespace {

constexpr char32_t kEnd = 0xFFFFFFFE;

/// The characters of a value, folded: case, runs of blanks as one, none at the ends. kEnd behind the last one,
/// kBadCodePoint where the text is not UTF-8.
class FoldedText {
  public:
    FoldedText(std::string_view text, bool escapes) : text_(text), escapes_(escapes) {}

    char32_t Next() {
        if (held_ != kEnd) {
            return std::exchange(held_, kEnd);
        }
        bool blank = false;
        char32_t c = TakeCodePoint();
        for (; IsSpace(c); c = TakeCodePoint()) {
            blank = true;
        }
        if (c == kEnd || c == kBadCodePoint) {
            return c;
        }
        c = FoldCase(c);
        if (blank && started_) {
            held_ = c;
            return ' ';
        }
        started_ = true;
        return c;
    }

  private:
    char TakeByte() { return escapes_ ? TakeValueByte(text_, at_) : text_[at_++]; }

    char32_t TakeCodePoint() {
        if (at_ == text_.size()) {
            return kEnd;
        }
        const char lead = TakeByte();
        if (static_cast<unsigned char>(lead) < 0x80) {
            return static_cast<unsigned char>(lead);
        }
        std::array<char, 4> sequence{lead};
        const std::size_t length = Utf8SequenceLength(lead);
        std::size_t size = 1;
        while (size < length && at_ < text_.size()) {
            sequence[size++] = TakeByte();
        }
        std::size_t decoded = 0;
        return DecodeUtf8({sequence.data(), size}, decoded);
    }

    std::string_view text_;
    std::size_t at_ = 0;
    char32_t held_ = kEnd;
    bool escapes_;
    bool started_ = false;
};

bool SameText(FoldedText a, FoldedText b) {
    for (;;) {
        const char32_t c = a.Next();
        if (c != b.Next() || c == kBadCodePoint) {
            return false;
        }
        if (c == kEnd) {
            return true;
        }
    }
}

/// Both texts are ASCII without blanks at the ends.
bool SameSimpleText(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (AsciiLower(a[i]) != AsciiLower(b[j])) {
            return false;
        }
        if (a[i] == ' ') {
            i = a.find_first_not_of(' ', i);
            j = b.find_first_not_of(' ', j);
        } else {
            ++i;
            ++j;
        }
    }
    return i == a.size() && j == b.size();
}

/// A value at least one of which is in hexadecimal form: by its text when it has a string type, else by its bytes.
struct DecodedValue {
    DecodedValue(const DecodedValue&) = delete;  // `text` may point into the object
    DecodedValue& operator=(const DecodedValue&) = delete;
    explicit DecodedValue(const PrintedAttribute& attribute) : text(attribute.value) {
        if (attribute.form != ValueForm::kHex) {
            escapes = true;
            return;
        }
        valid = HexValueToDer(attribute.value, der);
        Tlv element;
        DerReader reader(der);
        is_text = valid && reader.Next(element) && StringTypeToUtf8(element.tag, element.content, buffer, text);
    }

    bool Equals(const DecodedValue& other) const {
        if (is_text && other.is_text) {
            return SameText({text, escapes}, {other.text, other.escapes});
        }
        return valid && other.valid && is_text == other.is_text && der == other.der;
    }

    bool valid = true;
    bool is_text = true;
    bool escapes = false;
    std::string_view text;
    std::string der;
    std::string buffer;
};

bool SameValue(const PrintedAttribute& a, const PrintedAttribute& b) {
    if (a.form == ValueForm::kSimple && b.form == ValueForm::kSimple) {
        return SameSimpleText(a.value, b.value);
    }
    if (a.form == ValueForm::kHex || b.form == ValueForm::kHex) {
        return DecodedValue(a).Equals(DecodedValue(b));
    }
    const bool identical = a.value == b.value && a.value.find('\\') == std::string_view::npos;
    return identical ? IsUtf8(a.value) : SameText({a.value, true}, {b.value, true});
}

struct Wanted {
    PrintedAttribute attribute;
    AttributeType type;
    bool met;
};

/// Attributes that the name must have. The usual few stand in the object itself.
class WantedList {
  public:
    /// False when an attribute type is unknown.
    bool Add(const PrintedAttribute& attribute) {
        const AttributeType type = ResolveType(attribute.type);
        if (size_ < few_.size()) {
            few_[size_] = {attribute, type, false};
        } else {
            many_.push_back({attribute, type, false});
        }
        ++size_;
        return type.known();
    }

    /// Marks the first open entry that `attribute` answers. Equality is transitive, so any choice is as good.
    bool Meet(const PrintedAttribute& attribute) {
        for (std::size_t i = 0; i < size_; ++i) {
            Wanted& wanted = i < few_.size() ? few_[i] : many_[i - few_.size()];
            if (!wanted.met && SameValue(wanted.attribute, attribute) && wanted.type == ResolveType(attribute.type)) {
                wanted.met = true;
                return true;
            }
        }
        return false;
    }

    std::size_t size() const { return size_; }

    void Clear() {
        size_ = 0;
        many_.clear();
    }

  private:
    static constexpr std::size_t kFew = 4;

    std::array<Wanted, kFew> few_;
    std::vector<Wanted> many_;
    std::size_t size_ = 0;
};

/// Reads names RDN by RDN: one attribute is always read ahead.
class RdnReader {
  public:
    explicit RdnReader(std::string_view printable) : scanner_(printable) { more_ = scanner_.Next(attribute_); }

    bool more() const { return more_; }
    bool malformed() const { return scanner_.malformed(); }

    /// Calls `take` for each attribute of the next RDN; false when it refused one.
    template <typename Take>
    bool ReadRdn(Take take) {
        bool good = true;
        do {
            good = take(attribute_) && good;
            more_ = scanner_.Next(attribute_);
        } while (more_ && !attribute_.startsRdn);
        return good;
    }

  private:
    DnScanner scanner_;
    PrintedAttribute attribute_;
    bool more_;
};

}  // namespace
}  // namespace asn1

bool printable_dn_contain_attrs(std::string_view name, std::string_view pattern) {
    asn1::WantedList wanted;
    asn1::PrintedAttribute attribute;
    asn1::DnScanner pattern_scanner(pattern);
    while (pattern_scanner.Next(attribute)) {
        if (!wanted.Add(attribute)) {
            return false;
        }
    }
    if (pattern_scanner.malformed()) {
        return false;
    }
    std::size_t met = 0;
    asn1::DnScanner name_scanner(name);
    while (met < wanted.size() && name_scanner.Next(attribute)) {
        met += wanted.Meet(attribute) ? 1 : 0;
    }
    return met == wanted.size();
}

bool printable_dn_equal(std::string_view a, std::string_view b) {
    if (a == b) {
        return true;
    }
    asn1::RdnReader rdns_a(a);
    asn1::RdnReader rdns_b(b);
    asn1::WantedList rdn;
    while (rdns_a.more() && rdns_b.more()) {
        rdn.Clear();
        std::size_t count = 0;
        const auto add = [&](const asn1::PrintedAttribute& attribute) { return rdn.Add(attribute); };
        const auto meet = [&](const asn1::PrintedAttribute& attribute) {
            ++count;
            return rdn.Meet(attribute);
        };
        if (!rdns_a.ReadRdn(add) || !rdns_b.ReadRdn(meet) || count != rdn.size()) {
            return false;
        }
    }
    return !rdns_a.more() && !rdns_b.more() && !rdns_a.malformed() && !rdns_b.malformed();
}
