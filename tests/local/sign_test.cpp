// IKE signatures: what tokens are asked for, the form that comes out, and what failures say. Signatures are checked
// with libcrypto, and made with it where the module verifies.
#include <openssl/evp.h>

#include <cstddef>
#include <memory>

#include "certmgr/cert_cfg.h"
#include "platform/params.h"
#include "tests/local/local_fixture.h"
#include "tests/support/der.h"

namespace local_test {
namespace {

using vendor_host::Op;

const std::string kData = "octets of the exchange";

class SignTest : public LocalTest {
  protected:
    /// The certificate of that spec in the store.
    std::unique_ptr<Handle> Personal(CertSpec spec, const test_pki::Cert* issuer = nullptr) {
        spec.key_index = 0;  // MakeKey(type) is its key
        const test_pki::Cert cert = test_pki::MakeCert(spec, issuer != nullptr ? issuer : &root_);
        token_->AddPersonal(cert.der, cert.key);
        Load();
        return FindLocal(spec.subject);
    }

    /// A certificate whose key libcrypto lacks; the token signs and verifies for it as told.
    std::unique_ptr<Handle> GostPersonal(const char* oid, pki_alg_t alg) {
        const std::string spki =
            der::Sequence(der::Sequence(der::Oid(oid)) + der::BitString(der::OctetString(std::string(64, '\x11'))));
        const std::string subject = std::string("CN=") + oid;
        const test_pki::Cert cert = test_pki::MakeCert({.subject = subject, .spki = spki}, &root_);
        token_->AddCertificate(cert.der, {.id = oid, .category = 1});
        token_->AddForeignKeyPair(oid, alg, spki);
        Load();
        return FindLocal(subject);
    }

