#include "tokens/gost/mechanisms.h"

#include <algorithm>
#include <array>

namespace gost_token {
namespace {

constexpr CK_FLAGS kSignature = CKF_SIGN | CKF_VERIFY;
constexpr CK_ULONG kLongBits = 512;
constexpr CK_ULONG kShortBits = 256;

constexpr std::array kMechanisms = {
    Mechanism{CKM_GOSTR3410_KEY_PAIR_GEN, CKF_GENERATE_KEY_PAIR, CKK_GOSTR3410},
    Mechanism{CKM_GOSTR3410_512_KEY_PAIR_GEN, CKF_GENERATE_KEY_PAIR, CKK_GOSTR3410_512},
    Mechanism{CKM_GOSTR3410, kSignature, CKK_GOSTR3410},
    Mechanism{CKM_GOSTR3410_512, kSignature, CKK_GOSTR3410_512},
    Mechanism{CKM_GOSTR3410_WITH_GOSTR3411, kSignature, CKK_GOSTR3410, HashAlg::k94},
    Mechanism{CKM_GOSTR3410_WITH_GOSTR3411_2012_256, kSignature, CKK_GOSTR3410, HashAlg::k2012_256},
    Mechanism{CKM_GOSTR3410_WITH_GOSTR3411_2012_512, kSignature, CKK_GOSTR3410_512, HashAlg::k2012_512},
    Mechanism{CKM_GOSTR3411, CKF_DIGEST, CK_UNAVAILABLE_INFORMATION, HashAlg::k94},
    Mechanism{CKM_GOSTR3411_2012_256, CKF_DIGEST, CK_UNAVAILABLE_INFORMATION, HashAlg::k2012_256},
    Mechanism{CKM_GOSTR3411_2012_512, CKF_DIGEST, CK_UNAVAILABLE_INFORMATION, HashAlg::k2012_512},
};

}  // namespace

std::span<const Mechanism> Mechanisms() {
    return kMechanisms;
}

const Mechanism& FindMechanism(const CK_MECHANISM* wanted, CK_FLAGS use) {
    Require(wanted != nullptr, CKR_ARGUMENTS_BAD);
    const auto* const found = std::find_if(kMechanisms.begin(), kMechanisms.end(), [&](const Mechanism& mechanism) {
        return mechanism.type == wanted->mechanism && (mechanism.flags & use) != 0;
    });
    Require(found != kMechanisms.end(), CKR_MECHANISM_INVALID);
    if (wanted->ulParameterLen != 0) {
        const CK_ATTRIBUTE parameter{0, wanted->pParameter, wanted->ulParameterLen};
        Require(found->hash && wanted->pParameter != nullptr && NamesHash(*found->hash, ValueOf(parameter)),
                CKR_MECHANISM_PARAM_INVALID);
    }
    return *found;
}

CK_ULONG KeyBits(const Mechanism& mechanism) {
    if (mechanism.key_type == CK_UNAVAILABLE_INFORMATION) return 0;
    return mechanism.key_type == CKK_GOSTR3410_512 ? kLongBits : kShortBits;
}

}  // namespace gost_token
