#include <arpa/inet.h>
#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <map>

#include "tests/support/der.h"
#include "tests/support/pki_internal.h"

namespace test_pki {

namespace {

constexpr std::uint8_t kUtf8String = 0x0C;
constexpr std::uint8_t kPrintableString = 0x13;
constexpr std::uint8_t kIa5String = 0x16;

std::uint8_t StringTag(int nid) {
    switch (nid) {
        case NID_countryName:
        case NID_serialNumber:
        case NID_dnQualifier:
            return kPrintableString;
        case NID_domainComponent:
        case NID_pkcs9_emailAddress:
            return kIa5String;
        default:
            return kUtf8String;
    }
}

std::string Rdn(std::vector<std::string>& values) {
    std::sort(values.begin(), values.end());  // DER order of a SET OF
    std::string content;
    for (const std::string& value : values) content += value;
    values.clear();
    return der::Set(content);
}

std::string AttributeDer(const std::string& type, const std::string& value) {
    return der::Sequence(der::Oid(type) + der::Tlv(StringTag(OBJ_txt2nid(type.c_str())), value));
}

std::string IpBytes(const std::string& text) {
    std::array<char, 16> address{};
    if (inet_pton(AF_INET, text.c_str(), address.data()) == 1) return {address.data(), 4};
    if (inet_pton(AF_INET6, text.c_str(), address.data()) == 1) return {address.data(), address.size()};
    throw std::invalid_argument("not an IP address: " + text);
}

}  // namespace

std::string NameDer(const std::string& text) {
    std::string rdns;
    std::vector<std::string> values;
    std::string type;
    std::string part;
    bool in_value = false;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        const char c = i < text.size() ? text[i] : ',';
        const bool escaped = i + 1 < text.size() && c == '\\';
        if (escaped) {
            part += text[++i];
        } else if (!in_value && c == '=') {
            type = std::exchange(part, {});
            in_value = true;
        } else if (in_value && (c == ',' || c == '+')) {
            values.push_back(AttributeDer(type, std::exchange(part, {})));
            in_value = false;
            if (c == ',') rdns += Rdn(values);
        } else if (in_value || c != ' ') {
            part += c;
        }
    }
    return der::Sequence(rdns);
}

std::string GeneralName(const std::string& text) {
    static const std::map<std::string, unsigned> primitive{{"email", 1}, {"DNS", 2}, {"URI", 6}, {"IPRAW", 7}};
    const std::size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    const std::string value = text.substr(colon + 1);
    if (primitive.contains(kind)) return der::Implicit(primitive.at(kind), value);
    if (kind == "UPN") {
        return der::Explicit(0, der::Oid("1.3.6.1.4.1.311.20.2.3") + der::Explicit(0, der::Tlv(kUtf8String, value)));
    }
    if (kind == "DN") return der::Explicit(4, NameDer(value));
    if (kind == "IP") return der::Implicit(7, IpBytes(value));
    if (kind == "RID") return der::Implicit(8, der::Oid(value).substr(2));
    if (kind == "DER") return value;
    throw std::invalid_argument("kind of general name: " + kind);
}

}  // namespace test_pki
