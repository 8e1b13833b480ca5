// ASN.1 helper library: algorithm codes, names, object identifiers, times, DigestInfo and DSA signatures.
//
// Standards: X.509 / RFC 5280 (names, times), RFC 4514 (printable names), RFC 8017 (DigestInfo, RSASSA-PSS),
// RFC 3279, 4055, 5758, 8410, 4491, 9215 (algorithm identifiers).
// All functions are stateless and thread-safe. None throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/api.h"

/// Algorithm code: bits 0-15 key algorithm, bits 16-23 hash, bits 24-31 variant flags; 0 is unknown. A signature
/// algorithm has both a key and a hash part.
using pki_alg_t = std::uint32_t;

inline constexpr pki_alg_t PKI_KEY_MASK = 0x0000FFFF;
inline constexpr pki_alg_t PKI_HASH_MASK = 0x00FF0000;
inline constexpr pki_alg_t PKI_ALG_MASK = 0x00FFFFFF;  // key and hash, without the variant flags
inline constexpr pki_alg_t PKI_NO_HASH_MASK = 0xFF00FFFF;  // key and variant flags

// Key algorithms.
inline constexpr pki_alg_t PKI_KEY_RSA = 1;
inline constexpr pki_alg_t PKI_KEY_RSA_PSS = 2;  // only as the key part of a signature algorithm
inline constexpr pki_alg_t PKI_KEY_DSA = 3;
inline constexpr pki_alg_t PKI_KEY_EC = 4;
inline constexpr pki_alg_t PKI_KEY_ED25519 = 5;
inline constexpr pki_alg_t PKI_KEY_512BIT = 14;  // a 512-bit key algorithm known to token managers only
inline constexpr pki_alg_t PKI_KEY_GOST2001 = 270;
inline constexpr pki_alg_t PKI_KEY_GOST2012_256 = 271;
inline constexpr pki_alg_t PKI_KEY_GOST2012_512 = 272;

// Hash algorithms, in place.
inline constexpr pki_alg_t PKI_HASH_SHA = 0x010000;  // SHA-0
inline constexpr pki_alg_t PKI_HASH_SHA1 = 0x020000;
inline constexpr pki_alg_t PKI_HASH_SHA224 = 0x030000;
inline constexpr pki_alg_t PKI_HASH_SHA256 = 0x040000;
inline constexpr pki_alg_t PKI_HASH_SHA384 = 0x050000;
inline constexpr pki_alg_t PKI_HASH_SHA512 = 0x060000;
inline constexpr pki_alg_t PKI_HASH_MD2 = 0x070000;
inline constexpr pki_alg_t PKI_HASH_MD5 = 0x080000;
inline constexpr pki_alg_t PKI_HASH_GOST94 = 0x090000;
inline constexpr pki_alg_t PKI_HASH_GOST2012_256 = 0x0A0000;
inline constexpr pki_alg_t PKI_HASH_GOST2012_512 = 0x0B0000;
inline constexpr pki_alg_t PKI_HASH_NONE = 0x0C0000;  // the message itself is signed (Ed25519)

/// UTC time packed in 64 bits: year from bit 40, month (counted from 0), day, hour, minute, second, one byte each.
/// Compares in time order. All ones is unknown, the latest possible value.
using cert_time64_t = std::uint64_t;
inline constexpr cert_time64_t CERT_TIME_UNKNOWN = ~cert_time64_t{0};

/// Packs broken-down time (struct tm's own year and month origins). All ones when the year is below 0 or above
/// 0xFFFFFF.
PLATFORM_API cert_time64_t CertTimeFromTm(const std::tm& tm) noexcept;
/// CertTimeFromTm of gmtime_r(t); all ones when gmtime_r fails.
PLATFORM_API cert_time64_t CertTimeFrom_time_t(std::time_t t) noexcept;
/// CertTimeFrom_time_t(vpnfc::CurrentTime()).
PLATFORM_API cert_time64_t CertTimeNow() noexcept;
/// Seconds since the epoch; the largest time_t for the unknown time.
PLATFORM_API std::time_t CertTimeTo_time_t(cert_time64_t t) noexcept;
/// "2031-02-28 23:59:59 UTC", or "unknown" for the unknown time.
PLATFORM_API std::string CertTimeToString(cert_time64_t t);

