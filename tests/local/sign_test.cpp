// IKE signatures: what tokens are asked for, the form that comes out, and what failures say. Signatures are checked
// with libcrypto, and made with it where the module verifies. GOST's are tested with the token that makes them.

#include "certmgr/cert_cfg.h"
#include "tests/local/local_fixture.h"
#include "tests/support/der.h"

namespace local_test {
namespace {

const std::string kData = "octets of the exchange";
const std::string kHash(20, '!');

class SignTest : public LocalTest {
  protected:
    /// The certificate of that spec in the store, with the first key of its type.
    std::unique_ptr<Handle> Personal(CertSpec spec, const Cert* issuer = nullptr) {
        static int count = 0;
        spec.key_index = 0;
        spec.subject = "CN=" + std::to_string(++count);
        const Cert cert = MakeCert(spec, issuer != nullptr ? issuer : &root_);
        token_->AddPersonal(cert.der, cert.key);
        Load();
        return FindLocal(spec.subject);
    }
    std::unique_ptr<Handle> Personal(KeyType key) { return Personal({.key = key}); }

    // Empty when it fails.
    std::string Sign1(const Handle& cert) {
        std::string signature;
        return CM::IkeSign(cert.get(), kHash, signature, ident_) ? signature : "";
    }
    std::string Sign2(const Handle& cert, pki_alg_t alg) {
        std::string signature;
        return CM::Ike2Sign(cert.get(), alg, kData, signature, ident_) ? signature : "";
    }
    bool Verify1(const Handle& cert, std::string signature, const std::string& hash = kHash) {
        return CM::IkeVerify(cert.get(), hash, signature, ident_);
    }
    bool Verify2(const Handle& cert, pki_alg_t alg, const std::string& signature, const std::string& data = kData) {
        return CM::Ike2Verify(cert.get(), alg, data, signature, ident_);
    }
};

TEST_F(SignTest, Ikev2AlgorithmFollowsKeyAndOwnSignature) {
    const Cert rsa = MakeCa("CN=RSA", nullptr, KeyType::kRsa2048);
    const Cert ed = MakeCa("CN=Ed", nullptr, KeyType::kEd25519);
    // The key, its certificate's own signature and issuer, the algorithm, and the digest in libcrypto's words.
    const std::tuple<KeyType, test_pki::SignWith, const Cert&, pki_alg_t, const char*> cases[] = {
        {KeyType::kRsa2048, {.digest = "SHA1"}, rsa, 0x020001, "SHA1"},
        {KeyType::kRsa2048, {.digest = "SHA384"}, rsa, 0x050001, "SHA384"},
        {KeyType::kRsa2048, {.digest = "SHA512", .pss = true}, rsa, 0x060001, "SHA512"},
        {KeyType::kRsa2048, {}, ed, 0x040001, "SHA256"},
        {KeyType::kDsa1024, {}, rsa, 0x020003, "SHA1"},
        {KeyType::kEcP256, {}, ed, 0x040004, "SHA256"},
        {KeyType::kEcP384, {}, ed, 0x050004, "SHA384"},
        {KeyType::kEcP521, {}, ed, 0x060004, "SHA512"},
        {KeyType::kEcP521, {}, rsa, 0x040004, "SHA256"},
        {KeyType::kEd25519, {}, rsa, 0x0C0005, ""},
    };
    for (const auto& [key, sign, issuer, alg, digest] : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << alg);
        const auto cert = Personal({.key = key, .sign = sign}, &issuer);
        EXPECT_EQ(CM::Ike2GetSignAlg(cert->get()), alg);
        std::string signature = Sign2(*cert, alg);
        ASSERT_TRUE(test_pki::VerifyData(test_pki::MakeKey(key), {.digest = digest}, kData, signature));
        // Full algorithm, bare key algorithm, changed data, changed signature.
        EXPECT_TRUE(Verify2(*cert, alg, signature) && Verify2(*cert, alg & PKI_KEY_MASK, signature));
        EXPECT_TRUE(vendor_host::Messages().empty()) << vendor_host::AllText();
        EXPECT_FALSE(Verify2(*cert, alg, signature, kData + "x"));
        signature.back() = static_cast<char>(signature.back() ^ 1);
        EXPECT_FALSE(Verify2(*cert, alg, signature));
        EXPECT_EQ(token_->OpenSessions(), 0U);
    }
}

TEST_F(SignTest, RsassaPssIsAcceptedForAnRsaCertificate) {
    const auto cert = Personal(KeyType::kRsa2048);
    const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048);
    const test_pki::SignWith pss{.digest = "SHA256", .pss = true};
    const std::string signature = test_pki::SignData(key, pss, kData);
    EXPECT_TRUE(Verify2(*cert, 0x040002, signature) && !Verify2(*cert, 0x040001, signature));
    EXPECT_TRUE(test_pki::VerifyData(key, pss, kData, Sign2(*cert, 0x040002)));
}

