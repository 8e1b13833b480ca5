#include "ike/sa/auth.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <memory>

#include "certmgr/ike.h"
#include "ike/crypto/keys.h"
#include "ike/wire/bytes.h"
#include "libcrypto/libcrypto.h"
#include "platform/asn1/der.h"
#include "platform/asn1/oid.h"
#include "platform/base/text.h"

namespace ikeauth {
namespace {

constexpr std::string_view kKeyPad = "Key Pad for IKEv2";

struct HashNumber {
    std::uint16_t number;
    pki_alg_t hash;
};
constexpr std::array<HashNumber, 5> kHashes{
    {{2, PKI_HASH_SHA256}, {3, PKI_HASH_SHA384}, {4, PKI_HASH_SHA512}, {5, PKI_HASH_NONE}, {1, PKI_HASH_SHA1}}};

/// The older methods of ECDSA: each a curve and a hash.
struct EcdsaMethod {
    AuthMethod method;
    std::uint32_t key_bits;
    pki_alg_t alg;
    std::size_t number_bytes;  // of r and of s
};
constexpr std::array<EcdsaMethod, 3> kEcdsaMethods{{{kMethodEcdsa256, 256, PKI_KEY_EC | PKI_HASH_SHA256, 32},
                                                    {kMethodEcdsa384, 384, PKI_KEY_EC | PKI_HASH_SHA384, 48},
                                                    {kMethodEcdsa521, 521, PKI_KEY_EC | PKI_HASH_SHA512, 66}}};

const EcdsaMethod* FindEcdsa(std::uint8_t method) {
    const auto* found = std::find_if(kEcdsaMethods.begin(), kEcdsaMethods.end(),
                                     [method](const EcdsaMethod& entry) { return entry.method == method; });
    return found == kEcdsaMethods.end() ? nullptr : found;
}

bool Holds(const HashSet& hashes, pki_alg_t hash) {
    return std::any_of(kHashes.begin(), kHashes.end(), [&](const HashNumber& entry) {
        return entry.hash == hash && std::find(hashes.begin(), hashes.end(), entry.number) != hashes.end();
    });
}

std::string AlgName(pki_alg_t alg) {
    return I2S_PKI_ALG_T.getString(alg);
}

// --- Algorithm identifiers ---

constexpr auto kPss = asn1::Oid("1.2.840.113549.1.1.10");
constexpr auto kMgf1 = asn1::Oid("1.2.840.113549.1.1.8");

std::string Der(unsigned char tag, std::string_view content) {
    std::string der;
    asn1::AppendTlv(der, tag, content);
    return der;
}

std::string DerIdentifier(std::string_view oid, const std::string& parameters) {
    return Der(asn1::kTagSequence, Der(asn1::kTagOid, oid) + parameters);
}

/// RSASSA-PSS with the hash, MGF1 over it and a salt as long as it.
std::string PssIdentifier(pki_alg_t hash) {
    constexpr unsigned char kContext = asn1::kTagContext0;
    std::string oid;
    bool null_parameter = false;
    if (!asn_pki_alg_to_identifier(hash, oid, null_parameter)) return {};
    const std::string identifier = DerIdentifier(oid, Der(asn1::kTagNull, {}));
    const std::string salt = Der(asn1::kTagInteger, Byte(static_cast<std::uint8_t>(PKI_HASH_LENGTH(hash))));
    return DerIdentifier(
        kPss, Der(asn1::kTagSequence, Der(kContext, identifier) + Der(kContext + 1, DerIdentifier(kMgf1, identifier)) +
                                          Der(kContext + 2, salt)));
}

std::string AlgorithmIdentifier(pki_alg_t alg) {
    if ((alg & PKI_KEY_MASK) == PKI_KEY_RSA_PSS) return PssIdentifier(alg & PKI_HASH_MASK);
    std::string oid;
    bool null_parameter = false;
    if (!asn_pki_alg_to_identifier(alg, oid, null_parameter)) return {};
    return DerIdentifier(oid, null_parameter ? Der(asn1::kTagNull, {}) : std::string());
}

/// Reads SEQUENCE { OID, the rest }.
pki_alg_t ReadAlgorithmIdentifier(std::string_view der) {
    asn1::DerReader fields({});
    std::string_view oid;
    if (!asn1::ReadWhole(der, asn1::kTagSequence, fields) || !fields.Read(asn1::kTagOid, oid)) return 0;
    return asn_ike_signalg_t_to_pki_alg(oid, {oid.end(), der.end()});
}

// --- ECDSA: tokens use DER, the older methods r and s side by side ---

using EcdsaSignature = libcrypto::Owner<ECDSA_SIG, ECDSA_SIG_free>;
using Number = libcrypto::Owner<BIGNUM, BN_free>;

bool EcdsaFromDer(const std::string& der, std::size_t number_bytes, std::string& out) {
    const EcdsaSignature signature = libcrypto::Decode<ECDSA_SIG_free>(d2i_ECDSA_SIG, der);
    if (!signature) return false;
    out.assign(2 * number_bytes, '\0');
    unsigned char* const to = libcrypto::Data(out);
    const int width = static_cast<int>(number_bytes);
    return BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), to, width) == width &&
           BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), to + number_bytes, width) == width;
}