/// Lower-case hexadecimal. Format 0 (the plain format): no separators. Any other format character is put between
/// the bytes (32 gives "0a 1b 2c").
PLATFORM_API std::string TO_HEX_STD_STRING(std::string_view bytes, char format = 0);
/// Appends upper-case hexadecimal without separators.
PLATFORM_API void asn_bytes_to_upper_hex(std::string_view bytes, std::string& appended);
/// The text of a serial number, as records and rules hold it: a minus sign before a negative one, upper-case hexadecimal of
/// the magnitude ("00" when empty), broken after each 35 bytes by a backslash and a line feed.
PLATFORM_API std::string asn_serial_to_text(bool negative, std::string_view magnitude);
/// Reads what TO_HEX_STD_STRING writes, either case, blanks and colons between bytes allowed. False on anything else
/// (`bytes` unchanged).
PLATFORM_API bool FROM_HEX_STD_STRING(std::string_view text, std::string& bytes);

/// Table from a value to its name.
class PLATFORM_API IntToString {
  public:
    /// Name of the value, or null when the table has none.
    const char* find(pki_alg_t value) const noexcept;
    /// Name of the value, or `otherwise`.
    const char* getString(pki_alg_t value, const char* otherwise = "unknown") const noexcept;
};
/// Names of algorithm codes: "RSA", "SHA-256", "RSA with SHA-256", "ECDSA with SHA-384", "Ed25519", ...; variant
/// flags are ignored.
extern PLATFORM_API const IntToString I2S_PKI_ALG_T;
/// The reverse, without regard to case and to blanks, '-' and '_' ("rsa", "ECDSA", "GOST R 34.10-2012-256").
/// Returns 0 for an unknown name.
PLATFORM_API pki_alg_t PKI_ALG_FROM_NAME(std::string_view name) noexcept;

// --- Algorithm identifiers. `oid` is the content of the OBJECT IDENTIFIER (without tag and length). ---

/// Code of a public-key algorithm (no hash part), 0 when unknown. RSASSA-PSS has no key code of its own.
PLATFORM_API pki_alg_t PKI_OID_TO_KEY_ALG(const void* oid, std::size_t length) noexcept;
/// Code of a hash algorithm (no key part), 0 when unknown.
PLATFORM_API pki_alg_t PKI_OID_TO_HASH_ALG(const void* oid, std::size_t length) noexcept;
/// Code of a signature algorithm, 0 when unknown. RSASSA-PSS gives 2: its hash stands in the parameters.
PLATFORM_API pki_alg_t PKI_OID_TO_CERT_SIGN_ALG(const void* oid, std::size_t length) noexcept;
/// Code of a signature algorithm from its identifier and the DER of its parameters: RSASSA-PSS with the hash, the
/// same hash in MGF1 and a salt as long as the hash. Any other salt, mask or trailer: 0.
PLATFORM_API pki_alg_t asn_ike_signalg_t_to_pki_alg(std::string_view oid, std::string_view parameters_der) noexcept;
/// The other way. `oid` receives the identifier's content; `null_parameter` whether an ASN.1 NULL stands beside it
/// (else the parameters are absent). False for a code without an entry in this direction: 270 alone, 14, every
/// RSASSA-PSS code, an elliptic-curve key alone (its curve is not part of the code). Variant flags are refused but for
/// GOST R 34.11-94 (1, 2, 4) and its signature (2, 4). DSA (RFC 3279), ECDSA (RFC 5758) and Ed25519 (RFC 8410) have no
/// parameters beside the identifier, everything else has NULL.
PLATFORM_API bool asn_pki_alg_to_identifier(pki_alg_t alg, std::string& oid, bool& null_parameter);
/// Appends the dotted text of an identifier's content, arcs of any size. False (nothing appended) when the content is
/// not a valid identifier or has more than 128 bytes.
PLATFORM_API bool oid_asn_to_str_(std::string_view oid, std::string* appended);

/// An entry of an identifier map. Attribute types of names have the long name ("commonName") as the preferred one and
/// the short one that printed names use ("CN"), if any, as the other; the GOST algorithms likewise.
struct OidMapEntry {
    std::string_view preferred_name;
    std::string_view other_name;  // may be empty
};
using OID_MAP_HANDLE = int;
/// The map that every module of the process shares.
inline constexpr OID_MAP_HANDLE OID_MAP_HANDLE_DEFAULT_FILE = 0;
/// Entry of an identifier (content bytes), or null. The entry lives as long as the process.
PLATFORM_API const OidMapEntry* oid_map_find_asn(OID_MAP_HANDLE map, const void* oid, std::size_t length) noexcept;

