// New objects on a token.
#pragma once

#include <string>

#include "platform/tokens.h"
#include "platform/tokens/session.h"

namespace tokens {

/// Bad input (a key that is not understood, a name in use) is not the token's fault: no result to report, not created.
struct CreateOutcome {
    Result result{};
    bool created = false;
    bool officer_required = false;  // only the security officer may create it
    std::string refusal{};  // what was wrong with the input
};

CreateOutcome CreateCertificate(Session& session, const PKCS11::CertObject& object, const std::string& subject);
CreateOutcome CreatePrivateKey(Session& session, pki_alg_t alg, const std::string& id, const vpnfc::SecretString& pkcs8,
                               bool exportable, cert_time64_t not_after);
CreateOutcome CreatePublicKey(Session& session, pki_alg_t alg, const std::string& id, const std::string& spki,
                              cert_time64_t not_after);
CreateOutcome CreateCrl(Session& session, const std::string& id, const std::string& crl);
/// A name that a preshared key on the token bears already is refused.
CreateOutcome CreatePresharedKey(Session& session, const std::string& name, const vpnfc::SecretString& value);
CreateOutcome GenerateKeyPair(Session& session, pki_alg_t alg, unsigned bits, const std::string& id, bool exportable);

}  // namespace tokens
