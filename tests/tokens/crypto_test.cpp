// Signing, verifying and digesting on a token, against libcrypto as the other side.
#include <gtest/gtest.h>

#include "platform/asn1.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using PKCS11::TokenSession;
using test_pki::KeyType;

struct Algorithm {
    const char* name;
    KeyType key;
    pki_alg_t key_alg;
    pki_alg_t alg;  // of the signature
    test_pki::SignWith with;
};

const Algorithm kAlgorithms[] = {
    {"RsaSha256", KeyType::kRsa2048, PKI_KEY_RSA, PKI_HASH_SHA256 | PKI_KEY_RSA, {.digest = "SHA256"}},
    {"RsaSha1", KeyType::kRsa2048, PKI_KEY_RSA, PKI_HASH_SHA1 | PKI_KEY_RSA, {.digest = "SHA1"}},
    {"Rsa3072Sha512", KeyType::kRsa3072, PKI_KEY_RSA, PKI_HASH_SHA512 | PKI_KEY_RSA, {.digest = "SHA512"}},
    {"PssSha256", KeyType::kRsa2048, PKI_KEY_RSA, PKI_HASH_SHA256 | PKI_KEY_RSA_PSS, {.digest = "SHA256", .pss = true}},
    {"PssSha384", KeyType::kRsa2048, PKI_KEY_RSA, PKI_HASH_SHA384 | PKI_KEY_RSA_PSS, {.digest = "SHA384", .pss = true}},
    {"DsaSha1", KeyType::kDsa1024, PKI_KEY_DSA, PKI_HASH_SHA1 | PKI_KEY_DSA, {.digest = "SHA1"}},
    {"P256Sha256", KeyType::kEcP256, PKI_KEY_EC, PKI_HASH_SHA256 | PKI_KEY_EC, {.digest = "SHA256"}},
    {"P384Sha384", KeyType::kEcP384, PKI_KEY_EC, PKI_HASH_SHA384 | PKI_KEY_EC, {.digest = "SHA384"}},
    {"P521Sha512", KeyType::kEcP521, PKI_KEY_EC, PKI_HASH_SHA512 | PKI_KEY_EC, {.digest = "SHA512"}},
    {"Ed25519", KeyType::kEd25519, PKI_KEY_ED25519, PKI_HASH_NONE | PKI_KEY_ED25519, {}},
};

/// What is handed to Sign and Verify for data: its digest, for RSA inside a DigestInfo.
std::string ReadyDigest(TokenSession& session, pki_alg_t alg, const std::string& data) {
    std::string digest;
    EXPECT_TRUE(session.Digest(alg, data, digest));
    if ((alg & PKI_KEY_MASK) == PKI_KEY_RSA) {
        EXPECT_TRUE(asn_add_alg_to_digest(alg, digest));
    }
    return digest;
}

class Crypto : public TokenTest {
  protected:
    Crypto() {
        StartDirect();
        token_ = NewToken("crypto");
    }
    TestToken token_;
};

TEST_F(Crypto, AgreesWithLibcryptoInBothDirections) {
    const std::string data = "the octets of an exchange";
    for (const Algorithm& algorithm : kAlgorithms) {
        SCOPED_TRACE(algorithm.name);
        const test_pki::Key key = test_pki::MakeKey(algorithm.key);
        const std::string spki = test_pki::Spki(key);
        Import(token_.info, algorithm.key_alg, key, algorithm.name);

        TokenSession session(token_.info, TokenSession::kPrivate);
        const std::string digest = ReadyDigest(session, algorithm.alg, data);
        std::string signature;
        ASSERT_TRUE(session.Sign(algorithm.alg, algorithm.name, digest, signature));
        EXPECT_TRUE(test_pki::VerifyData(key, algorithm.with, data, signature));

        const std::string theirs = test_pki::SignData(key, algorithm.with, data);
        TokenSession verifier(token_.info);
        EXPECT_TRUE(verifier.Verify(algorithm.alg, spki, digest, theirs));
        EXPECT_TRUE(verifier.Verify(algorithm.alg, spki, digest, theirs)) << "with the key remembered";
    }
}