// --- Names ---
//
// Limits: 64 KiB of DER, 1024 attributes, 64 of them in one RDN, 384 KiB of text; a larger name is refused like a
// malformed one.
//
// Two values are equal when their texts are, whatever string types they have, after simple case folding (ASCII,
// Latin-1, Latin Extended-A, Greek, Cyrillic) and with blanks (what RFC 4518 maps to SPACE) trimmed and compressed.
// Control characters count; Unicode normalisation is not done. A value that is no text equals the same bytes only.

/// Printable form of a DER Name: RFC 4514 escaping (control characters as pairs of digits), RDNs in the order of the
/// encoding, separated by ", "; values of a multi-valued RDN joined by "+"; attribute types by the map's short names,
/// else dotted; a value that is not a valid string of one of the string types, or of an unknown attribute type, as '#'
/// and hexadecimal DER. TeletexString is taken as Latin-1. An empty Name gives the empty text. Replaces `printable` on
/// success; false (unchanged) when the DER is not one whole Name.
PLATFORM_API bool asn_dn_to_printable(std::string_view name_der, std::string& printable,
                                      OID_MAP_HANDLE map = OID_MAP_HANDLE_DEFAULT_FILE);
/// The reverse: for every Name x, printable_to_asn_dn(asn_dn_to_printable(x)) equals x by the rules of RFC 5280 7.1.
/// Accepts ',' and ';' between RDNs, blanks around separators, quoted values, and attribute types by name (any case),
/// dotted, or with an "OID." prefix. Country names, serialNumber, telephoneNumber and dnQualifier become
/// PrintableString, e-mail and domain component IA5String, everything else UTF8String, as does text that those types
/// cannot hold. False (unchanged) on bad text.
PLATFORM_API bool printable_to_asn_dn(std::string_view printable, std::string& name_der,
                                      OID_MAP_HANDLE map = OID_MAP_HANDLE_DEFAULT_FILE);
/// A text as it stands in a printable name: with the same escapes. For texts that tokens and peers choose, so that in a
/// log they can neither begin a line nor pass for what stands beside them. Bytes that are not UTF-8 stay as they are.
PLATFORM_API std::string asn_text_to_printable(std::string_view text);
/// A text on one line, as people wrote it: only control characters, as pairs of digits, and the backslash are escaped.
PLATFORM_API std::string asn_text_to_line(std::string_view text);
/// True when the name contains every attribute of the pattern (both printable forms): equal type and equal value by
/// RFC 5280 7.1, wherever they stand in the name, each attribute of the name answering at most one of the
/// pattern. An empty pattern is contained in every name; a malformed one in none.
PLATFORM_API bool printable_dn_contain_attrs(std::string_view name, std::string_view pattern);
/// True when both printable names are equal by RFC 5280 7.1, RDN by RDN (the values of an RDN in any order). Identical
/// texts are equal; a malformed one is equal to no other.
PLATFORM_API bool printable_dn_equal(std::string_view a, std::string_view b);

// --- Digests and signatures ---

/// Replaces `digest` by the DER DigestInfo of the hash part of `alg` around it. False (unchanged) when the hash has
/// no DigestInfo.
PLATFORM_API bool asn_add_alg_to_digest(pki_alg_t alg, std::string& digest);
/// Reads the hash identifier (content bytes) of a DER DigestInfo. False when the block is not one.
PLATFORM_API bool asn_read_alg_from_digest(std::string_view digest_info, std::string& oid);
/// Reads r and s of a DER DSA or ECDSA signature as unsigned big-endian numbers (an INTEGER without its leading zero
/// byte is taken as unsigned too), each padded on the left to the same width: the smallest of 20, 28 and 32 bytes that
/// holds both, or the longer one's length above that. False when the encoding is not a SEQUENCE of two INTEGERs.
PLATFORM_API bool asn_read_dsa_certsign(std::string_view signature_der, std::string& r, std::string& s);
/// Length in bytes of the digest of `alg`'s hash part; 0 when unknown or when the hash is "no digest".
PLATFORM_API unsigned PKI_HASH_LENGTH(pki_alg_t alg) noexcept;
/// Key length in bits of a DER SubjectPublicKeyInfo of the key algorithm `alg`: the RSA modulus, the DSA public value
/// y, the field of a named curve (256, 384, 521, ...), 256 for Ed25519, 512 for 14, 270 and 271, 1024 for 272 (without
/// looking at the data). 0 when it cannot be read, is another algorithm's key, or when `alg` has a hash part; variant
/// flags are ignored.
PLATFORM_API unsigned asn_spki_key_bits(pki_alg_t alg, std::string_view spki_der) noexcept;
