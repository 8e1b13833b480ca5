// The numbers of the engine's keys are reached through libcrypto's older interface to elliptic curves: the engine knows
// no other, and so its readers of DER never see what a caller hands in.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "tokens/gost/key.h"

#include <openssl/ec.h>

#include "tokens/gost/failure.h"

namespace gost_token {
namespace {

using Number = libcrypto::Owner<BIGNUM, BN_clear_free>;
using Pkey = libcrypto::KeyPtr;
using Point = libcrypto::Owner<EC_POINT, EC_POINT_free>;
using libcrypto::Data;

EC_KEY* NumbersOf(EVP_PKEY* pkey) {
    auto* const numbers = static_cast<EC_KEY*>(EVP_PKEY_get0(pkey));
    Require(numbers != nullptr && EC_KEY_get0_group(numbers) != nullptr, CKR_DEVICE_ERROR);
    return numbers;
}

const BIGNUM* OrderOf(const EC_KEY* numbers) {
    return EC_GROUP_get0_order(EC_KEY_get0_group(numbers));
}

Number FromLittleEndian(std::string_view bytes) {
    Number number(BN_secure_new());
    Require(number != nullptr, CKR_HOST_MEMORY);
    Require(BN_lebin2bn(Data(bytes), static_cast<int>(bytes.size()), number.get()) != nullptr, CKR_HOST_MEMORY);
    return number;
}

void ToLittleEndian(const BIGNUM* number, std::size_t size, unsigned char* out) {
    Require(BN_bn2lebinpad(number, out, static_cast<int>(size)) == static_cast<int>(size), CKR_DEVICE_ERROR);
}

Pkey Parameters(const Engine& engine, const Domain& domain) {
    const libcrypto::KeyContextPtr context(EVP_PKEY_CTX_new_id(domain.kind->nid, engine.get()));
    EVP_PKEY* made = nullptr;
    Require(context != nullptr && EVP_PKEY_paramgen_init(context.get()) == 1 &&
                EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", domain.curve) == 1 &&
                EVP_PKEY_paramgen(context.get(), &made) == 1,
            CKR_DEVICE_ERROR);
    return Pkey(made);
}

}  // namespace

void MakeCurves(const Engine& engine) {
    for (const Domain& domain : AllDomains()) Parameters(engine, domain);
}

Key::Key(const Engine& engine, const Domain& domain, Pkey pkey)
    : engine_(engine), domain_(domain), pkey_(std::move(pkey)) {}

KeyPtr Key::FromPrivate(const Engine& engine, const Domain& domain, std::string_view value) {
    Require(value.size() == domain.kind->bytes, CKR_ATTRIBUTE_VALUE_INVALID);
    Pkey pkey = Parameters(engine, domain);
    EC_KEY* const numbers = NumbersOf(pkey.get());
    const EC_GROUP* const group = EC_KEY_get0_group(numbers);
    const Number d = FromLittleEndian(value);
    Require(!BN_is_zero(d.get()) && BN_cmp(d.get(), OrderOf(numbers)) < 0, CKR_ATTRIBUTE_VALUE_INVALID);
    const Point q(EC_POINT_new(group));
    Require(q != nullptr && EC_POINT_mul(group, q.get(), d.get(), nullptr, nullptr, nullptr) == 1 &&
                EC_KEY_set_private_key(numbers, d.get()) == 1 && EC_KEY_set_public_key(numbers, q.get()) == 1,
            CKR_DEVICE_ERROR);
    return KeyPtr(new Key(engine, domain, std::move(pkey)));
}

KeyPtr Key::FromPublic(const Engine& engine, const Domain& domain, std::string_view value) {
    const std::size_t half = domain.kind->bytes;
    Require(value.size() == 2 * half, CKR_ATTRIBUTE_VALUE_INVALID);
    Pkey pkey = Parameters(engine, domain);
    EC_KEY* const numbers = NumbersOf(pkey.get());
    const EC_GROUP* const group = EC_KEY_get0_group(numbers);
    const Number x = FromLittleEndian(value.substr(0, half));
    const Number y = FromLittleEndian(value.substr(half));
    const Point q(EC_POINT_new(group));
    // Fails for a point that is not on the curve.
    Require(q != nullptr && EC_POINT_set_affine_coordinates(group, q.get(), x.get(), y.get(), nullptr) == 1 &&
                EC_KEY_set_public_key(numbers, q.get()) == 1,
            CKR_ATTRIBUTE_VALUE_INVALID);
    return KeyPtr(new Key(engine, domain, std::move(pkey)));
}

KeyPtr Key::Generate(const Engine& engine, const Domain& domain) {
    const Pkey parameters = Parameters(engine, domain);
    const libcrypto::KeyContextPtr context(EVP_PKEY_CTX_new(parameters.get(), engine.get()));
    EVP_PKEY* made = nullptr;
    Require(
        context != nullptr && EVP_PKEY_keygen_init(context.get()) == 1 && EVP_PKEY_keygen(context.get(), &made) == 1,
        CKR_DEVICE_ERROR);
    return KeyPtr(new Key(engine, domain, Pkey(made)));
}

vpnfc::SecretString Key::PrivateValue() const {
    const BIGNUM* const d = EC_KEY_get0_private_key(NumbersOf(pkey_.get()));
    Require(d != nullptr, CKR_DEVICE_ERROR);
    vpnfc::SecretString value{std::string(kind().bytes, '\0')};
    ToLittleEndian(d, kind().bytes, Data(value.edit()));
    return value;
}

std::string Key::PublicValue() const {
    const EC_KEY* const numbers = NumbersOf(pkey_.get());
    const EC_GROUP* const group = EC_KEY_get0_group(numbers);
    const Number x(BN_new());
    const Number y(BN_new());
    Require(x != nullptr && y != nullptr, CKR_HOST_MEMORY);
    Require(EC_POINT_get_affine_coordinates(group, EC_KEY_get0_public_key(numbers), x.get(), y.get(), nullptr) == 1,
            CKR_DEVICE_ERROR);
    std::string value(2 * kind().bytes, '\0');
    ToLittleEndian(x.get(), kind().bytes, Data(value));
    ToLittleEndian(y.get(), kind().bytes, Data(value) + kind().bytes);
    return value;
}

std::string Key::Sign(std::string_view digest) const {
    Require(digest.size() == HashBytes(kind().hash), CKR_DATA_LEN_RANGE);
    const libcrypto::KeyContextPtr context(EVP_PKEY_CTX_new(pkey_.get(), engine_.get()));
    std::string signature(2 * kind().bytes, '\0');
    std::size_t length = signature.size();
    Require(context != nullptr && EVP_PKEY_sign_init(context.get()) == 1 &&
                EVP_PKEY_sign(context.get(), Data(signature), &length, Data(digest), digest.size()) == 1 &&
                length == signature.size(),
            CKR_DEVICE_ERROR);
    return signature;
}

bool Key::Verify(std::string_view digest, std::string_view signature) const {
    Require(digest.size() == HashBytes(kind().hash), CKR_DATA_LEN_RANGE);
    Require(signature.size() == 2 * kind().bytes, CKR_SIGNATURE_LEN_RANGE);
    const libcrypto::KeyContextPtr context(EVP_PKEY_CTX_new(pkey_.get(), engine_.get()));
    Require(context != nullptr && EVP_PKEY_verify_init(context.get()) == 1, CKR_DEVICE_ERROR);
    return EVP_PKEY_verify(context.get(), Data(signature), signature.size(), Data(digest), digest.size()) == 1;
}

}  // namespace gost_token
