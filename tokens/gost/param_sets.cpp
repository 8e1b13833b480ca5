#include "tokens/gost/param_sets.h"

#include <openssl/obj_mac.h>

#include <algorithm>
#include <array>

#include "platform/asn1/der.h"
#include "platform/asn1/oid.h"

namespace gost_token {
namespace {

struct Curve {
    asn1::OidContent oid;
    std::size_t bytes;
    const char* name;
};

constexpr std::array kCurves = {
    Curve{asn1::Oid("1.2.643.2.2.35.0"), 32, "1.2.643.2.2.35.0"},  // the example of the standard
    Curve{asn1::Oid("1.2.643.2.2.35.1"), 32, "A"},
    Curve{asn1::Oid("1.2.643.2.2.35.2"), 32, "B"},
    Curve{asn1::Oid("1.2.643.2.2.35.3"), 32, "C"},
    Curve{asn1::Oid("1.2.643.2.2.36.0"), 32, "XA"},
    Curve{asn1::Oid("1.2.643.2.2.36.1"), 32, "XB"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.1.1"), 32, "TCA"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.1.2"), 32, "TCB"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.1.3"), 32, "TCC"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.1.4"), 32, "TCD"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.2.0"), 64, "1.2.643.7.1.2.1.2.0"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.2.1"), 64, "A"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.2.2"), 64, "B"},
    Curve{asn1::Oid("1.2.643.7.1.2.1.2.3"), 64, "C"},
};

constexpr std::array kKinds = {
    KeyKind{CKK_GOSTR3410, HashAlg::k94, NID_id_GostR3410_2001, 32},
    KeyKind{CKK_GOSTR3410, HashAlg::k2012_256, NID_id_GostR3410_2012_256, 32},
    KeyKind{CKK_GOSTR3410_512, HashAlg::k2012_512, NID_id_GostR3410_2012_512, 64},
};

struct HashName {
    HashAlg alg;
    asn1::OidContent oid;
};

constexpr std::array kHashNames = {
    HashName{HashAlg::k94, asn1::Oid("1.2.643.2.2.30.1")},
    HashName{HashAlg::k2012_256, asn1::Oid("1.2.643.7.1.1.2.2")},
    HashName{HashAlg::k2012_512, asn1::Oid("1.2.643.7.1.1.2.3")},
};

/// Content of an identifier; empty when it is none.
std::string_view Content(std::string_view der) {
    asn1::DerReader reader(der);
    std::string_view content;
    return reader.Read(asn1::kTagOid, content) && reader.AtEnd() ? content : std::string_view();
}

}  // namespace

bool NamesHash(HashAlg alg, std::string_view der) {
    const std::string_view oid = Content(der);
    return std::any_of(kHashNames.begin(), kHashNames.end(),
                       [&](const HashName& row) { return row.alg == alg && oid == std::string_view(row.oid); });
}

std::string LongHashIdentifier() {
    std::string der;
    asn1::AppendTlv(der, asn1::kTagOid, kHashNames.back().oid);
    return der;
}

std::vector<Domain> AllDomains() {
    std::vector<Domain> domains;
    for (const KeyKind& kind : kKinds) {
        for (const Curve& curve : kCurves) {
            if (curve.bytes == kind.bytes) domains.push_back({&kind, curve.name});
        }
    }
    return domains;
}

Domain FindDomain(CK_KEY_TYPE type, std::string_view curve_der, std::string_view hash_der) {
    const bool implied = type == CKK_GOSTR3410_512 && hash_der.empty();
    const auto* const kind = std::find_if(kKinds.begin(), kKinds.end(), [&](const KeyKind& row) {
        return row.type == type && (implied || NamesHash(row.hash, hash_der));
    });
    Require(kind != kKinds.end(), CKR_DOMAIN_PARAMS_INVALID);
    const auto* const curve = std::find_if(kCurves.begin(), kCurves.end(), [&](const Curve& row) {
        return row.bytes == kind->bytes && Content(curve_der) == std::string_view(row.oid);
    });
    Require(curve != kCurves.end(), CKR_DOMAIN_PARAMS_INVALID);
    return {kind, curve->name};
}

}  // namespace gost_token
