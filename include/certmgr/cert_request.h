// Certificate requests on tokens: the token makes the key pair and signs, the module builds the request.
//
// Standard: PKCS #10 / RFC 2986.
#pragma once

#include <list>
#include <string>

#include "certmgr/api.h"
#include "certmgr/records.h"
#include "platform/tokens.h"

enum CertRequestResult : unsigned {
    CertRequestMade = 0,
    CertRequestKeyPairError = 1,
    CertRequestDigestError = 2,
    CertRequestSignatureError = 3,
    CertRequestError = 4,  // building, encoding or session failure
    CertRequestErrorLogin = 5,
    CertRequestSeedError = 6,
};

/// Makes a key pair on the token and a request for it, PEM. The store shows the key pair at once. After a failure no key
/// stays on the token. Takes as long as the token's key generation.
CM_API CertRequestResult CMT_MakeCertRequest(const PKCS11::TokenInfo& token, const CertRequestInfo& info,
                                             std::string& pem);

/// Appends one entry for each kind of key pair that the token makes, in the token's order.
CM_API void CMT_EnumCertRequestMechanisms(const PKCS11::TokenInfo& token, std::list<CertRequestKeyInfo>& mechanisms);

namespace CM {

/// The same; on failure `pem` receives the name of the error.
CM_API bool MakeCertRequest(const PKCS11::TokenInfo& token, const CertRequestInfo& info, std::string& pem);

}  // namespace CM