// A wrong signature is a value: false, and nothing in the log. The session goes on working.
TEST_F(Crypto, WrongSignaturesAreNoTrouble) {
    const std::string data = "data";
    for (const Algorithm& algorithm : kAlgorithms) {
        SCOPED_TRACE(algorithm.name);
        const test_pki::Key key = test_pki::MakeKey(algorithm.key);
        const std::string spki = test_pki::Spki(key);
        ErrorLog errors;
        TokenSession session(token_.info, TokenSession::kPublic, nullptr, &errors);
        const std::string digest = ReadyDigest(session, algorithm.alg, data);
        const std::string good = test_pki::SignData(key, algorithm.with, data);
        std::string turned = good;
        turned.back() = static_cast<char>(turned.back() ^ 1);
        std::string other_digest = digest;
        other_digest.back() = static_cast<char>(other_digest.back() ^ 1);
        const std::string other_key = test_pki::Spki(test_pki::MakeKey(algorithm.key, 1));

        EXPECT_FALSE(session.Verify(algorithm.alg, spki, digest, turned));
        EXPECT_FALSE(session.Verify(algorithm.alg, spki, digest, ""));
        EXPECT_FALSE(session.Verify(algorithm.alg, spki, digest, std::string(good.size(), '\xFF')));
        EXPECT_FALSE(session.Verify(algorithm.alg, spki, digest, good + "x"));
        EXPECT_FALSE(session.Verify(algorithm.alg, spki, digest, good.substr(1)));
        EXPECT_FALSE(session.Verify(algorithm.alg, spki, other_digest, good));
        EXPECT_FALSE(session.Verify(algorithm.alg, other_key, digest, good));
        EXPECT_FALSE(session.Verify(algorithm.alg, "no key", digest, good));
        const pki_alg_t other_alg = algorithm.key_alg == PKI_KEY_EC ? PKI_KEY_DSA : PKI_KEY_EC;
        EXPECT_FALSE(session.Verify(other_alg, spki, digest, good)) << "key of another algorithm";
        EXPECT_EQ(errors.errors, std::vector<std::string>());
        EXPECT_TRUE(session.Verify(algorithm.alg, spki, digest, good));
    }
}

// Peers of IKEv1 send r and s without the sign byte of an INTEGER.
TEST_F(Crypto, DsaNumbersAreUnsigned) {
    TokenSession session(token_.info);
    const std::string data = "data";
    const std::string digest = ReadyDigest(session, PKI_HASH_SHA1, data);
    bool high_seen = false;  // how likely depends on the group of the key
    for (int i = 0; i < 200 && !high_seen; ++i) {
        const test_pki::Key key = test_pki::MakeKey(KeyType::kDsa1024, i / 20);
        std::string r;
        std::string s;
        ASSERT_TRUE(asn_read_dsa_certsign(test_pki::SignData(key, {.digest = "SHA1"}, data), r, s));
        high_seen = (r[0] & 0x80) != 0 || (s[0] & 0x80) != 0;
        const std::string numbers = std::string("\x02\x14") + r + "\x02\x14" + s;
        EXPECT_TRUE(session.Verify(PKI_KEY_DSA, test_pki::Spki(key), digest, "\x30\x2C" + numbers));
    }
    EXPECT_TRUE(high_seen);
}

TEST_F(Crypto, SignsBareRsaBlocksAsGiven) {
    const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048);
    Import(token_.info, PKI_KEY_RSA, key, "id");
    TokenSession session(token_.info, TokenSession::kPrivate);
    const std::string block = "twenty bytes of hash";
    std::string signature;
    ASSERT_TRUE(session.Sign(PKI_KEY_RSA, "id", block, signature));
    std::string recovered;
    ASSERT_TRUE(session.VerifyDecrypt(test_pki::Spki(key), signature, recovered));
    EXPECT_EQ(recovered, block);
    EXPECT_TRUE(session.Verify(PKI_KEY_RSA, test_pki::Spki(key), block, signature));

    ErrorLog errors;
    TokenSession plain(token_.info, TokenSession::kPublic, nullptr, &errors);
    signature[9] = static_cast<char>(signature[9] ^ 4);
    EXPECT_FALSE(plain.VerifyDecrypt(test_pki::Spki(key), signature, recovered)) << "no padding comes out";
    EXPECT_FALSE(plain.VerifyDecrypt(test_pki::Spki(key), std::string(256, '\xFF'), recovered)) << "above the modulus";
    EXPECT_FALSE(plain.VerifyDecrypt(test_pki::Spki(key), "short", recovered));
    EXPECT_FALSE(plain.VerifyDecrypt(test_pki::Spki(test_pki::MakeKey(KeyType::kEcP256)), signature, recovered));
    EXPECT_EQ(errors.errors, std::vector<std::string>());
}

