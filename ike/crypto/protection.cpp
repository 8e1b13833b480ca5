#include "ike/crypto/protection.h"

#include <openssl/evp.h>

#include "ike/wire/bytes.h"
#include "libcrypto/libcrypto.h"

namespace ikeauth {
namespace {

constexpr std::size_t kSaltBytes = 4;
constexpr std::size_t kGcmVectorBytes = 8;
constexpr std::size_t kCbcBlock = 16;

using Context = libcrypto::Owner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using libcrypto::Data;

std::size_t VectorBytes(const Suite& suite) {
    return suite.encryption->aead ? kGcmVectorBytes : kCbcBlock;
}
std::size_t CheckBytes(const Suite& suite) {
    return suite.encryption->aead ? suite.encryption->check_bytes : suite.integrity->check_bytes;
}

/// The padding fills a block; a last byte, not counted here, says how much there is before it.
std::size_t PaddingBytes(const Suite& suite, std::size_t plain) {
    const std::size_t block = suite.encryption->aead ? 1 : kCbcBlock;
    return (block - (plain + 1) % block) % block;
}

vpnfc::SecretString Pad(const Suite& suite, std::string_view plain) {
    const std::size_t padding = PaddingBytes(suite, plain.size());
    vpnfc::SecretString padded;
    padded.edit().reserve(plain.size() + padding + 1);
    padded.edit().append(plain).append(padding, '\0').push_back(static_cast<char>(padding));
    return padded;
}

bool Unpad(std::string& plain) {
    if (plain.empty()) return false;
    const std::size_t padding = static_cast<unsigned char>(plain.back()) + std::size_t{1};
    if (padding > plain.size()) return false;
    plain.resize(plain.size() - padding);
    return true;
}

/// The cipher, started: key and vector set. An AEAD cipher takes its salt from the end of the key.
Context Start(const Direction& direction, std::string_view vector, bool encrypt) {
    const libcrypto::Owner<EVP_CIPHER, EVP_CIPHER_free> cipher(
        EVP_CIPHER_fetch(nullptr, direction.suite->encryption->libcrypto, nullptr));
    const std::string& key = *direction.encryption_key;
    vpnfc::SecretString nonce(vector);
    if (direction.suite->encryption->aead) nonce.edit().insert(0, key, key.size() - kSaltBytes);
    Context context(EVP_CIPHER_CTX_new());
    if (!cipher || !context ||
        EVP_CipherInit_ex2(context.get(), cipher.get(), Data(std::string_view(key)),
                           Data(std::string_view(nonce.get())), encrypt ? 1 : 0, nullptr) != 1) {
        return nullptr;
    }
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    return context;
}

/// Additional data, then the text, in one pass.
bool Run(EVP_CIPHER_CTX* context, std::string_view additional, std::string_view in, std::string& out) {
    int length = 0;
    if (!additional.empty() &&
        EVP_CipherUpdate(context, nullptr, &length, Data(additional), static_cast<int>(additional.size())) != 1) {
        return false;
    }
    out.resize(in.size());
    int tail = 0;
    return EVP_CipherUpdate(context, Data(out), &length, Data(in), static_cast<int>(in.size())) == 1 &&
           EVP_CipherFinal_ex(context, Data(out) + length, &tail) == 1 &&
           static_cast<std::size_t>(length) + static_cast<std::size_t>(tail) == in.size();
}

std::string CheckValue(const Direction& direction, std::string_view message) {
    const Algorithm& integrity = *direction.suite->integrity;
    return KeyedDigest(integrity, *direction.integrity_key, message).substr(0, integrity.check_bytes);
}

bool SetTag(EVP_CIPHER_CTX* context, std::string_view tag) {
    return EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()),
                               const_cast<char*>(tag.data())) == 1;
}

}  // namespace

std::size_t ProtectedBytes(const Suite& suite, std::size_t plain) {
    return VectorBytes(suite) + plain + PaddingBytes(suite, plain) + 1 + CheckBytes(suite);
}

bool Protect(const Direction& direction, std::uint64_t counter, std::string_view plain, std::string& message) {
    const Suite& suite = *direction.suite;
    const bool aead = suite.encryption->aead;
    const std::string vector = aead ? NetworkOrder(counter) : RandomBytes(kCbcBlock);
    const Context context = Start(direction, vector, true);
    const vpnfc::SecretString padded = Pad(suite, plain);
    std::string text;
    if (!context || !Run(context.get(), aead ? message : std::string(), padded.get(), text)) return false;
    message += vector + text;
    if (!aead) {
        message += CheckValue(direction, message);
        return true;
    }
    std::string tag(suite.encryption->check_bytes, '\0');
    const bool tagged =
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tag.size()), tag.data()) == 1;
    message += tag;
    return tagged;
}

bool Unprotect(const Direction& direction, std::string_view message, std::size_t offset, std::string& plain) {
    const Suite& suite = *direction.suite;
    const bool aead = suite.encryption->aead;
    const std::size_t around = VectorBytes(suite) + CheckBytes(suite);
    if (offset > message.size() || message.size() - offset < around) return false;
    const std::string_view check = message.substr(message.size() - CheckBytes(suite));
    const std::string_view text = message.substr(offset + VectorBytes(suite), message.size() - offset - around);
    if (!aead && (text.size() % kCbcBlock != 0 ||
                  !EqualSecret(check, CheckValue(direction, message.substr(0, message.size() - check.size()))))) {
        return false;
    }
    const Context context = Start(direction, message.substr(offset, VectorBytes(suite)), false);
    return context && (!aead || SetTag(context.get(), check)) &&
           Run(context.get(), aead ? message.substr(0, offset) : std::string_view(), text, plain) && Unpad(plain);
}

}  // namespace ikeauth
