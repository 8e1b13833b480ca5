#include "ike/sa/fragments.h"

#include "ike/wire/bytes.h"

namespace ikeauth {

bool ReadFragmentNumber(std::string_view body, FragmentNumber& fragment) {
    ByteReader reader(body);
    return reader.Read(fragment.number) && reader.Read(fragment.count) && fragment.number != 0 &&
           fragment.number <= fragment.count && fragment.count <= kMaxFragments;
}

bool Reassembly::IsSameMessage(const Header& header) const {
    return header_ && header_->message_id == header.message_id && header_->flags == header.flags &&
           header_->exchange == header.exchange;
}

bool Reassembly::Add(const Header& header, FragmentNumber fragment, std::uint8_t first, std::string plain,
                     std::string& whole, std::uint8_t& first_payload) {
    if (!IsSameMessage(header) || fragment.count > parts_.size()) {
        header_ = header;
        parts_.assign(fragment.count, std::nullopt);
        missing_ = fragment.count;
        bytes_ = 0;
    }
    std::optional<std::string>& part = parts_[fragment.number - 1U];
    if (fragment.count != parts_.size() || part || bytes_ + plain.size() > kMaxInnerBytes) return false;
    if (fragment.number == 1) first_payload_ = first;
    bytes_ += plain.size();
    part = std::move(plain);
    if (--missing_ != 0) return false;
    whole.clear();
    for (const std::optional<std::string>& piece : parts_) whole += *piece;
    first_payload = first_payload_;
    header_.reset();
    return true;
}

}  // namespace ikeauth
