// Objects on a token: made, listed, found, deleted.
#include <gtest/gtest.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>

#include "certmgr/records.h"
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

    CertObject Certificate(const std::string& id, const test_pki::Cert& cert, std::uint32_t category = 3) {
        return {.id = id, .value = cert.der, .category = category};
    }
    std::vector<CertObject> Certificates(TokenSession& session) {
        std::list<CertObject> objects;
        EXPECT_TRUE(session.EnumCertificates(objects)) << testing::PrintToString(reports_.All());
        return {objects.begin(), objects.end()};
    }
    /// Objects that this system would not make.
    void MakeRaw(const std::function<void(tokens::AttributeTemplate&)>& fill) {
        const tokens::TokenPtr token = tokens::Registry::Instance().Find(token_.info.id);
        tokens::SessionPtr session;
        ASSERT_TRUE(token->Open(session).ok());
        tokens::AttributeTemplate attributes;
        attributes.Flag(CKA_TOKEN, true);
        fill(attributes);
        CK_OBJECT_HANDLE object = 0;
        ASSERT_TRUE(session->api().CreateObject(session->handle(), attributes.view(), object).ok());
    }
    /// The record that the store would hold of a certificate.
    CertInfo InfoOf(const std::string& id, const test_pki::Cert& cert) {
        CertInfo info;
        info.id = id;
        info.serialNumber = TO_HEX_STD_STRING(cert.serial);
        std::transform(info.serialNumber.begin(), info.serialNumber.end(), info.serialNumber.begin(),
                       [](unsigned char c) { return std::toupper(c); });
        EXPECT_TRUE(asn_dn_to_printable(cert.issuer_der, info.issuer));
        return info;
    }

    TestToken token_;
    const test_pki::Cert root_ = test_pki::MakeCa("CN=Root");
    const test_pki::Cert leaf_ = test_pki::MakeLeaf("CN=leaf", root_, KeyType::kRsa2048);
};

TEST_F(Objects, CertificatesComeBackAsTheyWere) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    const test_pki::Cert big =
        test_pki::MakeCert({.subject = "CN=big", .extensions = {{"1.2.3.4", false, std::string(200000, 'x')}}}, &root_);
    ASSERT_TRUE(session.CreateCertObject(Certificate("a", root_, 2), root_.subject_der));
    ASSERT_TRUE(session.CreateCertObject(Certificate("b", leaf_, 1), leaf_.subject_der));
    ASSERT_TRUE(session.CreateCertObject(Certificate("c", big, 3), big.subject_der));
    const auto found = Certificates(session);
    ASSERT_EQ(found.size(), 3U);
    for (const CertObject& object : found) {
        const test_pki::Cert& cert = object.id == "a" ? root_ : object.id == "b" ? leaf_ : big;
        EXPECT_EQ(object.value, cert.der) << object.id;
        EXPECT_EQ(object.category, object.id == "a" ? 2U : object.id == "b" ? 1U : 3U);
        EXPECT_FALSE(object.trusted);
        EXPECT_EQ(object.keyAlg, 0U);
        EXPECT_EQ(object.keyNotAfter, CERT_TIME_UNKNOWN);
    }
}

