// What the token's files are made of: fields of a type, a length and a value.
//
// Type and length are numbers of eight bytes, most significant byte first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace gost_token {

inline constexpr std::size_t kFieldNumberBytes = 8;
inline constexpr std::size_t kFieldHeaderBytes = 2 * kFieldNumberBytes;

struct Field {
    std::uint64_t type = 0;
    std::string_view value{};
};

void AppendNumber(std::string& out, std::uint64_t number);
void AppendField(std::string& out, std::uint64_t type, std::string_view value);

/// Reads one field after the other. One that is cut is not consumed.
class FieldReader {
  public:
    explicit FieldReader(std::string_view bytes) : rest_(bytes) {}
    bool AtEnd() const { return rest_.empty(); }
    std::string_view rest() const { return rest_; }
    bool Next(Field& field);
    /// The next field must have this type.
    bool Read(std::uint64_t type, std::string_view& value);

  private:
    std::string_view rest_;
};

/// False unless the value is a number as AppendNumber writes it.
bool ReadNumber(std::string_view value, std::uint64_t& number);

}  // namespace gost_token
