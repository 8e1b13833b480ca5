#include <openssl/core_names.h>
#include <openssl/dsa.h>
#include <openssl/params.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <map>
#include <mutex>

#include "tests/support/pki_internal.h"

namespace test_pki {

namespace {

using libcrypto::KeyContextPtr;
using DigestContext = Owner<EVP_MD_CTX, EVP_MD_CTX_free>;

Key Adopt(EVP_PKEY* key) {
    Check(key != nullptr, "key generation");
    return {key, EVP_PKEY_free};
}

/// Domain parameters are slow to find, and harmless to share: one set for every DSA key.
Key GenerateDsa() {
    static const Key parameters = [] {
        const KeyContextPtr context(EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr));
        EVP_PKEY* out = nullptr;
        Check(EVP_PKEY_paramgen_init(context.get()) == 1 &&
                  EVP_PKEY_CTX_set_dsa_paramgen_bits(context.get(), 1024) == 1 &&
                  EVP_PKEY_CTX_set_dsa_paramgen_q_bits(context.get(), 160) == 1 &&
                  EVP_PKEY_paramgen(context.get(), &out) == 1,
              "DSA parameters");
        return Adopt(out);
    }();
    const KeyContextPtr context(EVP_PKEY_CTX_new(parameters.get(), nullptr));
    EVP_PKEY* out = nullptr;
    Check(EVP_PKEY_keygen_init(context.get()) == 1 && EVP_PKEY_keygen(context.get(), &out) == 1, "DSA key");
    return Adopt(out);
}

Key Generate(KeyType type) {
    const std::map<KeyType, unsigned> rsa_bits{
        {KeyType::kRsa1024, 1024}, {KeyType::kRsa2048, 2048}, {KeyType::kRsa3072, 3072}};
    const std::map<KeyType, const char*> curves{
        {KeyType::kEcP256, "P-256"}, {KeyType::kEcP384, "P-384"}, {KeyType::kEcP521, "P-521"}};
    if (rsa_bits.contains(type)) return Adopt(EVP_RSA_gen(rsa_bits.at(type)));
    if (curves.contains(type)) return Adopt(EVP_EC_gen(curves.at(type)));
    return type == KeyType::kDsa1024 ? GenerateDsa() : Adopt(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
}

/// Null for Ed25519.
const char* DigestOf(const Key& key, const SignWith& with) {
    if (EVP_PKEY_is_a(key.get(), "ED25519") == 1) return nullptr;
    if (!with.digest.empty()) return with.digest.c_str();
    const int bits = EVP_PKEY_is_a(key.get(), "EC") == 1 ? EVP_PKEY_get_bits(key.get()) : 0;
    return bits == 384 ? "SHA384" : bits == 521 ? "SHA512" : "SHA256";
}

/// Ready to sign or to verify.
DigestContext Begin(decltype(&EVP_DigestSignInit_ex) init, const Key& key, const SignWith& with) {
    DigestContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* parameters = nullptr;
    Check(init(context.get(), &parameters, DigestOf(key, with), nullptr, nullptr, key.get(), nullptr) == 1,
          "signature");
    Check(!with.pss || (EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING) == 1 &&
                        EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, with.pss_salt) == 1),
          "RSASSA-PSS parameters");
    return context;
}

}  // namespace

Key MakeKey(KeyType type, int index) {
    return MakeKeyOf(type, std::to_string(index));
}

Key MakeKeyOf(KeyType type, const std::string& name) {
    static auto& mutex = *new std::mutex;  // both live as long as the process
    static auto& keys = *new std::map<std::pair<KeyType, std::string>, Key>;
    const std::lock_guard lock(mutex);
    Key& key = keys[{type, name}];
    if (key == nullptr) key = Generate(type);
    return key;
}

std::string Spki(const Key& key) {
    return libcrypto::Encode(key.get(), i2d_PUBKEY);
}

std::string Pkcs8(const Key& key) {
    const libcrypto::Pkcs8Ptr info(EVP_PKEY2PKCS8(key.get()));
    Check(info != nullptr, "private key");
    return libcrypto::Encode(info.get(), i2d_PKCS8_PRIV_KEY_INFO);
}

std::string KeyIdOf(const Key& key) {
    X509_PUBKEY* raw = nullptr;
    Check(X509_PUBKEY_set(&raw, key.get()) == 1, "public key");
    const Owner<X509_PUBKEY, X509_PUBKEY_free> spki(raw);
    const unsigned char* bits = nullptr;
    int length = 0;
    Check(X509_PUBKEY_get0_param(nullptr, &bits, &length, nullptr, spki.get()) == 1, "public key");
    return Digest("SHA1", {reinterpret_cast<const char*>(bits), static_cast<std::size_t>(length)});
}

std::string Digest(const std::string& name, std::string_view data) {
    std::string out(EVP_MAX_MD_SIZE, '\0');
    std::size_t length = 0;
    Check(EVP_Q_digest(nullptr, name.c_str(), nullptr, data.data(), data.size(), Data(out), &length) == 1, "digest");
    return out.substr(0, length);
}

std::string SignatureAlgorithm(const Key& key, const SignWith& with) {
    const DigestContext context = Begin(EVP_DigestSignInit_ex, key, with);
    std::string der(256, '\0');
    OSSL_PARAM wanted[] = {OSSL_PARAM_octet_string(OSSL_SIGNATURE_PARAM_ALGORITHM_ID, der.data(), der.size()),
                           OSSL_PARAM_END};
    Check(EVP_PKEY_CTX_get_params(EVP_MD_CTX_get_pkey_ctx(context.get()), wanted) == 1, "algorithm");
    return der.substr(0, wanted[0].return_size);
}

std::string SignData(const Key& key, const SignWith& with, std::string_view data) {
    const DigestContext context = Begin(EVP_DigestSignInit_ex, key, with);
    std::size_t length = static_cast<std::size_t>(EVP_PKEY_get_size(key.get()));
    std::string signature(length, '\0');
    Check(EVP_DigestSign(context.get(), Data(signature), &length, Data(data), data.size()) == 1, "signing");
    signature.resize(length);
    return signature;
}

bool VerifyData(const Key& key, const SignWith& with, std::string_view data, std::string_view signature) {
    const DigestContext context = Begin(EVP_DigestVerifyInit_ex, key, with);
    const bool right = EVP_DigestVerify(context.get(), Data(signature), signature.size(), Data(data), data.size()) == 1;
    ERR_clear_error();
    return right;
}

}  // namespace test_pki
