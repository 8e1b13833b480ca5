// Certificate and CRL objects: what the checks of a single certificate answer.
#include <functional>

#include <certmgr/log.h>
#include <platform/event_codes.h>

#include "certmgr/cert_engine.h"
#include "store_fixture.h"
#include "tests/support/der.h"

namespace {

using namespace store_test;
using CM::X509Cert;
using test_pki::MakeCa;
using test_pki::MakeCert;
using test_pki::MakeLeaf;

class ObjectTest : public StoreTest {
  protected:
    static CM::MutableCertRef FromToken(const PKCS11::CertObject& object) {
        return CM::MutableCertRef::Adopt(new X509Cert({}, object));
    }
    static CM::MutableCertRef FromDer(const std::string& der) { return FromToken({.id = "\x01\xAB", .value = der}); }

    static CM::MutableCertRef Leaf() {
        static const std::string der = MakeLeaf("C=DE, O=Example, CN=host", MakeCa("CN=Root")).der;
        return FromDer(der);
    }

    static bool LoggedOnce(std::uint16_t code) {
        const bool once = vendor_host::FindMessages(code).size() == 1 && vendor_host::Messages().size() == 1;
        vendor_host::ClearMessages();
        return once;
    }
};

TEST_F(ObjectTest, ObjectsWithoutCertificateAreNamedByTheirIdentifier) {
    const auto key_pair =
        FromToken({.id = "\x01\xAB", .category = PKCS11::kKeyPairCategory, .keyAlg = PKI_KEY_RSA, .keyNotAfter = 5});
    EXPECT_EQ(key_pair->info.subject, "Key Pair without Certificate");
    EXPECT_EQ(key_pair->info.serialNumber, "#01ab");
    EXPECT_EQ(key_pair->CanBeUsed(), CM::ImportCertErrorUnknownSignAlg);
    EXPECT_EQ(FromToken({.category = PKCS11::kKeyPairCategory})->CanBeUsed(), CM::ImportCertErrorUnknownKeyAlg);
    // A key pair is not decoded even if a value comes with it.
    const std::string der = MakeCa("CN=Root").der;
    EXPECT_EQ(FromToken({.value = der, .category = PKCS11::kKeyPairCategory})->certHandle, nullptr);

    for (const std::string& bad :
         {std::string(), std::string("junk"), der.substr(0, der.size() - 1), std::string((1U << 20) + 1, '\x30')}) {
        const auto malformed = FromDer(bad);
        EXPECT_EQ(malformed->certHandle, nullptr);
        EXPECT_EQ(malformed->info.subject, "Certificate object of unknown format");
        EXPECT_EQ(malformed->info.serialNumber, "#01ab");
        EXPECT_EQ(malformed->CheckSignature(malformed.get()), CM::kSignatureWrong);
    }
}

TEST_F(ObjectTest, FirstFailingTestDecidesWhetherACertificateCanBeUsed) {
    constexpr auto kNever = CERT_TIME_UNKNOWN;
    struct Case {
        const char* name;
        std::function<void(CertInfo&)> spoil;
        CM::CertImportStatus status;
        std::uint16_t message;  // 0: none
    };
    const Case cases[] = {
        {"usable", [](CertInfo&) {}, CM::ImportCertOk, 0},
        {"key algorithm", [](CertInfo& i) { i.keyAlg = i.signAlg = 0; }, CM::ImportCertErrorUnknownKeyAlg, 139},
        {"no signature algorithm", [](CertInfo& i) { i.signAlg = 0; }, CM::ImportCertErrorUnknownSignAlg, 140},
        {"bare hash", [](CertInfo& i) { i.signAlg = PKI_HASH_SHA256; }, CM::ImportCertErrorUnknownSignAlg, 140},
        {"bare key", [](CertInfo& i) { i.signAlg = PKI_KEY_RSA; }, CM::ImportCertErrorUnknownSignAlg, 140},
        {"both times", [](CertInfo& i) { i.validFrom = i.validTo = kNever; }, CM::ImportCertErrorInvalidTime, 141},
        {"start", [](CertInfo& i) { i.validFrom = kNever; }, CM::ImportCertErrorInvalidValidFrom, 142},
        {"end",
         [](CertInfo& i) {
             i.validTo = kNever;
             i.subject = "";
         },
         CM::ImportCertErrorInvalidValidTo, 143},
        {"names", [](CertInfo& i) { i.subject = i.issuer = ""; }, CM::ImportCertErrorEmptySubject, 0},
        {"issuer", [](CertInfo& i) { i.issuer = ""; }, CM::ImportCertErrorEmptyIssuer, 0},
        {"long past", [](CertInfo& i) { i.validFrom = i.validTo = 0; }, CM::ImportCertOk, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto cert = Leaf();
        c.spoil(cert->info);
        EXPECT_EQ(cert->CanBeUsed(), c.status);
        if (c.message != 0) {
            EXPECT_TRUE(LoggedOnce(c.message));
        } else {
            EXPECT_TRUE(vendor_host::Messages().empty());
        }
    }
}

TEST_F(ObjectTest, UnknownAlgorithmsAreLoggedByIdentifier) {
    const auto cert = Leaf();
    cert->info.keyAlg = 0;
    cert->CanBeUsed();
    const auto messages = vendor_host::FindMessages(kMsgUnknownKeyAlg);
    ASSERT_EQ(messages.size(), 1U);
    std::string rendering;
    ttt_X509CertToLogString(cert.get(), rendering);
    EXPECT_EQ(messages[0].attributes, (Strings{"1.2.840.10045.2.1", rendering}));
}

TEST_F(ObjectTest, UnknownCriticalExtensionIsRefusedUnlessPermitted) {
    const auto root = MakeCa("CN=Root");
    const auto der =
        MakeCert({.subject = "CN=host", .extensions = {{.oid = "1.2.3.4.5", .critical = true, .der = kDerNull}}}, &root)
            .der;
    const auto cert = FromDer(der);
    EXPECT_EQ(cert->CanBeUsed(), CM::ImportCertErrorUnknownCriticalExtension);
    EXPECT_TRUE(LoggedOnce(kMsgUnknownCriticalExtension));
    {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        LPARAMS::server.cert.allow_unknown_critical_extensions.on = true;
    }
    EXPECT_EQ(cert->CanBeUsed(), CM::ImportCertOk);
    const auto messages = vendor_host::FindMessages(kMsgUnknownCriticalExtensionTolerated);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].attributes.at(0), "1.2.3.4.5");
    EXPECT_EQ(messages[0].attributes.at(1), "allow_unknown_critical_extensions");
    cert->info.validFrom = CERT_TIME_UNKNOWN;  // the permission excuses nothing else
    EXPECT_EQ(cert->CanBeUsed(), CM::ImportCertErrorInvalidValidFrom);
}

