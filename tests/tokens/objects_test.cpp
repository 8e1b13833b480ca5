// Objects on a token: made, listed, found, deleted.
#include <openssl/pkcs12.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>

#include "certmgr/records.h"
#include "libcrypto/libcrypto.h"
#include "platform/tokens/attributes.h"
#include "platform/tokens/key_codec.h"
#include "platform/tokens/registry.h"
#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using PKCS11::CertObject;
using PKCS11::TokenSession;
using test_pki::KeyType;

class Objects : public TokenTest {
  protected:
    Objects() {
        StartForward();
        token_ = NewToken("objects");
    }

    static bool Create(TokenSession& session, const std::string& id, const test_pki::Cert& cert, bool trusted = false) {
        return session.CreateCertObject({.id = id, .value = cert.der, .category = 3, .trusted = trusted},
                                        cert.subject_der);
    }
    std::vector<CertObject> Certificates(TokenSession& session) {
        std::list<CertObject> objects;
        EXPECT_TRUE(session.EnumCertificates(objects)) << testing::PrintToString(reports_.All());
        return {objects.begin(), objects.end()};
    }
    static bool ShowsNoPresharedKey(TokenSession& session) {
        std::list<PKCS11::PresharedKeyObject> keys;
        return session.EnumPresharedKeys(keys) && keys.empty();
    }
    /// Objects that this system would not make.
    void MakeRaw(const std::function<void(tokens::AttributeTemplate&)>& fill) {
        tokens::SessionPtr session;
        ASSERT_TRUE(tokens::Registry::Instance().Find(token_.info.id)->Open(session).ok());
        tokens::AttributeTemplate attributes;
        attributes.Flag(CKA_TOKEN, true);
        fill(attributes);
        CK_OBJECT_HANDLE object = 0;
        ASSERT_TRUE(session->api().CreateObject(session->handle(), attributes.view(), object).ok());
    }
    /// The record that the store would hold of a certificate.
    static CertInfo InfoOf(const std::string& id, const test_pki::Cert& cert) {
        CertInfo info;
        info.id = id;
        info.serialNumber = TO_HEX_STD_STRING(cert.serial);
        for (char& digit : info.serialNumber) digit = static_cast<char>(std::toupper(digit));
        EXPECT_TRUE(asn_dn_to_printable(cert.issuer_der, info.issuer));
        return info;
    }

    TestToken token_;
    const test_pki::Cert root_ = test_pki::MakeCa("CN=Root");
    const test_pki::Cert leaf_ = test_pki::MakeLeaf("CN=leaf", root_, KeyType::kRsa2048);
};

TEST_F(Objects, KeyPairsWithoutCertificateAreListed) {
    const std::tuple<std::string, KeyType, pki_alg_t> keys[] = {{"dsa", KeyType::kDsa1024, PKI_KEY_DSA},
                                                                {"ec", KeyType::kEcP384, PKI_KEY_EC},
                                                                {"ed", KeyType::kEd25519, PKI_KEY_ED25519}};
    for (const auto& [id, type, alg] : keys) Import(token_.info, alg, test_pki::MakeKey(type), id);
    Import(token_.info, PKI_KEY_RSA, leaf_.key, "rsa");
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(Create(session, "rsa", leaf_));

    const auto check = [&](TokenSession& with) {
        auto found = Certificates(with);
        ASSERT_EQ(found.size(), 4U);
        EXPECT_EQ(found[0].value, leaf_.der);
        for (const auto& [id, type, alg] : keys) {
            SCOPED_TRACE(id);
            const auto pair = std::ranges::find(found, id, &CertObject::id);
            ASSERT_NE(pair, found.end());
            EXPECT_EQ(std::tuple(pair->category, pair->value, pair->keyAlg),
                      std::tuple(PKCS11::kKeyPairCategory, "", alg));
            const std::string spki = test_pki::Spki(test_pki::MakeKey(type));
            std::string text;
            EXPECT_TRUE(with.GetRawPubKeyObjectData(alg, id, text) && text == spki);
            EXPECT_TRUE(with.ContainPubKeyObject(spki, &text) && text == id);
        }
    };
    check(session);
    // Private keys cannot be seen any more; the public ones stand in.
    ASSERT_TRUE(tokens::Logout(token_.info));
    TokenSession open(token_.info);
    check(open);

    std::string raw;
    EXPECT_EQ(Certificates(open)[0].keyAlg, PKI_KEY_RSA) << "by which its key is found when the certificate is damaged";
    EXPECT_FALSE(open.GetRawPubKeyObjectData(PKI_KEY_EC, "rsa", raw)) << "of another algorithm";
    EXPECT_FALSE(open.ContainPubKeyObject(test_pki::Spki(test_pki::MakeKey(KeyType::kEcP384, 1))));
}

