// Certificate handles: descriptions, raw parts, exports, private keys.
#include <openssl/x509v3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using engine_test::CertHandle;
using engine_test::EngineTest;
using engine_test::InfoOf;
using engine_test::ReadCert;
using test_pki::Cert;
using test_pki::CertSpec;
using test_pki::KeyType;
using test_pki::MakeCa;
using test_pki::MakeCert;
using test_pki::MakeLeaf;
using test_pki::Time;

TEST_F(EngineTest, DescribesACertificate) {
    const Cert root = MakeCa("C=DE, CN=Root", nullptr, KeyType::kRsa2048);
    const Cert leaf = MakeCert({.key = KeyType::kEcP384,
                                .subject = "CN=host, O=Ex\\, ample",
                                .serial = std::string("\x00\xab\x01", 3),
                                .not_before = Time::Utc("250301123000Z"),
                                .not_after = Time::Generalized("20510228235959Z"),
                                .sign = {.digest = "SHA512"}},
                               &root);
    CertInfo info = InfoOf(leaf.der);
    EXPECT_EQ(info.id, "");
    EXPECT_EQ(info.serialNumber, "AB01");
    EXPECT_EQ(info.subject, "CN=host, O=Ex\\, ample");
    EXPECT_EQ(info.issuer, "C=DE, CN=Root");
    EXPECT_EQ(CertTimeToString(info.validFrom), "2025-03-01 12:30:00 UTC");
    EXPECT_EQ(CertTimeToString(info.validTo), "2051-02-28 23:59:59 UTC");
    EXPECT_EQ(info.keyAlg, PKI_KEY_EC);
    EXPECT_EQ(info.signAlg, PKI_HASH_SHA512 | PKI_KEY_RSA);
    EXPECT_FALSE(info.isCA);
    EXPECT_EQ(info.version, 3U);
    EXPECT_EQ(info.keyBits, 384U);
    EXPECT_EQ(info.kind, static_cast<std::uint32_t>(kCertKindNone));
}

TEST_F(EngineTest, AlgorithmsOfACertificate) {
    const struct {
        KeyType key;
        test_pki::SignWith sign;
        pki_alg_t key_alg;
        pki_alg_t sign_alg;
        unsigned bits;
    } cases[] = {
        {KeyType::kRsa1024, {.digest = "SHA1"}, 1, 0x20001, 1024},
        {KeyType::kRsa2048, {.digest = "SHA384", .pss = true}, 1, 0x50002, 2048},
        {KeyType::kRsa2048, {.digest = "SHA256", .pss = true, .pss_salt = 20}, 1, 0, 2048},
        {KeyType::kEcP521, {}, 4, 0x60004, 521},
        {KeyType::kEd25519, {}, 5, 0xC0005, 256},
        {KeyType::kDsa1024, {.digest = "SHA256"}, 3, 0x40003, 1024},
    };
    for (const auto& c : cases) {
        const CertInfo info = InfoOf(MakeCert({.key = c.key, .sign = c.sign}).der);
        EXPECT_EQ(info.keyAlg, c.key_alg);
        EXPECT_EQ(info.signAlg, c.sign_alg);
        // The length of a DSA key is that of its public value, which may start with zero bits.
        EXPECT_TRUE(info.keyBits <= c.bits && info.keyBits + 16 > c.bits) << info.keyBits;
    }
    // The outer algorithm counts; a bare key identifier in its place is no signature algorithm.
    const std::string bare = der::Sequence(der::Oid("rsaEncryption") + der::Null());
    EXPECT_EQ(InfoOf(MakeCert({.outer_algorithm = bare}).der).signAlg, PKI_KEY_RSA);
    const std::string unknown = der::Sequence(der::Oid("1.2.3.4"));
    EXPECT_EQ(InfoOf(MakeCert({.inner_algorithm = unknown}).der).signAlg, PKI_HASH_SHA256 | PKI_KEY_EC);
}

