// DER by hand, for fixtures: what libcrypto refuses to write, tests must be able to.
//
//     std::string seq = der::Sequence(der::Integer(5) + der::Oid("1.2.3") + der::Null());
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace der {

/// Tag, definite length, content.
std::string Tlv(std::uint8_t tag, std::string_view content);

inline std::string Sequence(std::string_view content) {
    return Tlv(0x30, content);
}
inline std::string Set(std::string_view content) {
    return Tlv(0x31, content);
}
inline std::string OctetString(std::string_view content) {
    return Tlv(0x04, content);
}
inline std::string Null() {
    return Tlv(0x05, {});
}
inline std::string Boolean(bool value) {
    return Tlv(0x01, value ? "\xff" : std::string_view("\0", 1));
}
inline std::string BitString(std::string_view bytes, std::uint8_t unused = 0) {
    return Tlv(0x03, std::string(1, static_cast<char>(unused)).append(bytes));
}
/// INTEGER of these content bytes, as given.
inline std::string IntegerBytes(std::string_view content) {
    return Tlv(0x02, content);
}
/// INTEGER of a small number that is not negative.
std::string Integer(std::uint64_t value);
/// OBJECT IDENTIFIER of a dotted text or a name libcrypto knows; throws std::invalid_argument.
std::string Oid(const std::string& text);
/// [number], context-specific.
inline std::string Explicit(unsigned number, std::string_view content) {
    return Tlv(static_cast<std::uint8_t>(0xA0 | number), content);
}
inline std::string Implicit(unsigned number, std::string_view content) {
    return Tlv(static_cast<std::uint8_t>(0x80 | number), content);
}

}  // namespace der