    static std::string Padded(std::size_t length, char first) {
        std::string bytes(length, '\0');
        for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(first + i);
        return bytes;
    }
};

/// A key type, the algorithm it signs IKEv2 with under an ECDSA issuer, and the same in libcrypto's words.
struct KeyCase {
    KeyType type;
    pki_alg_t sign_alg;
    std::string digest;
};

const KeyCase kKeys[] = {
    {KeyType::kRsa2048, 0x040001, "SHA256"}, {KeyType::kRsa3072, 0x040001, "SHA256"},
    {KeyType::kDsa1024, 0x020003, "SHA1"},   {KeyType::kEcP256, 0x040004, "SHA256"},
    {KeyType::kEcP384, 0x040004, "SHA256"},  {KeyType::kEcP521, 0x040004, "SHA256"},
    {KeyType::kEd25519, 0x0C0005, ""},
};

TEST_F(SignTest, Ikev2SignaturesVerifyEverywhere) {
    for (const KeyCase& test : kKeys) {
        SCOPED_TRACE(static_cast<int>(test.type));
        const auto cert = Personal({.key = test.type, .subject = "CN=" + std::to_string(static_cast<int>(test.type))});
        const test_pki::Key key = test_pki::MakeKey(test.type);
        const pki_alg_t alg = CM::Ike2GetSignAlg(cert->get());
        EXPECT_EQ(alg, test.sign_alg);
        std::string signature;
        ASSERT_TRUE(CM::Ike2Sign(cert->get(), alg, kData, signature, ident_));
        EXPECT_TRUE(test_pki::VerifyData(key, {.digest = test.digest}, kData, signature));

        // Full algorithm, bare key algorithm, changed data, changed signature.
        EXPECT_TRUE(CM::Ike2Verify(cert->get(), alg, kData, signature, ident_));
        EXPECT_TRUE(CM::Ike2Verify(cert->get(), alg & PKI_KEY_MASK, kData, signature, ident_));
        EXPECT_TRUE(vendor_host::Messages().empty()) << vendor_host::AllText();
        EXPECT_FALSE(CM::Ike2Verify(cert->get(), alg, kData + "x", signature, ident_));
        signature.back() = static_cast<char>(signature.back() ^ 1);
        EXPECT_FALSE(CM::Ike2Verify(cert->get(), alg, kData, signature, ident_));
        for (const auto& message : vendor_host::FindMessages(kMsgIke2Verify)) {
            EXPECT_EQ(message.Text().rfind("CM::Ike2Verify failed: Invalid signature, peer cert: ", 0), 0U)
                << message.Text();
        }
        EXPECT_EQ(token_->OpenSessions(), 0U);
    }
}

TEST_F(SignTest, Ikev2AlgorithmFollowsKeyAndOwnSignature) {
    const test_pki::Cert rsa = test_pki::MakeCa("CN=RSA", nullptr, KeyType::kRsa2048);
    const test_pki::Cert ed = test_pki::MakeCa("CN=Ed", nullptr, KeyType::kEd25519);
    struct Case {
        const char* name;
        CertSpec spec;
        const test_pki::Cert* issuer;
        pki_alg_t expected;
    };
    const Case cases[] = {
        {"RSA, SHA-1", {.key = KeyType::kRsa2048, .subject = "CN=1", .sign = {.digest = "SHA1"}}, &rsa, 0x020001},
        {"RSA, SHA-384", {.key = KeyType::kRsa2048, .subject = "CN=2", .sign = {.digest = "SHA384"}}, &rsa, 0x050001},
        {"RSA, PSS",
         {.key = KeyType::kRsa2048, .subject = "CN=3", .sign = {.digest = "SHA512", .pss = true}},
         &rsa,
         0x060001},
        {"RSA under Ed25519", {.key = KeyType::kRsa2048, .subject = "CN=4"}, &ed, 0x040001},
        {"DSA, SHA-256", {.key = KeyType::kDsa1024, .subject = "CN=5"}, &rsa, 0x020003},
        {"P-256 under Ed25519", {.key = KeyType::kEcP256, .subject = "CN=6"}, &ed, 0x040004},
        {"P-384 under Ed25519", {.key = KeyType::kEcP384, .subject = "CN=7"}, &ed, 0x050004},
        {"P-521 under Ed25519", {.key = KeyType::kEcP521, .subject = "CN=8"}, &ed, 0x060004},
        {"P-521, SHA-256", {.key = KeyType::kEcP521, .subject = "CN=9"}, &rsa, 0x040004},
        {"Ed25519 under RSA", {.key = KeyType::kEd25519, .subject = "CN=10"}, &rsa, 0x0C0005},
        {"Ed25519 under Ed25519", {.key = KeyType::kEd25519, .subject = "CN=11"}, &ed, 0x0C0005},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        const auto cert = Personal(test.spec, test.issuer);
        EXPECT_EQ(CM::Ike2GetSignAlg(cert->get()), test.expected);
        // A bare key algorithm means the same to the verifier.
        std::string signature;
        ASSERT_TRUE(CM::Ike2Sign(cert->get(), test.expected, kData, signature, ident_));
        EXPECT_TRUE(CM::Ike2Verify(cert->get(), test.expected & PKI_KEY_MASK, kData, signature, ident_));
    }
    EXPECT_EQ(CM::Ike2GetSignAlg(GostPersonal("1.2.643.2.2.19", 270)->get()), 0x09010EU);
    EXPECT_EQ(CM::Ike2GetSignAlg(GostPersonal("1.2.643.7.1.1.1.1", 271)->get()), 0x0A010FU);
    EXPECT_EQ(CM::Ike2GetSignAlg(GostPersonal("1.2.643.7.1.1.1.2", 272)->get()), 0x0B0110U);
}

TEST_F(SignTest, RsassaPssIsAcceptedForAnRsaCertificate) {
    const auto cert = Personal({.key = KeyType::kRsa2048, .subject = "CN=pss"});
    const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048);
    const std::string signature = test_pki::SignData(key, {.digest = "SHA256", .pss = true}, kData);
    EXPECT_TRUE(CM::Ike2Verify(cert->get(), 0x040002, kData, signature, ident_));
    EXPECT_FALSE(CM::Ike2Verify(cert->get(), 0x040001, kData, signature, ident_));
    std::string own;
    ASSERT_TRUE(CM::Ike2Sign(cert->get(), 0x040002, kData, own, ident_));
    EXPECT_TRUE(test_pki::VerifyData(key, {.digest = "SHA256", .pss = true}, kData, own));
}

/// Verifies a signature of a ready hash; RSA without DigestInfo.
bool VerifyHash(const test_pki::Key& key, const std::string& hash, const std::string& signature) {
    const auto bytes = [](const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); };
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key.get(), nullptr),
                                                                              EVP_PKEY_CTX_free);
    return EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_verify(context.get(), bytes(signature), signature.size(), bytes(hash), hash.size()) == 1;
}

