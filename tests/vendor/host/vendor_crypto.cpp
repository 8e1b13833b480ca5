#include "vendor_crypto.h"

#include <openssl/dsa.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace vendor_host {

namespace {

template <auto Free>
struct Freer {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};
template <typename T, auto Free>
using Owned = std::unique_ptr<T, Freer<Free>>;

using KeyContext = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using DigestContext = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using KeyInfo = Owned<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* Bytes(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

KeyPtr Adopt(EVP_PKEY* key) {
    ERR_clear_error();
    return key == nullptr ? KeyPtr() : KeyPtr(key, EVP_PKEY_free);
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

bool IsPss(pki_alg_t alg) {
    return (alg & PKI_KEY_MASK) == PKI_KEY_RSA_PSS;
}

bool Matches(const KeyPtr& key, pki_alg_t alg) {
    return key != nullptr && KeyAlgOf(key) == (IsPss(alg) ? PKI_KEY_RSA : alg & PKI_KEY_MASK);
}

bool SetPadding(EVP_PKEY_CTX* context, pki_alg_t alg) {
    if (!IsPss(alg)) return true;
    const EVP_MD* hash = HashOf(alg);
    return hash != nullptr && EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
           EVP_PKEY_CTX_set_signature_md(context, hash) == 1 &&
           EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1 &&
           EVP_PKEY_CTX_set_rsa_mgf1_md(context, hash) == 1;
}

/// Signature of the message itself.
std::optional<std::string> SignMessage(const KeyPtr& key, const std::string& message) {
    const DigestContext context(EVP_MD_CTX_new());
    std::size_t length = static_cast<std::size_t>(EVP_PKEY_get_size(key.get()));
    std::string signature(length, '\0');
    if (EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), Bytes(signature), &length, Bytes(message), message.size()) != 1) {
        return std::nullopt;
    }
    signature.resize(length);
    return signature;
}

bool VerifyMessage(const KeyPtr& key, const std::string& message, const std::string& signature) {
    const DigestContext context(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
           EVP_DigestVerify(context.get(), Bytes(signature), signature.size(), Bytes(message), message.size()) == 1;
}

/// One INTEGER of short length, taken as unsigned; the rest stays in `der`.
BIGNUM* TakeUnsigned(std::string& der) {
    if (der.size() < 2 || der[0] != 0x02) return nullptr;
    const auto length = static_cast<unsigned char>(der[1]);
    if (length >= 0x80 || der.size() < 2U + length) return nullptr;
    BIGNUM* number = BN_bin2bn(Bytes(der) + 2, length, nullptr);
    der.erase(0, 2U + length);
    return number;
}

/// Writes a DSA signature anew, its INTEGERs taken as unsigned. Empty when it is not one.
std::string CanonicalDsa(const std::string& signature) {
    if (signature.size() < 2 || signature[0] != 0x30 ||
        static_cast<unsigned char>(signature[1]) + 2U != signature.size()) {
        return {};
    }
    std::string rest = signature.substr(2);
    Owned<BIGNUM, BN_free> r(TakeUnsigned(rest));
    Owned<BIGNUM, BN_free> s(TakeUnsigned(rest));
    if (r == nullptr || s == nullptr || !rest.empty()) return {};
    const Owned<DSA_SIG, DSA_SIG_free> parts(DSA_SIG_new());
    DSA_SIG_set0(parts.get(), r.release(), s.release());
    return Encoded(parts.get(), i2d_DSA_SIG);
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
    return Adopt(d2i_PUBKEY(nullptr, &data, static_cast<long>(spki.size())));
}

KeyPtr KeyFromPkcs8(const std::string& pkcs8) {
    const unsigned char* data = Bytes(pkcs8);
    const KeyInfo info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &data, static_cast<long>(pkcs8.size())));
    return Adopt(info == nullptr ? nullptr : EVP_PKCS82PKEY(info.get()));
}

std::string Pkcs8Of(const KeyPtr& key) {
    const KeyInfo info(EVP_PKEY2PKCS8(key.get()));
    return info == nullptr ? std::string() : Encoded(info.get(), i2d_PKCS8_PRIV_KEY_INFO);
}

KeyPtr GenerateEcKey(unsigned bits) {
    return Adopt(EVP_EC_gen(bits == 384 ? "P-384" : bits == 521 ? "P-521" : "P-256"));
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
    if (!Matches(key, alg)) return std::nullopt;
    if ((alg & PKI_KEY_MASK) == PKI_KEY_ED25519) return SignMessage(key, digest);
    const KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    std::size_t length = static_cast<std::size_t>(EVP_PKEY_get_size(key.get()));
    std::string signature(length, '\0');
    const bool signed_ok = EVP_PKEY_sign_init(context.get()) == 1 && SetPadding(context.get(), alg) &&
                           EVP_PKEY_sign(context.get(), Bytes(signature), &length, Bytes(digest), digest.size()) == 1;
    ERR_clear_error();
    if (!signed_ok) return std::nullopt;
    signature.resize(length);
    return signature;
}

bool VerifyDigest(const KeyPtr& key, pki_alg_t alg, const std::string& digest, const std::string& signature) {
    if (!Matches(key, alg)) return false;
    if ((alg & PKI_KEY_MASK) == PKI_KEY_ED25519) {
        const bool right = VerifyMessage(key, digest, signature);
        ERR_clear_error();
        return right;
    }
    const std::string given = (alg & PKI_KEY_MASK) == PKI_KEY_DSA ? CanonicalDsa(signature) : signature;
    const KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    const bool right = !given.empty() && EVP_PKEY_verify_init(context.get()) == 1 && SetPadding(context.get(), alg) &&
                       EVP_PKEY_verify(context.get(), Bytes(given), given.size(), Bytes(digest), digest.size()) == 1;
    ERR_clear_error();
    return right;
}

std::optional<std::string> RecoverBlock(const KeyPtr& key, const std::string& signature) {
    if (!Matches(key, PKI_KEY_RSA)) return std::nullopt;
    const KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    std::size_t length = static_cast<std::size_t>(EVP_PKEY_get_size(key.get()));
    std::string block(length, '\0');
    const bool ok =
        EVP_PKEY_verify_recover_init(context.get()) == 1 &&
        EVP_PKEY_verify_recover(context.get(), Bytes(block), &length, Bytes(signature), signature.size()) == 1;
    ERR_clear_error();
    if (!ok) return std::nullopt;
    block.resize(length);
    return block;
}

}  // namespace vendor_host
