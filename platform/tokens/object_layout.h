// How this system's objects look on a token, where PKCS #11 leaves it open.
#pragma once

namespace tokens {

/// A CRL is a public CKO_DATA object with this CKA_APPLICATION, its identifier in CKA_OBJECT_ID and the DER in CKA_VALUE.
inline constexpr char kCrlApplication[] = "X.509 CRL";

// A preshared key is a private, extractable CKO_SECRET_KEY of type CKK_GENERIC_SECRET, named by its CKA_LABEL.

}  // namespace tokens