TEST_F(SignTest, Ikev1SignsAReadyHash) {
    const std::string hash = Padded(20, 0x21);
    for (const KeyType type : {KeyType::kRsa2048, KeyType::kEcP256, KeyType::kDsa1024}) {
        SCOPED_TRACE(static_cast<int>(type));
        const auto cert = Personal({.key = type, .subject = "CN=" + std::to_string(static_cast<int>(type))});
        const test_pki::Key key = test_pki::MakeKey(type);
        std::string signature;
        ASSERT_TRUE(CM::IkeSign(cert->get(), hash, signature, ident_));
        std::string for_libcrypto = signature;
        if (type == KeyType::kDsa1024) {
            ASSERT_EQ(signature.size(), 40U);  // r and s
            const auto integer = [&](std::size_t at) {
                return der::IntegerBytes(std::string(1, '\0') + signature.substr(at, 20));
            };
            for_libcrypto = der::Sequence(integer(0) + integer(20));
        } else {
            EXPECT_TRUE(VerifyHash(key, hash, for_libcrypto));
        }
        EXPECT_TRUE(CM::IkeVerify(cert->get(), hash, signature, ident_));
        EXPECT_TRUE(vendor_host::Messages().empty()) << vendor_host::AllText();
        EXPECT_FALSE(CM::IkeVerify(cert->get(), Padded(20, 0x22), signature, ident_));
    }
}

// What a token gives is what IKEv2 sends; IKEv1 has its own forms.
TEST_F(SignTest, GostSignatureIsReversedForIkev1Alone) {
    const auto cert = GostPersonal("1.2.643.2.2.19", 270);
    const std::string given = Padded(64, 1);
    std::string reversed(given.rbegin(), given.rend());
    token_->SetAlgorithms({PKI_KEY_GOST2001, PKI_HASH_GOST94});
    token_->OnDigest([](pki_alg_t, const std::string&) { return std::optional(std::string(32, 'h')); });
    pki_alg_t asked = 0;
    token_->OnSign([&](pki_alg_t alg, const std::string&, const std::string&) {
        asked = alg;
        return std::optional(given);
    });
    std::string signature;
    ASSERT_TRUE(CM::IkeSign(cert->get(), "hash", signature, ident_));
    EXPECT_EQ(signature, reversed);
    ASSERT_TRUE(CM::Ike2Sign(cert->get(), 0x09010E, kData, signature, ident_));
    EXPECT_EQ(signature, given);
    EXPECT_EQ(asked, 0x09010EU);

    // The verifier turns the caller's bytes each time.
    std::vector<std::string> seen;
    token_->OnVerify([&](pki_alg_t alg, const std::string&, const std::string&, const std::string& got) {
        asked = alg;
        seen.push_back(got);
        return true;
    });
    std::string from_peer = reversed;
    EXPECT_TRUE(CM::IkeVerify(cert->get(), "hash", from_peer, ident_));
    EXPECT_EQ(from_peer, given);
    EXPECT_TRUE(CM::IkeVerify(cert->get(), "hash", from_peer, ident_));
    EXPECT_EQ(seen, (std::vector<std::string>{given, reversed}));

    // IKEv2 with the bare key algorithm, unchanged bytes.
    EXPECT_TRUE(CM::Ike2Verify(cert->get(), 270, kData, given, ident_));
    EXPECT_EQ(asked, 0x09010EU);
    EXPECT_EQ(seen.back(), given);
}

