#include "platform/tokens/attributes.h"

#include <array>
#include <cstring>

#include "platform/base.h"

namespace tokens {
namespace {

/// Handles fetched with one call.
constexpr std::size_t kFindPage = 512;

/// C_GetAttributeValue answers these when it has filled in what it could.
bool IsPartial(CK_RV rv) {
    return rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_BUFFER_TOO_SMALL;
}

}  // namespace

AttributeTemplate::~AttributeTemplate() {
    for (std::string& value : values_) vpnfc::SecureWipe(value);
}

AttributeTemplate& AttributeTemplate::Bytes(CK_ATTRIBUTE_TYPE type, std::string_view value) {
    std::string& owned = values_.emplace_back(value);
    attributes_.push_back({type, owned.data(), owned.size()});
    return *this;
}

AttributeTemplate& AttributeTemplate::Number(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    return Bytes(type, {reinterpret_cast<const char*>(&value), sizeof value});
}

AttributeTemplate& AttributeTemplate::Flag(CK_ATTRIBUTE_TYPE type, bool value) {
    return Bytes(type, std::string_view(value ? "\1" : "\0", 1));
}

AttributeReader::AttributeReader(const std::vector<Wanted>& wanted, ByteBudget& budget) : budget_(budget) {
    attributes_.reserve(wanted.size());
    buffers_.reserve(wanted.size());
    for (const auto& [type, expected] : wanted) {
        buffers_.emplace_back(expected, '\0');
        attributes_.push_back({type, nullptr, CK_UNAVAILABLE_INFORMATION});
    }
}

AttributeReader::~AttributeReader() {
    for (std::string& buffer : buffers_) vpnfc::SecureWipe(buffer);
}

Result AttributeReader::Read(const Api& api, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
    if (attributes_.empty()) return {};
    for (std::size_t i = 0; i < attributes_.size(); ++i) {
        attributes_[i].pValue = buffers_[i].data();
        attributes_[i].ulValueLen = buffers_[i].size();
    }
    Result result = api.GetAttributeValue(session, object, attributes_);
    if (result.rv == CKR_BUFFER_TOO_SMALL) result = ReadLong(api, session, object);
    if (IsPartial(result.rv)) result.rv = CKR_OK;
    std::size_t total = 0;
    for (std::size_t i = 0; i < attributes_.size(); ++i) {
        CK_ULONG& length = attributes_[i].ulValueLen;
        if (!result.ok() || length > buffers_[i].size()) length = CK_UNAVAILABLE_INFORMATION;
        total += Bytes(i).size();
    }
    if (!budget_.Take(total)) result.rv = kRvTooManyBytes;
    return result;
}

/// A value is longer than expected: asks for the sizes first.
Result AttributeReader::ReadLong(const Api& api, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
    for (CK_ATTRIBUTE& attribute : attributes_) attribute = {attribute.type, nullptr, 0};
    const Result result = api.GetAttributeValue(session, object, attributes_);
    if (!result.ok() && !IsPartial(result.rv)) return result;
    for (std::size_t i = 0; i < attributes_.size(); ++i) {
        const CK_ULONG length = attributes_[i].ulValueLen;
        if (length != CK_UNAVAILABLE_INFORMATION && length > buffers_[i].size() && length <= kMaxAttributeBytes) {
            vpnfc::SecureWipe(buffers_[i]);
            buffers_[i].resize(length);
        }
        attributes_[i].pValue = buffers_[i].data();
        attributes_[i].ulValueLen = buffers_[i].size();
    }
    return api.GetAttributeValue(session, object, attributes_);
}

std::string_view AttributeReader::Bytes(std::size_t index) const {
    if (!Has(index)) return {};
    return {static_cast<const char*>(attributes_[index].pValue), attributes_[index].ulValueLen};
}

CK_ULONG AttributeReader::Number(std::size_t index, CK_ULONG otherwise) const {
    const std::string_view bytes = Bytes(index);
    if (bytes.size() != sizeof(CK_ULONG)) return otherwise;
    CK_ULONG value = 0;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

bool AttributeReader::Flag(std::size_t index) const {
    const std::string_view bytes = Bytes(index);
    return bytes.size() == 1 && bytes[0] != 0;
}

Result FindObjects(const Api& api, CK_SESSION_HANDLE session, AttributeTemplate& wanted,
                   std::vector<CK_OBJECT_HANDLE>& objects) {
    Result result = api.FindObjectsInit(session, wanted.view());
    if (!result.ok()) return result;
    std::array<CK_OBJECT_HANDLE, kFindPage> page{};
    CK_ULONG found = 0;
    do {
        result = api.FindObjects(session, page, found);
        if (!result.ok()) break;
        if (found > page.size()) {  // a module that lies: what it left out nobody knows
            result.rv = CKR_FUNCTION_FAILED;
            break;
        }
        objects.insert(objects.end(), page.begin(), page.begin() + found);
        if (objects.size() > kMaxObjects) result.rv = kRvTooManyObjects;
    } while (found > 0 && result.ok());
    const Result final = api.FindObjectsFinal(session);
    return result.ok() ? final : result;
}

}  // namespace tokens
