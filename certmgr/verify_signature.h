// Verifying a signature on a token, for who must know about trouble.
#pragma once

#include <string>

#include "certmgr/x509cert.h"

namespace CM {

/// As X509Cert_Verify, which takes device trouble for a wrong signature. `definite` tells them apart: set for a signature
/// that is right or wrong.
SignatureCheck VerifySignature(pki_alg_t alg, const std::string& spki, const std::string& data,
                               const std::string& signature, bool& definite);

}  // namespace CM