TEST_F(Crypto, DigestsOnTheTokenOrOnTheHost) {
    struct {
        pki_alg_t alg;
        const char* name;
    } const cases[] = {
        {PKI_HASH_SHA1, "SHA1"},     {PKI_HASH_SHA224, "SHA224"}, {PKI_HASH_SHA256, "SHA256"},
        {PKI_HASH_SHA384, "SHA384"}, {PKI_HASH_SHA512, "SHA512"}, {PKI_HASH_MD5, "MD5"},
    };
    // The trust module has no mechanism at all.
    settings_.providers.push_back({.name = "trust", .module_path = TRUST_MODULE_PATH});
    Apply();
    std::size_t sessions = 0;
    for (const PKCS11::TokenInfo& token : PKCS11::Manager::Instance().EnumTokens()) {
        TokenSession session(token);
        ++sessions;
        for (const auto& c : cases) {
            for (const std::string& data : {std::string(), std::string("abc"), std::string(1 << 20, 'x')}) {
                std::string digest;
                ASSERT_TRUE(session.Digest(c.alg | PKI_KEY_RSA, data, digest)) << c.name << token.label;
                EXPECT_EQ(digest, test_pki::Digest(c.name, data)) << c.name;
            }
        }
        std::string digest;
        EXPECT_TRUE(session.Digest(PKI_HASH_NONE, "message", digest));
        EXPECT_EQ(digest, "message");
        EXPECT_FALSE(session.Digest(PKI_HASH_GOST94, "abc", digest));
        EXPECT_FALSE(session.Digest(0, "abc", digest));
    }
    EXPECT_GE(sessions, 2U);
}

// More keys than a session keeps: the first ones are dropped and made anew.
TEST_F(Crypto, VerifiesWithMoreKeysThanAreRemembered) {
    TokenSession session(token_.info);
    const std::string data = "data";
    for (int round = 0; round < 2; ++round) {
        for (int index = 0; index < 70; ++index) {
            const test_pki::Key key = test_pki::MakeKey(KeyType::kEd25519, index);
            const std::string signature = test_pki::SignData(key, {}, data);
            ASSERT_TRUE(session.Verify(PKI_KEY_ED25519, test_pki::Spki(key), data, signature)) << index;
        }
    }
}

// What a session brings to verify with is no key of the token, for whoever looks.
TEST_F(Crypto, KeysToVerifyWithAreNotOnTheToken) {
    const test_pki::Key key = test_pki::MakeKey(KeyType::kEcP256, 99);
    TokenSession session(token_.info);
    EXPECT_FALSE(session.Verify(PKI_HASH_SHA256 | PKI_KEY_EC, test_pki::Spki(key), std::string(32, 'd'),
                                test_pki::SignData(key, {.digest = "SHA256"}, "data")));
    std::list<PKCS11::CertObject> objects;
    TokenSession other(token_.info);
    EXPECT_TRUE(other.EnumCertificates(objects) && objects.empty());
    EXPECT_FALSE(other.ContainPubKeyObject(test_pki::Spki(key)));
}

