// Key pairs of imports and requests that failed: none of them stays on a token.
#pragma once

#include <string>

#include "platform/tokens.h"

namespace CM {

/// Deletes the key pair with that identifier. What could not be deleted, because the token is gone or still at work on
/// the key, say, is deleted when a reload meets it (IsDiscardedKeyPair).
void DiscardKeyPair(const PKCS11::TokenInfo& token, PKCS11::TokenSession& session, const std::string& id);

/// Whether the object is such a key pair; it is deleted now if its token allows it. False when it is still there.
bool DeleteIfDiscarded(const PKCS11::TokenInfo& token, const PKCS11::CertObject& object);

}  // namespace CM