// A private RSA key shows its public half; a public-key object is not needed.
TEST_F(Objects, PrivateRsaKeyAloneIsFound) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(session.CreatePrivKeyObject(PKI_KEY_RSA, "alone", test_pki::Pkcs8(leaf_.key), false));
    std::string id;
    EXPECT_TRUE(session.ContainPubKeyObject(leaf_.spki, &id) && id == "alone");
}

TEST_F(Objects, EndOfKeyUsageIsTheEndOfThatDay) {
    const cert_time64_t end = CertTimeFrom_time_t(1924992000);  // 2031-01-01 00:00:00
    TokenSession session(token_.info, TokenSession::kPrivate);
    for (const test_pki::Cert* cert : {&leaf_, &root_}) {
        const pki_alg_t alg = cert == &leaf_ ? PKI_KEY_RSA : PKI_KEY_EC;
        ASSERT_TRUE(session.CreatePrivKeyObject(alg, cert->serial, test_pki::Pkcs8(cert->key), false, end));
        ASSERT_TRUE(session.CreatePubKeyObject(alg, cert->serial, cert->spki, end));
    }
    ASSERT_TRUE(Create(session, leaf_.serial, leaf_));
    const auto found = Certificates(session);
    ASSERT_EQ(found.size(), 2U);
    for (const CertObject& object : found) EXPECT_EQ(CertTimeToString(object.keyNotAfter), "2031-01-01 23:59:59 UTC");
}

TEST_F(Objects, ForeignObjectsDoNoHarm) {
    MakeRaw([](auto& attributes) {  // a certificate that is none, of a category that is ours
        attributes.Number(CKA_CLASS, CKO_CERTIFICATE).Number(CKA_CERTIFICATE_TYPE, CKC_X_509);
        attributes.Bytes(CKA_SUBJECT, "s").Bytes(CKA_VALUE, "not DER").Bytes(CKA_ID, "junk");
    });
    MakeRaw([](auto& attributes) {
        attributes.Number(CKA_CLASS, CKO_DATA).Bytes(CKA_APPLICATION, "another program").Bytes(CKA_VALUE, "secret");
        attributes.Flag(CKA_PRIVATE, false);
    });
    MakeRaw([](auto& attributes) {  // a public key with components that make none
        attributes.Number(CKA_CLASS, CKO_PUBLIC_KEY).Number(CKA_KEY_TYPE, CKK_EC).Bytes(CKA_ID, "bad");
        attributes.Bytes(CKA_EC_PARAMS, "params").Bytes(CKA_EC_POINT, "point");
    });
    TokenSession session(token_.info, TokenSession::kPrivate);
    EXPECT_EQ(Certificates(session).size(), 1U);
    EXPECT_EQ(Certificates(session).at(0).value, "not DER");
    std::list<PKCS11::CRLObject> crls;
    EXPECT_TRUE(session.EnumCRLs(crls) && crls.empty());
    EXPECT_TRUE(ShowsNoPresharedKey(session));
    std::string spki;
    EXPECT_FALSE(session.GetRawPubKeyObjectData(PKI_KEY_EC, "bad", spki));
}

// A handle that a search answered but that is no object any more is left out.
TEST_F(Objects, ObjectGoneWhenReadIsSkipped) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(Create(session, "a", root_));
    ASSERT_TRUE(session.CreatePresharedKeyObject("psk", "secret"));
    control_.Set({"ghost"});
    ErrorLog errors;
    TokenSession reader(token_.info, TokenSession::kPublic, nullptr, &errors);
    EXPECT_EQ(Certificates(reader).size(), 1U);
    control_.Set({});
    // Of a class that was remembered before the object went away.
    EXPECT_EQ(Certificates(reader).size(), 1U);
    ASSERT_TRUE(session.DeletePresharedKeyObject({"psk"}));
    EXPECT_TRUE(ShowsNoPresharedKey(reader)) << "from the listing made before";
    EXPECT_EQ(errors.errors, std::vector<std::string>());
}

