// Signing, verifying and digesting on a token, against libcrypto as the other side.
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
    {"RsaSha1", KeyType::kRsa2048, PKI_KEY_RSA, PKI_HASH_SHA1 | PKI_KEY_RSA, {.digest = "SHA1"}},
    {"Rsa3072Sha512", KeyType::kRsa3072, PKI_KEY_RSA, PKI_HASH_SHA512 | PKI_KEY_RSA, {.digest = "SHA512"}},
    {"PssSha256", KeyType::kRsa2048, PKI_KEY_RSA, PKI_HASH_SHA256 | PKI_KEY_RSA_PSS, {.digest = "SHA256", .pss = true}},
    {"PssSha384", KeyType::kRsa2048, PKI_KEY_RSA, PKI_HASH_SHA384 | PKI_KEY_RSA_PSS, {.digest = "SHA384", .pss = true}},
    {"DsaSha1", KeyType::kDsa1024, PKI_KEY_DSA, PKI_HASH_SHA1 | PKI_KEY_DSA, {.digest = "SHA1"}},
    {"P256Sha256", KeyType::kEcP256, PKI_KEY_EC, PKI_HASH_SHA256 | PKI_KEY_EC, {.digest = "SHA256"}},
    {"P521Sha512", KeyType::kEcP521, PKI_KEY_EC, PKI_HASH_SHA512 | PKI_KEY_EC, {.digest = "SHA512"}},
    {"Ed25519", KeyType::kEd25519, PKI_KEY_ED25519, PKI_HASH_NONE | PKI_KEY_ED25519, {}},
};

class Crypto : public TokenTest {
  protected:
    Crypto() {
        StartDirect();
        token_ = NewToken("crypto");
    }
    TestToken token_;
};

// Both directions. A wrong signature is a value: false, and nothing in the log; the session goes on working.
TEST_F(Crypto, AgreesWithLibcryptoOnWhatIsRightAndWrong) {
    const std::string data = "the octets of an exchange";
    const auto turned = [](std::string bytes) {
        bytes.back() = static_cast<char>(bytes.back() ^ 1);
        return bytes;
    };
    for (const auto& [name, key_type, key_alg, alg, with] : kAlgorithms) {
        SCOPED_TRACE(name);
        const test_pki::Key key = test_pki::MakeKey(key_type);
        const std::string spki = test_pki::Spki(key);
        Import(token_.info, key_alg, key, name);
        TokenSession session(token_.info, TokenSession::kPrivate);
        std::string digest;  // for RSA inside a DigestInfo
        ASSERT_TRUE(session.Digest(alg, data, digest));
        ASSERT_TRUE((alg & PKI_KEY_MASK) != PKI_KEY_RSA || asn_add_alg_to_digest(alg, digest));
        std::string ours;
        ASSERT_TRUE(session.Sign(alg, name, digest, ours));
        EXPECT_TRUE(test_pki::VerifyData(key, with, data, ours));

        ErrorLog errors;
        TokenSession verifier(token_.info, TokenSession::kPublic, nullptr, &errors);
        const std::string good = test_pki::SignData(key, with, data);
        EXPECT_TRUE(verifier.Verify(alg, spki, digest, good));
        for (const std::string& wrong :
             {turned(good), std::string(), std::string(good.size(), '\xFF'), good + "x", good.substr(1)}) {
            EXPECT_FALSE(verifier.Verify(alg, spki, digest, wrong)) << testing::PrintToString(wrong);
        }
        EXPECT_FALSE(verifier.Verify(alg, spki, turned(digest), good));
        EXPECT_FALSE(verifier.Verify(alg, test_pki::Spki(test_pki::MakeKey(key_type, 1)), digest, good));
        EXPECT_FALSE(verifier.Verify(alg, "no key", digest, good));
        const pki_alg_t other_alg = key_alg == PKI_KEY_EC ? PKI_KEY_DSA : PKI_KEY_EC;
        EXPECT_FALSE(verifier.Verify(other_alg, spki, digest, good)) << "key of another algorithm";
        EXPECT_EQ(errors.errors, std::vector<std::string>());
        EXPECT_TRUE(verifier.Verify(alg, spki, digest, good)) << "with the key remembered";
    }
}

TEST_F(Crypto, SignsBareRsaBlocksAsGiven) {
    const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048);
    const std::string spki = test_pki::Spki(key);
    Import(token_.info, PKI_KEY_RSA, key, "id");
    ErrorLog errors;
    TokenSession session(token_.info, TokenSession::kPrivate, nullptr, &errors);
    const std::string block = "twenty bytes of hash";
    std::string signature;
    ASSERT_TRUE(session.Sign(PKI_KEY_RSA, "id", block, signature));
    std::string recovered;
    ASSERT_TRUE(session.VerifyDecrypt(spki, signature, recovered));
    EXPECT_EQ(recovered, block);

    signature[9] = static_cast<char>(signature[9] ^ 4);
    EXPECT_FALSE(session.VerifyDecrypt(spki, signature, recovered)) << "no padding comes out";
    EXPECT_FALSE(session.VerifyDecrypt(spki, std::string(256, '\xFF'), recovered)) << "above the modulus";
    EXPECT_FALSE(session.VerifyDecrypt(spki, "short", recovered));
    EXPECT_FALSE(session.VerifyDecrypt(test_pki::Spki(test_pki::MakeKey(KeyType::kEcP256)), signature, recovered));
    EXPECT_EQ(errors.errors, std::vector<std::string>());
}

