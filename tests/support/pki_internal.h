// Shared by the units of pki.h.
#pragma once

#include <openssl/err.h>
#include <openssl/evp.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "libcrypto/libcrypto.h"
#include "tests/support/pki.h"

namespace test_pki {

using libcrypto::Data;
using libcrypto::Owner;

inline void Check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("libcrypto refuses: ") + what);
}

Key MakeKeyOf(KeyType type, const std::string& subject_der);
/// SHA-1 of the public key's bits: the usual key identifier.
std::string KeyIdOf(const Key& key);
/// Extension of X.509, from its parts.
std::string ExtensionDer(const Extension& extension);
/// `authorityKeyIdentifier`, or an empty string when nothing is in it.
std::string AuthorityKeyIdDer(const KeyId& key_id, const std::string& issuer_key_id, const std::string& name_der,
                              const std::string& serial);
/// SEQUENCE of the to-be-signed part, the algorithm and the signature.
std::string SignedDer(const std::string& tbs, const Key& key, const SignWith& with, const std::string& outer_algorithm,
                      bool damage_signature);

}  // namespace test_pki