TEST(SignatureFormTest, FormsOfAnyLength) {
    const auto to_token = [](pki_alg_t alg, std::string signature) {
        CM::ike_signature_to_token_(alg, signature);
        return signature;
    };
    const auto tlv = [](const std::string& content) { return der::IntegerBytes(content); };
    for (const std::size_t length : {0U, 1U, 2U, 40U, 41U, 112U, 256U, 300U, 70000U}) {
        SCOPED_TRACE(length);
        const std::string signature(length, '\x80');  // a leading bit that ASN.1 would read as a sign
        const std::size_t half = length / 2;
        EXPECT_EQ(to_token(PKI_KEY_DSA, signature),
                  der::Sequence(tlv(signature.substr(0, half)) + tlv(signature.substr(half, half))));
        EXPECT_EQ(to_token(PKI_KEY_RSA, signature), signature);
        EXPECT_EQ(to_token(PKI_KEY_GOST2012_256, signature), signature);
    }
    EXPECT_EQ(to_token(PKI_KEY_GOST2001, std::string(63, 'a') + "b"), "b" + std::string(63, 'a'));
    EXPECT_EQ(to_token(PKI_KEY_GOST2001, std::string(63, 'a') + "b" + "tail"), "b" + std::string(63, 'a') + "tail");
    EXPECT_EQ(to_token(PKI_KEY_GOST2001, std::string(62, 'a') + "b"), std::string(62, 'a') + "b");
    EXPECT_EQ(to_token(PKI_KEY_GOST2001, ""), "");

    std::string not_der = "not DER";
    EXPECT_FALSE(CM::ike_signature_from_token_(PKI_KEY_DSA, not_der));
    EXPECT_EQ(not_der, "not DER");
    std::string short_numbers = der::Sequence(der::Integer(5) + der::Integer(6));
    EXPECT_TRUE(CM::ike_signature_from_token_(PKI_KEY_DSA, short_numbers));
    EXPECT_EQ(short_numbers, std::string(19, '\0') + "\5" + std::string(19, '\0') + "\6");
}

// --- Failures ---

TEST_F(SignTest, SigningFailuresNameTokenCertificateAndAlgorithm) {
    const auto cert = Personal({.key = KeyType::kRsa2048, .subject = "CN=host"});
    const auto v1 = [&] {
        std::string signature;
        return CM::IkeSign(cert->get(), "hash", signature, ident_);
    };
    const auto v2 = [&] {
        std::string signature;
        return CM::Ike2Sign(cert->get(), 0x040001, kData, signature, ident_);
    };
    struct Case {
        Op op;
        bool ikev2;
        std::uint16_t code;
        const char* text;
    };
    const Case cases[] = {
        {Op::kOpenPrivate, false, 4, "Can't open private session on token\\\n\t[token] card\\\n\t[cert] CN=host"},
        {Op::kSign, false, 4, "Can't ike sign on token\\\n\t[token] card\\\n\t[private key] RSA"},
        {Op::kOpenPrivate, true, 3,
         "Ike2Sign: Can't open private session on token\\\n\t[token] card\\\n\t[cert] CN=host\\\n\t[key alg] RSA"},
        {Op::kDigest, true, 3,
         "Ike2Sign: can't form digest\\\n\t[token] card\\\n\t[cert] CN=host\\\n\t[sign alg] RSA with SHA-256"
         "\\\n\t[digest alg] SHA-256"},
        {Op::kSign, true, 3,
         "Ike2Sign: can't form sign\\\n\t[token] card\\\n\t[cert] CN=host\\\n\t[sign alg] RSA with SHA-256"
         "\\\n\t[digest alg] SHA-256"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.text);
        vendor_host::ClearMessages();
        token_->Fail(test.op);
        EXPECT_FALSE(test.ikev2 ? v2() : v1());
        token_->Fail(test.op, 0);
        EXPECT_EQ(OnlyMessage(test.code), test.text);
        EXPECT_EQ(vendor_host::FindMessages(test.code).front().ident, "1122334455667788");
        EXPECT_EQ(token_->OpenSessions(), 0U);
    }

    // A token that is not logged in fails at the session.
    vendor_host::ClearMessages();
    token_->EditInfo([](PKCS11::TokenInfo& info) { info.loginRequired = true; });
    EXPECT_FALSE(v1());
    EXPECT_EQ(OnlyMessage(4).rfind("Can't open private session on token", 0), 0U);
    token_->EditInfo([](PKCS11::TokenInfo& info) { info.loggedIn = true; });
    EXPECT_TRUE(v1());
}