TEST_F(ObjectTest, PatternMatchesWhenEveryFieldThatIsSetMatches) {
    const auto cert = Leaf();
    const auto& info = cert->info;
    struct Case {
        const char* name;
        LPCFG::cert_t pattern;
        pki_alg_t alg;
        bool match;
    };
    const std::string upper_sha1 = [&] {
        std::string text = cert->ext().sha1;
        for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return text;
    }();
    const Case cases[] = {
        {"empty", {}, 0, true},
        {"argument restricts", {}, PKI_KEY_EC, true},
        {"argument excludes", {}, PKI_KEY_RSA, false},
        {"pattern's algorithm wins", {.keyAlg = PKI_KEY_EC}, PKI_KEY_RSA, true},
        {"other algorithm", {.keyAlg = PKI_KEY_RSA}, PKI_KEY_EC, false},
        {"serial", {.serialNumber = info.serialNumber}, 0, true},
        {"serial prefix", {.serialNumber = info.serialNumber.substr(1)}, 0, false},
        {"md5", {.md5 = cert->ext().md5}, 0, true},
        {"sha1", {.sha1 = cert->ext().sha1}, 0, true},
        {"sha1 in the md5 field", {.md5 = cert->ext().sha1}, 0, false},
        {"fingerprint in other case", {.sha1 = upper_sha1}, 0, false},
        {"subject", {.subject = info.subject}, 0, true},
        {"exact subject is no attribute", {.subject = "CN=host"}, 0, false},
        {"subject attribute", {.subject = "CN=host", .subjectExact = false}, 0, true},
        {"subject attributes in any order", {.subject = "CN=host, C=DE", .subjectExact = false}, 0, true},
        {"missing attribute", {.subject = "CN=other", .subjectExact = false}, 0, false},
        {"issuer", {.issuer = "CN=Root"}, 0, true},
        {"other issuer", {.issuer = "CN=Root2", .issuerExact = false}, 0, false},
        {"subject is not the issuer", {.issuer = info.subject}, 0, false},
        {"all",
         {PKI_KEY_EC, info.serialNumber, cert->ext().md5, cert->ext().sha1, info.subject, true, "CN=Root", false},
         0,
         true},
    };
    for (const Case& c : cases) EXPECT_EQ(cert->MatchToPattern(c.pattern, c.alg), c.match) << c.name;

    ASSERT_EQ(CM_GetAnyCertPatternList()->size(), 1U);
    EXPECT_TRUE(cert->MatchToPattern(CM_GetAnyCertPatternList()->front(), 0));
    EXPECT_FALSE(cert->MatchToPattern(CM_GetAnyCertPatternList()->front(), PKI_KEY_DSA));
}

