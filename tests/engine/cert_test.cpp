// Certificate handles: descriptions, raw parts, exports, private keys.
#include <openssl/x509v3.h>

#include <atomic>
#include <fstream>
#include <thread>

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
    const CertInfo info = InfoOf(MakeCert({.key = KeyType::kEcP384,
                                           .subject = "CN=host, O=Ex\\, ample",
                                           .serial = std::string("\x00\xab\x01", 3),
                                           .not_before = Time::Utc("250301123000Z"),
                                           .not_after = Time::Generalized("20510228235959Z")},
                                          &root)
                                     .der);
    EXPECT_EQ(info.serialNumber, "AB01");
    EXPECT_EQ(info.subject, "CN=host, O=Ex\\, ample");
    EXPECT_EQ(info.issuer, "C=DE, CN=Root");
    EXPECT_EQ(CertTimeToString(info.validFrom), "2025-03-01 12:30:00 UTC");
    EXPECT_EQ(CertTimeToString(info.validTo), "2051-02-28 23:59:59 UTC");
    EXPECT_EQ(info.version, 3U);
    EXPECT_EQ(info.kind, static_cast<std::uint32_t>(kCertKindNone));
}

TEST_F(EngineTest, AlgorithmsOfACertificate) {
    const CertInfo ed25519 = InfoOf(MakeCert({.key = KeyType::kEd25519}).der);
    EXPECT_EQ(ed25519.keyAlg, PKI_KEY_ED25519);
    EXPECT_EQ(ed25519.signAlg, 0xC0005U);
    EXPECT_EQ(ed25519.keyBits, 256U);
    const test_pki::SignWith odd_salt{.digest = "SHA256", .pss = true, .pss_salt = 20};
    EXPECT_EQ(InfoOf(MakeCert({.key = KeyType::kRsa2048, .sign = odd_salt}).der).signAlg, 0U);
    // The outer algorithm counts; a bare key identifier in its place is no signature algorithm.
    const std::string bare = der::Sequence(der::Oid("rsaEncryption") + der::Null());
    EXPECT_EQ(InfoOf(MakeCert({.outer_algorithm = bare}).der).signAlg, PKI_KEY_RSA);
    const std::string unknown = der::Sequence(der::Oid("1.2.3.4"));
    EXPECT_EQ(InfoOf(MakeCert({.inner_algorithm = unknown}).der).signAlg, PKI_HASH_SHA256 | PKI_KEY_EC);
}

// The oracle is libcrypto in its default context.
TEST_F(EngineTest, CaFlagIsLibcryptosCaTest) {
    const CertSpec cases[] = {
        {},
        {.version = 1},
        {.ca = false},
        {.ca = true, .key_usage = "keyCertSign"},
        {.ca = true, .key_usage = "digitalSignature"},
        {.ca = false, .key_usage = "keyCertSign"},
        {.key_usage = "keyCertSign"},
        {.conf = {{"nsCertType", "objCA"}}},
        {.conf = {{"nsCertType", "client, server, email, objsign"}}},
        {.key_usage = "cRLSign", .conf = {{"nsCertType", "sslCA"}}},
        {.ca = true, .extensions = {{"keyUsage", true, der::BitString("")}}},
    };
    const Cert root = MakeCa("CN=Root");
    for (std::size_t i = 0; i < 2 * std::size(cases); ++i) {
        const Cert cert = MakeCert(cases[i / 2], i % 2 == 0 ? &root : nullptr);
        const auto* p = reinterpret_cast<const unsigned char*>(cert.der.data());
        X509* const oracle = d2i_X509(nullptr, &p, static_cast<long>(cert.der.size()));
        ERR_set_mark();
        EXPECT_EQ(InfoOf(cert.der).isCA, X509_check_ca(oracle) != 0) << "case " << i / 2;
        ERR_pop_to_mark();
        X509_free(oracle);
    }
}

