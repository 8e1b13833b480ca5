// Certificates, CRLs and bundles made at run time with libcrypto, for tests: the independent source that the engine is
// checked against. Everything can be malformed on purpose: the to-be-signed part is assembled by hand.
//
//     using namespace test_pki;
//     const Cert root = MakeCert({.subject = "CN=Root, O=Test", .ca = true, .key_usage = "keyCertSign, cRLSign"});
//     const Cert leaf = MakeCert({.key = KeyType::kRsa2048, .subject = "CN=host", .key_usage = "digitalSignature",
//                                 .eku = {"ipsecIKE"}, .san = {"DNS:host.example"}}, &root);
//     const std::string crl = MakeCrl({.entries = {{.serial = leaf.serial}}}, root);
//     token->AddPersonal(leaf.der, leaf.key);
//
// Keys are cached for the life of the process: the same type and index, or the same type and subject, give the same
// key. RSA keys take time to find: share them by index where there are many. All functions may be called from any thread;
// they throw std::runtime_error when libcrypto refuses.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test_pki {

enum class KeyType : std::uint8_t {
    kRsa1024,
    kRsa2048,
    kRsa3072,
    kDsa1024,
    kEcP256,
    kEcP384,
    kEcP521,
    kEd25519,
};

using Key = std::shared_ptr<EVP_PKEY>;

Key MakeKey(KeyType type, int index = 0);
/// In place of an index: a key of the subject's own.
inline constexpr int kOwnKey = -1;
/// SubjectPublicKeyInfo, DER.
std::string Spki(const Key& key);
/// PrivateKeyInfo, DER.
std::string Pkcs8(const Key& key);

/// A moment as a certificate carries it. From a time_t: UTCTime up to 2049, GeneralizedTime after. Raw: any text.
struct Time {
    Time(std::time_t t);  // NOLINT(google-explicit-constructor): a time_t is a time
    static Time Utc(std::string text) { return {0x17, std::move(text)}; }
    static Time Generalized(std::string text) { return {0x18, std::move(text)}; }

    std::uint8_t tag;
    std::string text;

  private:
    Time(std::uint8_t t, std::string x) : tag(t), text(std::move(x)) {}
};

inline constexpr std::time_t kNotBefore = 1577836800;  // 2020-01-01 00:00:00 UTC
inline constexpr std::time_t kNotAfter = 2493072000;  // 2049-01-01 00:00:00 UTC
/// A moment inside the default validity, to fix the clock at.
inline constexpr std::time_t kNow = 1893456000;  // 2030-01-01 00:00:00 UTC

/// DER Name of "CN=Alice, O=Example+OU=Lab, C=DE": order of the encoding, '+' joins values of one RDN, a backslash
/// escapes the next character; types by libcrypto's short names or dotted.
std::string NameDer(const std::string& text);

/// DER GeneralName of "DNS:", "email:", "IP:" (text), "IPRAW:" (bytes), "URI:", "UPN:", "DN:" (a name text), "RID:" or
/// "DER:" (the whole GeneralName). Values may hold any byte.
std::string GeneralName(const std::string& text);

/// An extension as it stands in the certificate; `der` is the content of its OCTET STRING.
struct Extension {
    std::string oid;  // dotted or a name libcrypto knows
    bool critical = false;
    std::string der;
};

/// An extension in the words of libcrypto's configuration files:
/// {"certificatePolicies", "1.2.3.4"}, {"nameConstraints", "permitted;DNS:.example"},
/// {"authorityInfoAccess", "OCSP;URI:http://ocsp.example"}, {"policyConstraints", "critical,requireExplicitPolicy:1"}.
struct ConfExtension {
    std::string name;
    std::string value;
};

/// A key identifier extension: the SHA-1 of the key's bits, other bytes, or left out.
struct KeyId {
    static KeyId Auto() { return {true, ""}; }
    static KeyId None() { return {}; }
    static KeyId Bytes(std::string bytes) { return {false, std::move(bytes)}; }

    bool is_auto = false;
    std::optional<std::string> bytes{};
};

/// How something is signed. The key decides the rest.
struct SignWith {
    std::string digest{};  // libcrypto's name, "SHA256"; empty: SHA256, SHA384 for P-384, SHA512 for P-521
    bool pss = false;  // RSASSA-PSS
    int pss_salt = -1;  // bytes; -1: as long as the digest
};

