// Certificate and CRL objects: what the checks of a single certificate answer.
#include <certmgr/log.h>

#include <algorithm>
#include <functional>

#include "tests/support/der.h"
#include "tests/vendor/module_test.h"

namespace {

using namespace module_test;
using CM::X509Cert;

class ObjectTest : public ModuleTest {
  protected:
    static CM::MutableCertRef FromToken(const PKCS11::CertObject& object) {
        return CM::MutableCertRef::Adopt(new X509Cert({}, object));
    }
    static CM::MutableCertRef Leaf() { return Object(MakeLeaf("C=DE, O=Example, CN=host", MakeCa("CN=Root"))); }
};

TEST_F(ObjectTest, ObjectsWithoutCertificateAreNamedByTheirIdentifier) {
    const std::string der = MakeCa("CN=Root").der;
    // A key pair is not decoded even if a value comes with it.
    const auto key_pair = FromToken({.id = "\x01\xAB",
                                     .value = der,
                                     .category = PKCS11::kKeyPairCategory,
                                     .keyAlg = PKI_KEY_RSA,
                                     .keyNotAfter = 5});
    EXPECT_EQ(key_pair->certHandle, nullptr);
    EXPECT_EQ(key_pair->info.subject, "Key Pair without Certificate");
    EXPECT_EQ(key_pair->info.serialNumber, "#01ab");
    EXPECT_EQ(key_pair->CanBeUsed(), CM::ImportCertErrorUnknownSignAlg);
    EXPECT_EQ(FromToken({.category = PKCS11::kKeyPairCategory})->CanBeUsed(), CM::ImportCertErrorUnknownKeyAlg);

    for (const std::string& bad : {std::string(), der.substr(0, der.size() - 1), std::string((1U << 20) + 1, '\x30')}) {
        const auto malformed = FromToken({.id = "\x01\xAB", .value = bad});
        EXPECT_EQ(malformed->certHandle, nullptr);
        EXPECT_EQ(malformed->info.subject + malformed->info.serialNumber, "Certificate object of unknown format#01ab");
        EXPECT_EQ(malformed->CheckSignature(malformed.get()), CM::kSignatureWrong);
    }
}

TEST_F(ObjectTest, FirstFailingTestDecidesWhetherACertificateCanBeUsed) {
    constexpr auto kNever = CERT_TIME_UNKNOWN;
    // What is spoiled, the status, and the message; 0: none.
    const std::tuple<std::function<void(CertInfo&)>, CM::CertImportStatus, std::uint16_t> cases[] = {
        {[](CertInfo&) {}, CM::ImportCertOk, 0},
        {[](CertInfo& i) { i.keyAlg = i.signAlg = 0; }, CM::ImportCertErrorUnknownKeyAlg, kMsgUnknownKeyAlg},
        {[](CertInfo& i) { i.signAlg = 0; }, CM::ImportCertErrorUnknownSignAlg, 140},
        {[](CertInfo& i) { i.signAlg = PKI_HASH_SHA256; }, CM::ImportCertErrorUnknownSignAlg, 140},
        {[](CertInfo& i) { i.signAlg = PKI_KEY_RSA; }, CM::ImportCertErrorUnknownSignAlg, 140},
        {[](CertInfo& i) { i.validFrom = i.validTo = kNever; }, CM::ImportCertErrorInvalidTime, 141},
        {[](CertInfo& i) { i.validFrom = kNever; }, CM::ImportCertErrorInvalidValidFrom, 142},
        {[](CertInfo& i) { i.validTo = kNever; }, CM::ImportCertErrorInvalidValidTo, 143},
        {[](CertInfo& i) { i.subject = i.issuer = ""; }, CM::ImportCertErrorEmptySubject, 0},
        {[](CertInfo& i) { i.issuer = ""; }, CM::ImportCertErrorEmptyIssuer, 0},
        {[](CertInfo& i) { i.validFrom = i.validTo = 0; }, CM::ImportCertOk, 0},
    };
    for (const auto& [spoil, status, message] : cases) {
        SCOPED_TRACE(status);
        const auto cert = Leaf();
        vendor_host::ClearMessages();
        spoil(cert->info);
        EXPECT_EQ(cert->CanBeUsed(), status);
        EXPECT_EQ(vendor_host::Messages().size(), message == 0 ? 0U : 1U);
        EXPECT_EQ(vendor_host::FindMessages(message).size(), message == 0 ? 0U : 1U);
        if (message != kMsgUnknownKeyAlg) continue;
        std::string rendering;
        ttt_X509CertToLogString(cert.get(), rendering);
        EXPECT_EQ(OnlyMessage(message), "1.2.840.10045.2.1 " + rendering);
    }
}

TEST_F(ObjectTest, UnknownCriticalExtensionIsRefusedUnlessPermitted) {
    const auto cert = Object(MakeCert({.extensions = {{"1.2.3.4.5", true, der::Null()}}}));
    EXPECT_EQ(cert->CanBeUsed(), CM::ImportCertErrorUnknownCriticalExtension);
    EXPECT_NE(OnlyMessage(kMsgUnknownCriticalExtension), "");
    Set(&LPARAMS::CertParams::allow_unknown_critical_extensions);
    EXPECT_EQ(cert->CanBeUsed(), CM::ImportCertOk);
    EXPECT_TRUE(
        OnlyMessage(kMsgUnknownCriticalExtensionTolerated).starts_with("1.2.3.4.5 allow_unknown_critical_extensions "));
    cert->info.validFrom = CERT_TIME_UNKNOWN;  // the permission excuses nothing else
    EXPECT_EQ(cert->CanBeUsed(), CM::ImportCertErrorInvalidValidFrom);
}

TEST_F(ObjectTest, PatternMatchesWhenEveryFieldThatIsSetMatches) {
    const auto cert = Leaf();
    const CertInfo& info = cert->info;
    const std::string& md5 = cert->ext().md5;
    const std::string& sha1 = cert->ext().sha1;
    std::string upper_sha1 = sha1;
    std::ranges::transform(upper_sha1, upper_sha1.begin(), [](char c) { return c >= 'a' ? c - 'a' + 'A' : c; });
    const std::tuple<const char*, LPCFG::cert_t, pki_alg_t, bool> cases[] = {
        {"empty", {}, 0, true},
        {"argument restricts", {}, PKI_KEY_EC, true},
        {"argument excludes", {}, PKI_KEY_RSA, false},
        {"pattern's algorithm wins", {.keyAlg = PKI_KEY_EC}, PKI_KEY_RSA, true},
        {"other algorithm", {.keyAlg = PKI_KEY_RSA}, PKI_KEY_EC, false},
        {"serial prefix", {.serialNumber = info.serialNumber.substr(1)}, 0, false},
        {"sha1 in the md5 field", {.md5 = sha1}, 0, false},
        {"fingerprint in other case", {.sha1 = upper_sha1}, 0, false},
        {"exact subject is no attribute", {.subject = "CN=host"}, 0, false},
        {"subject attributes in any order", {.subject = "CN=host, C=DE", .subjectExact = false}, 0, true},
        {"missing attribute", {.subject = "CN=other", .subjectExact = false}, 0, false},
        {"other issuer", {.issuer = "CN=Root2", .issuerExact = false}, 0, false},
        {"subject is not the issuer", {.issuer = info.subject}, 0, false},
        {"all", {PKI_KEY_EC, info.serialNumber, md5, sha1, info.subject, true, "CN=Root", false}, 0, true},
    };
    for (const auto& [name, pattern, alg, match] : cases) EXPECT_EQ(cert->MatchToPattern(pattern, alg), match) << name;
    ASSERT_EQ(CM_GetAnyCertPatternList()->size(), 1U);
    EXPECT_TRUE(cert->MatchToPattern(CM_GetAnyCertPatternList()->front(), 0));
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
    const std::pair<KeyType, test_pki::SignWith> cases[] = {
        {KeyType::kRsa1024, {.digest = "SHA1"}},
        {KeyType::kRsa2048, {.pss = true}},
        {KeyType::kDsa1024, {}},
        {KeyType::kEcP384, {}},
        {KeyType::kEd25519, {}},
    };
    for (const auto& [key, sign] : cases) {
        SCOPED_TRACE(static_cast<int>(key));
        const auto root = MakeCert({.key = key, .ca = true, .sign = sign});
        const auto issuer = Object(root);
        const auto other = Object(MakeCert({.key = key, .key_index = 1, .ca = true, .sign = sign}));
        const auto cert = Object(MakeCert({.sign = sign}, &root));
        EXPECT_EQ(cert->CheckSignature(issuer.get()), CM::kSignatureRight);
        EXPECT_EQ(cert->CheckSignature(other.get()), CM::kSignatureWrong);
        CM::X509CRL crl(PKCS11::TokenInfo{}, {.value = MakeCrl({.sign = sign}, root)});
        EXPECT_EQ(crl.CheckSignature(issuer.get()), CM::kSignatureRight);
        EXPECT_EQ(crl.CheckSignature(other.get()), CM::kSignatureWrong);
    }
}

// The algorithm beside the signature is not signed: only the one inside tells what the issuer meant.
TEST_F(ObjectTest, AnAlgorithmChangedAfterSigningMakesTheSignatureWrong) {
    const std::string with_null = der::Sequence(der::Oid("1.2.840.10045.4.3.2") + der::Null());
    const auto root = MakeCa("CN=Root");
    const auto issuer = Object(root);
    const auto cert = Object(MakeCert({.outer_algorithm = with_null}, &root));
    EXPECT_EQ(cert->info.signAlg, issuer->info.signAlg);
    EXPECT_EQ(cert->CheckSignature(issuer.get()), CM::kSignatureWrong);

    const CM::X509CRL signed_crl(PKCS11::TokenInfo{}, {.value = MakeCrl({}, root)});
    std::string body;
    std::string signature;
    CertEngine_RawCRLInfo(signed_crl.crlHandle, body);
    CertEngine_RawCRLSignature(signed_crl.crlHandle, signature);
    const CM::X509CRL crl(PKCS11::TokenInfo{}, {.value = der::Sequence(body + with_null + der::BitString(signature))});
    EXPECT_EQ(crl.info.signAlg, signed_crl.info.signAlg);
    EXPECT_EQ(crl.CheckSignature(issuer.get()), CM::kSignatureWrong);
}

TEST_F(ObjectTest, VerificationTellsTroubleFromABadSignature) {
    const auto root = Object(MakeCa("CN=Root"));
    token_->SetAlgorithms({PKI_KEY_RSA});
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureNoToken);
    vendor_host::AddToken("second")->Fail(Op::kOpenPublic);
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureNoSession);
    const auto third = vendor_host::AddToken("third");
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureRight);
    third->Fail(Op::kDigest);
    EXPECT_EQ(root->CheckSignature(root.get()), CM::kSignatureDigestError);
}

}  // namespace