// Of these libcrypto says that none is a CA: it gives up at a key that it does not know or that did not sign, and at
// bad extensions.
TEST_F(EngineTest, CaFlagWhereLibcryptoGivesUp) {
    const std::string yes = der::Boolean(true);
    const std::string gost = der::Sequence(der::Sequence(der::Oid("1.2.643.7.1.1.1.1")) + der::BitString("key"));
    const std::string rsa = der::Sequence(der::Oid("sha256WithRSAEncryption") + der::Null());
    const test_pki::Extension bad_points{"crlDistributionPoints", false, "\x05"};
    const struct {
        CertSpec spec;
        bool is_ca;
    } cases[] = {
        {{.version = 1, .spki = gost}, true},
        {{.issuer_der = test_pki::NameDer("CN=Root"), .version = 1, .spki = gost}, false},
        {{.version = 1, .inner_algorithm = rsa}, true},
        {{.ca = true, .extensions = {bad_points}}, true},
        {{.ca = true, .key_usage = "digitalSignature", .extensions = {bad_points}}, false},
        {{.extensions = {{"basicConstraints", true, der::Sequence(yes + der::IntegerBytes("\xFF"))}}}, true},
        {{.key_usage = "keyCertSign", .extensions = {{"basicConstraints", true, "\x01"}}}, true},
        {{.ca = true, .extensions = {{"keyUsage", true, "\x01"}}}, true},
        {{.ca = false, .extensions = {{"basicConstraints", true, der::Sequence(yes)}}}, true},
    };
    for (const auto& c : cases) {
        const std::string der = MakeCert(c.spec).der;
        EXPECT_EQ(InfoOf(der).isCA, c.is_ca) << "case " << &c - cases;
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

    const std::string with_nul = std::string("CN=good.example") + '\0' + ".evil.example";
    EXPECT_EQ(InfoOf(MakeCert({.subject = with_nul}).der).subject, "CN=good.example\\00.evil.example");
}

TEST_F(EngineTest, BytesThatAreNoCertificate) {
    const std::string der = MakeCa("CN=Root").der;
    EXPECT_EQ(CertEngine_CreateCertHandle(nullptr, 0), nullptr);
    EXPECT_EQ(CertEngine_DuplicateCertHandle(nullptr), nullptr);
    CertEngine_CloseCertHandle(nullptr);
    CertEngine_CloseCRLHandle(nullptr);
    for (std::size_t length = 0; length < der.size(); ++length) {
        EXPECT_EQ(ReadCert(std::string(der, 0, length)), nullptr) << length;
    }
    EXPECT_EQ(ReadCert(MakeCert({.subject_der = der::Integer(1)}).der), nullptr);
    EXPECT_EQ(engine_test::DerOf(ReadCert(der + "trailing bytes")), der);

    const test_pki::Extension big{"1.2.3.4", false, std::string(kMaxCertificateBytes, 'x')};
    EXPECT_EQ(ReadCert(MakeCert({.extensions = {big}}).der), nullptr);
    const test_pki::Extension fits{"1.2.3.4", false, std::string(kMaxCertificateBytes - 1024, 'x')};
    EXPECT_NE(ReadCert(MakeCert({.extensions = {fits}}).der), nullptr);
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

TEST_F(EngineTest, ExportsAreReadByOpenssl) {
    const Cert root = MakeCa("CN=Root");
    const Cert leaf = MakeLeaf("CN=host", root);
    const CertHandle root_cert = ReadCert(root.der);
    CertHandle original = ReadCert(leaf.der);
    const CertHandle leaf_cert(CertEngine_DuplicateCertHandle(original.get()));
    original.reset();
    std::string pem;
    EXPECT_EQ(CertEngine_ExportCertToPEM(leaf_cert.get(), pem), 1);
    EXPECT_EQ(pem, leaf.Pem());
    const test_support::TempDir dir;
    const auto printed = [&dir](const std::vector<void*>& certs) {
        std::string bundle;
        EXPECT_EQ(CertEngine_ExportCertsToPKCS7(certs, bundle), 1);
        std::ofstream(dir / "bundle", std::ios::binary) << bundle;
        const auto result =
            test_support::Run({"openssl", "pkcs7", "-inform", "DER", "-print_certs", "-noout", "-in", dir / "bundle"});
        EXPECT_EQ(result.exit_code, 0) << result.err;
        return result.out;
    };
    const std::string both = printed({leaf_cert.get(), nullptr, root_cert.get()});
    EXPECT_LT(both.find("subject=CN = host"), both.find("subject=CN = Root")) << both;
    EXPECT_EQ(printed({}).find("subject"), std::string::npos);
}

TEST_F(EngineTest, ThreadsShareTheEngineAndAHandle) {
    const std::string der = MakeCert({.ca = true,
                                      .key_usage = "digitalSignature, keyCertSign",
                                      .san = {"DNS:host.example", "UPN:user@example", "DN:CN=x"},
                                      .conf = {{"certificatePolicies", "1.2.3.4"}, {"inhibitAnyPolicy", "1"}}})
                                .der;
    const CertHandle shared = ReadCert(der);
    const CertExtentions expected = engine_test::ExtensionsOf(der);
    std::atomic<int> wrong = 0;
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            const CertHandle own = engine_test::ReadCert(der);
            CertInfo info;
            CertExtentions extensions;
            std::string tbs;
            CertEngine_GetCertInfo(i % 2 == 0 ? own.get() : shared.get(), info);
            CertEngine_GetCertExtentions(shared.get(), extensions);
            CertEngine_RawCertInfo(shared.get(), tbs);
            if (!info.isCA || extensions.sha1 != expected.sha1 || tbs.empty()) ++wrong;
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
