#include "tokens/gost/sealing.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "libcrypto/libcrypto.h"
#include "tokens/gost/failure.h"

namespace gost_token {
namespace {

using CipherContext = libcrypto::Owner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using libcrypto::Data;
using vpnfc::SecretString;

constexpr std::size_t kSpareBytes = 1U << 20;  // for scrypt beside its table

/// AES-256-GCM with the data that it is bound to.
CipherContext StartCipher(const SecretString& key, std::string_view nonce, std::string_view belongs_to, int seal) {
    CipherContext context(EVP_CIPHER_CTX_new());
    int ignored = 0;
    Require(context != nullptr && key.get().size() == kKeyBytes && nonce.size() == kNonceBytes &&
                EVP_CipherInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, Data(key.get()), Data(nonce), seal) == 1 &&
                EVP_CipherUpdate(context.get(), nullptr, &ignored, Data(belongs_to),
                                 static_cast<int>(belongs_to.size())) == 1,
            CKR_FUNCTION_FAILED);
    return context;
}

}  // namespace

std::string RandomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    Require(RAND_bytes(Data(bytes), static_cast<int>(count)) == 1, CKR_FUNCTION_FAILED);
    return bytes;
}

SecretString RandomKey() {
    SecretString key{std::string(kKeyBytes, '\0')};
    Require(RAND_priv_bytes(Data(key.edit()), static_cast<int>(kKeyBytes)) == 1, CKR_FUNCTION_FAILED);
    return key;
}

SecretString KeyFromPin(std::string_view pin, std::string_view salt, const PinCost& cost) {
    SecretString key{std::string(kKeyBytes, '\0')};
    const std::uint64_t table = (128 * cost.r) << cost.log_n;
    Require(EVP_PBE_scrypt(pin.data(), pin.size(), Data(salt), salt.size(), 1ULL << cost.log_n, cost.r, cost.p,
                           table + kSpareBytes, Data(key.edit()), kKeyBytes) == 1,
            CKR_FUNCTION_FAILED);
    return key;
}

std::string Seal(const SecretString& key, std::string_view belongs_to, std::string_view secret) {
    std::string sealed = RandomBytes(kNonceBytes);
    const CipherContext context = StartCipher(key, sealed, belongs_to, 1);
    sealed.resize(kNonceBytes + secret.size() + kTagBytes);
    unsigned char* const out = Data(sealed) + kNonceBytes;
    int length = 0;
    Require(EVP_CipherUpdate(context.get(), out, &length, Data(secret), static_cast<int>(secret.size())) == 1 &&
                EVP_CipherFinal_ex(context.get(), out + length, &length) == 1 &&
                EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kTagBytes),
                                    out + secret.size()) == 1,
            CKR_FUNCTION_FAILED);
    return sealed;
}

bool Unseal(const SecretString& key, std::string_view belongs_to, std::string_view sealed, SecretString& secret) {
    if (sealed.size() < kNonceBytes + kTagBytes) return false;
    const CipherContext context = StartCipher(key, sealed.substr(0, kNonceBytes), belongs_to, 0);
    std::string tag(sealed.substr(sealed.size() - kTagBytes));
    const std::string_view body = sealed.substr(kNonceBytes, sealed.size() - kNonceBytes - kTagBytes);
    SecretString opened{std::string(body.size(), '\0')};
    unsigned char* const out = Data(opened.edit());
    int length = 0;
    const bool genuine =
        EVP_CipherUpdate(context.get(), out, &length, Data(body), static_cast<int>(body.size())) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTagBytes), Data(tag)) == 1 &&
        EVP_CipherFinal_ex(context.get(), out + length, &length) == 1;
    if (genuine) secret = std::move(opened);
    return genuine;
}

std::string Checksum(std::string_view bytes) {
    std::string digest(kChecksumBytes, '\0');
    Require(EVP_Digest(bytes.data(), bytes.size(), Data(digest), nullptr, EVP_sha256(), nullptr) == 1,
            CKR_FUNCTION_FAILED);
    return digest;
}

}  // namespace gost_token
