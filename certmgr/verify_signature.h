// Verifying a signature on a token, for who must know about trouble.
#pragma once

#include <string>

#include "certmgr/x509cert.h"
#include "platform/tokens.h"

namespace CM {

/// As X509Cert_Verify, which takes device trouble for a wrong signature: the logger (null: the event log) is told of it.
SignatureCheck VerifySignature(pki_alg_t alg, const std::string& spki, const std::string& data,
                               const std::string& signature, PKCS11::Logger* logger);

}  // namespace CM
