// Attributes of objects on their way to a token and from it.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/tokens/ck_api.h"

namespace tokens {

/// Longest attribute that is read: far above every certificate and CRL of use, low enough for a hostile token.
inline constexpr CK_ULONG kMaxAttributeBytes = 16UL << 20;

/// Attributes of an object to make or to look for. Owns the values, which are wiped; not to be copied.
class AttributeTemplate {
  public:
    AttributeTemplate() = default;
    ~AttributeTemplate();
    AttributeTemplate(const AttributeTemplate&) = delete;
    AttributeTemplate& operator=(const AttributeTemplate&) = delete;

    AttributeTemplate& Bytes(CK_ATTRIBUTE_TYPE type, std::string_view value);
    AttributeTemplate& Number(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
    AttributeTemplate& Flag(CK_ATTRIBUTE_TYPE type, bool value);

    std::span<CK_ATTRIBUTE> view() { return attributes_; }

  private:
    std::deque<std::string> values_;
    std::vector<CK_ATTRIBUTE> attributes_;
};

/// What is left of the bytes that one operation may read from a token, whatever number of readers it has.
class ByteBudget {
  public:
    explicit ByteBudget(std::size_t bytes = kMaxListingBytes) : left_(bytes) {}
    bool Take(std::size_t bytes) {
        if (bytes > left_) return false;
        left_ -= bytes;
        return true;
    }

  private:
    std::size_t left_;
};

/// Reads the same attributes of one object after the other, each object with one call as long as its values fit the
/// expected sizes. What was read stays until the next Read; buffers are wiped at the end.
class AttributeReader {
  public:
    struct Wanted {
        CK_ATTRIBUTE_TYPE type;
        CK_ULONG expected_bytes;
    };

    /// `budget` outlives the reader.
    AttributeReader(const std::vector<Wanted>& wanted, ByteBudget& budget);
    ~AttributeReader();
    AttributeReader(const AttributeReader&) = delete;
    AttributeReader& operator=(const AttributeReader&) = delete;

    /// An attribute that the object lacks or does not let out is no failure: it is just not there. kRvTooManyBytes when
    /// the budget is used up.
    Result Read(const Api& api, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object);

    // By position in the list of the constructor.
    bool Has(std::size_t index) const { return attributes_[index].ulValueLen != CK_UNAVAILABLE_INFORMATION; }
    std::string_view Bytes(std::size_t index) const;  // empty when not there
    CK_ULONG Number(std::size_t index, CK_ULONG otherwise) const;
    bool Flag(std::size_t index) const;

  private:
    Result ReadLong(const Api& api, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object);

    ByteBudget& budget_;
    std::vector<CK_ATTRIBUTE> attributes_;
    std::vector<std::string> buffers_;
};

/// Appends the handles of the objects that match all attributes. kRvTooManyObjects when they are more than kMaxObjects.
Result FindObjects(const Api& api, CK_SESSION_HANDLE session, AttributeTemplate& wanted,
                   std::vector<CK_OBJECT_HANDLE>& objects);

}  // namespace tokens