TEST_F(Crypto, DigestsOnTheTokenOrOnTheHost) {
    const std::pair<pki_alg_t, const char*> cases[] = {{PKI_HASH_SHA1, "SHA1"},     {PKI_HASH_SHA224, "SHA224"},
                                                       {PKI_HASH_SHA256, "SHA256"}, {PKI_HASH_SHA384, "SHA384"},
                                                       {PKI_HASH_SHA512, "SHA512"}, {PKI_HASH_MD5, "MD5"}};
    // The trust module has no mechanism at all.
    settings_.providers.push_back({.name = "trust", .module_path = TRUST_MODULE_PATH});
    Apply();
    EXPECT_GE(ListedTokens().size(), 2U);
    for (const PKCS11::TokenInfo& token : ListedTokens()) {
        TokenSession session(token);
        std::string digest;
        for (const auto& [alg, name] : cases) {
            for (const std::string& data : {std::string(), std::string(1 << 20, 'x')}) {
                ASSERT_TRUE(session.Digest(alg | PKI_KEY_RSA, data, digest)) << name << token.label;
                EXPECT_EQ(digest, test_pki::Digest(name, data)) << name;
            }
        }
        EXPECT_TRUE(session.Digest(PKI_HASH_NONE, "message", digest));
        EXPECT_EQ(digest, "message");
        EXPECT_FALSE(session.Digest(PKI_HASH_GOST94, "abc", digest));
    }
}

// More keys than a session keeps: the first ones are dropped and made anew. None is a key of the token, for whoever
// looks.
TEST_F(Crypto, VerifiesWithMoreKeysThanAreRemembered) {
    TokenSession session(token_.info);
    for (int index = 0; index < 140; ++index) {
        const test_pki::Key key = test_pki::MakeKey(KeyType::kEd25519, index % 70);
        const std::string signature = test_pki::SignData(key, {}, "data");
        ASSERT_TRUE(session.Verify(PKI_KEY_ED25519, test_pki::Spki(key), "data", signature)) << index;
    }
    std::list<PKCS11::CertObject> objects;
    TokenSession other(token_.info);
    EXPECT_TRUE(other.EnumCertificates(objects) && objects.empty());
    EXPECT_FALSE(other.ContainPubKeyObject(test_pki::Spki(test_pki::MakeKey(KeyType::kEd25519, 69))));
}

TEST_F(Crypto, ListsWhatATokenOffers) {
    const PKCS11::Manager& manager = PKCS11::Manager::Instance();
    const std::pair<pki_alg_t, bool> cases[] = {
        {PKI_KEY_RSA, true},
        {PKI_KEY_ED25519, true},
        {PKI_HASH_SHA256, true},
        {PKI_HASH_SHA256 | PKI_KEY_RSA | 0x01000000, true},  // variant flags say nothing about the mechanism
        {PKI_HASH_SHA384 | PKI_KEY_RSA_PSS, true},
        {PKI_HASH_NONE | PKI_KEY_ED25519, true},
        {PKI_KEY_GOST2001, false},
        {PKI_HASH_GOST94 | PKI_KEY_RSA, false},  // nobody makes that digest
        {PKI_KEY_512BIT, false},
        {PKI_HASH_SHA256 | 0x7777, false},
    };
    for (const auto& [alg, offered] : cases) {
        EXPECT_EQ(manager.EnumTokens(alg).size(), offered ? 1U : 0U) << std::hex << alg;
        EXPECT_EQ(manager.IsTokenSupportMechanism(token_.info, alg), offered) << std::hex << alg;
    }

    const PKCS11::TokenInfo nowhere;
    EXPECT_FALSE(manager.IsTokenSupportMechanism(nowhere, PKI_KEY_RSA));
    ErrorLog errors;
    TokenSession session(token_.info, TokenSession::kPrivate, nullptr, &errors);
    for (const pki_alg_t alg : {PKI_KEY_512BIT, PKI_KEY_RSA_PSS, PKI_HASH_SHA256 | 0x7777}) {
        EXPECT_FALSE(session.GenerateKeyPair(alg, 512, "no key of its own", false)) << std::hex << alg;
    }
    EXPECT_EQ(errors.errors, std::vector<std::string>()) << "no token is asked";
}

}  // namespace
}  // namespace token_test
