#include "tokens/gost/fields.h"

namespace gost_token {

void AppendNumber(std::string& out, std::uint64_t number) {
    for (unsigned shift = 64; shift > 0; shift -= 8) out.push_back(static_cast<char>(number >> (shift - 8)));
}

void AppendField(std::string& out, std::uint64_t type, std::string_view value) {
    AppendNumber(out, type);
    AppendNumber(out, value.size());
    out.append(value);
}

bool ReadNumber(std::string_view value, std::uint64_t& number) {
    number = 0;
    for (const char byte : value) number = number << 8 | static_cast<unsigned char>(byte);
    return value.size() == kFieldNumberBytes;
}

bool FieldReader::Next(Field& field) {
    std::uint64_t length = 0;
    if (rest_.size() < kFieldHeaderBytes) return false;
    ReadNumber(rest_.substr(0, kFieldNumberBytes), field.type);
    ReadNumber(rest_.substr(kFieldNumberBytes, kFieldNumberBytes), length);
    if (length > rest_.size() - kFieldHeaderBytes) return false;
    field.value = rest_.substr(kFieldHeaderBytes, length);
    rest_.remove_prefix(kFieldHeaderBytes + length);
    return true;
}

bool FieldReader::Read(std::uint64_t type, std::string_view& value) {
    Field field;
    if (!Next(field) || field.type != type) return false;
    value = field.value;
    return true;
}

}  // namespace gost_token
