#include "tokens/gost/object_rules.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

namespace gost_token {
namespace {

enum Classes : unsigned {
    kData = 1,
    kCertificate = 2,
    kPublic = 4,
    kPrivate = 8,
    kSecret = 16,
    kKeys = kPublic | kPrivate | kSecret,
    kHidable = kPrivate | kSecret,
    kAll = kData | kCertificate | kKeys,
};

enum class Form : std::uint8_t { kFlag, kNumber, kBytes, kDate };

enum Traits : unsigned {
    kRequired = 1,
    kChangeable = 2,
    kTokenSets = 4,  // never from a template
    kOfficerSets = 8,  // true only from the security officer
    kGuarded = 16,  // not shown when the object is sensitive or not extractable
    kOneWayUp = 32,  // may be changed to true alone
    kOneWayDown = 64,  // to false alone
    kNoDefault = 128,  // absent unless given
    kNeverSet = 256,  // a flag for what the token does not do
};

struct Rule {
    CK_ATTRIBUTE_TYPE type;
    unsigned classes;
    Form form;
    unsigned traits = 0;
    bool set_by_default = false;  // of a flag
};

constexpr std::array kRules = {
    Rule{CKA_CLASS, kAll, Form::kNumber, kRequired},
    Rule{CKA_TOKEN, kAll, Form::kFlag},
    Rule{CKA_PRIVATE, kData | kCertificate | kPublic, Form::kFlag},
    Rule{CKA_PRIVATE, kHidable, Form::kFlag, 0, true},
    Rule{CKA_MODIFIABLE, kAll, Form::kFlag, 0, true},
    Rule{CKA_LABEL, kAll, Form::kBytes, kChangeable},

    Rule{CKA_APPLICATION, kData, Form::kBytes, kChangeable},
    Rule{CKA_OBJECT_ID, kData, Form::kBytes, kChangeable},
    Rule{CKA_VALUE, kData, Form::kBytes, kChangeable},

    Rule{CKA_CERTIFICATE_TYPE, kCertificate, Form::kNumber, kRequired},
    Rule{CKA_TRUSTED, kCertificate | kPublic | kSecret, Form::kFlag, kOfficerSets | kChangeable},
    Rule{CKA_CERTIFICATE_CATEGORY, kCertificate, Form::kNumber},
    Rule{CKA_CHECK_VALUE, kCertificate, Form::kBytes, kNoDefault},
    Rule{CKA_ISSUER, kCertificate, Form::kBytes, kChangeable},
    Rule{CKA_SERIAL_NUMBER, kCertificate, Form::kBytes, kChangeable},
    Rule{CKA_VALUE, kCertificate, Form::kBytes, kRequired},
    Rule{CKA_URL, kCertificate, Form::kBytes},
    Rule{CKA_PUBLIC_KEY_INFO, kCertificate | kPublic | kPrivate, Form::kBytes, kNoDefault},

    Rule{CKA_KEY_TYPE, kKeys, Form::kNumber, kRequired},
    Rule{CKA_ID, kKeys | kCertificate, Form::kBytes, kChangeable},
    Rule{CKA_START_DATE, kKeys | kCertificate, Form::kDate, kChangeable},
    Rule{CKA_END_DATE, kKeys | kCertificate, Form::kDate, kChangeable},
    Rule{CKA_SUBJECT, kPublic | kPrivate | kCertificate, Form::kBytes, kChangeable},
    Rule{CKA_DERIVE, kKeys, Form::kFlag, kChangeable},
    Rule{CKA_LOCAL, kKeys, Form::kFlag, kTokenSets},
    Rule{CKA_KEY_GEN_MECHANISM, kKeys, Form::kNumber, kTokenSets},
    Rule{CKA_GOSTR3410_PARAMS, kPublic | kPrivate, Form::kBytes, kRequired},
    Rule{CKA_GOSTR3411_PARAMS, kPublic | kPrivate, Form::kBytes},
    Rule{CKA_GOST28147_PARAMS, kPublic | kPrivate, Form::kBytes, kNoDefault},

    Rule{CKA_VERIFY, kPublic, Form::kFlag, kChangeable, true},
    Rule{CKA_VERIFY, kSecret, Form::kFlag, kChangeable},
    Rule{CKA_VERIFY_RECOVER, kPublic, Form::kFlag, kChangeable},
    Rule{CKA_ENCRYPT, kPublic | kSecret, Form::kFlag, kChangeable},
    Rule{CKA_WRAP, kPublic | kSecret, Form::kFlag, kChangeable},
    Rule{CKA_VALUE, kPublic, Form::kBytes, kRequired},

    Rule{CKA_SIGN, kPrivate, Form::kFlag, kChangeable, true},
    Rule{CKA_SIGN, kSecret, Form::kFlag, kChangeable},
    Rule{CKA_SIGN_RECOVER, kPrivate, Form::kFlag, kChangeable},
    Rule{CKA_DECRYPT, kHidable, Form::kFlag, kChangeable},
    Rule{CKA_UNWRAP, kHidable, Form::kFlag, kChangeable},
    Rule{CKA_SENSITIVE, kPrivate, Form::kFlag, kOneWayUp, true},
    Rule{CKA_SENSITIVE, kSecret, Form::kFlag, kOneWayUp},
    Rule{CKA_EXTRACTABLE, kPrivate, Form::kFlag, kOneWayDown},
    Rule{CKA_EXTRACTABLE, kSecret, Form::kFlag, kOneWayDown, true},
    Rule{CKA_WRAP_WITH_TRUSTED, kHidable, Form::kFlag},
    Rule{CKA_ALWAYS_AUTHENTICATE, kPrivate, Form::kFlag, kNeverSet},
    Rule{CKA_ALWAYS_SENSITIVE, kHidable, Form::kFlag, kTokenSets},
    Rule{CKA_NEVER_EXTRACTABLE, kHidable, Form::kFlag, kTokenSets},
    Rule{CKA_VALUE, kHidable, Form::kBytes, kRequired | kGuarded},
};

unsigned ClassBit(CK_OBJECT_CLASS object_class) {
    switch (object_class) {
        case CKO_DATA:
            return kData;
        case CKO_CERTIFICATE:
            return kCertificate;
        case CKO_PUBLIC_KEY:
            return kPublic;
        case CKO_PRIVATE_KEY:
            return kPrivate;
        case CKO_SECRET_KEY:
            return kSecret;
        default:
            return 0;
    }
}

unsigned ClassOf(const Attributes& object) {
    return ClassBit(object.Number(CKA_CLASS));
}

const Rule* FindRule(unsigned class_bit, CK_ATTRIBUTE_TYPE type) {
    const auto* const found = std::find_if(kRules.begin(), kRules.end(), [&](const Rule& rule) {
        return rule.type == type && (rule.classes & class_bit) != 0;
    });
    return found == kRules.end() ? nullptr : &*found;
}

bool HasForm(Form form, std::string_view value) {
    switch (form) {
        case Form::kFlag:
            return value.size() == sizeof(CK_BBOOL) && (value[0] == CK_TRUE || value[0] == CK_FALSE);
        case Form::kNumber:
            return value.size() == sizeof(CK_ULONG);
        case Form::kDate:
            return value.empty() || value.size() == sizeof(CK_DATE);
        default:
            return true;
    }
}

/// The value that a caller wants to give an attribute.
std::string_view Accept(const Rule& rule, const CK_ATTRIBUTE& attribute, Role role) {
    const std::string_view value = ValueOf(attribute);
    Require(HasForm(rule.form, value), CKR_ATTRIBUTE_VALUE_INVALID);
    const bool set = rule.form == Form::kFlag && value[0] != CK_FALSE;
    Require(!set || (rule.traits & kNeverSet) == 0, CKR_ATTRIBUTE_VALUE_INVALID);
    const bool for_officer = set && (rule.traits & kOfficerSets) != 0;
    Require(!for_officer || role == Role::kOfficer, CKR_ATTRIBUTE_READ_ONLY);
    return value;
}

/// The class decides which rules hold: it is looked for first.
unsigned WantedClass(const Template& wanted, const Attributes& made) {
    CK_OBJECT_CLASS object_class = made.Number(CKA_CLASS);
    for (CK_ULONG i = 0; i < wanted.count && object_class == CK_UNAVAILABLE_INFORMATION; ++i) {
        if (wanted.attributes[i].type != CKA_CLASS) continue;
        Require(HasForm(Form::kNumber, ValueOf(wanted.attributes[i])), CKR_ATTRIBUTE_VALUE_INVALID);
        std::memcpy(&object_class, wanted.attributes[i].pValue, sizeof object_class);
    }
    Require(object_class != CK_UNAVAILABLE_INFORMATION, CKR_TEMPLATE_INCOMPLETE);
    Require(ClassBit(object_class) != 0, CKR_ATTRIBUTE_VALUE_INVALID);
    return ClassBit(object_class);
}

void AddDefault(const Rule& rule, Attributes& object) {
    switch (rule.form) {
        case Form::kFlag:
            return object.SetFlag(rule.type, rule.set_by_default);
        case Form::kNumber:
            // No certificate category, and no mechanism that made the key.
            return object.SetNumber(rule.type, rule.type == CKA_KEY_GEN_MECHANISM ? CK_UNAVAILABLE_INFORMATION : 0);
        default:
            return object.Set(rule.type, {});
    }
}

void AddDefaults(unsigned class_bit, Attributes& object) {
    for (const Rule& rule : kRules) {
        if ((rule.classes & class_bit) == 0 || object.Find(rule.type) != nullptr) continue;
        Require((rule.traits & kRequired) == 0, CKR_TEMPLATE_INCOMPLETE);
        if ((rule.traits & kNoDefault) == 0) AddDefault(rule, object);
    }
}

bool IsHidden(const Attributes& object, const Rule& rule) {
    return (rule.traits & kGuarded) != 0 && (object.Flag(CKA_SENSITIVE) || !object.Flag(CKA_EXTRACTABLE));
}

CK_RV ShowOne(const Attributes& object, CK_ATTRIBUTE& wanted) {
    const std::string* const value = object.Find(wanted.type);
    const Rule* const rule = FindRule(ClassOf(object), wanted.type);
    const CK_ULONG room = std::exchange(wanted.ulValueLen, CK_UNAVAILABLE_INFORMATION);
    if (value == nullptr || rule == nullptr) return CKR_ATTRIBUTE_TYPE_INVALID;
    if (IsHidden(object, *rule)) return CKR_ATTRIBUTE_SENSITIVE;
    if (wanted.pValue != nullptr && room < value->size()) return CKR_BUFFER_TOO_SMALL;
    wanted.ulValueLen = value->size();
    if (wanted.pValue != nullptr && !value->empty()) std::memcpy(wanted.pValue, value->data(), value->size());
    return CKR_OK;
}

bool MayBecome(const Rule& rule, const Attributes& object, std::string_view value) {
    if ((rule.traits & kChangeable) != 0) return true;
    if (rule.form != Form::kFlag) return false;
    const bool after = value[0] != CK_FALSE;
    if ((rule.traits & kOneWayUp) != 0) return after || !object.Flag(rule.type);
    if ((rule.traits & kOneWayDown) != 0) return !after || object.Flag(rule.type);
    return false;
}

}  // namespace

Attributes NewObject(const Template& wanted, const Attributes& made, Role role) {
    const unsigned class_bit = WantedClass(wanted, made);
    Attributes object = made.Clone();
    for (CK_ULONG i = 0; i < wanted.count; ++i) {
        const CK_ATTRIBUTE& attribute = wanted.attributes[i];
        const Rule* const rule = FindRule(class_bit, attribute.type);
        Require(rule != nullptr, CKR_ATTRIBUTE_TYPE_INVALID);
        Require((rule->traits & kTokenSets) == 0, CKR_ATTRIBUTE_READ_ONLY);
        const std::string_view value = Accept(*rule, attribute, role);
        // Naming what is already so is no contradiction.
        const std::string* const known = object.Find(attribute.type);
        Require(known == nullptr || *known == value, CKR_TEMPLATE_INCONSISTENT);
        object.Set(attribute.type, value);
    }
    AddDefaults(class_bit, object);
    return object;
}

Attributes Changed(const Attributes& object, const Template& changes, Role role) {
    Require(object.Flag(CKA_MODIFIABLE), CKR_ATTRIBUTE_READ_ONLY);
    Attributes changed = object.Clone();
    for (CK_ULONG i = 0; i < changes.count; ++i) {
        const CK_ATTRIBUTE& attribute = changes.attributes[i];
        const Rule* const rule = FindRule(ClassOf(object), attribute.type);
        Require(rule != nullptr, CKR_ATTRIBUTE_TYPE_INVALID);
        const std::string_view value = Accept(*rule, attribute, role);
        Require(MayBecome(*rule, object, value), CKR_ATTRIBUTE_READ_ONLY);
        changed.Set(attribute.type, value);
    }
    return changed;
}

CK_RV Show(const Attributes& object, CK_ATTRIBUTE* wanted, CK_ULONG count) {
    CK_RV result = CKR_OK;
    for (CK_ULONG i = 0; i < count; ++i) {
        const CK_RV one = ShowOne(object, wanted[i]);
        if (result == CKR_OK) result = one;
    }
    return result;
}

KeyPtr KeyOf(const Engine& engine, const Attributes& object) {
    const CK_OBJECT_CLASS object_class = object.Number(CKA_CLASS);
    Require(object_class == CKO_PUBLIC_KEY || object_class == CKO_PRIVATE_KEY, CKR_KEY_HANDLE_INVALID);
    const Domain domain =
        FindDomain(object.Number(CKA_KEY_TYPE), object.Bytes(CKA_GOSTR3410_PARAMS), object.Bytes(CKA_GOSTR3411_PARAMS));
    const std::string_view value = object.Bytes(CKA_VALUE);
    return object_class == CKO_PUBLIC_KEY ? Key::FromPublic(engine, domain, value)
                                          : Key::FromPrivate(engine, domain, value);
}

void CheckObject(const Engine& engine, const Attributes& object) {
    switch (ClassOf(object)) {
        case kCertificate:
            Require(object.Number(CKA_CERTIFICATE_TYPE) == CKC_X_509 && !object.Bytes(CKA_VALUE).empty(),
                    CKR_ATTRIBUTE_VALUE_INVALID);
            return;
        case kSecret:
            Require(object.Number(CKA_KEY_TYPE) == CKK_GENERIC_SECRET, CKR_ATTRIBUTE_VALUE_INVALID);
            return;
        case kPublic:
        case kPrivate:
            KeyOf(engine, object);
            return;
        default:
            return;
    }
}

Domain DomainOf(CK_KEY_TYPE type, const Template& wanted) {
    std::string_view curve;
    std::string_view hash;
    for (CK_ULONG i = 0; i < wanted.count; ++i) {
        const CK_ATTRIBUTE& attribute = wanted.attributes[i];
        if (attribute.type == CKA_GOSTR3410_PARAMS) curve = ValueOf(attribute);
        if (attribute.type == CKA_GOSTR3411_PARAMS) hash = ValueOf(attribute);
    }
    Require(!curve.empty(), CKR_TEMPLATE_INCOMPLETE);
    return FindDomain(type, curve, hash);
}

}  // namespace gost_token
