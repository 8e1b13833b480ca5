#include <array>

#include "platform/asn1/der.h"
#include "platform/asn1/dn.h"
#include "platform/asn1/text.h"

namespace asn1 {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

enum Escape : unsigned char {
    kVerbatim,
    kBackslash,
    kBackslashInName,
    kHexPair,
    kMaybeC1,  // lead byte of U+0080 to U+00BF: the first half are control characters
};

constexpr std::array<Escape, 256> MakeEscapes() {
    std::array<Escape, 256> escapes{};
    for (std::size_t c = 0; c < 0x20; ++c) {
        escapes[c] = kHexPair;
    }
    escapes[0x7F] = kHexPair;
    escapes[0xC2] = kMaybeC1;
    for (const char c : std::string_view("\"+,;<>")) {
        escapes[static_cast<unsigned char>(c)] = kBackslashInName;
    }
    escapes['\\'] = kBackslash;
    return escapes;
}
constexpr std::array<Escape, 256> kEscapes = MakeEscapes();

void AppendHexPair(std::string& out, char c) {
    const auto byte = static_cast<unsigned char>(c);
    out.push_back('\\');
    out.push_back(kHexDigits[byte >> 4]);
    out.push_back(kHexDigits[byte & 0xF]);
}

/// Whether a control character of two bytes begins the text, whose first byte is that of one.
bool IsC1(std::string_view text) {
    return text.size() > 1 && (static_cast<unsigned char>(text[1]) & 0xE0) == 0x80;
}

enum class Escapes : bool { kOfLine, kOfName };

/// Text with the escapes of RFC 4514; control characters as pairs of digits, so that a name cannot forge a line of a log.
/// On a line by itself what separates parts of a name stays as it is.
void AppendEscaped(std::string& out, std::string_view text, Escapes escapes = Escapes::kOfName) {
    const bool in_name = escapes == Escapes::kOfName;
    std::size_t verbatim_from = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const Escape escape = kEscapes[static_cast<unsigned char>(text[at])];
        const bool edge_blank = text[at] == ' ' && (at == 0 || at + 1 == text.size());
        const bool leading_hash = text[at] == '#' && at == 0;
        const bool of_name = escape == kBackslashInName || edge_blank || leading_hash;
        if (of_name ? !in_name : escape == kVerbatim) {
            continue;
        }
        if (escape == kMaybeC1 && !IsC1(text.substr(at))) continue;
        out.append(text, verbatim_from, at - verbatim_from);
        verbatim_from = at + 1;
        if (escape == kHexPair) {
            AppendHexPair(out, text[at]);
        } else if (escape == kMaybeC1) {
            AppendHexPair(out, text[at]);
            AppendHexPair(out, text[++at]);
            verbatim_from = at + 1;
        } else {
            out.push_back('\\');
            out.push_back(text[at]);
        }
    }
    out.append(text, verbatim_from);
}

void AppendHexValue(std::string& out, std::string_view der) {
    out.push_back('#');
    out.append(TO_HEX_STD_STRING(der));
}

/// AttributeTypeAndValue.
bool AppendAttribute(DerReader& set, OID_MAP_HANDLE map, std::string& buffer, std::string& out) {
    DerReader attribute({});
    std::string_view type;
    Tlv value;
    if (!set.Enter(kTagSequence, attribute) || !attribute.Read(kTagOid, type) || !attribute.Next(value) ||
        !attribute.AtEnd()) {
        return false;
    }
    const OidRow* const row = map == OID_MAP_HANDLE_DEFAULT_FILE ? FindOid(type) : nullptr;
    const bool named = row != nullptr && row->IsAttribute();
    if (named) {
        out.append(row->ShortName());
    } else if (!oid_asn_to_str_(type, &out)) {
        return false;
    }
    out.push_back('=');
    std::string_view text;
    if (named && StringTypeToUtf8(value.tag, value.content, buffer, text)) {
        AppendEscaped(out, text);
    } else {
        AppendHexValue(out, value.whole);
    }
    return true;
}

bool AppendRdn(DerReader& name, OID_MAP_HANDLE map, std::size_t& attributes, std::string& buffer, std::string& out) {
    DerReader set({});
    if (!name.Enter(kTagSet, set) || set.AtEnd()) {
        return false;
    }
    for (std::size_t count = 0; !set.AtEnd(); ++count) {
        if (count != 0) {
            out.push_back('+');
        }
        if (count == kMaxRdnAttributes || ++attributes > kMaxNameAttributes ||
            !AppendAttribute(set, map, buffer, out)) {
            return false;
        }
    }
    return true;
}

}  // namespace
}  // namespace asn1

std::string asn_text_to_printable(std::string_view text) {
    std::string printable;
    asn1::AppendEscaped(printable, text);
    return printable;
}

std::string asn_text_to_line(std::string_view text) {
    std::string line;
    asn1::AppendEscaped(line, text, asn1::Escapes::kOfLine);
    return line;
}

bool asn_dn_to_printable(std::string_view name_der, std::string& printable, OID_MAP_HANDLE map) {
    asn1::DerReader name({});
    if (name_der.size() > asn1::kMaxNameBytes || !asn1::ReadWhole(name_der, asn1::kTagSequence, name)) {
        return false;
    }
    std::string out;
    out.reserve(name_der.size());  // types and separators are shorter than their encoding
    std::string buffer;
    std::size_t attributes = 0;
    while (!name.AtEnd()) {
        if (!out.empty()) {
            out.append(", ");
        }
        if (!asn1::AppendRdn(name, map, attributes, buffer, out)) {
            return false;
        }
    }
    printable = std::move(out);
    return true;
}
