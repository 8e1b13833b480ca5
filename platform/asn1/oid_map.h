// The identifier map: names of attribute types, extensions, purposes, policies and algorithms.
#pragma once

#include <string_view>

#include "platform/asn1.h"
#include "platform/asn1/oid.h"

namespace asn1 {

/// String type that a value of an attribute type is written in when its characters allow it.
enum class Syntax : unsigned char {
    kNotAttribute,  // an identifier that names cannot use as an attribute type by name
    kDirectory,  // UTF8String
    kPrintable,
    kIa5,
};

struct OidRow {
    OidContent oid{};
    OidMapEntry names{};
    Syntax syntax = Syntax::kNotAttribute;

    /// Attribute type as printed in a name.
    constexpr std::string_view ShortName() const {
        return names.other_name.empty() ? names.preferred_name : names.other_name;
    }
    constexpr bool IsAttribute() const { return syntax != Syntax::kNotAttribute; }
};

/// The row of an identifier's content, or null.
const OidRow* FindOid(std::string_view oid) noexcept;
/// The attribute type with this name (either one, or a customary abbreviation), without regard to ASCII case; or null.
const OidRow* FindAttributeByName(std::string_view name) noexcept;

}  // namespace asn1
