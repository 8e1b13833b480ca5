// ASCII characters, without the process's locale.
#pragma once

#include <cstddef>
#include <string_view>

namespace asn1 {

constexpr char AsciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

constexpr bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool IsAsciiLetter(char c) {
    return AsciiLower(c) >= 'a' && AsciiLower(c) <= 'z';
}

/// Value of a hexadecimal digit, -1 for any other character.
constexpr int HexDigit(char c) {
    const char lower = AsciiLower(c);
    return IsDigit(c) ? c - '0' : lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

constexpr bool AsciiEqualIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (AsciiLower(a[i]) != AsciiLower(b[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace asn1