TEST_F(Objects, ListingsHaveLimits) {
    control_.Set({"endless"});
    ErrorLog errors;
    std::list<CertObject> certificates;
    EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPublic, nullptr, &errors).EnumCertificates(certificates));
    EXPECT_EQ(errors.errors, std::vector<std::string>{"objects C_FindObjects over the limit of 200000 objects"});
    control_.Set({});

    // A module that shows ten bytes of each attribute.
    CK_FUNCTION_LIST list{};
    list.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attributes, CK_ULONG count) {
        for (CK_ULONG i = 0; i < count; ++i) attributes[i].ulValueLen = 10;
        return CK_RV{CKR_OK};
    };
    const tokens::Api api(&list);
    tokens::ByteBudget budget(45);
    tokens::AttributeReader reader({{CKA_VALUE, 100}, {CKA_ID, 10}}, budget);
    EXPECT_TRUE(reader.Read(api, 1, 1).ok());
    EXPECT_TRUE(reader.Read(api, 1, 1).ok());
    EXPECT_EQ(reader.Read(api, 1, 1).rv, tokens::kRvTooManyBytes);
    EXPECT_STREQ(tokens::RvName(tokens::kRvTooManyBytes), "over the limit of 256 MiB");
}

TEST_F(Objects, CrlsAndPresharedKeys) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    const std::string big(300000, 'c');
    ASSERT_TRUE(session.CreateCRLObject("1", "small"));
    ASSERT_TRUE(session.CreateCRLObject("2", big));
    EXPECT_TRUE(session.DeleteCRLObject({.id = "1"}));
    EXPECT_FALSE(session.DeleteCRLObject({.id = "1"}));
    std::list<PKCS11::CRLObject> crls;
    ASSERT_TRUE(session.EnumCRLs(crls));
    EXPECT_TRUE(crls.size() == 1 && crls.back().value == big);

    ASSERT_TRUE(session.CreatePresharedKeyObject("office", "correct horse"));
    EXPECT_FALSE(session.CreatePresharedKeyObject("", "other"));
    std::string value;
    EXPECT_TRUE(session.GetPresharedKeyPrivateData("office", value) && value == "correct horse");
    // Private: nobody sees it without the login.
    ASSERT_TRUE(tokens::Logout(token_.info));
    TokenSession open(token_.info);
    EXPECT_TRUE(ShowsNoPresharedKey(open));
    EXPECT_FALSE(open.GetPresharedKeyPrivateData("office", value));
}

TEST_F(Objects, ExportedKeysAreTheImportedOnes) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    for (const KeyType type : {KeyType::kRsa2048, KeyType::kDsa1024, KeyType::kEcP521, KeyType::kEd25519}) {
        const std::string id = "k" + std::to_string(static_cast<int>(type));
        SCOPED_TRACE(id);
        const test_pki::Key key = test_pki::MakeKey(type);
        tokens::PrivateKey parsed;
        ASSERT_TRUE(tokens::PrivateKeyFromPkcs8(test_pki::Pkcs8(key), parsed));
        ASSERT_TRUE(session.CreatePrivKeyObject(parsed.alg, id, test_pki::Pkcs8(key), true));
        ASSERT_TRUE(session.CreatePrivKeyObject(parsed.alg, id + "-kept", test_pki::Pkcs8(key), false));
        std::string exported;
        ASSERT_TRUE(session.ExportPrivateKey(id, exported));
        const auto again = libcrypto::Decode<EVP_PKEY_free>(d2i_AutoPrivateKey, exported);
        EXPECT_TRUE(again != nullptr && EVP_PKEY_eq(again.get(), key.get()) == 1);
        EXPECT_FALSE(session.ExportPrivateKey(id + "-kept", exported));
    }
}

TEST_F(Objects, EncryptedKeysAreImported) {
    const libcrypto::Pkcs8Ptr info(EVP_PKEY2PKCS8(leaf_.key.get()));
    const libcrypto::SealedKeyPtr sealed(
        PKCS8_encrypt(-1, EVP_aes_256_cbc(), "password", 8, nullptr, 0, 1000, info.get()));
    TokenSession session(token_.info, TokenSession::kPrivate);
    const std::string der = libcrypto::Encode(sealed.get(), i2d_X509_SIG);
    const auto import = [&](const char* password, pki_alg_t alg) {
        return session.ImportPrivKeyObject({der, Secret(password)}, alg, "id", false);
    };
    EXPECT_FALSE(import("wrong", PKI_KEY_RSA));
    EXPECT_FALSE(import("password", PKI_KEY_EC)) << "of another algorithm";
    EXPECT_TRUE(import("password", PKI_KEY_RSA));
    std::string signature;
    EXPECT_TRUE(session.Sign(PKI_KEY_RSA, "id", "hash", signature));
    EXPECT_TRUE(session.Verify(PKI_KEY_RSA, leaf_.spki, "hash", signature));
}

