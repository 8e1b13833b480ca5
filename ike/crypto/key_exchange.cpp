#include "ike/crypto/key_exchange.h"

#include <openssl/core_names.h>
#include <openssl/dh.h>

#include <array>

namespace ikeauth {
namespace {

constexpr char kUncompressedPoint = 4;  // libcrypto's first byte of a point, which IKE leaves out

using libcrypto::KeyContextPtr;
using libcrypto::KeyPtr;

enum class Family : std::uint8_t { kModp, kCurve, kX25519 };

Family FamilyOf(const Algorithm& group) {
    if (group.word.starts_with("modp")) return Family::kModp;
    return group.word.starts_with("ecp") ? Family::kCurve : Family::kX25519;
}

EVP_PKEY* Generate(const Algorithm& group) {
    const Family family = FamilyOf(group);
    if (family == Family::kX25519) return EVP_PKEY_Q_keygen(nullptr, nullptr, group.libcrypto);
    if (family == Family::kCurve) return EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", group.libcrypto);
    const KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr));
    const std::array<OSSL_PARAM, 2> parameters{
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(group.libcrypto), 0),
        OSSL_PARAM_construct_end()};
    EVP_PKEY* key = nullptr;
    if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 ||
        EVP_PKEY_CTX_set_params(context.get(), parameters.data()) <= 0) {
        return nullptr;
    }
    return EVP_PKEY_generate(context.get(), &key) > 0 ? key : nullptr;
}

}  // namespace

std::unique_ptr<KeyExchange> KeyExchange::Make(const Algorithm& group) {
    KeyPtr key(Generate(group));
    if (!key) return nullptr;
    std::unique_ptr<KeyExchange> exchange(new KeyExchange(group, std::move(key)));
    return exchange->ReadPublicValue() ? std::move(exchange) : nullptr;
}

bool KeyExchange::ReadPublicValue() {
    unsigned char* bytes = nullptr;
    const std::size_t length = EVP_PKEY_get1_encoded_public_key(key_.get(), &bytes);
    public_value_.assign(reinterpret_cast<char*>(bytes), length);
    OPENSSL_free(bytes);
    if (FamilyOf(group_) == Family::kCurve && !public_value_.empty()) public_value_.erase(0, 1);
    return public_value_.size() == group_.key_bytes;
}

KeyPtr KeyExchange::MakePeerKey(const std::string& value) const {
    if (value.size() != group_.key_bytes) return nullptr;
    const std::string encoded = FamilyOf(group_) == Family::kCurve ? kUncompressedPoint + value : value;
    KeyPtr peer(EVP_PKEY_new());
    const bool made = peer && EVP_PKEY_copy_parameters(peer.get(), key_.get()) > 0 &&
                      EVP_PKEY_set1_encoded_public_key(peer.get(), libcrypto::Data(encoded), encoded.size()) > 0;
    return made ? std::move(peer) : nullptr;
}

bool KeyExchange::Agree(const std::string& peer_value, vpnfc::SecretString& shared) const {
    const KeyPtr peer = MakePeerKey(peer_value);
    const KeyContextPtr context(EVP_PKEY_CTX_new(key_.get(), nullptr));
    if (!peer || !context || EVP_PKEY_derive_init(context.get()) <= 0) return false;
    if (FamilyOf(group_) == Family::kModp && EVP_PKEY_CTX_set_dh_pad(context.get(), 1) <= 0) return false;
    std::size_t length = 0;
    if (EVP_PKEY_derive_set_peer(context.get(), peer.get()) <= 0 ||
        EVP_PKEY_derive(context.get(), nullptr, &length) <= 0) {
        return false;
    }
    std::string& secret = shared.edit();
    secret.resize(length);
    if (EVP_PKEY_derive(context.get(), libcrypto::Data(secret), &length) <= 0) return false;
    secret.resize(length);
    return true;
}

}  // namespace ikeauth
