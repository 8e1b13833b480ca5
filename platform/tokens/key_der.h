// DER pieces that public and private keys have in common.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/asn1/alg_table.h"
#include "platform/asn1/der.h"
#include "platform/tokens/ck_api.h"
#include "platform/tokens/key_codec.h"

namespace tokens {

inline constexpr std::size_t kEd25519Bytes = 32;

/// An algorithm identifier read: its key code, and its parameters still to be read.
struct KeyAlgorithm {
    pki_alg_t alg = 0;
    asn1::DerReader parameters{{}};
};
bool ReadKeyAlgorithm(asn1::DerReader& reader, KeyAlgorithm& algorithm);
/// AlgorithmIdentifier around whole parameters.
std::string KeyAlgorithmDer(pki_alg_t alg, std::string_view parameters);

/// Magnitude of a positive INTEGER of at most `max_bytes`.
bool ReadPositive(asn1::DerReader& reader, std::size_t max_bytes, std::string_view& magnitude);
/// The same of a number that is taken as unsigned, with or without its sign byte.
bool ReadUnsigned(asn1::DerReader& reader, std::size_t max_bytes, std::string_view& magnitude);
void AppendUnsigned(std::string& der, std::string_view number);
std::string Tlv(unsigned char tag, std::string_view content);

/// p, q and g, and nothing after them.
bool ReadDsaParameters(asn1::DerReader parameters, std::vector<std::string>& components);
std::string DsaParametersDer(std::string_view p, std::string_view q, std::string_view g);
/// The curve of the parameters and its identifier as DER; null for one that is not in the table.
const asn1::CurveRow* ReadCurve(asn1::DerReader parameters, std::string& der);
std::string Ed25519Parameters();
/// Bytes of a private key; a public key has two such numbers.
std::size_t GostKeyBytes(pki_alg_t alg);
/// Parameter set and digest of a GOST key, as DER; the digest may be left out where the key's size fixes it.
bool ReadGostParameters(asn1::DerReader parameters, pki_alg_t alg, std::vector<std::string>& components);
/// The reverse, as RFC 4491 and RFC 9215 want it: the digest stands there where nothing else tells it.
std::string GostParametersDer(pki_alg_t alg, std::string_view key_set, std::string_view digest);

}  // namespace tokens
