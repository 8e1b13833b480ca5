#include <openssl/dsa.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <map>
#include <mutex>

#include "tests/support/der.h"
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

Key CachedKey(KeyType type, const std::string& name) {
    static auto& mutex = *new std::mutex;  // both live as long as the process
    static auto& keys = *new std::map<std::pair<KeyType, std::string>, Key>;
    const std::lock_guard lock(mutex);
    Key& key = keys[{type, name}];
    if (key == nullptr) key = Generate(type);
    return key;
}

bool IsEd25519(const Key& key) {
    return EVP_PKEY_is_a(key.get(), "ED25519") == 1;
}

const EVP_MD* DigestOf(const Key& key, const SignWith& with) {
    std::string name = with.digest;
    if (name.empty()) {
        const int bits = EVP_PKEY_is_a(key.get(), "EC") == 1 ? EVP_PKEY_get_bits(key.get()) : 0;
        name = bits == 384 ? "SHA384" : bits == 521 ? "SHA512" : "SHA256";
    }
    const EVP_MD* digest = EVP_get_digestbyname(name.c_str());
    Check(digest != nullptr, name.c_str());
    return digest;
}

int SaltOf(const EVP_MD* digest, const SignWith& with) {
    return with.pss_salt < 0 ? EVP_MD_get_size(digest) : with.pss_salt;
}

/// RFC 4055, 3.1; members that equal their default (SHA-1, 20 bytes) are left out, as DER wants.
std::string PssParameters(const EVP_MD* digest, const SignWith& with) {
    const int salt = SaltOf(digest, with);
    std::string content;
    if (EVP_MD_get_type(digest) != NID_sha1) {
        const std::string hash = der::Sequence(der::Oid(OBJ_nid2sn(EVP_MD_get_type(digest))) + der::Null());
        content += der::Explicit(0, hash) + der::Explicit(1, der::Sequence(der::Oid("mgf1") + hash));
    }
    if (salt != 20) content += der::Explicit(2, der::Integer(static_cast<std::uint64_t>(salt)));
    return der::Sequence(content);
}

void SetPss(EVP_PKEY_CTX* context, const EVP_MD* digest, const SignWith& with) {
    if (!with.pss) return;
    Check(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
              EVP_PKEY_CTX_set_rsa_pss_saltlen(context, SaltOf(digest, with)) == 1 &&
              EVP_PKEY_CTX_set_rsa_mgf1_md(context, digest) == 1,
          "RSASSA-PSS parameters");
}

}  // namespace

Key MakeKey(KeyType type, int index) {
    return CachedKey(type, std::to_string(index));
}

Key MakeKeyOf(KeyType type, const std::string& subject_der) {
    return CachedKey(type, subject_der);
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
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    const EVP_MD* digest = EVP_get_digestbyname(name.c_str());
    Check(digest != nullptr && EVP_Digest(data.data(), data.size(), out, &length, digest, nullptr) == 1, "digest");
    return {reinterpret_cast<char*>(out), length};
}

std::string SignatureAlgorithm(const Key& key, const SignWith& with) {
    if (IsEd25519(key)) return der::Sequence(der::Oid("ED25519"));
    const EVP_MD* digest = DigestOf(key, with);
    if (with.pss) return der::Sequence(der::Oid("RSASSA-PSS") + PssParameters(digest, with));
    int nid = NID_undef;
    const int key_nid = EVP_PKEY_get_base_id(key.get());
    Check(OBJ_find_sigid_by_algs(&nid, EVP_MD_get_type(digest), key_nid) == 1, "signature algorithm");
    return der::Sequence(der::Oid(OBJ_nid2sn(nid)) + (key_nid == EVP_PKEY_RSA ? der::Null() : std::string()));
}

std::string SignData(const Key& key, const SignWith& with, std::string_view data) {
    const EVP_MD* digest = IsEd25519(key) ? nullptr : DigestOf(key, with);
    const DigestContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* key_context = nullptr;
    Check(EVP_DigestSignInit(context.get(), &key_context, digest, nullptr, key.get()) == 1, "signing");
    SetPss(key_context, digest, with);
    std::size_t length = 0;
    Check(EVP_DigestSign(context.get(), nullptr, &length, Data(data), data.size()) == 1, "signing");
    std::string signature(length, '\0');
    Check(EVP_DigestSign(context.get(), Data(signature), &length, Data(data), data.size()) == 1, "signing");
    signature.resize(length);
    return signature;
}

bool VerifyData(const Key& key, const SignWith& with, std::string_view data, std::string_view signature) {
    const EVP_MD* digest = IsEd25519(key) ? nullptr : DigestOf(key, with);
    const DigestContext context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* key_context = nullptr;
    Check(EVP_DigestVerifyInit(context.get(), &key_context, digest, nullptr, key.get()) == 1, "verifying");
    SetPss(key_context, digest, with);
    const bool right = EVP_DigestVerify(context.get(), Data(signature), signature.size(), Data(data), data.size()) == 1;
    ERR_clear_error();
    return right;
}

}  // namespace test_pki