// The oracle is libcrypto in its default context.
TEST_F(EngineTest, CaFlagIsLibcryptosCaTest) {
    const test_pki::Extension bad_ca{"basicConstraints", true, "\x01"};
    const test_pki::Extension empty_usage{"keyUsage", true, der::BitString("")};
    const test_pki::Extension more_usage{"keyUsage", true, der::BitString("\x80")};
    const CertSpec cases[] = {
        {},
        {.version = 1},
        {.ca = true},
        {.ca = false},
        {.ca = true, .key_usage = "keyCertSign"},
        {.ca = true, .key_usage = "digitalSignature"},
        {.ca = false, .key_usage = "keyCertSign"},
        {.key_usage = "keyCertSign"},
        {.key_usage = "digitalSignature"},
        {.ca = true, .path_len = 0},
        {.ca = false, .path_len = 3},
        {.conf = {{"nsCertType", "sslCA"}}},
        {.key_usage = "keyCertSign", .extensions = {bad_ca}},
        {.ca = true, .extensions = {empty_usage}},
        {.ca = true, .key_usage = "keyCertSign", .extensions = {more_usage}},
        {.ca = false, .extensions = {{"basicConstraints", true, der::Sequence(der::Boolean(true))}}},
        {.ca = true, .extensions = {{"crlDistributionPoints", false, "\x05"}}},
    };
    const Cert root = MakeCa("CN=Root");
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        for (const Cert* issuer : {&root, static_cast<const Cert*>(nullptr)}) {
            const Cert cert = MakeCert(cases[i], issuer);
            const auto* p = reinterpret_cast<const unsigned char*>(cert.der.data());
            X509* const oracle = d2i_X509(nullptr, &p, static_cast<long>(cert.der.size()));
            ASSERT_NE(oracle, nullptr);
            ERR_set_mark();
            const bool expected = X509_check_ca(oracle) != 0;
            ERR_pop_to_mark();
            EXPECT_EQ(InfoOf(cert.der).isCA, expected) << "case " << i;
            X509_free(oracle);
        }
    }
}

TEST_F(EngineTest, UnusualCertificates) {
    EXPECT_EQ(InfoOf(MakeCert({.version = 1}).der).version, 1U);
    EXPECT_EQ(InfoOf(MakeCert({.serial = std::string(1, '\0')}).der).serialNumber, "00");
    EXPECT_EQ(InfoOf(MakeCert({.serial = "\x80"}).der).serialNumber, "-80");
    EXPECT_EQ(InfoOf(MakeCert({.serial = std::string(64, '\x11')}).der).serialNumber.substr(0, 74),
              std::string(70, '1') + "\\\n11");
    EXPECT_EQ(InfoOf(MakeCert({.not_before = Time::Utc("soon"), .not_after = Time::Utc("")}).der).validFrom,
              CERT_TIME_UNKNOWN);
    EXPECT_EQ(InfoOf(MakeCert({.subject = ""}).der).subject, "");

    std::string many = "CN=0";
    for (int i = 1; i < 200; ++i) many += ", OU=" + std::to_string(i);
    EXPECT_EQ(InfoOf(MakeCert({.subject = many}).der).subject, many);

    const std::string with_nul = std::string("CN=good.example") + '\0' + ".evil.example";
    const std::string subject = InfoOf(MakeCert({.subject = with_nul}).der).subject;
    EXPECT_EQ(subject.substr(0, 15), "CN=good.example");
    EXPECT_NE(subject, "CN=good.example");
}

TEST_F(EngineTest, BytesThatAreNoCertificate) {
    const std::string der = MakeCa("CN=Root").der;
    EXPECT_EQ(CertEngine_CreateCertHandle(nullptr, 0), nullptr);
    EXPECT_EQ(ReadCert(""), nullptr);
    EXPECT_EQ(ReadCert(std::string(100, '\0')), nullptr);
    EXPECT_EQ(ReadCert(der.substr(0, der.size() - 1)), nullptr);
    EXPECT_EQ(ReadCert(MakeCert({.subject_der = der::Integer(1)}).der), nullptr);
    EXPECT_EQ(engine_test::DerOf(ReadCert(der + "trailing bytes")), der);

    const test_pki::Extension big{"1.2.3.4", false, std::string(kMaxCertificateBytes, 'x')};
    EXPECT_EQ(ReadCert(MakeCert({.extensions = {big}}).der), nullptr);
    const test_pki::Extension fits{"1.2.3.4", false, std::string(kMaxCertificateBytes - 1024, 'x')};
    EXPECT_NE(ReadCert(MakeCert({.extensions = {fits}}).der), nullptr);
}

TEST_F(EngineTest, DuplicateIsACopyOfItsOwn) {
    EXPECT_EQ(CertEngine_DuplicateCertHandle(nullptr), nullptr);
    CertEngine_CloseCertHandle(nullptr);
    CertEngine_CloseCRLHandle(nullptr);
    CertEngine_ClosePrivKeyHandle(nullptr);
    const Cert root = MakeCa("CN=Root");
    CertHandle cert = ReadCert(root.der);
    const CertHandle copy(CertEngine_DuplicateCertHandle(cert.get()));
    cert.reset();
    EXPECT_EQ(engine_test::DerOf(copy), root.der);
}

/// The length of the outermost element in more bytes than needed: not DER, yet accepted by libcrypto.
std::string WithLongLength(const std::string& der) {
    const auto form = static_cast<unsigned char>(der[1]);
    const std::string content = der.substr(form < 0x80 ? 2 : 2 + (form & 0x7F));
    return std::string("\x30\x84\x00\x00", 4) + static_cast<char>(content.size() >> 8) +
           static_cast<char>(content.size() & 0xFF) + content;
}

