// Bounded DER reading and writing, the only one in this library.
//
// Lengths must be definite and in their shortest form, tags of at most kMaxTagBytes. What is read are views into the
// input; nothing is copied and no more is looked at than the input holds.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace asn1 {

inline constexpr unsigned char kTagInteger = 0x02;
inline constexpr unsigned char kTagBitString = 0x03;
inline constexpr unsigned char kTagOctetString = 0x04;
inline constexpr unsigned char kTagNull = 0x05;
inline constexpr unsigned char kTagOid = 0x06;
inline constexpr unsigned char kTagUtf8String = 0x0C;
inline constexpr unsigned char kTagNumericString = 0x12;
inline constexpr unsigned char kTagPrintableString = 0x13;
inline constexpr unsigned char kTagTeletexString = 0x14;
inline constexpr unsigned char kTagIa5String = 0x16;
inline constexpr unsigned char kTagVisibleString = 0x1A;
inline constexpr unsigned char kTagUniversalString = 0x1C;
inline constexpr unsigned char kTagBmpString = 0x1E;
inline constexpr unsigned char kTagSequence = 0x30;
inline constexpr unsigned char kTagSet = 0x31;
inline constexpr unsigned char kTagContext0 = 0xA0;  // [0] EXPLICIT; the others follow

inline constexpr std::size_t kMaxTagBytes = 4;
inline constexpr std::size_t kMaxLengthBytes = 4;  // of the long form: elements up to 4 GiB

struct Tlv {
    unsigned char tag;  // first identifier byte; a tag number of 31 and more keeps 0x1F in its low bits
    std::string_view content;
    std::string_view whole;
};

/// Reads one element after the other. An element that was refused is not consumed.
class DerReader {
  public:
    explicit DerReader(std::string_view der) : rest_(der) {}

    bool AtEnd() const { return rest_.empty(); }

    bool Next(Tlv& element) {
        std::size_t at = TagSize();
        std::size_t length = 0;
        if (at == 0 || !ReadLength(at, length) || length > rest_.size() - at) {
            return false;
        }
        element = {static_cast<unsigned char>(rest_[0]), rest_.substr(at, length), rest_.substr(0, at + length)};
        rest_.remove_prefix(at + length);
        return true;
    }

    /// The next element must carry this tag.
    bool Read(unsigned char tag, std::string_view& content) {
        Tlv element;
        if (rest_.empty() || static_cast<unsigned char>(rest_[0]) != tag || !Next(element)) {
            return false;
        }
        content = element.content;
        return true;
    }

    bool Enter(unsigned char tag, DerReader& inside) { return Read(tag, inside.rest_); }

    /// Reads the element if it is the next one. False only when it is there and malformed.
    bool ReadOptional(unsigned char tag, std::string_view& content) {
        return rest_.empty() || static_cast<unsigned char>(rest_[0]) != tag || Read(tag, content);
    }

  private:
    unsigned char Byte(std::size_t at) const { return static_cast<unsigned char>(rest_[at]); }

    /// Number of identifier bytes, 0 when they are cut off or not in DER.
    std::size_t TagSize() const {
        if (rest_.empty()) {
            return 0;
        }
        if ((Byte(0) & 0x1F) != 0x1F) {
            return 1;
        }
        for (std::size_t at = 1; at < kMaxTagBytes && at < rest_.size(); ++at) {
            if (at == 1 && (Byte(at) == 0x80 || Byte(at) < 0x1F)) {
                return 0;  // not the shortest form
            }
            if (Byte(at) < 0x80) {
                return at + 1;
            }
        }
        return 0;
    }

    bool ReadLength(std::size_t& at, std::size_t& length) const {
        if (at >= rest_.size()) {
            return false;
        }
        length = Byte(at++);
        if (length < 0x80) {
            return true;
        }
        const std::size_t count = length & 0x7F;
        if (count == 0 || count > kMaxLengthBytes || count > rest_.size() - at || Byte(at) == 0) {
            return false;
        }
        length = 0;
        for (std::size_t i = 0; i < count; ++i) {
            length = length << 8 | Byte(at++);
        }
        return length >= 0x80;
    }

    std::string_view rest_;
};

/// True when `der` is one element with this tag and nothing after it.
inline bool ReadWhole(std::string_view der, unsigned char tag, DerReader& inside) {
    DerReader outer(der);
    return outer.Enter(tag, inside) && outer.AtEnd();
}

/// A number's magnitude in its shortest form; empty for 0.
inline std::string_view WithoutLeadingZeros(std::string_view number) {
    const std::size_t first = number.find_first_not_of('\0');
    return number.substr(first == std::string_view::npos ? number.size() : first);
}

/// Appends a number of at most `width` bytes with zeros before it.
inline void AppendPadded(std::string& out, std::size_t width, std::string_view number) {
    out.append(width - number.size(), '\0').append(number);
}

inline void AppendHeader(std::string& out, unsigned char tag, std::size_t length) {
    out.push_back(static_cast<char>(tag));
    if (length < 0x80) {
        out.push_back(static_cast<char>(length));
        return;
    }
    unsigned count = 1;
    while (length >> (8 * count) != 0) {
        ++count;
    }
    out.push_back(static_cast<char>(0x80 | count));
    while (count-- > 0) {
        out.push_back(static_cast<char>(length >> (8 * count)));
    }
}

inline void AppendTlv(std::string& out, unsigned char tag, std::string_view content) {
    AppendHeader(out, tag, content.size());
    out.append(content);
}

}  // namespace asn1