TEST_F(Objects, KeyPairsWithoutCertificateAreListed) {
    struct {
        const char* id;
        KeyType type;
        pki_alg_t alg;
    } const keys[] = {{"rsa", KeyType::kRsa2048, PKI_KEY_RSA},
                      {"dsa", KeyType::kDsa1024, PKI_KEY_DSA},
                      {"ec", KeyType::kEcP384, PKI_KEY_EC},
                      {"ed", KeyType::kEd25519, PKI_KEY_ED25519}};
    for (const auto& key : keys) Import(token_.info, key.alg, test_pki::MakeKey(key.type), key.id);
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(session.CreateCertObject(Certificate("rsa", leaf_), leaf_.subject_der));

    const auto check = [&](TokenSession& with) {
        auto found = Certificates(with);
        ASSERT_EQ(found.size(), 4U);
        EXPECT_EQ(found[0].value, leaf_.der);
        for (std::size_t i = 1; i < found.size(); ++i) {
            EXPECT_EQ(found[i].category, PKCS11::kKeyPairCategory);
            EXPECT_EQ(found[i].value, "");
            const auto key =
                std::find_if(std::begin(keys), std::end(keys), [&](const auto& k) { return k.id == found[i].id; });
            ASSERT_NE(key, std::end(keys));
            EXPECT_EQ(found[i].keyAlg, key->alg);
            const std::string spki = test_pki::Spki(test_pki::MakeKey(key->type));
            std::string raw;
            EXPECT_TRUE(with.GetRawPubKeyObjectData(key->alg, key->id, raw)) << key->id;
            EXPECT_EQ(raw, spki) << key->id;
            std::string id;
            EXPECT_TRUE(with.ContainPubKeyObject(spki, &id)) << key->id;
            EXPECT_EQ(id, key->id);
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
    EXPECT_FALSE(open.GetRawPubKeyObjectData(PKI_KEY_EC, "none", raw));
    EXPECT_FALSE(open.ContainPubKeyObject(test_pki::Spki(test_pki::MakeKey(KeyType::kEcP384, 1))));
    EXPECT_FALSE(open.ContainPubKeyObject("no key"));
}

// A private RSA key shows its public half; a public-key object is not needed.
TEST_F(Objects, PrivateRsaKeyAloneIsFound) {
    const test_pki::Key key = test_pki::MakeKey(KeyType::kRsa2048);
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(session.CreatePrivKeyObject(PKI_KEY_RSA, "alone", test_pki::Pkcs8(key), false));
    std::string id;
    EXPECT_TRUE(session.ContainPubKeyObject(test_pki::Spki(key), &id));
    EXPECT_EQ(id, "alone");
}

TEST_F(Objects, EndOfKeyUsageIsTheEndOfThatDay) {
    const cert_time64_t end = CertTimeFrom_time_t(1924992000);  // 2031-01-01 00:00:00
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(session.CreatePrivKeyObject(PKI_KEY_RSA, "id", test_pki::Pkcs8(leaf_.key), false, end));
    ASSERT_TRUE(session.CreatePubKeyObject(PKI_KEY_RSA, "id", leaf_.spki, end));
    ASSERT_TRUE(session.CreatePrivKeyObject(PKI_KEY_EC, "ec", test_pki::Pkcs8(root_.key), false, end));
    ASSERT_TRUE(session.CreatePubKeyObject(PKI_KEY_EC, "ec", root_.spki, end));
    ASSERT_TRUE(session.CreateCertObject(Certificate("id", leaf_), leaf_.subject_der));
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
    MakeRaw([](auto& attributes) {
        attributes.Number(CKA_CLASS, CKO_SECRET_KEY).Number(CKA_KEY_TYPE, CKK_AES).Bytes(CKA_LABEL, "aes");
        attributes.Bytes(CKA_VALUE, std::string(16, 'k'));
    });
    MakeRaw([](auto& attributes) {  // a public key with components that make none
        attributes.Number(CKA_CLASS, CKO_PUBLIC_KEY).Number(CKA_KEY_TYPE, CKK_EC).Bytes(CKA_ID, "bad");
        attributes.Bytes(CKA_EC_PARAMS, "params").Bytes(CKA_EC_POINT, "point");
    });
    TokenSession session(token_.info, TokenSession::kPrivate);
    const auto found = Certificates(session);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].value, "not DER");
    EXPECT_EQ(found[0].id, "junk");
    std::list<PKCS11::CRLObject> crls;
    std::list<PKCS11::PresharedKeyObject> keys;
    EXPECT_TRUE(session.EnumCRLs(crls));
    EXPECT_TRUE(session.EnumPresharedKeys(keys));
    EXPECT_TRUE(crls.empty());
    EXPECT_TRUE(keys.empty());
    std::string spki;
    EXPECT_FALSE(session.GetRawPubKeyObjectData(PKI_KEY_EC, "bad", spki));
}

