// Key pairs of imports and requests that failed: none of them stays on a token.
#pragma once

#include <string>

#include "certmgr/records.h"
#include "platform/tokens.h"

namespace CM {

/// Deletes the key pair with that identifier, and the certificate (may be null: there is none) that was written beside it.
/// What could not be deleted, because the token is gone or still at work on it, say, is deleted by a later reload, however
/// long that takes; of more than 256 the oldest is given up.
void DiscardKeyPair(const PKCS11::TokenInfo& token, PKCS11::TokenSession& session, const std::string& id,
                    const CertInfo* certificate = nullptr);

/// Deletes what is left of such key pairs on the token, if it allows that now: nobody is logged in for it.
void DeleteDiscarded(const PKCS11::TokenInfo& token, PKCS11::TokenSession& session);

/// For the constructor of an object whose destructor still calls these functions.
void PrepareDiscardedKeys();

}  // namespace CM
