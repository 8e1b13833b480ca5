// Keys and signatures between their X.509 and PKCS #11 forms.
#include "platform/tokens/key_codec.h"

#include <gtest/gtest.h>

#include "libcrypto/libcrypto.h"
#include "tests/support/der.h"
#include "tests/support/pki.h"

namespace {

using test_pki::KeyType;
using vpnfc::SecretString;

// The last one is PublicKey::size.
const std::tuple<KeyType, pki_alg_t, std::size_t> kKeys[] = {
    {KeyType::kRsa2048, PKI_KEY_RSA, 256}, {KeyType::kDsa1024, PKI_KEY_DSA, 20},    {KeyType::kEcP256, PKI_KEY_EC, 32},
    {KeyType::kEcP521, PKI_KEY_EC, 66},    {KeyType::kEd25519, PKI_KEY_ED25519, 0},
};

// What libcrypto reads back must be the same key, also when the token gives numbers without leading zeros.
TEST(Keys, RoundTrip) {
    for (const auto& [type, alg, size] : kKeys) {
        for (int index = 0; index < 3; ++index) {
            SCOPED_TRACE(testing::Message() << alg << ' ' << size << ' ' << index);
            const test_pki::Key original = test_pki::MakeKey(type, index);
            tokens::PublicKey public_key;
            ASSERT_TRUE(tokens::PublicKeyFromSpki(test_pki::Spki(original), public_key));
            EXPECT_EQ(std::pair(public_key.alg, public_key.size), std::pair(alg, size));
            EXPECT_EQ(tokens::SpkiFromComponents(alg, public_key.components), test_pki::Spki(original));
            tokens::PrivateKey key;
            ASSERT_TRUE(tokens::PrivateKeyFromPkcs8(test_pki::Pkcs8(original), key));
            EXPECT_EQ(key.alg, alg);
            const SecretString pkcs8 = tokens::Pkcs8FromComponents(key.alg, key.components);
            const auto again = libcrypto::Decode<EVP_PKEY_free>(d2i_AutoPrivateKey, pkcs8.get());
            ASSERT_NE(again, nullptr);
            EXPECT_EQ(EVP_PKEY_eq(original.get(), again.get()), 1);
        }
    }
}

// Nothing that is cut off or followed by more is a key.
TEST(Keys, DamagedEncodingsAreRefused) {
    for (const auto& [type, alg, whole] : kKeys) {
        SCOPED_TRACE(alg);
        const std::string spki = test_pki::Spki(test_pki::MakeKey(type));
        const std::string pkcs8 = test_pki::Pkcs8(test_pki::MakeKey(type));
        tokens::PublicKey key;
        tokens::PrivateKey private_key;
        EXPECT_FALSE(tokens::PublicKeyFromSpki(spki + '\0', key));
        std::size_t size = spki.size();
        while (size-- > 0) EXPECT_FALSE(tokens::PublicKeyFromSpki(spki.substr(0, size), key)) << size;
        size = pkcs8.size();
        while (size-- > 0) EXPECT_FALSE(tokens::PrivateKeyFromPkcs8(pkcs8.substr(0, size), private_key)) << size;
    }
}

std::string Spki(const std::string& algorithm, const std::string& bits) {
    return der::Sequence(der::Sequence(algorithm) + der::BitString(bits));
}

TEST(PublicKeys, HostileKeysAreRefused) {
    const std::string rsa = der::Oid("1.2.840.113549.1.1.1") + der::Null();
    const std::string ec = der::Oid("1.2.840.10045.2.1");
    const std::string p256 = der::Oid("prime256v1");
    const std::string ed25519 = der::Oid("1.3.101.112");
    const std::string modulus = der::IntegerBytes("\x7F" + std::string(255, 'm'));
    const std::string point = "\4" + std::string(64, 'p');
    const std::pair<const char*, std::string> cases[] = {
        {"modulus too long",
         Spki(rsa, der::Sequence(der::IntegerBytes("\x7F" + std::string(2048, 'm')) + der::Integer(65537)))},
        {"exponent too long", Spki(rsa, der::Sequence(modulus + der::IntegerBytes(std::string(33, 'e'))))},
        {"no modulus", Spki(rsa, der::Sequence(der::IntegerBytes(std::string(2, '\0')) + der::Integer(3)))},
        {"negative exponent", Spki(rsa, der::Sequence(modulus + der::IntegerBytes("\x83")))},
        {"zero exponent", Spki(rsa, der::Sequence(modulus + der::Integer(0)))},
        {"three numbers", Spki(rsa, der::Sequence(modulus + der::Integer(3) + der::Integer(3)))},
        {"unknown curve", Spki(ec + der::Oid("1.2.3.4"), point)},
        {"explicit curve", Spki(ec + der::Sequence(der::Integer(1)), point)},
        {"no curve", Spki(ec, point)},
        {"short point", Spki(ec + p256, "\4" + std::string(63, 'p'))},
        {"point at infinity", Spki(ec + p256, std::string(1, '\0'))},
        {"unused bits", der::Sequence(der::Sequence(ec + p256) + der::BitString(point, 1))},
        {"short Ed25519 key", Spki(ed25519, std::string(31, 'k'))},
        {"no domain parameters", Spki(der::Oid("1.2.840.10040.4.1"), der::Integer(5))},
        {"unknown algorithm", Spki(der::Oid("1.2.3.4"), "k")},
    };
    tokens::PublicKey key;
    for (const auto& [what, spki] : cases) EXPECT_FALSE(tokens::PublicKeyFromSpki(spki, key)) << what;
    // Odd, but no other key than the one that is meant.
    EXPECT_TRUE(tokens::PublicKeyFromSpki(
        Spki(rsa, der::Sequence(der::IntegerBytes("\x80" + std::string(255, 'm')) + der::Integer(3))), key));
    EXPECT_EQ(key.size, 256U);
}

TEST(Signatures, DerBecomesTwoNumbersOfTheKeysWidth) {
    using std::string;
    const auto ints = [](const string& r, const string& s) {
        return der::Sequence(der::IntegerBytes(r) + der::IntegerBytes(s));
    };
    const string wide(20, '\x7F');
    const string high(20, '\xFF');
    // What it is, its algorithm, the DER, and the numbers; none: refused.
    const std::tuple<const char*, pki_alg_t, string, string> cases[] = {
        {"full width", PKI_KEY_DSA, ints(wide, wide), wide + wide},
        {"sign byte", PKI_KEY_DSA, ints('\0' + high, wide), high + wide},
        {"no sign byte, DSA", PKI_KEY_DSA, ints(high, high), high + high},
        {"no sign byte, ECDSA", PKI_KEY_EC, ints(high, high), ""},
        {"short numbers", PKI_KEY_EC, ints("\1", "\2"), string(19, '\0') + "\1" + string(19, '\0') + "\2"},
        {"leading zeros", PKI_KEY_DSA, ints(string(30, '\0') + "\1", wide), string(19, '\0') + "\1" + wide},
        {"too wide", PKI_KEY_DSA, ints("\1" + wide, wide), ""},
        {"empty number", PKI_KEY_DSA, ints("", wide), ""},
        {"three numbers", PKI_KEY_DSA, der::Sequence(der::Integer(1) + der::Integer(1) + der::Integer(1)), ""},
        {"trailing byte", PKI_KEY_DSA, ints(wide, wide) + "x", ""},
        {"nothing", PKI_KEY_DSA, "", ""},
    };
    for (const auto& [what, alg, der, expected] : cases) {
        string raw;
        EXPECT_EQ(tokens::RawSignatureFromDer(alg, 20, der, raw) ? raw : "", expected) << what;
    }
}

TEST(Signatures, RawBecomesDer) {
    std::string der;
    ASSERT_TRUE(tokens::DerSignatureFromRaw(std::string("\0\xFF\0\1", 4), der));
    EXPECT_EQ(der, der::Sequence(der::IntegerBytes(std::string("\0\xFF", 2)) + der::Integer(1)));
    EXPECT_FALSE(tokens::DerSignatureFromRaw("odd", der));
    EXPECT_FALSE(tokens::DerSignatureFromRaw("", der));
}

}  // namespace