// A renewed certificate has the key, and so the identifier, of the old one.
TEST_F(Objects, DeletesTheCertificateThatIsMeant) {
    const test_pki::Cert renewed = test_pki::MakeLeaf("CN=leaf", root_, KeyType::kRsa2048);
    Import(token_.info, PKI_KEY_RSA, leaf_.key, "id");
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(Create(session, "id", leaf_) && Create(session, "id", renewed));

    const CertInfo old_info = InfoOf("id", leaf_);
    EXPECT_TRUE(session.DeleteCertObject(old_info));
    EXPECT_FALSE(session.DeletePrivKeyObject(old_info)) << "the renewed certificate needs it";
    EXPECT_FALSE(session.DeletePubKeyObject(old_info));
    EXPECT_EQ(Certificates(session).size(), 1U);
    EXPECT_EQ(Certificates(session).at(0).value, renewed.der);

    CertInfo info = InfoOf("id", renewed);
    info.issuer = "CN=Other";
    EXPECT_FALSE(session.DeleteCertObject(info));
    info.issuer = old_info.issuer;
    EXPECT_TRUE(session.DeleteCertObject(info));
    EXPECT_TRUE(session.DeletePrivKeyObject(info));
    EXPECT_TRUE(session.DeletePubKeyObject(info));
    EXPECT_TRUE(Certificates(session).empty());
    EXPECT_FALSE(session.DeletePrivKeyObject(CertInfo{})) << "no identifier, no key";
}

// The identifier of a key that was deleted and made anew is another key.
TEST_F(Objects, RememberedKeysAreForgottenWhenDeleted) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    std::string signature;
    for (const int index : {0, 1}) {
        const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048, index);
        ASSERT_TRUE(session.CreatePrivKeyObject(PKI_KEY_RSA, "id", test_pki::Pkcs8(key), false));
        ASSERT_TRUE(session.Sign(PKI_KEY_RSA, "id", "hash", signature));
        EXPECT_TRUE(session.Verify(PKI_KEY_RSA, test_pki::Spki(key), "hash", signature)) << index;
        ASSERT_TRUE(session.DeletePrivKeyObject(std::string("id")));
    }
}

TEST_F(Objects, TheSecurityOfficerImportsAndTheUserComesBackWithAPinFile) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    EXPECT_TRUE(!Create(session, "root", root_, true) && session.securityOfficerRequired());
    EXPECT_TRUE(Create(session, "x", leaf_) && !session.securityOfficerRequired()) << "of the last creation";
    for (const bool pin_file : {false, true}) {
        if (pin_file) AddPinFile("objects", token_.pin);
        Apply();
        {
            TokenSession officer(token_.info, TokenSession::kPublic, &token_.so_pin);
            ASSERT_TRUE(Create(officer, "root", root_, true));
        }
        TokenSession user(token_.info, TokenSession::kPrivate);
        EXPECT_EQ(user.opened(), pin_file);
        EXPECT_EQ(user.loginFailed(), !pin_file);
        EXPECT_EQ(reports_.Count("has to log in again"), 1U);
        EXPECT_TRUE(!pin_file || std::ranges::count(Certificates(user), true, &PKCS11::CertObject::trusted) > 0);
    }
    const std::string wrong = RandomPin();
    TokenSession nobody(token_.info, TokenSession::kPublic, &wrong);
    EXPECT_TRUE(!Create(nobody, "root", root_, true) && nobody.securityOfficerRequired());
    EXPECT_EQ(reports_.Count("wrong PIN"), 1U);
}

// What another session made is seen by a new listing, whatever was remembered of the old one.
TEST_F(Objects, ListingsFollowChanges) {
    TokenSession reader(token_.info, TokenSession::kPrivate);
    EXPECT_TRUE(Certificates(reader).empty());
    TokenSession writer(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(Create(writer, "a", leaf_));
    Import(token_.info, PKI_KEY_RSA, leaf_.key, "a");
    EXPECT_EQ(Certificates(reader).size(), 1U);
    EXPECT_TRUE(reader.ContainPubKeyObject(leaf_.spki));
    ASSERT_TRUE(writer.DeleteCertObject(InfoOf("a", leaf_)));
    EXPECT_EQ(Certificates(reader).size(), 1U);
    EXPECT_EQ(Certificates(reader).at(0).category, PKCS11::kKeyPairCategory);
}

}  // namespace
}  // namespace token_test