// A handle that a search answered but that is no object any more is left out.
TEST_F(Objects, ObjectGoneWhenReadIsSkipped) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(session.CreateCertObject(Certificate("a", root_), root_.subject_der));
    ASSERT_TRUE(session.CreateCRLObject("crl", "CRL"));
    ASSERT_TRUE(session.CreatePresharedKeyObject("psk", "secret"));
    control_.Set({"ghost"});
    ErrorLog errors;
    TokenSession reader(token_.info, TokenSession::kPublic, nullptr, &errors);
    EXPECT_EQ(Certificates(reader).size(), 1U);
    // Of a class that was remembered before the object went away.
    EXPECT_EQ(Certificates(reader).size(), 1U);
    control_.Set({});
    TokenSession deleter(token_.info, TokenSession::kPrivate);
    std::list<PKCS11::PresharedKeyObject> keys;
    std::list<CertObject> certificates;
    ASSERT_TRUE(reader.EnumCertificates(certificates));
    ASSERT_TRUE(deleter.DeletePresharedKeyObject({"psk"}));
    EXPECT_TRUE(reader.EnumPresharedKeys(keys)) << "from the listing made before";
    EXPECT_TRUE(keys.empty());
    EXPECT_EQ(errors.errors, std::vector<std::string>());
}

TEST_F(Objects, ListingsHaveLimits) {
    control_.Set({"endless"});
    ErrorLog errors;
    std::list<CertObject> certificates;
    EXPECT_FALSE(TokenSession(token_.info, TokenSession::kPublic, nullptr, &errors).EnumCertificates(certificates));
    EXPECT_EQ(errors.errors, std::vector<std::string>{"objects C_FindObjects over the limit of 200000 objects"});
    EXPECT_FALSE(TokenSession(token_.info).EnumCertificates(certificates));
    EXPECT_EQ(reports_.Count("\"objects\" (serial " + token_.info.serialNumber +
                             ", provider forward): C_FindObjects failed: over the limit of 200000 objects"),
              1U);
    control_.Set({});

    // A module that shows ten bytes of each attribute.
    CK_FUNCTION_LIST list{};
    list.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attributes, CK_ULONG count) {
        for (CK_ULONG i = 0; i < count; ++i) attributes[i].ulValueLen = 10;
        return CK_RV{CKR_OK};
    };
    const tokens::Api api(&list);
    tokens::ByteBudget budget(45);
    tokens::AttributeReader one({{CKA_VALUE, 100}}, budget);
    tokens::AttributeReader two({{CKA_VALUE, 100}, {CKA_ID, 10}}, budget);
    EXPECT_TRUE(one.Read(api, 1, 1).ok());
    EXPECT_TRUE(two.Read(api, 1, 1).ok());
    EXPECT_TRUE(one.Read(api, 1, 1).ok());
    EXPECT_EQ(one.Read(api, 1, 1).rv, tokens::kRvTooManyBytes);
    EXPECT_STREQ(tokens::RvName(tokens::kRvTooManyBytes), "over the limit of 256 MiB");
}

