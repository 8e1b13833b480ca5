// The attributes of an object, and the one way they are written down.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "platform/base.h"
#include "tokens/gost/failure.h"

namespace gost_token {

/// Longest value of an attribute: above the largest CRL that the certificate manager takes from anywhere.
inline constexpr std::size_t kMaxValueBytes = 128UL << 20;

class Attributes {
  public:
    /// Nothing when it is not there.
    const std::string* Find(CK_ATTRIBUTE_TYPE type) const;
    /// Empty when it is not there.
    std::string_view Bytes(CK_ATTRIBUTE_TYPE type) const;
    /// False, or all bits set, when it is not there or has another form.
    bool Flag(CK_ATTRIBUTE_TYPE type) const;
    CK_ULONG Number(CK_ATTRIBUTE_TYPE type) const;

    void Set(CK_ATTRIBUTE_TYPE type, std::string_view value);
    void SetFlag(CK_ATTRIBUTE_TYPE type, bool value);
    void SetNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
    Attributes Clone() const;

    bool Matches(const CK_ATTRIBUTE* wanted, CK_ULONG count) const;

    /// Type, length and value of each, in the order of their types.
    vpnfc::SecretString Encode() const;
    /// False when it was cut or is out of order.
    static bool Decode(std::string_view encoded, Attributes& attributes);

  private:
    std::map<CK_ATTRIBUTE_TYPE, vpnfc::SecretString> values_;
};

/// The value of an attribute in a caller's template. Fails with CKR_ATTRIBUTE_VALUE_INVALID.
std::string_view ValueOf(const CK_ATTRIBUTE& attribute);

}  // namespace gost_token
