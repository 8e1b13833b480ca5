// The mechanisms that the token offers.
#pragma once

#include <optional>
#include <span>

#include "tokens/gost/attributes.h"
#include "tokens/gost/param_sets.h"

namespace gost_token {

struct Mechanism {
    CK_MECHANISM_TYPE type;
    CK_FLAGS flags;
    CK_KEY_TYPE key_type = CK_UNAVAILABLE_INFORMATION;  // of the keys that it works with
    std::optional<HashAlg> hash{};  // what it digests with, where it does
};

std::span<const Mechanism> Mechanisms();
/// Fails with CKR_MECHANISM_INVALID unless it may be used for that (CKF_SIGN ...), with CKR_MECHANISM_PARAM_INVALID when
/// its parameter is another one than the digest's identifier.
const Mechanism& FindMechanism(const CK_MECHANISM* wanted, CK_FLAGS use);
/// Private key bits, as the mechanism's information tells them; 0 for a digest.
CK_ULONG KeyBits(const Mechanism& mechanism);

}  // namespace gost_token
