#include "ike/messages.h"

#include <openssl/evp.h>

#include <array>

#include "ike/crypto/keys.h"
#include "platform/bridge.h"

namespace ikeauth {
namespace {

void WriteList(CommandStreamOut& out, const std::vector<std::string>& list) {
    out.fields(static_cast<std::uint32_t>(list.size()));
    for (const std::string& entry : list) out.fields(entry);
}

void ReadList(CommandStreamIn& in, std::vector<std::string>& list) {
    std::uint32_t count = 0;
    in.fields(count);
    if (count > kMaxListEntries) throw "CommandStreamError";
    for (std::uint32_t i = 0; i < count; ++i) in.fields(list.emplace_back());
}

/// Runs a reader over a message; false when the message is short or says something that cannot be.
template <typename Reader>
bool ReadAll(const std::string& message, Reader read) {
    CommandStreamIn in(message);
    try {
        read(in);
    } catch (const char*) {
        return false;
    }
    return true;
}

std::string IdentityPayload(const SignedInput& input) {
    std::string bytes;
    CommandStreamOut(bytes).fields(input.id_type, input.id_value);
    return bytes;
}

}  // namespace

std::string Hello::Encode() const {
    std::string message;
    CommandStreamOut out(message);
    out.fields(nonce, static_cast<std::uint32_t>(requests.format));
    WriteList(out, requests.authorities);
    return message;
}

bool Hello::Decode(const std::string& message) {
    return ReadAll(message, [this](CommandStreamIn& in) {
        std::uint32_t format = 0;
        in.fields(nonce, format);
        requests.format = static_cast<CM::CertDataFormat>(format);
        ReadList(in, requests.authorities);
    });
}

std::string Authentication::Encode() const {
    std::string message;
    CommandStreamOut out(message);
    out.fields(id_type, id_value, static_cast<std::uint32_t>(form));
    WriteList(out, payloads);
    out.fields(sign_alg, signature);
    return message;
}

bool Authentication::Decode(const std::string& message) {
    return ReadAll(message, [this](CommandStreamIn& in) {
        std::uint32_t raw_form = 0;
        in.fields(id_type, id_value, raw_form);
        form = static_cast<PayloadForm>(raw_form);
        ReadList(in, payloads);
        in.fields(sign_alg, signature);
    });
}

std::string SignedOctets(const SignedInput& input) {
    return input.own_hello + input.peer_nonce + KeyedDigest(EVP_sha256(), input.peer_nonce, IdentityPayload(input));
}

namespace {

/// One with as many bytes as the key signs.
const EVP_MD* DigestFor(pki_alg_t key_alg) {
    switch (key_alg) {
        case PKI_KEY_DSA:
            return EVP_sha1();
        case PKI_KEY_GOST2012_512:
            return EVP_sha512();
        default:
            return EVP_sha256();
    }
}

}  // namespace

std::string ExchangeHash(const SignedInput& input, pki_alg_t key_alg) {
    return KeyedDigest(DigestFor(key_alg), input.peer_nonce,
                       input.own_hello + input.peer_hello + IdentityPayload(input));
}

}  // namespace ikeauth
