#include "vendor_crypto.h"

#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace vendor_host {

namespace {

using KeyContext = std::shared_ptr<EVP_PKEY_CTX>;
using DigestContext = std::shared_ptr<EVP_MD_CTX>;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* Bytes(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

template <typename T, typename Encode>
std::string Encoded(T* object, Encode encode) {
    unsigned char* out = nullptr;
    const int length = encode(object, &out);
    if (length <= 0) return {};
    std::string der(reinterpret_cast<char*>(out), static_cast<std::size_t>(length));
    OPENSSL_clear_free(out, der.size());
    return der;
}

const EVP_MD* HashOf(pki_alg_t alg) {
    const std::pair<pki_alg_t, const EVP_MD*> hashes[] = {
        {PKI_HASH_SHA1, EVP_sha1()},     {PKI_HASH_SHA224, EVP_sha224()}, {PKI_HASH_SHA256, EVP_sha256()},
        {PKI_HASH_SHA384, EVP_sha384()}, {PKI_HASH_SHA512, EVP_sha512()}, {PKI_HASH_MD5, EVP_md5()}};
    for (const auto& [code, hash] : hashes) {
        if (code == (alg & PKI_HASH_MASK)) return hash;
    }
    return nullptr;
}

/// Where the key works on a digest by that algorithm; null when they do not fit.
KeyContext Ready(const KeyPtr& key, pki_alg_t alg, int (*init)(EVP_PKEY_CTX*)) {
    const bool pss = (alg & PKI_KEY_MASK) == PKI_KEY_RSA_PSS;
    if (key == nullptr || KeyAlgOf(key) != (pss ? PKI_KEY_RSA : alg & PKI_KEY_MASK)) return nullptr;
    KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr), EVP_PKEY_CTX_free);
    const bool ready = init(context.get()) == 1 &&
                       (!pss || (EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) == 1 &&
                                 EVP_PKEY_CTX_set_signature_md(context.get(), HashOf(alg)) == 1 &&
                                 EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), RSA_PSS_SALTLEN_DIGEST) == 1));
    return ready ? context : nullptr;
}

/// What the call writes, at most as long as the key's signatures.
template <typename Call>
std::optional<std::string> Written(const KeyPtr& key, Call call) {
    auto length = static_cast<std::size_t>(EVP_PKEY_get_size(key.get()));
    std::string out(length, '\0');
    if (call(Bytes(out), &length) != 1) return std::nullopt;
    out.resize(length);
    return out;
}

bool SignsMessages(const KeyPtr& key) {
    return key != nullptr && KeyAlgOf(key) == PKI_KEY_ED25519;
}

}  // namespace

pki_alg_t KeyAlgOf(const KeyPtr& key) {
    const std::pair<int, pki_alg_t> algorithms[] = {{EVP_PKEY_RSA, PKI_KEY_RSA},
                                                    {EVP_PKEY_DSA, PKI_KEY_DSA},
                                                    {EVP_PKEY_EC, PKI_KEY_EC},
                                                    {EVP_PKEY_ED25519, PKI_KEY_ED25519}};
    for (const auto& [id, alg] : algorithms) {
        if (id == EVP_PKEY_get_base_id(key.get())) return alg;
    }
    return 0;
}

std::string SpkiOf(const KeyPtr& key) {
    return Encoded(key.get(), i2d_PUBKEY);
}

KeyPtr KeyFromSpki(const std::string& spki) {
    const unsigned char* data = Bytes(spki);
    return {d2i_PUBKEY(nullptr, &data, static_cast<long>(spki.size())), EVP_PKEY_free};
}

KeyPtr KeyFromPkcs8(const std::string& pkcs8) {
    const unsigned char* data = Bytes(pkcs8);
    return {d2i_AutoPrivateKey(nullptr, &data, static_cast<long>(pkcs8.size())), EVP_PKEY_free};
}

std::string Pkcs8Of(const KeyPtr& key) {
    const std::shared_ptr<PKCS8_PRIV_KEY_INFO> info(EVP_PKEY2PKCS8(key.get()), PKCS8_PRIV_KEY_INFO_free);
    return info == nullptr ? std::string() : Encoded(info.get(), i2d_PKCS8_PRIV_KEY_INFO);
}

std::optional<std::string> DigestOf(pki_alg_t alg, const std::string& data) {
    if ((alg & PKI_HASH_MASK) == PKI_HASH_NONE) return data;
    const EVP_MD* hash = HashOf(alg);
    std::string digest(EVP_MAX_MD_SIZE, '\0');
    unsigned length = 0;
    if (hash == nullptr || EVP_Digest(data.data(), data.size(), Bytes(digest), &length, hash, nullptr) != 1) {
        return std::nullopt;
    }
    digest.resize(length);
    return digest;
}

std::optional<std::string> SignDigest(const KeyPtr& key, pki_alg_t alg, const std::string& digest) {
    if (SignsMessages(key) && (alg & PKI_KEY_MASK) == PKI_KEY_ED25519) {
        const DigestContext context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        if (EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1) return std::nullopt;
        return Written(key, [&](unsigned char* out, std::size_t* length) {
            return EVP_DigestSign(context.get(), out, length, Bytes(digest), digest.size());
        });
    }
    const KeyContext context = Ready(key, alg, EVP_PKEY_sign_init);
    if (context == nullptr) return std::nullopt;
    return Written(key, [&](unsigned char* out, std::size_t* length) {
        return EVP_PKEY_sign(context.get(), out, length, Bytes(digest), digest.size());
    });
}

bool VerifyDigest(const KeyPtr& key, pki_alg_t alg, const std::string& digest, const std::string& signature) {
    if (SignsMessages(key) && (alg & PKI_KEY_MASK) == PKI_KEY_ED25519) {
        const DigestContext context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        return EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
               EVP_DigestVerify(context.get(), Bytes(signature), signature.size(), Bytes(digest), digest.size()) == 1;
    }
    const KeyContext context = Ready(key, alg, EVP_PKEY_verify_init);
    return context != nullptr &&
           EVP_PKEY_verify(context.get(), Bytes(signature), signature.size(), Bytes(digest), digest.size()) == 1;
}

std::optional<std::string> RecoverBlock(const KeyPtr& key, const std::string& signature) {
    const KeyContext context = Ready(key, PKI_KEY_RSA, EVP_PKEY_verify_recover_init);
    if (context == nullptr) return std::nullopt;
    return Written(key, [&](unsigned char* out, std::size_t* length) {
        return EVP_PKEY_verify_recover(context.get(), out, length, Bytes(signature), signature.size());
    });
}

}  // namespace vendor_host
