#include "ike/crypto/keys.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <array>
#include <new>
#include <stdexcept>

#include "ike/wire/bytes.h"
#include "libcrypto/libcrypto.h"

namespace ikeauth {
namespace {

/// prf+: as many bytes as asked for.
vpnfc::SecretString Expand(const Algorithm& prf, const std::string& key, const std::string& seed, std::size_t bytes) {
    vpnfc::SecretString stream;
    vpnfc::SecretString input;  // the block before, the seed and a number
    stream.edit().reserve(bytes + prf.key_bytes);  // one that grew would leave copies behind
    input.edit().reserve(prf.key_bytes + seed.size() + 1);
    std::uint8_t number = 1;
    while (stream.get().size() < bytes) {
        input.edit().append(seed).append(Byte(number++));
        const vpnfc::SecretString block(KeyedDigest(prf, key, input.get()));
        stream.edit() += block.get();
        input.edit() = block.get();
    }
    return stream;
}

}  // namespace

std::string KeyedDigest(const Algorithm& algorithm, std::string_view key, std::string_view data) {
    return KeyedDigest(EVP_get_digestbyname(algorithm.libcrypto), key, data);
}

std::string KeyedDigest(const EVP_MD* md, std::string_view key, std::string_view data) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> out{};
    unsigned length = 0;
    if (HMAC(md, key.data(), static_cast<int>(key.size()), libcrypto::Data(data), data.size(), out.data(), &length) ==
        nullptr) {
        throw std::bad_alloc();
    }
    std::string digest(reinterpret_cast<const char*>(out.data()), length);
    OPENSSL_cleanse(out.data(), out.size());  // it may be a key
    return digest;
}

std::string RandomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (RAND_bytes(libcrypto::Data(bytes), static_cast<int>(count)) != 1) {
        throw std::runtime_error("no random numbers");
    }
    return bytes;
}

std::string Sha1(std::string_view data) {
    std::array<unsigned char, SHA_DIGEST_LENGTH> out{};
    SHA1(libcrypto::Data(data), data.size(), out.data());
    return {reinterpret_cast<const char*>(out.data()), out.size()};
}

bool EqualSecret(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

SessionKeys DeriveKeys(const Suite& suite, const vpnfc::SecretString& shared, const KeyInput& input) {
    const std::string nonces = input.initiator_nonce + input.responder_nonce;
    const vpnfc::SecretString seed(KeyedDigest(*suite.prf, nonces, shared.get()));
    const std::size_t prf = suite.prf->key_bytes;
    const std::size_t integrity = suite.integrity != nullptr ? suite.integrity->key_bytes : 0;
    const std::size_t encryption = suite.encryption->key_bytes;
    const vpnfc::SecretString stream =
        Expand(*suite.prf, seed.get(), nonces + NetworkOrder(input.initiator_spi) + NetworkOrder(input.responder_spi),
               3 * prf + 2 * integrity + 2 * encryption);

    std::string_view rest = stream.get();
    const auto take = [&rest](std::size_t bytes) {
        vpnfc::SecretString key(rest.substr(0, bytes));
        rest.remove_prefix(bytes);
        return key;
    };
    take(prf);  // SK_d, for the keys of children: there are none with traffic
    SessionKeys keys;
    keys.initiator_integrity = take(integrity);
    keys.responder_integrity = take(integrity);
    keys.initiator_encryption = take(encryption);
    keys.responder_encryption = take(encryption);
    keys.initiator_identity = take(prf);
    keys.responder_identity = take(prf);
    return keys;
}

}  // namespace ikeauth