TEST_F(EngineTest, RawPartsOfACertificate) {
    const Cert root = MakeCa("CN=Root", nullptr, KeyType::kRsa2048);
    const Cert leaf = MakeLeaf("CN=host", root);
    for (const std::string& received : {leaf.der, WithLongLength(leaf.der)}) {
        const CertHandle cert = ReadCert(received);
        ASSERT_NE(cert, nullptr);
        std::string der;
        std::string tbs;
        std::string signature;
        std::string subject;
        std::string spki;
        std::string sha1;
        EXPECT_TRUE(CertEngine_RawCert(cert.get(), der));
        EXPECT_TRUE(CertEngine_RawCertInfo(cert.get(), tbs));
        EXPECT_TRUE(CertEngine_RawCertSignature(cert.get(), signature));
        EXPECT_TRUE(CertEngine_RawSubject(cert.get(), subject));
        EXPECT_TRUE(CertEngine_RawPubKey(cert.get(), spki, sha1));
        EXPECT_EQ(der, leaf.der);
        EXPECT_TRUE(Verifies(root.key, tbs, signature));
        EXPECT_EQ(subject, leaf.subject_der);
        EXPECT_EQ(spki, leaf.spki);
        EXPECT_EQ(sha1, test_pki::Digest("SHA1", leaf.spki));
        std::string oids;
        CertEngine_CertGetKeyAlgOid(cert.get(), &oids);
        oids += ' ';
        EXPECT_TRUE(CertEngine_CertGetSignAlgOid(cert.get(), &oids));
        EXPECT_EQ(oids, "1.2.840.10045.2.1 1.2.840.113549.1.1.11");
    }
}

// What was signed is what was received, also where it is not DER.
TEST_F(EngineTest, ToBeSignedPartIsAsReceived) {
    const Cert ca = MakeCa("CN=Root");
    const std::string algorithm = test_pki::SignatureAlgorithm(ca.key, {});
    const std::string content = der::Explicit(0, der::Integer(2)) + der::Integer(5) + algorithm + ca.subject_der +
                                der::Sequence(der::Tlv(0x17, "200101000000Z") + der::Tlv(0x17, "490101000000Z")) +
                                ca.subject_der + ca.spki;
    const std::string indefinite = "\x30\x80" + content + std::string(2, '\0');
    for (const std::string& tbs : {indefinite, WithLongLength(der::Sequence(content))}) {
        const std::string signature = test_pki::SignData(ca.key, {}, tbs);
        const CertHandle cert = ReadCert(der::Sequence(tbs + algorithm + der::BitString(signature)));
        ASSERT_NE(cert, nullptr);
        std::string raw;
        EXPECT_TRUE(CertEngine_RawCertInfo(cert.get(), raw));
        EXPECT_EQ(raw, tbs);
    }
}

std::string WriteFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    return path.string();
}

TEST_F(EngineTest, ExportsAreReadByOpenssl) {
    const Cert root = MakeCa("CN=Root");
    const Cert leaf = MakeLeaf("CN=host", root);
    const CertHandle root_cert = ReadCert(root.der);
    const CertHandle leaf_cert = ReadCert(leaf.der);
    std::string der;
    std::string pem;
    std::string bundle;
    std::string empty_bundle;
    EXPECT_EQ(CertEngine_ExportCertToDER(leaf_cert.get(), der), 1);
    EXPECT_EQ(der, leaf.der);
    EXPECT_EQ(CertEngine_ExportCertToPEM(leaf_cert.get(), pem), 1);
    EXPECT_EQ(pem, leaf.Pem());
    EXPECT_EQ(CertEngine_ExportCertsToPKCS7({leaf_cert.get(), nullptr, root_cert.get()}, bundle), 1);
    EXPECT_EQ(CertEngine_ExportCertsToPKCS7({}, empty_bundle), 1);

    const test_support::TempDir dir;
    const auto printed = test_support::Run(
        {"openssl", "pkcs7", "-inform", "DER", "-print_certs", "-noout", "-in", WriteFile(dir / "bundle.p7c", bundle)});
    EXPECT_EQ(printed.exit_code, 0) << printed.err;
    EXPECT_LT(printed.out.find("subject=CN = host"), printed.out.find("subject=CN = Root")) << printed.out;
    const auto none = test_support::Run({"openssl", "pkcs7", "-inform", "DER", "-print_certs", "-noout", "-in",
                                         WriteFile(dir / "empty.p7c", empty_bundle)});
    EXPECT_EQ(none.exit_code, 0) << none.err;
    EXPECT_EQ(none.out.find("subject"), std::string::npos);

    std::vector<void*> certs;
    EXPECT_EQ(
        CertEngine_ReadP7CCertData(empty_bundle.data(), static_cast<unsigned>(empty_bundle.size()), certs, nullptr), 0);
    EXPECT_TRUE(certs.empty());
}

}  // namespace