struct CertSpec {
    KeyType key = KeyType::kEcP256;
    int key_index = kOwnKey;
    std::string subject = "CN=test";
    std::optional<std::string> subject_der{};  // in place of `subject`
    std::optional<std::string> issuer_der{};  // in place of the issuer's subject
    std::string serial{};  // content bytes of the INTEGER, as given; empty: a fresh positive number
    int version = 3;  // 1 has neither extensions nor a version field
    Time not_before = kNotBefore;
    Time not_after = kNotAfter;

    std::optional<bool> ca{};  // basicConstraints; absent: no extension
    int path_len = -1;
    std::string key_usage{};  // "digitalSignature, keyCertSign" in libcrypto's words; empty: no extension
    std::vector<std::string> eku{};  // names libcrypto knows ("ipsecIKE", "serverAuth") or dotted
    std::vector<std::string> san{};  // as GeneralName takes them
    KeyId ski = KeyId::Auto();
    KeyId aki = KeyId::Auto();
    std::vector<std::vector<std::string>> crl_points{};  // full names of each distribution point
    std::vector<ConfExtension> conf{};
    std::vector<Extension> extensions{};

    SignWith sign{};
    bool damage_signature = false;  // one bit of the signature is turned
    std::string spki{};  // in place of the key's SubjectPublicKeyInfo
    std::string inner_algorithm{};  // AlgorithmIdentifier, DER, in place of the right one
    std::string outer_algorithm{};
};

struct Cert {
    std::string der;
    Key key;
    std::string subject_der;
    std::string issuer_der;
    std::string serial;  // content bytes
    std::string spki;
    std::string key_id;  // bytes of the subject key identifier; the SHA-1 of the key's bits when it has none

    std::string Pem() const;
    /// PKCS #8.
    std::string KeyPem() const;
};

/// A certificate issued by `issuer`, or self-signed. Designated initialisers stand in the order of CertSpec.
Cert MakeCert(const CertSpec& spec, const Cert* issuer = nullptr);
/// A CA with keyCertSign and cRLSign.
Cert MakeCa(const std::string& subject, const Cert* issuer = nullptr, KeyType key = KeyType::kEcP256,
            int key_index = kOwnKey);
/// An end entity with digitalSignature.
Cert MakeLeaf(const std::string& subject, const Cert& issuer, KeyType key = KeyType::kEcP256, int key_index = kOwnKey);

struct CrlEntry {
    std::string serial{};
    Time date = kNotBefore;
    std::optional<int> reason{};
    std::vector<Extension> extensions{};
};

struct CrlSpec {
    std::vector<CrlEntry> entries{};
    /// Content of the list, before `entries`; empty: a list with nothing in it.
    std::optional<std::string> entries_der{};
    std::optional<std::string> number{};  // content bytes of the INTEGER
    std::optional<std::string> delta_base{};  // makes it a delta CRL
    Time this_update = kNotBefore;
    std::optional<Time> next_update = kNotAfter;
    std::string issuing_distribution_point{};  // DER value; written as a critical extension
    std::vector<ConfExtension> conf{};
    KeyId aki = KeyId::Auto();
    std::optional<std::string> issuer_der{};
    int version = 2;  // 1 has neither extensions nor a version field
    std::vector<Extension> extensions{};
    SignWith sign{};
    bool damage_signature = false;
};

/// DER of an entry.
std::string EntryDer(const CrlEntry& entry);
/// DER of a CRL.
std::string MakeCrl(const CrlSpec& spec, const Cert& issuer);

/// Degenerate signed-data PKCS #7, in the given order, DER.
std::string MakePkcs7(const std::vector<std::string>& certs_der, const std::vector<std::string>& crls_der = {});

/// One PEM block: "CERTIFICATE", "X509 CRL", "PKCS7".
std::string ToPem(const std::string& label, std::string_view der);

/// DER AlgorithmIdentifier of a signature by that key.
std::string SignatureAlgorithm(const Key& key, const SignWith& with);
/// Signature of data, as certificates carry it (DSA and ECDSA in DER).
std::string SignData(const Key& key, const SignWith& with, std::string_view data);
bool VerifyData(const Key& key, const SignWith& with, std::string_view data, std::string_view signature);
/// Digest by libcrypto's name.
std::string Digest(const std::string& name, std::string_view data);

}  // namespace test_pki
