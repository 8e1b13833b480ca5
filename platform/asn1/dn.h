// Printable names (RFC 4514): limits and the scanner that every reader of them uses.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/asn1/oid_map.h"

namespace asn1 {

/// Longest encoded name: a name of 200 RDNs with values of 256 bytes fits.
inline constexpr std::size_t kMaxNameBytes = 65536;
/// Attributes of one name.
inline constexpr std::size_t kMaxNameAttributes = 1024;
/// Attributes of one RDN, which are compared each with each.
inline constexpr std::size_t kMaxRdnAttributes = 64;
/// Longest printable name: a byte of the encoding becomes six characters at most.
inline constexpr std::size_t kMaxPrintableBytes = 6 * kMaxNameBytes;

enum class ValueForm : unsigned char {
    kSimple,  // ASCII without escapes and control characters: the text itself
    kEscaped,  // may hold escapes, and bytes outside ASCII that nobody has checked
    kQuoted,  // the same, and stood between quotation marks
    kHex,  // the hexadecimal digits after the '#'
};

/// One attribute of a printable name, as views into it. The constructor leaves the members unset: lists of attributes
/// are made for every comparison.
struct PrintedAttribute {
    std::string_view type;  // not empty, letters, digits, '-' and '.'
    std::string_view value;  // without the blanks around it
    ValueForm form;
    bool startsRdn;
};

/// Takes a printable name apart. Escapes are checked here: later readers rely on that.
class DnScanner {
  public:
    explicit DnScanner(std::string_view printable);

    /// False at the end and where the text is malformed.
    bool Next(PrintedAttribute& attribute);
    bool malformed() const { return malformed_; }

  private:
    bool Fail() {
        malformed_ = true;
        return false;
    }
    void SkipBlanks();
    bool ScanType(PrintedAttribute& attribute);
    bool ScanValue(PrintedAttribute& attribute);
    bool ScanPlain(PrintedAttribute& attribute);
    bool ScanQuoted(PrintedAttribute& attribute);
    bool ScanHex(PrintedAttribute& attribute);
    bool SkipEscape();
    bool TakeSeparator();

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t count_ = 0;
    std::size_t rdn_count_ = 0;
    bool more_ = false;  // the text is not empty, or a separator stood behind the last attribute
    bool starts_rdn_ = true;
    bool malformed_ = false;
};

/// Takes the next byte of an escaped or quoted value; `at` must be inside it.
char TakeValueByte(std::string_view value, std::size_t& at);

/// An attribute type: its row in the identifier map, or its dotted text when the map does not know it.
struct AttributeType {
    const OidRow* row = nullptr;
    std::string_view dotted;

    bool known() const { return row != nullptr || !dotted.empty(); }
    bool operator==(const AttributeType& other) const { return row == other.row && dotted == other.dotted; }
};

/// Resolves a name of any case or dotted text with or without "OID." in front. Not known() when it is neither.
AttributeType ResolveType(std::string_view type);

/// The DER value behind a kHex attribute. False when the digits are not one whole DER element.
bool HexValueToDer(std::string_view digits, std::string& der);

}  // namespace asn1