TEST_F(ObjectTest, ValidityIncludesBothEnds) {
    const auto cert = Leaf();
    constexpr std::time_t kStart = test_pki::kNotBefore;
    constexpr std::time_t kEnd = test_pki::kNotAfter;
    constexpr std::time_t kKeyEnd = kEnd - 100;
    cert->privKeyNotAfter = CertTimeFrom_time_t(kKeyEnd);
    const std::pair<std::time_t, CM::ValidityCheck> cases[] = {
        {kStart - 1, CM::kNotYetValid},        {kStart, CM::kValid},           {kKeyEnd, CM::kValid},
        {kKeyEnd + 1, CM::kPrivateKeyExpired}, {kEnd, CM::kPrivateKeyExpired}, {kEnd + 1, CM::kExpired},
    };
    for (const auto& [now, expected] : cases) {
        vpnfc::SetCurrentTimeForTesting(now);
        EXPECT_EQ(cert->PrivKeyCheckValidFromTo(), expected) << now;
    }
    cert->privKeyNotAfter = CERT_TIME_UNKNOWN;
    vpnfc::SetCurrentTimeForTesting(kEnd);
    EXPECT_EQ(cert->PrivKeyCheckValidFromTo(), CM::kValid);
}

TEST_F(ObjectTest, SignaturesAreCheckedForEveryAlgorithm) {
    const auto token = vendor_host::AddToken("card");
    using test_pki::KeyType;
    struct Case {
        const char* name;
        KeyType key;
        test_pki::SignWith sign;
    };
    const Case cases[] = {
        {"RSA SHA-256", KeyType::kRsa2048, {}},
        {"RSA SHA-1", KeyType::kRsa1024, {.digest = "SHA1"}},
        {"RSASSA-PSS", KeyType::kRsa2048, {.pss = true}},
        {"DSA", KeyType::kDsa1024, {}},
        {"P-256", KeyType::kEcP256, {}},
        {"P-384", KeyType::kEcP384, {}},
        {"Ed25519", KeyType::kEd25519, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto root = MakeCert({.key = c.key, .subject = "CN=Root", .ca = true, .sign = c.sign});
        const auto other = MakeCert({.key = c.key, .key_index = 1, .subject = "CN=Root", .ca = true, .sign = c.sign});
        const auto issuer = FromDer(root.der);
        const auto cert = FromDer(MakeCert({.subject = "CN=host", .sign = c.sign}, &root).der);
        EXPECT_EQ(cert->CheckSignature(issuer.get()), CM::kSignatureRight);
        EXPECT_EQ(cert->CheckSignature(FromDer(other.der).get()), CM::kSignatureWrong);
        const auto damaged =
            FromDer(MakeCert({.subject = "CN=host", .sign = c.sign, .damage_signature = true}, &root).der);
        EXPECT_EQ(damaged->CheckSignature(issuer.get()), CM::kSignatureWrong);
        CM::X509CRL crl(PKCS11::TokenInfo{}, {.value = MakeCrl({.sign = c.sign}, root)});
        EXPECT_EQ(crl.CheckSignature(issuer.get()), CM::kSignatureRight);
        EXPECT_EQ(crl.CheckSignature(FromDer(other.der).get()), CM::kSignatureWrong);
    }
}

// The algorithm beside the signature is not signed: only the one inside tells what the issuer meant.
TEST_F(ObjectTest, AnAlgorithmChangedAfterSigningMakesTheSignatureWrong) {
    vendor_host::AddToken("card");
    const std::string with_null = der::Sequence(der::Oid("1.2.840.10045.4.3.2") + der::Null());
    const auto root = MakeCa("CN=Root");
    const auto issuer = FromDer(root.der);
    const auto cert = FromDer(MakeCert({.subject = "CN=host", .outer_algorithm = with_null}, &root).der);
    EXPECT_EQ(cert->info.signAlg, issuer->info.signAlg);
    EXPECT_EQ(cert->CheckSignature(issuer.get()), CM::kSignatureWrong);

    const CM::X509CRL signed_crl(PKCS11::TokenInfo{}, {.value = MakeCrl({}, root)});
    ASSERT_EQ(signed_crl.CheckSignature(issuer.get()), CM::kSignatureRight);
    std::string body;
    std::string signature;
    CertEngine_RawCRLInfo(signed_crl.crlHandle, body);
    CertEngine_RawCRLSignature(signed_crl.crlHandle, signature);
    const std::string changed = der::Sequence(body + with_null + der::BitString(signature));
    const CM::X509CRL crl(PKCS11::TokenInfo{}, {.value = changed});
    EXPECT_EQ(crl.info.signAlg, signed_crl.info.signAlg);
    EXPECT_EQ(crl.CheckSignature(issuer.get()), CM::kSignatureWrong);
}

TEST_F(ObjectTest, VerificationTellsTroubleFromABadSignature) {
    const auto root = FromDer(MakeCa("CN=Root").der);
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureNoToken);
    const auto first = vendor_host::AddToken("first");
    first->SetAlgorithms({PKI_KEY_RSA});
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureNoToken);

    const auto second = vendor_host::AddToken("second");
    second->Fail(vendor_host::Op::kOpenPublic);
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureNoSession);
    const auto third = vendor_host::AddToken("third");
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureRight);
    EXPECT_EQ(third->Calls(vendor_host::Op::kVerify), 1U);
    third->Fail(vendor_host::Op::kDigest);
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureDigestError);
}

}  // namespace