bool EcdsaToDer(const std::string& numbers, std::size_t number_bytes, std::string& der) {
    if (numbers.size() != 2 * number_bytes) return false;
    const unsigned char* const bytes = libcrypto::Data(numbers);
    const EcdsaSignature signature(ECDSA_SIG_new());
    const int width = static_cast<int>(number_bytes);
    Number r(BN_bin2bn(bytes, width, nullptr));
    Number s(BN_bin2bn(bytes + number_bytes, width, nullptr));
    if (!signature || !r || !s || ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1) return false;
    static_cast<void>(r.release());  // they are the signature's now
    static_cast<void>(s.release());
    der = libcrypto::Encode(signature.get(), i2d_ECDSA_SIG);
    return !der.empty();
}

// --- Choosing ---

bool ChooseOlderMethod(const CM::X509Cert& cert, SignatureChoice& choice, std::string& why) {
    const pki_alg_t key = cert.info.keyAlg & PKI_KEY_MASK;
    if (key == PKI_KEY_RSA) {
        choice = {kMethodRsa, PKI_KEY_RSA | PKI_HASH_SHA1};
        return true;
    }
    for (const EcdsaMethod& method : kEcdsaMethods) {
        if (key != PKI_KEY_EC || cert.info.keyBits != method.key_bits) continue;
        choice = {method.method, method.alg};
        return true;
    }
    why = "the peer announced no hash algorithms, and there is no older method for " + AlgName(key) + " keys";
    return false;
}

bool ReadSignatureMethod(const std::string& data, const HashSet& announced, pki_alg_t& alg, std::string& signature,
                         std::string& why) {
    ByteReader reader(data);
    std::uint8_t length = 0;
    std::string_view identifier;
    if (!reader.Read(length) || !reader.Read(length, identifier)) {
        why = "the authentication data is cut off";
        return false;
    }
    alg = ReadAlgorithmIdentifier(identifier);
    signature = reader.rest();
    if (alg == 0) {
        why = "the signature algorithm is not known: " + TO_HEX_STD_STRING(identifier);
    } else if (!Holds(announced, alg & PKI_HASH_MASK)) {
        why = AlgName(alg) + " was not announced";
    }
    return why.empty();
}

/// The hash that an RSA signature names; 0 when the key does not open it.
pki_alg_t HashOfRsaSignature(const std::string& signature, const std::string& public_key) {
    const auto key = libcrypto::Decode<EVP_PKEY_free>(d2i_PUBKEY, public_key);
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) return 0;
    const libcrypto::KeyContextPtr context(EVP_PKEY_CTX_new(key.get(), nullptr));
    std::string block(static_cast<std::size_t>(EVP_PKEY_get_size(key.get())), '\0');
    std::size_t length = block.size();
    std::string oid;
    if (!context || EVP_PKEY_verify_recover_init(context.get()) <= 0 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) <= 0 ||
        EVP_PKEY_verify_recover(context.get(), libcrypto::Data(block), &length, libcrypto::Data(signature),
                                signature.size()) <= 0 ||
        !asn_read_alg_from_digest(std::string_view(block).substr(0, length), oid)) {
        return 0;
    }
    return PKI_OID_TO_HASH_ALG(oid.data(), oid.size()) & PKI_HASH_MASK;
}

/// Here the peer alone chooses the hash. SHA-1, the method's own (RFC 7296, 3.8), is for peers that know nothing newer.
bool ReadRsaMethod(const std::string& signature, const SignaturePolicy& policy, pki_alg_t& alg, std::string& why) {
    const pki_alg_t hash = HashOfRsaSignature(signature, policy.public_key);
    alg = PKI_KEY_RSA | (hash != 0 ? hash : PKI_HASH_SHA256);  // one that cannot be opened is judged as any wrong one
    const bool newer_agreed = policy.newer_agreed && !policy.announced.empty();
    if (hash == 0 || Holds(AnnouncedHashes(), hash) || (hash == PKI_HASH_SHA1 && !newer_agreed)) return true;
    why = "the RSA signature is made with " + AlgName(hash) + ", which is too weak";
    return false;
}

}  // namespace

