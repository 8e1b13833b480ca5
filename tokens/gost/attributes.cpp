#include "tokens/gost/attributes.h"

#include <cstring>

#include "tokens/gost/fields.h"

namespace gost_token {

std::string_view ValueOf(const CK_ATTRIBUTE& attribute) {
    const bool empty = attribute.ulValueLen == 0;
    Require(attribute.ulValueLen <= kMaxValueBytes && (empty || attribute.pValue != nullptr),
            CKR_ATTRIBUTE_VALUE_INVALID);
    return empty ? std::string_view()
                 : std::string_view(static_cast<const char*>(attribute.pValue), attribute.ulValueLen);
}

const std::string* Attributes::Find(CK_ATTRIBUTE_TYPE type) const {
    const auto found = values_.find(type);
    return found == values_.end() ? nullptr : &found->second.get();
}

std::string_view Attributes::Bytes(CK_ATTRIBUTE_TYPE type) const {
    const std::string* const value = Find(type);
    return value == nullptr ? std::string_view() : *value;
}

bool Attributes::Flag(CK_ATTRIBUTE_TYPE type) const {
    const std::string_view value = Bytes(type);
    return value.size() == sizeof(CK_BBOOL) && value[0] != CK_FALSE;
}

CK_ULONG Attributes::Number(CK_ATTRIBUTE_TYPE type) const {
    const std::string_view value = Bytes(type);
    CK_ULONG number = CK_UNAVAILABLE_INFORMATION;
    if (value.size() == sizeof number) std::memcpy(&number, value.data(), sizeof number);
    return number;
}

void Attributes::Set(CK_ATTRIBUTE_TYPE type, std::string_view value) {
    values_[type] = vpnfc::SecretString(value);
}

void Attributes::SetFlag(CK_ATTRIBUTE_TYPE type, bool value) {
    const CK_BBOOL flag = value ? CK_TRUE : CK_FALSE;
    Set(type, {reinterpret_cast<const char*>(&flag), sizeof flag});
}

void Attributes::SetNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    Set(type, {reinterpret_cast<const char*>(&value), sizeof value});
}

Attributes Attributes::Clone() const {
    Attributes copy;
    for (const auto& [type, value] : values_) copy.Set(type, value.get());
    return copy;
}

bool Attributes::Matches(const CK_ATTRIBUTE* wanted, CK_ULONG count) const {
    for (CK_ULONG i = 0; i < count; ++i) {
        const std::string* const value = Find(wanted[i].type);
        if (value == nullptr || *value != ValueOf(wanted[i])) return false;
    }
    return true;
}

vpnfc::SecretString Attributes::Encode() const {
    std::size_t size = 0;
    for (const auto& [type, value] : values_) size += kFieldHeaderBytes + value.get().size();
    vpnfc::SecretString encoded;
    encoded.edit().reserve(size);
    for (const auto& [type, value] : values_) AppendField(encoded.edit(), type, value.get());
    return encoded;
}

bool Attributes::Decode(std::string_view encoded, Attributes& attributes) {
    FieldReader reader(encoded);
    Field field;
    while (reader.Next(field)) {
        const bool in_order = attributes.values_.empty() || attributes.values_.rbegin()->first < field.type;
        if (!in_order || field.value.size() > kMaxValueBytes) return false;
        attributes.Set(field.type, field.value);
    }
    return reader.AtEnd();
}

}  // namespace gost_token
