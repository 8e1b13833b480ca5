#include <algorithm>
#include <vector>

#include "platform/asn1/der.h"
#include "platform/asn1/dn.h"
#include "platform/asn1/text.h"

namespace asn1 {
namespace {

bool TextOf(const PrintedAttribute& attribute, std::string& text) {
    text.clear();
    for (std::size_t at = 0; at < attribute.value.size();) {
        text.push_back(TakeValueByte(attribute.value, at));
    }
    return IsUtf8(text);
}

/// The type's customary string type, when it can hold the text.
unsigned char StringTag(const AttributeType& type, std::string_view text) {
    const Syntax syntax = type.row == nullptr ? Syntax::kDirectory : type.row->syntax;
    if (syntax == Syntax::kPrintable && IsPrintable(text)) {
        return kTagPrintableString;
    }
    return syntax == Syntax::kIa5 && IsAscii(text) ? kTagIa5String : kTagUtf8String;
}

bool EncodeAttribute(const PrintedAttribute& attribute, std::string& der) {
    const AttributeType type = ResolveType(attribute.type);
    std::string oid;
    if (type.row != nullptr) {
        oid = std::string_view(type.row->oid);
    } else if (!type.known() || !OidFromDotted(type.dotted, oid)) {
        return false;
    }
    std::string content;
    AppendTlv(content, kTagOid, oid);
    std::string value;
    if (attribute.form == ValueForm::kHex) {
        if (!HexValueToDer(attribute.value, value)) {
            return false;
        }
        content.append(value);
    } else {
        if (!TextOf(attribute, value)) {
            return false;
        }
        AppendTlv(content, StringTag(type, value), value);
    }
    der.clear();
    AppendTlv(der, kTagSequence, content);
    return true;
}

/// SET OF, in DER's order.
void AppendRdn(std::string& name, std::vector<std::string>& attributes) {
    std::sort(attributes.begin(), attributes.end());
    std::string content;
    for (const std::string& attribute : attributes) {
        content.append(attribute);
    }
    AppendTlv(name, kTagSet, content);
    attributes.clear();
}

}  // namespace
}  // namespace asn1

bool printable_to_asn_dn(std::string_view printable, std::string& name_der, OID_MAP_HANDLE map) {
    if (map != OID_MAP_HANDLE_DEFAULT_FILE) {
        return false;
    }
    asn1::DnScanner scanner(printable);
    asn1::PrintedAttribute attribute;
    std::vector<std::string> rdn;
    std::string content;
    std::string der;
    while (scanner.Next(attribute)) {
        if (attribute.startsRdn && !rdn.empty()) {
            asn1::AppendRdn(content, rdn);
        }
        if (!asn1::EncodeAttribute(attribute, der)) {
            return false;
        }
        rdn.push_back(der);
    }
    if (!rdn.empty()) {
        asn1::AppendRdn(content, rdn);
    }
    std::string name;
    asn1::AppendTlv(name, asn1::kTagSequence, content);
    if (scanner.malformed() || name.size() > asn1::kMaxNameBytes) {
        return false;
    }
    name_der = std::move(name);
    return true;
}
