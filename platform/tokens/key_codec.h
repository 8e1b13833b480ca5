// Keys and signatures between their X.509 forms and those of PKCS #11.
//
// Standards: RFC 5280, 3279, 5480, 8410, 4491, 9215 (SubjectPublicKeyInfo), RFC 5208 and 5915 (private keys),
// PKCS #11 v2.40 (components). GOST keys and signatures have one byte order in X.509 and PKCS #11; IKEv1 turns those of
// 34.10-2001 around, which is the business of who speaks IKE. Everything that is read may come from a peer or from a damaged token; sizes are bounded here.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/asn1.h"
#include "platform/base.h"
#include "platform/tokens/ck_api.h"

namespace tokens {

inline constexpr unsigned kMaxRsaBits = 16384;
inline constexpr std::size_t kMaxRsaExponentBytes = 32;  // FIPS 186: e below 2^256; keeps a hostile key cheap
inline constexpr unsigned kMaxDsaBits = 4096;

/// Attributes that make up a key of that type, in the order in which the components below stand; empty for a type that
/// is not known.
std::span<const CK_ATTRIBUTE_TYPE> PublicComponents(CK_KEY_TYPE type);
std::span<const CK_ATTRIBUTE_TYPE> PrivateComponents(CK_KEY_TYPE type);

/// CKK_ of the key part of `alg`; CK_UNAVAILABLE_INFORMATION when there is none.
CK_KEY_TYPE KeyTypeOf(pki_alg_t alg);

struct PublicKey {
    pki_alg_t alg = 0;  // key code
    CK_KEY_TYPE type = CK_UNAVAILABLE_INFORMATION;
    std::vector<std::string> components;
    std::size_t size = 0;  // RSA: bytes of the modulus; DSA and EC: bytes of the group order, width of r and of s
};
/// False for anything but a well-formed key of an algorithm in the table, within the limits.
bool PublicKeyFromSpki(std::string_view spki, PublicKey& key);
/// What is wrong with one that is no such key, for the log.
const char* WhyNoPublicKey(std::string_view spki);
/// From components as a token gives them. Empty when they make no key.
std::string SpkiFromComponents(pki_alg_t alg, const std::vector<std::string>& components);

struct PrivateKey {
    pki_alg_t alg = 0;
    CK_KEY_TYPE type = CK_UNAVAILABLE_INFORMATION;
    std::vector<vpnfc::SecretString> components;
};
bool PrivateKeyFromPkcs8(std::string_view pkcs8, PrivateKey& key);
vpnfc::SecretString Pkcs8FromComponents(pki_alg_t alg, const std::vector<vpnfc::SecretString>& components);

/// Code of a key object: its type, and for GOST keys the DER identifier of their digest (CKA_GOSTR3411_PARAMS). 0 when
/// unknown.
pki_alg_t KeyAlgOfObject(CK_KEY_TYPE type, std::string_view gost_digest);

/// DER OBJECT IDENTIFIER of a curve for keys of that size (CKA_EC_PARAMS); empty when there is none.
std::string CurveParameters(pki_alg_t alg, unsigned bits);

/// r and s side by side, each of the key's width, from DER. DSA: INTEGERs are taken as unsigned whatever their leading
/// byte. False when the encoding is wrong or a number is too long.
bool RawSignatureFromDer(pki_alg_t alg, std::size_t width, std::string_view der, std::string& raw);
/// The reverse; false for an odd length.
bool DerSignatureFromRaw(std::string_view raw, std::string& der);

/// Issuer and serial number of a certificate, as DER, for the attributes of its object. False when it does not parse.
bool ReadIssuerAndSerial(std::string_view certificate, std::string_view& issuer, std::string_view& serial);

}  // namespace tokens