TEST_F(Objects, CrlsAndPresharedKeys) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    const std::string crl = test_pki::MakeCrl({.entries = {{.serial = "\1"}}}, root_);
    const std::string big(300000, 'c');
    ASSERT_TRUE(session.CreateCRLObject("1", crl));
    ASSERT_TRUE(session.CreateCRLObject("2", big));
    std::list<PKCS11::CRLObject> crls;
    ASSERT_TRUE(session.EnumCRLs(crls));
    ASSERT_EQ(crls.size(), 2U);
    crls.sort([](const auto& a, const auto& b) { return a.id < b.id; });
    EXPECT_EQ(crls.front().value, crl);
    EXPECT_EQ(crls.back().value, big);
    CRLInfo info;
    info.id = "1";
    EXPECT_TRUE(session.DeleteCRLObject(info));
    EXPECT_FALSE(session.DeleteCRLObject(info));
    crls.clear();
    ASSERT_TRUE(session.EnumCRLs(crls));
    EXPECT_EQ(crls.size(), 1U);

    ASSERT_TRUE(session.CreatePresharedKeyObject("office", "correct horse"));
    EXPECT_FALSE(session.CreatePresharedKeyObject("office", "other")) << "the name is taken";
    EXPECT_FALSE(session.CreatePresharedKeyObject("", "other"));
    std::string value;
    EXPECT_TRUE(session.GetPresharedKeyPrivateData("office", value));
    EXPECT_EQ(value, "correct horse");
    EXPECT_FALSE(session.GetPresharedKeyPrivateData("home", value));
    std::list<PKCS11::PresharedKeyObject> keys;
    ASSERT_TRUE(session.EnumPresharedKeys(keys));
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_EQ(keys.front().name, "office");

    // Private: nobody sees it without the login.
    ASSERT_TRUE(tokens::Logout(token_.info));
    TokenSession open(token_.info);
    keys.clear();
    EXPECT_TRUE(open.EnumPresharedKeys(keys));
    EXPECT_TRUE(keys.empty());
    EXPECT_FALSE(open.GetPresharedKeyPrivateData("office", value));
    ASSERT_EQ(LogIn(token_), tokens::PinResult::kDone);
    EXPECT_TRUE(session.DeletePresharedKeyObject({"office"}));
}

TEST_F(Objects, ExportedKeysAreTheImportedOnes) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    for (const KeyType type :
         {KeyType::kRsa2048, KeyType::kDsa1024, KeyType::kEcP256, KeyType::kEcP521, KeyType::kEd25519}) {
        const std::string id = "k" + std::to_string(static_cast<int>(type));
        const test_pki::Key key = test_pki::MakeKey(type);
        const std::string pkcs8 = test_pki::Pkcs8(key);
        tokens::PrivateKey parsed;
        ASSERT_TRUE(tokens::PrivateKeyFromPkcs8(pkcs8, parsed));
        ASSERT_TRUE(session.CreatePrivKeyObject(parsed.alg, id, pkcs8, true)) << id;
        ASSERT_TRUE(session.CreatePrivKeyObject(parsed.alg, id + "-kept", pkcs8, false)) << id;
        std::string exported;
        ASSERT_TRUE(session.ExportPrivateKey(id, exported)) << id;
        const auto* der = reinterpret_cast<const unsigned char*>(exported.data());
        const test_pki::Key again(d2i_AutoPrivateKey(nullptr, &der, static_cast<long>(exported.size())), EVP_PKEY_free);
        ASSERT_NE(again, nullptr) << id;
        EXPECT_EQ(EVP_PKEY_eq(again.get(), key.get()), 1) << id;
        EXPECT_FALSE(session.ExportPrivateKey(id + "-kept", exported)) << id;
    }
}

TEST_F(Objects, EncryptedKeysAreImported) {
    struct Free {
        void operator()(X509_SIG* sig) const { X509_SIG_free(sig); }
        void operator()(PKCS8_PRIV_KEY_INFO* info) const { PKCS8_PRIV_KEY_INFO_free(info); }
    };
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, Free> info(EVP_PKEY2PKCS8(leaf_.key.get()));
    const std::string password = RandomPin();
    const std::unique_ptr<X509_SIG, Free> encrypted(PKCS8_encrypt(
        -1, EVP_aes_256_cbc(), password.data(), static_cast<int>(password.size()), nullptr, 0, 1000, info.get()));
    PKCS11::EncryptedPrivateKey key;
    key.encryptedKeyInfoDer.resize(static_cast<std::size_t>(i2d_X509_SIG(encrypted.get(), nullptr)));
    auto* out = reinterpret_cast<unsigned char*>(key.encryptedKeyInfoDer.data());
    i2d_X509_SIG(encrypted.get(), &out);

    TokenSession session(token_.info, TokenSession::kPrivate);
    key.password = vpnfc::SecretString(std::string_view("wrong"));
    EXPECT_FALSE(session.ImportPrivKeyObject(key, PKI_KEY_RSA, "id", false));
    key.password = vpnfc::SecretString(std::string_view(password));
    EXPECT_FALSE(session.ImportPrivKeyObject(key, PKI_KEY_EC, "id", false)) << "of another algorithm";
    EXPECT_TRUE(session.ImportPrivKeyObject(key, PKI_KEY_RSA, "id", false));
    std::string signature;
    EXPECT_TRUE(session.Sign(PKI_KEY_RSA, "id", "hash", signature));
    EXPECT_TRUE(session.Verify(PKI_KEY_RSA, leaf_.spki, "hash", signature));
    key.encryptedKeyInfoDer.resize(key.encryptedKeyInfoDer.size() / 2);
    EXPECT_FALSE(session.ImportPrivKeyObject(key, PKI_KEY_RSA, "id2", false));
}

