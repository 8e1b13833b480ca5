// The finder of a value in a directory's answer: the same whatever way the text is cut, and what a reader of whole lines
// would find. Input: number of cuts, lengths of the pieces, text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "certmgr/cert_crlfetch.h"
#include "fuzz/target.h"

namespace {

std::string FindInPieces(std::string_view text, std::string_view lengths) {
    CM::LdapValueFinder finder;
    std::string value;
    for (const char length : lengths) {
        const std::size_t size = std::min<std::size_t>(static_cast<unsigned char>(length), text.size());
        finder.Take(text.substr(0, size), value);
        text.remove_prefix(size);
    }
    finder.Take(text, value);
    return value;
}

std::string FindInLines(std::string_view text) {
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::size_t colon = line.find(':');
        if (!line.starts_with("\tc") && !line.starts_with("\tC")) continue;
        if (colon == std::string_view::npos) continue;
        std::string_view value = line.substr(colon + 1);
        if (value.starts_with(':')) value.remove_prefix(1);
        if (value.starts_with(' ')) value.remove_prefix(1);
        return std::string(value);
    }
    return {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t cuts = std::min<std::size_t>(data[0], size - 1);
    const std::string_view text = input.substr(1 + cuts);
    const std::string found = FindInPieces(text, input.substr(1, cuts));
    if (found != FindInLines(text)) fuzz::Require("another value than the lines have");
    return 0;
}
