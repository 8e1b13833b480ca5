// What objects may be made of: which attributes each class has, who sets them, and what callers get to see.
//
// Standard: PKCS #11 v2.40, section 4.
#pragma once

#include "tokens/gost/attributes.h"
#include "tokens/gost/key.h"

namespace gost_token {

/// Who is logged in.
enum class Role : std::uint8_t { kNobody, kUser, kOfficer };

struct Template {
    const CK_ATTRIBUTE* attributes = nullptr;
    CK_ULONG count = 0;
};

/// The attributes of a new object, defaults filled in. `made` are those that the caller's template need not, or must not,
/// name: the class and the values of a generated key.
Attributes NewObject(const Template& wanted, const Attributes& made, Role role);
/// The attributes with the caller's changes.
Attributes Changed(const Attributes& object, const Template& changes, Role role);
/// C_GetAttributeValue: fills the template, and answers as that function does.
CK_RV Show(const Attributes& object, CK_ATTRIBUTE* wanted, CK_ULONG count);

/// The key that a key object holds. Fails with CKR_KEY_HANDLE_INVALID for other objects.
KeyPtr KeyOf(const Engine& engine, const Attributes& object);
/// Fails, with what the caller did wrong, unless the object's values go together.
void CheckObject(const Engine& engine, const Attributes& object);

/// Kind and curve that a template of C_GenerateKeyPair names; empty identifiers where it does not.
Domain DomainOf(CK_KEY_TYPE type, const Template& wanted);

}  // namespace gost_token
