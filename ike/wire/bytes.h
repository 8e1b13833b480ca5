// Numbers in network order and byte strings, read within bounds and written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ikeauth {

/// Reads from bytes that it does not own. A read beyond the end fails and changes nothing.
class ByteReader {
  public:
    explicit ByteReader(std::string_view bytes) : bytes_(bytes) {}

    template <typename Number>
    bool Read(Number& value) {
        std::string_view raw;
        if (!Read(sizeof value, raw)) return false;
        Number number = 0;
        for (const char byte : raw) number = static_cast<Number>(number << 8U | static_cast<unsigned char>(byte));
        value = number;
        return true;
    }
    bool Read(std::size_t count, std::string_view& out) {
        if (count > bytes_.size()) return false;
        out = bytes_.substr(0, count);
        bytes_.remove_prefix(count);
        return true;
    }
    bool Skip(std::size_t count) {
        std::string_view ignored;
        return Read(count, ignored);
    }
    std::string_view rest() const { return bytes_; }
    bool at_end() const { return bytes_.empty(); }

  private:
    std::string_view bytes_;
};

/// A number in network order.
template <typename Number>
std::string NetworkOrder(Number value) {
    std::string bytes(sizeof value, '\0');
    for (std::size_t i = sizeof value; i > 0; --i) {
        bytes[i - 1] = static_cast<char>(value & 0xFF);
        if constexpr (sizeof value > 1) value = static_cast<Number>(value >> 8U);
    }
    return bytes;
}

inline std::string Byte(std::uint8_t value) {
    return NetworkOrder(value);
}

}  // namespace ikeauth