// A renewed certificate has the key, and so the identifier, of the old one.
TEST_F(Objects, DeletesTheCertificateThatIsMeant) {
    const test_pki::Cert renewed = test_pki::MakeLeaf("CN=leaf", root_, KeyType::kRsa2048);
    Import(token_.info, PKI_KEY_RSA, leaf_.key, "id");
    TokenSession session(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(session.CreateCertObject(Certificate("id", leaf_), leaf_.subject_der));
    ASSERT_TRUE(session.CreateCertObject(Certificate("id", renewed), renewed.subject_der));

    const CertInfo old_info = InfoOf("id", leaf_);
    EXPECT_TRUE(session.DeleteCertObject(old_info));
    EXPECT_FALSE(session.DeletePrivKeyObject(old_info)) << "the renewed certificate needs it";
    EXPECT_FALSE(session.DeletePubKeyObject(old_info));
    auto left = Certificates(session);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].value, renewed.der);

    CertInfo wrong = InfoOf("id", renewed);
    wrong.issuer = "CN=Other";
    EXPECT_FALSE(session.DeleteCertObject(wrong));
    const CertInfo info = InfoOf("id", renewed);
    EXPECT_TRUE(session.DeleteCertObject(info));
    EXPECT_TRUE(session.DeletePrivKeyObject(info));
    EXPECT_TRUE(session.DeletePubKeyObject(info));
    EXPECT_TRUE(Certificates(session).empty());
    EXPECT_FALSE(session.DeletePrivKeyObject(CertInfo{})) << "no identifier, no key";
    std::string signature;
    EXPECT_FALSE(session.Sign(PKI_KEY_RSA, "id", "hash", signature));
}

// The identifier of a key that was deleted and made anew is another key.
TEST_F(Objects, RememberedKeysAreForgottenWhenDeleted) {
    TokenSession session(token_.info, TokenSession::kPrivate);
    const test_pki::Key second = test_pki::MakeKey(KeyType::kRsa2048, 1);
    std::string signature;
    ASSERT_TRUE(session.CreatePrivKeyObject(PKI_KEY_RSA, "id", test_pki::Pkcs8(leaf_.key), false));
    ASSERT_TRUE(session.Sign(PKI_KEY_RSA, "id", "hash", signature));
    ASSERT_TRUE(session.DeletePrivKeyObject(std::string("id")));
    ASSERT_TRUE(session.CreatePrivKeyObject(PKI_KEY_RSA, "id", test_pki::Pkcs8(second), false));
    ASSERT_TRUE(session.Sign(PKI_KEY_RSA, "id", "hash", signature));
    EXPECT_TRUE(session.Verify(PKI_KEY_RSA, test_pki::Spki(second), "hash", signature));
}