TEST_F(SignTest, Ikev1SignsAReadyHash) {
    for (const KeyType type : {KeyType::kRsa2048, KeyType::kEcP256}) {
        const auto cert = Personal(type);
        std::string signature = Sign1(*cert);
        ASSERT_TRUE(Verify1(*cert, signature));
        EXPECT_TRUE(vendor_host::Messages().empty()) << vendor_host::AllText();
        if (type == KeyType::kRsa2048) {  // without a DigestInfo around it
            EXPECT_TRUE(vendor_host::VerifyDigest(test_pki::MakeKey(type), PKI_KEY_RSA, kHash, signature));
        }
        EXPECT_FALSE(Verify1(*cert, signature, std::string(20, '?')));
        signature.back() = static_cast<char>(signature.back() ^ 1);
        EXPECT_FALSE(Verify1(*cert, signature));
    }
    EXPECT_EQ(Sign1(*Personal(KeyType::kDsa1024)).size(), 40U) << "r and s";
}

TEST(SignatureFormTest, FormsOfAnyLength) {
    const auto to_token = [](pki_alg_t alg, std::string signature) {
        CM::ike_signature_to_token_(alg, signature);
        return signature;
    };
    for (const std::size_t length : {0U, 1U, 40U, 41U, 256U, 70000U}) {
        const std::string signature(length, '\x80');  // a leading bit that ASN.1 would read as a sign
        const std::string half = der::IntegerBytes(signature.substr(0, length / 2));
        EXPECT_EQ(to_token(PKI_KEY_DSA, signature), der::Sequence(half + half)) << length;
        EXPECT_EQ(to_token(PKI_KEY_RSA, signature), signature);
        EXPECT_EQ(to_token(PKI_KEY_GOST2012_256, signature), signature);
    }
    EXPECT_EQ(to_token(PKI_KEY_GOST2001, std::string(63, 'a') + "b" + "tail"), "b" + std::string(63, 'a') + "tail");
    EXPECT_EQ(to_token(PKI_KEY_GOST2001, std::string(62, 'a') + "b"), std::string(62, 'a') + "b");

    std::string not_der = "not DER";
    EXPECT_FALSE(CM::ike_signature_from_token_(PKI_KEY_DSA, not_der));
    std::string short_numbers = der::Sequence(der::Integer(5) + der::Integer(6));
    EXPECT_TRUE(CM::ike_signature_from_token_(PKI_KEY_DSA, short_numbers));
    EXPECT_EQ(short_numbers, std::string(19, '\0') + "\5" + std::string(19, '\0') + "\6");
}

// --- Failures ---

TEST_F(SignTest, SigningFailuresNameTokenCertificateAndAlgorithm) {
    const auto cert = Personal(KeyType::kRsa2048);
    const std::string on_token = " on token\\\n\t[token] card\\\n\t";
    const std::string subject = "[cert] " + cert->Subject();
    const std::string details =
        "\\\n\t[token] card\\\n\t" + subject + "\\\n\t[sign alg] RSA with SHA-256\\\n\t[digest alg] SHA-256";
    const std::string no_session = "Can't open private session" + on_token + subject;
    const std::tuple<Op, bool, std::string> cases[] = {
        {Op::kOpenPrivate, false, no_session},
        {Op::kSign, false, "Can't ike sign" + on_token + "[private key] RSA"},
        {Op::kOpenPrivate, true, "Ike2Sign: " + no_session + "\\\n\t[key alg] RSA"},
        {Op::kDigest, true, "Ike2Sign: can't form digest" + details},
        {Op::kSign, true, "Ike2Sign: can't form sign" + details},
    };
    for (const auto& [op, ikev2, text] : cases) {
        vendor_host::ClearMessages();
        token_->Fail(op, 1);
        EXPECT_EQ(ikev2 ? Sign2(*cert, 0x040001) : Sign1(*cert), "");
        EXPECT_EQ(OnlyMessage(ikev2 ? kMsgIke2SignFailed : kMsgIkeSignOrVerifyFailed), text);
        EXPECT_EQ(token_->OpenSessions(), 0U);
    }
    token_->EditInfo([](PKCS11::TokenInfo& info) { info.loginRequired = true; });
    EXPECT_EQ(Sign1(*cert), "") << "not logged in";
    token_->EditInfo([](PKCS11::TokenInfo& info) { info.loggedIn = true; });
    EXPECT_NE(Sign1(*cert), "");
}

