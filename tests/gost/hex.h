// Numbers of the standards as bytes.
#pragma once

#include <algorithm>
#include <string>

namespace gost_test {

inline std::string FromHex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string Reversed(std::string text) {
    std::reverse(text.begin(), text.end());
    return text;
}

}  // namespace gost_test