TEST_F(Crypto, GeneratesKeyPairsThatSign) {
    struct {
        pki_alg_t alg;
        std::uint32_t bits;
        pki_alg_t hash;
    } const cases[] = {{PKI_KEY_RSA, 1024, PKI_HASH_SHA256}, {PKI_KEY_DSA, 1024, PKI_HASH_SHA1},
                       {PKI_KEY_EC, 256, PKI_HASH_SHA256},   {PKI_KEY_EC, 384, PKI_HASH_SHA384},
                       {PKI_KEY_EC, 521, PKI_HASH_SHA512},   {PKI_KEY_ED25519, 256, PKI_HASH_NONE}};
    for (const auto& c : cases) {
        const std::string id = std::to_string(c.alg) + "-" + std::to_string(c.bits);
        SCOPED_TRACE(id);
        TokenSession session(token_.info, TokenSession::kPrivate);
        ASSERT_TRUE(session.SeedRandom("some entropy"));
        ASSERT_TRUE(session.GenerateKeyPair(c.alg, c.bits, id, c.bits == 384));
        std::string spki;
        ASSERT_TRUE(session.GetRawPubKeyObjectData(c.alg, id, spki));
        const unsigned bits = asn_spki_key_bits(c.alg, spki);
        // The length of a DSA key is its public number's, which may begin with zeros.
        EXPECT_TRUE(c.alg == PKI_KEY_DSA ? bits <= c.bits && bits > c.bits - 32 : bits == c.bits) << bits;
        const std::string digest = ReadyDigest(session, c.alg | c.hash, "data");
        std::string signature;
        ASSERT_TRUE(session.Sign(c.alg | c.hash, id, digest, signature));
        EXPECT_TRUE(session.Verify(c.alg | c.hash, spki, digest, signature));
        std::string pkcs8;
        EXPECT_EQ(session.ExportPrivateKey(id, pkcs8), c.bits == 384) << "exportable as asked";
        vpnfc::SecureWipe(pkcs8);
    }
    ErrorLog errors;
    TokenSession session(token_.info, TokenSession::kPrivate, nullptr, &errors);
    EXPECT_FALSE(session.GenerateKeyPair(PKI_KEY_EC, 257, "none", false));
    EXPECT_FALSE(session.GenerateKeyPair(PKI_KEY_512BIT, 512, "none", false));
    EXPECT_EQ(errors.errors.size(), 0U);
    EXPECT_FALSE(session.GenerateKeyPair(PKI_KEY_GOST2012_256, 512, "none", false));
    EXPECT_EQ(errors.errors, std::vector<std::string>{"crypto C_GenerateKeyPair CKR_MECHANISM_INVALID"});
}

TEST_F(Crypto, ListsWhatATokenOffers) {
    const PKCS11::Manager& manager = PKCS11::Manager::Instance();
    struct {
        pki_alg_t alg;
        bool offered;
    } const cases[] = {
        {0, true},
        {PKI_KEY_RSA, true},
        {PKI_KEY_EC, true},
        {PKI_KEY_ED25519, true},
        {PKI_HASH_SHA256, true},
        {PKI_HASH_SHA256 | PKI_KEY_RSA, true},
        {PKI_HASH_SHA256 | PKI_KEY_RSA | 0x01000000, true},  // variant flags say nothing about the mechanism
        {PKI_HASH_SHA384 | PKI_KEY_RSA_PSS, true},
        {PKI_HASH_NONE | PKI_KEY_ED25519, true},
        {PKI_KEY_GOST2001, false},
        {PKI_HASH_GOST94, false},
        {PKI_HASH_GOST94 | PKI_KEY_RSA, false},  // nobody makes that digest
        {PKI_KEY_512BIT, false},
        {0x7777, false},
        {PKI_HASH_SHA256 | 0x7777, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(manager.EnumTokens(c.alg).size(), c.offered ? 1U : 0U) << std::hex << c.alg;
        if (c.alg != 0) {
            EXPECT_EQ(manager.IsTokenSupportMechanism(token_.info, c.alg), c.offered) << std::hex << c.alg;
        }
    }

    std::vector<PKCS11::KeyPairGenMechanism> mechanisms;
    std::vector<pki_alg_t> digests;
    ASSERT_TRUE(manager.GetKeyPairGenMechanisms(token_.info, mechanisms, digests));
    const auto sizes = [&](pki_alg_t alg) -> std::pair<unsigned, unsigned> {
        for (const auto& mechanism : mechanisms) {
            if (mechanism.keyAlg == alg) return {mechanism.minBits, mechanism.maxBits};
        }
        return {0, 0};
    };
    EXPECT_EQ(mechanisms.size(), 4U);
    EXPECT_EQ(sizes(PKI_KEY_DSA), std::pair(512U, 1024U));
    EXPECT_EQ(sizes(PKI_KEY_EC), std::pair(256U, 521U)) << "only curves that can be asked for";
    EXPECT_EQ(sizes(PKI_KEY_ED25519), std::pair(256U, 256U));
    EXPECT_EQ(sizes(PKI_KEY_RSA).first, 512U);
    EXPECT_NE(std::find(digests.begin(), digests.end(), PKI_HASH_SHA256), digests.end());
    EXPECT_EQ(std::find(digests.begin(), digests.end(), PKI_HASH_GOST94), digests.end());

    PKCS11::TokenInfo nowhere;
    EXPECT_FALSE(manager.GetKeyPairGenMechanisms(nowhere, mechanisms, digests));
    EXPECT_FALSE(manager.IsTokenSupportMechanism(nowhere, PKI_KEY_RSA));
}

}  // namespace
}  // namespace token_test
