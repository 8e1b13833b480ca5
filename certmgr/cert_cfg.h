// IKE signatures: their digests, and their forms: what the exchange carries and what tokens take and give.
#pragma once

#include <string>

#include "platform/asn1.h"

namespace CM {

/// The digest of a key algorithm that has but one; 0 for the others.
pki_alg_t FixedHashOf(pki_alg_t key_code);

/// Brings a token's signature into the form that IKEv1 carries: DSA as r and s side by side, GOST R 34.10-2001 with
/// its bytes reversed, anything else as it is. False, unchanged, for a DSA signature that does not parse.
bool ike_signature_from_token_(pki_alg_t key_alg, std::string& signature);

/// The other way: DSA in two halves becomes a SEQUENCE of two INTEGERs with the bytes as they stand, the odd byte of
/// an odd length dropped.
void ike_signature_to_token_(pki_alg_t key_alg, std::string& signature);

}  // namespace CM