TEST_F(Objects, TrustedCertificatesNeedTheSecurityOfficer) {
    CertObject trusted = Certificate("root", root_, 2);
    trusted.trusted = true;
    {
        TokenSession user(token_.info, TokenSession::kPrivate);
        EXPECT_FALSE(user.CreateCertObject(trusted, root_.subject_der));
        EXPECT_TRUE(user.securityOfficerRequired());
        EXPECT_TRUE(user.CreateCertObject(Certificate("x", root_), root_.subject_der));
        EXPECT_FALSE(user.securityOfficerRequired()) << "of the last creation";
    }
    {
        const std::string wrong = RandomPin();
        TokenSession session(token_.info, TokenSession::kPublic, &wrong);
        ASSERT_TRUE(session.opened());
        EXPECT_FALSE(session.CreateCertObject(trusted, root_.subject_der));
        EXPECT_TRUE(session.securityOfficerRequired());
    }
    EXPECT_EQ(reports_.Count("wrong PIN"), 1U);
}

TEST_F(Objects, TheSecurityOfficerImportsAndTheUserComesBack) {
    AddPinFile("objects", token_.pin);
    Apply();
    CertObject trusted = Certificate("root", root_, 2);
    trusted.trusted = true;
    {
        TokenSession session(token_.info, TokenSession::kPublic, &token_.so_pin);
        ASSERT_TRUE(session.opened());
        ASSERT_TRUE(session.CreateCertObject(trusted, root_.subject_der));
    }
    TokenSession user(token_.info, TokenSession::kPrivate);
    EXPECT_TRUE(user.opened()) << "logged in again with the PIN file";
    const auto found = Certificates(user);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_TRUE(found[0].trusted);
}

TEST_F(Objects, WithoutAPinFileTheUserIsToldToLogInAgain) {
    CertObject trusted = Certificate("root", root_, 2);
    trusted.trusted = true;
    {
        TokenSession session(token_.info, TokenSession::kPublic, &token_.so_pin);
        ASSERT_TRUE(session.CreateCertObject(trusted, root_.subject_der));
    }
    EXPECT_EQ(reports_.Count("has to log in again"), 1U);
    TokenSession user(token_.info, TokenSession::kPrivate);
    EXPECT_FALSE(user.opened());
    EXPECT_TRUE(user.loginFailed());
}

// What another session made is seen by a new listing, whatever was remembered of the old one.
TEST_F(Objects, ListingsFollowChanges) {
    TokenSession reader(token_.info, TokenSession::kPrivate);
    EXPECT_TRUE(Certificates(reader).empty());
    {
        TokenSession writer(token_.info, TokenSession::kPrivate);
        ASSERT_TRUE(writer.CreateCertObject(Certificate("a", leaf_), leaf_.subject_der));
        Import(token_.info, PKI_KEY_RSA, leaf_.key, "a");
    }
    EXPECT_EQ(Certificates(reader).size(), 1U);
    EXPECT_TRUE(reader.ContainPubKeyObject(leaf_.spki));
    TokenSession deleter(token_.info, TokenSession::kPrivate);
    ASSERT_TRUE(deleter.DeleteCertObject(InfoOf("a", leaf_)));
    const auto left = Certificates(reader);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].category, PKCS11::kKeyPairCategory);
}

// The system's certificates; a token that cannot be written.
TEST_F(Objects, TrustModuleIsReadOnly) {
    settings_.providers = {{.name = "trust", .module_path = TRUST_MODULE_PATH}};
    Apply();
    const auto tokens = PKCS11::Manager::Instance().EnumTokens();
    ASSERT_FALSE(tokens.empty());
    for (const PKCS11::TokenInfo& token : tokens) {
        EXPECT_FALSE(token.holdsTrusted) << token.label;
        EXPECT_FALSE(token.loginRequired);
        TokenSession session(token, TokenSession::kPrivate);
        ASSERT_TRUE(session.opened()) << "no login needed";
        EXPECT_FALSE(session.CreateCertObject(Certificate("a", leaf_), leaf_.subject_der) && token.writeProtected);
        for (const CertObject& object : Certificates(session)) EXPECT_FALSE(object.value.empty());
    }
}

}  // namespace
}  // namespace token_test