HashSet AnnouncedHashes() {
    return {2, 3, 4, 5};
}

std::string EncodeHashes(const HashSet& hashes) {
    std::string data;
    for (const std::uint16_t number : hashes) data += NetworkOrder(number);
    return data;
}

HashSet DecodeHashes(std::string_view data) {
    HashSet hashes;
    ByteReader reader(data);
    std::uint16_t number = 0;
    while (reader.Read(number)) hashes.push_back(number);
    return hashes;
}

std::string Describe(const HashSet& hashes) {
    const std::string text = vpnfc::Joined(kHashes, [&](const HashNumber& entry) {
        if (!Holds(hashes, entry.hash)) return std::string();
        return entry.hash == PKI_HASH_NONE ? "identity" : AlgName(entry.hash);
    });
    return text.empty() ? "none" : text;
}

std::string AuthOctets(const AuthInput& input, const Algorithm& prf, const std::string& identity_key) {
    return input.message + input.peer_nonce + KeyedDigest(prf, identity_key, input.identity);
}

std::string PresharedKeyAuth(const Algorithm& prf, const std::string& key, const std::string& octets) {
    const vpnfc::SecretString padded(KeyedDigest(prf, key, kKeyPad));
    return KeyedDigest(prf, padded.get(), octets);
}

bool ChooseSignature(const CM::X509Cert& cert, const HashSet& peer_hashes, bool pss, SignatureChoice& choice,
                     std::string& why) {
    if (peer_hashes.empty()) return ChooseOlderMethod(cert, choice, why);
    const pki_alg_t preferred = CM::Ike2GetSignAlg(&cert);
    pki_alg_t key = preferred & PKI_NO_HASH_MASK;
    if (pss && key == PKI_KEY_RSA) key = PKI_KEY_RSA_PSS;
    const bool fixed = key != PKI_KEY_RSA && key != PKI_KEY_RSA_PSS && key != PKI_KEY_EC;
    for (const pki_alg_t hash : {preferred & PKI_HASH_MASK, PKI_HASH_SHA512, PKI_HASH_SHA384, PKI_HASH_SHA256}) {
        if (fixed && hash != (preferred & PKI_HASH_MASK)) break;
        choice = {kMethodSignature, key | hash};
        if (Holds(AnnouncedHashes(), hash) && Holds(peer_hashes, hash) && !AlgorithmIdentifier(choice.alg).empty())
            return true;
    }
    why = "the peer takes none of the hash algorithms of " + AlgName(key) + ", it announced " + Describe(peer_hashes);
    return false;
}

bool EncodeSignature(const SignatureChoice& choice, const std::string& signature, std::string& data) {
    if (const EcdsaMethod* method = FindEcdsa(choice.method)) {
        return EcdsaFromDer(signature, method->number_bytes, data);
    }
    data = signature;
    if (choice.method != kMethodSignature) return true;
    const std::string identifier = AlgorithmIdentifier(choice.alg);
    data.insert(0, Byte(static_cast<std::uint8_t>(identifier.size())) + identifier);
    return true;
}

bool DecodeSignature(const AuthData& auth, const SignaturePolicy& policy, pki_alg_t& alg, std::string& signature,
                     std::string& why) {
    if (auth.method == kMethodSignature) return ReadSignatureMethod(auth.data, policy.announced, alg, signature, why);
    if (auth.method == kMethodRsa) {
        signature = auth.data;
        return ReadRsaMethod(signature, policy, alg, why);
    }
    const EcdsaMethod* method = FindEcdsa(auth.method);
    if (method == nullptr) {
        why = "authentication by " + AuthMethodName(auth.method) + " is not offered";
        return false;
    }
    alg = method->alg;
    if (EcdsaToDer(auth.data, method->number_bytes, signature)) return true;
    why = "the signature has " + std::to_string(auth.data.size()) + " bytes";
    return false;
}

std::string Describe(const SignatureChoice& choice) {
    const std::string method = AuthMethodName(choice.method);
    return choice.method == kMethodSignature || choice.method == kMethodRsa ? method + ", " + AlgName(choice.alg)
                                                                            : method;
}

}  // namespace ikeauth
