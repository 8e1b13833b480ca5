// Words of texts for people.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vpnfc {

/// The items with ", " between them; `text_of` gives the text of each, an empty one is left out.
template <typename Items, typename TextOf>
std::string Joined(const Items& items, TextOf text_of) {
    std::string joined;
    for (const auto& item : items) {
        const std::string text(text_of(item));
        if (!text.empty()) joined.append(joined.empty() ? "" : ", ").append(text);
    }
    return joined;
}
template <typename Items>
std::string Joined(const Items& items) {
    return Joined(items, [](const auto& item) { return item; });
}

/// "1 certificate", "2 certificates".
inline std::string Counted(std::size_t number, std::string_view what) {
    return std::to_string(number).append(" ").append(what).append(number == 1 ? "" : "s");
}

}  // namespace vpnfc