TEST_F(SignTest, DsaSignatureThatDoesNotParseFailsSilently) {
    const auto cert = Personal({.key = KeyType::kDsa1024, .subject = "CN=host"});
    token_->OnSign(
        [](pki_alg_t, const std::string&, const std::string&) { return std::optional<std::string>("junk"); });
    std::string signature;
    EXPECT_FALSE(CM::IkeSign(cert->get(), "hash", signature, ident_));
    EXPECT_TRUE(vendor_host::Messages().empty());
}

TEST_F(SignTest, Ikev1VerificationStopsAtTheFirstTokenThatOpens) {
    const auto cert = Personal({.key = KeyType::kRsa2048, .subject = "CN=host"});
    const auto second = vendor_host::AddToken("second", "0002");
    const std::string hash = Padded(20, 1);
    std::string signature;
    ASSERT_TRUE(CM::IkeSign(cert->get(), hash, signature, ident_));

    // The first does not open: the second decides.
    token_->Fail(Op::kOpenPublic, 1);
    EXPECT_TRUE(CM::IkeVerify(cert->get(), hash, signature, ident_));
    EXPECT_EQ(OnlyMessage(4), "Can't open public session on token\\\n\t[token] card");

    // The first rejects: the second is not asked.
    vendor_host::ClearMessages();
    second->ClearCalls();
    std::string wrong = signature;
    wrong[100] = static_cast<char>(wrong[100] ^ 1);
    EXPECT_FALSE(CM::IkeVerify(cert->get(), hash, wrong, ident_));
    EXPECT_EQ(OnlyMessage(4), "Can't ike verify on token\\\n\t[token] card\\\n\t[public key] 1");
    EXPECT_EQ(second->Calls(Op::kOpenPublic), 0U);

    // None opens; none is there.
    vendor_host::ClearMessages();
    token_->Fail(Op::kOpenPublic);
    second->Fail(Op::kOpenPublic);
    EXPECT_FALSE(CM::IkeVerify(cert->get(), hash, signature, ident_));
    ASSERT_EQ(vendor_host::FindMessages(4).size(), 3U);
    EXPECT_EQ(vendor_host::FindMessages(4).back().Text(),
              "Can't open public session for ike verify\\\n\t[peer cert key alg] RSA");
    vendor_host::ClearMessages();
    token_->SetAlgorithms({PKI_KEY_DSA});
    second->SetAlgorithms({PKI_KEY_DSA});
    EXPECT_FALSE(CM::IkeVerify(cert->get(), hash, signature, ident_));
    EXPECT_EQ(OnlyMessage(4), "Can't find tokens for ike verify\\\n\t[peer cert key alg] RSA");
    EXPECT_FALSE(CM::Ike2CheckHashAlg(cert->get(), 0x040001));
}

