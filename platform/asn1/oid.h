// Object identifiers: content bytes and dotted text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace asn1 {

/// Longest content that is read or written: enough for every identifier in use, the 128-bit arcs below 2.25 included,
/// and short enough that the quadratic conversion of an arc of any size stays cheap.
inline constexpr std::size_t kMaxOidBytes = 128;

/// Content of an identifier that stands in a table.
struct OidContent {
    std::array<char, 15> bytes{};
    unsigned char size = 0;

    constexpr operator std::string_view() const { return {bytes.data(), size}; }
};

/// Content of dotted text, for the tables: evaluated by the compiler, which refuses bad text.
constexpr OidContent Oid(std::string_view dotted) {
    OidContent content;
    std::uint32_t first = 0;
    unsigned arcs = 0;
    for (std::size_t at = 0; at < dotted.size(); ++at) {
        std::uint32_t arc = 0;
        for (; at < dotted.size() && dotted[at] != '.'; ++at) {
            arc = arc * 10 + static_cast<std::uint32_t>(dotted[at] - '0');
        }
        if (arcs++ == 0) {
            first = arc;
            continue;
        }
        if (arcs == 2) {
            arc += first * 40;
        }
        unsigned shift = 0;
        while (arc >> (shift + 7) != 0) {
            shift += 7;
        }
        for (;; shift -= 7) {
            content.bytes.at(content.size++) = static_cast<char>((arc >> shift & 0x7F) | (shift == 0 ? 0 : 0x80));
            if (shift == 0) {
                break;
            }
        }
    }
    return content;
}

/// Content bytes of dotted text (any size of arc). False (unchanged) on anything but digits and dots, on fewer than two
/// arcs, on leading zeros and on arcs that X.660 does not allow.
bool OidFromDotted(std::string_view dotted, std::string& content);

}  // namespace asn1
