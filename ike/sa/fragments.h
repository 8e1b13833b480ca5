// Messages in fragments (RFC 7383): putting together what comes in any order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ike/wire/message.h"

namespace ikeauth {

inline constexpr std::uint16_t kMaxFragments = 512;
inline constexpr std::size_t kFragmentNumberBytes = 4;

/// Number and count, as they stand at the beginning of an encrypted fragment.
struct FragmentNumber {
    std::uint16_t number = 1;
    std::uint16_t count = 1;
};
/// False when the numbers cannot be.
bool ReadFragmentNumber(std::string_view body, FragmentNumber& fragment);

/// Fragments of one message at a time, decrypted already.
class Reassembly {
  public:
    /// True when this was the last one missing: `plain` and `first` receive the whole. Another message, or a larger
    /// count (the sender found the path narrower), starts anew; what is too much is dropped.
    bool Add(const Header& header, FragmentNumber fragment, std::uint8_t first, std::string plain, std::string& whole,
             std::uint8_t& first_payload);

  private:
    bool IsSameMessage(const Header& header) const;

    std::optional<Header> header_;
    std::vector<std::optional<std::string>> parts_;
    std::size_t missing_ = 0;
    std::size_t bytes_ = 0;
    std::uint8_t first_payload_ = 0;
};

}  // namespace ikeauth