TEST_F(SignTest, Ikev2VerificationRefusesWhatDoesNotFit) {
    const auto rsa = Personal({.key = KeyType::kRsa2048, .subject = "CN=rsa"});
    const auto ec = Personal({.key = KeyType::kEcP256, .subject = "CN=ec"});
    const auto ed = Personal({.key = KeyType::kEd25519, .subject = "CN=ed"});
    const auto rsa_block = [](const std::string& block) {
        const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048);
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key.get(), nullptr),
                                                                                  EVP_PKEY_CTX_free);
        std::string signature(256, '\0');
        std::size_t length = signature.size();
        EVP_PKEY_sign_init(context.get());
        EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                      reinterpret_cast<const unsigned char*>(block.data()), block.size());
        return signature;
    };
    const std::string digest_info =
        der::Sequence(der::Sequence(der::Oid("1.2.3.4") + der::Null()) + der::OctetString("digest"));
    struct Case {
        const char* name;
        const Handle& cert;
        pki_alg_t alg;
        std::string signature;
        const char* text;
    };
    const Case cases[] = {
        {"nothing", *rsa, 0, "x", "CM::Ike2Verify: not sign alg:"},
        {"hash alone", *rsa, 0x040000, "x", "CM::Ike2Verify: not sign alg:"},
        {"flags and key alone", *rsa, 0x01000001, "x", "CM::Ike2Verify: not sign alg:"},
        {"RSA without digest", *rsa, 0x0C0001, "x", "CM::Ike2Verify: not sign alg:"},
        {"ECDSA without digest", *ec, 0x0C0004, "x", "CM::Ike2Verify: not sign alg:"},
        {"Ed25519 with digest", *ed, 0x040005, "x", "CM::Ike2Verify: not sign alg:"},
        {"other key", *ec, 0x040001, "x", "CM::Ike2Verify: incompatible sign alg:RSA with SHA-256"},
        {"other bare key", *rsa, PKI_KEY_EC, "x", "CM::Ike2Verify: incompatible sign alg:"},
        {"bare RSA for ECDSA", *ec, PKI_KEY_RSA, "x", "CM::Ike2Verify: incompatible sign alg:"},
        {"PSS for ECDSA", *ec, 0x040002, "x", "CM::Ike2Verify: incompatible sign alg:"},
        {"not an RSA signature", *rsa, PKI_KEY_RSA, "x", "CM::Ike2Verify: can't parse rsa sign buffer, peer cert: "},
        {"no DigestInfo", *rsa, PKI_KEY_RSA, rsa_block("plain hash, IKEv1"),
         "CM::Ike2Verify: can't parse rsa sign buffer, peer cert: "},
        {"unknown digest", *rsa, PKI_KEY_RSA, rsa_block(digest_info), "CM::Ike2Verify: undefined digest oid: 1.2.3.4"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        vendor_host::ClearMessages();
        token_->ClearCalls();
        EXPECT_FALSE(CM::Ike2Verify(test.cert.get(), test.alg, kData, test.signature, ident_));
        EXPECT_EQ(OnlyMessage(kMsgIke2Verify).rfind(test.text, 0), 0U) << vendor_host::AllText();
        EXPECT_EQ(token_->Calls(Op::kVerify), 0U);
        EXPECT_TRUE(test.alg <= PKI_KEY_MASK || token_->Calls(Op::kOpenPublic) == 0);
    }
}

TEST_F(SignTest, Ikev2VerificationSaysWhatFailedAndOnDemandWhatSucceeded) {
    const auto cert = Personal({.key = KeyType::kRsa2048, .subject = "CN=host"});
    std::string signature;
    ASSERT_TRUE(CM::Ike2Sign(cert->get(), 0x040001, kData, signature, ident_));
    const auto text = [&](bool expected) {
        vendor_host::ClearMessages();
        EXPECT_EQ(CM::Ike2Verify(cert->get(), 0x040001, kData, signature, ident_), expected);
        return OnlyMessage(kMsgIke2Verify);
    };
    const std::string tail = ", peer cert:  \\\n\t\tSubject: CN=host \\\n\t\tIssuer: ";
    const auto starts = [](const std::string& line, const std::string& start) {
        EXPECT_EQ(line.substr(0, start.size()), start);
        EXPECT_TRUE(line.ends_with(", key alg: RSA, sign alg: RSA with SHA-256")) << line;
    };
    token_->Fail(Op::kDigest, 1);
    starts(text(false), "CM::Ike2Verify failed: Digest error" + tail);
    token_->Fail(Op::kVerify, 1);
    starts(text(false), "CM::Ike2Verify failed: Invalid signature" + tail);
    token_->Fail(Op::kOpenPublic, 1);
    starts(text(false), "CM::Ike2Verify failed: Can't open token to verify signature" + tail);
    EXPECT_EQ(text(true), "");
    {
        const vpnfc::ObjectLock lock(LPARAMS::server.log);
        LPARAMS::server.log.ike_verify_success = true;
    }
    starts(text(true), "CM::Ike2Verify ok" + tail);
    token_->SetAlgorithms({PKI_KEY_DSA});
    starts(text(false), "CM::Ike2Verify failed: No token to verify signature" + tail);
}

}  // namespace
}  // namespace local_test
