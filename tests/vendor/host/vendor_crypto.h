// Key operations of the in-memory tokens, on libcrypto, by algorithm code.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <string>

#include <platform/asn1.h>

namespace vendor_host {

using KeyPtr = std::shared_ptr<EVP_PKEY>;

/// Key algorithm of a key, 0 when it has no code.
pki_alg_t KeyAlgOf(const KeyPtr& key);
std::string SpkiOf(const KeyPtr& key);
/// Null when libcrypto cannot read it.
KeyPtr KeyFromSpki(const std::string& spki);
KeyPtr KeyFromPkcs8(const std::string& pkcs8);
/// PrivateKeyInfo, DER; empty on failure. The caller wipes it.
std::string Pkcs8Of(const KeyPtr& key);

/// Digest by the hash part of the code; for "no digest" the data itself; nullopt for a hash libcrypto lacks.
std::optional<std::string> DigestOf(pki_alg_t alg, const std::string& data);
std::optional<std::string> SignDigest(const KeyPtr& key, pki_alg_t alg, const std::string& digest);
bool VerifyDigest(const KeyPtr& key, pki_alg_t alg, const std::string& digest, const std::string& signature);
/// Block under an RSA signature, its PKCS #1 type 1 padding removed.
std::optional<std::string> RecoverBlock(const KeyPtr& key, const std::string& signature);

}  // namespace vendor_host
