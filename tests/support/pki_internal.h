// Shared by the units of pki.h.
#pragma once

#include <openssl/err.h>
#include <openssl/evp.h>

#include <stdexcept>
#include <string>

#include "libcrypto/libcrypto.h"
#include "tests/support/pki.h"

namespace test_pki {

using libcrypto::Data;
using libcrypto::Owner;

inline void Check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("libcrypto refuses: ") + what);
}

/// The cached key of that type and name.
Key MakeKeyOf(KeyType type, const std::string& name);
/// SHA-1 of the public key's bits: the usual key identifier.
std::string KeyIdOf(const Key& key);

}  // namespace test_pki