TEST_F(SignTest, Ikev1VerificationStopsAtTheFirstTokenThatOpens) {
    const auto cert = Personal(KeyType::kRsa2048);
    const auto second = vendor_host::AddToken("second");
    const std::string signature = Sign1(*cert);
    const auto verify = [&](const std::string& given, bool right, const std::string& last_text) {
        vendor_host::ClearMessages();
        EXPECT_EQ(Verify1(*cert, given), right);
        EXPECT_EQ(vendor_host::FindMessages(kMsgIkeSignOrVerifyFailed).back().Text(), last_text);
    };
    // The first does not open: the second decides. The first rejects: the second is not asked.
    token_->Fail(Op::kOpenPublic, 1);
    verify(signature, true, "Can't open public session on token\\\n\t[token] card");
    second->ClearCalls();
    verify(std::string(256, 'x'), false, "Can't ike verify on token\\\n\t[token] card\\\n\t[public key] 1");
    EXPECT_EQ(second->Calls(Op::kOpenPublic), 0U);

    token_->Fail(Op::kOpenPublic);
    second->Fail(Op::kOpenPublic);
    verify(signature, false, "Can't open public session for ike verify\\\n\t[peer cert key alg] RSA");
    token_->SetAlgorithms({});
    second->SetAlgorithms({});
    verify(signature, false, "Can't find tokens for ike verify\\\n\t[peer cert key alg] RSA");
    EXPECT_FALSE(CM::Ike2CheckHashAlg(cert->get(), 0x040001));
}

TEST_F(SignTest, Ikev2VerificationRefusesWhatDoesNotFit) {
    const auto rsa = Personal(KeyType::kRsa2048);
    const auto ec = Personal(KeyType::kEcP256);
    const auto ed = Personal(KeyType::kEd25519);
    const auto rsa_block = [](const std::string& block) {
        const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048);
        return vendor_host::SignDigest(key, PKI_KEY_RSA, block).value_or("");
    };
    const std::string digest_info =
        der::Sequence(der::Sequence(der::Oid("1.2.3.4") + der::Null()) + der::OctetString("digest"));
    const std::string not_alg = "not sign alg:";
    const std::string other_alg = "incompatible sign alg:";
    const std::string unreadable = "can't parse rsa sign buffer, peer cert: ";
    const std::tuple<const Handle&, pki_alg_t, std::string, std::string> cases[] = {
        {*rsa, 0, "x", not_alg},
        {*rsa, 0x040000, "x", not_alg},
        {*rsa, 0x01000001, "x", not_alg},  // flags and key alone
        {*rsa, 0x0C0001, "x", not_alg},  // without digest
        {*ec, 0x0C0004, "x", not_alg},
        {*ed, 0x040005, "x", not_alg},  // with digest
        {*ec, 0x040001, "x", other_alg + "RSA with SHA-256"},
        {*rsa, PKI_KEY_EC, "x", other_alg},
        {*ec, PKI_KEY_RSA, "x", other_alg},
        {*ec, 0x040002, "x", other_alg},
        {*rsa, PKI_KEY_RSA, "x", unreadable},
        {*rsa, PKI_KEY_RSA, rsa_block("plain hash, IKEv1"), unreadable},
        {*rsa, PKI_KEY_RSA, rsa_block(digest_info), "undefined digest oid: 1.2.3.4"},
    };
    for (const auto& [cert, alg, signature, text] : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << alg << " " << text);
        vendor_host::ClearMessages();
        EXPECT_FALSE(Verify2(cert, alg, signature));
        EXPECT_TRUE(OnlyMessage(kMsgIke2Verify).starts_with("CM::Ike2Verify: " + text)) << vendor_host::AllText();
    }
    EXPECT_EQ(token_->Calls(Op::kVerify), 0U);
}

TEST_F(SignTest, Ikev2VerificationSaysWhatFailedAndOnDemandWhatSucceeded) {
    const auto cert = Personal(KeyType::kRsa2048);
    const std::string signature = Sign2(*cert, 0x040001);
    const auto expect = [&](bool expected, const std::string& start) {
        vendor_host::ClearMessages();
        EXPECT_EQ(Verify2(*cert, 0x040001, signature), expected);
        const std::string text = OnlyMessage(kMsgIke2Verify);
        EXPECT_TRUE(text.starts_with(start + ", peer cert:  \\\n\t\tSubject: " + cert->Subject())) << text;
        EXPECT_TRUE(text.ends_with(", key alg: RSA, sign alg: RSA with SHA-256")) << text;
    };
    for (const auto& [op, text] : {std::pair{Op::kDigest, "Digest error"},
                                   {Op::kVerify, "Invalid signature"},
                                   {Op::kOpenPublic, "Can't open token to verify signature"}}) {
        token_->Fail(op, 1);
        expect(false, std::string("CM::Ike2Verify failed: ") + text);
    }
    Set(&LPARAMS::LogParams::ike_verify_success, true);
    expect(true, "CM::Ike2Verify ok");
    token_->SetAlgorithms({});
    expect(false, "CM::Ike2Verify failed: No token to verify signature");
}

}  // namespace
}  // namespace local_test
