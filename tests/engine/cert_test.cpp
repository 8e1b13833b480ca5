// Certificate handles: descriptions, raw parts, exports, private keys.
#include <atomic>
#include <fstream>
#include <thread>
#include <tuple>

#include "libcrypto/libcrypto.h"
#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace engine_test {
namespace {

TEST_F(EngineTest, DescribesACertificate) {
    const Cert root = MakeCa("C=DE, CN=Root", nullptr, KeyType::kRsa2048);
    const CertInfo info = InfoOf(MakeCert({.key = KeyType::kEcP384,
                                           .subject = "CN=host, O=Ex\\, ample",
                                           .serial = std::string("\x00\xab\x01", 3),
                                           .not_before = Time::Utc("250301123000Z"),
                                           .not_after = Time::Generalized("20510228235959Z")},
                                          &root)
                                     .der);
    EXPECT_EQ(info.serialNumber + "|" + info.subject + "|" + info.issuer, "AB01|CN=host, O=Ex\\, ample|C=DE, CN=Root");
    EXPECT_EQ(CertTimeToString(info.validFrom), "2025-03-01 12:30:00 UTC");
    EXPECT_EQ(CertTimeToString(info.validTo), "2051-02-28 23:59:59 UTC");
    EXPECT_EQ(std::tuple(info.version, info.kind), std::tuple(3U, static_cast<std::uint32_t>(kCertKindNone)));
}

TEST_F(EngineTest, AlgorithmsOfACertificate) {
    const CertInfo ed25519 = InfoOf(MakeCert({.key = KeyType::kEd25519}).der);
    EXPECT_EQ(std::tuple(ed25519.keyAlg, ed25519.signAlg, ed25519.keyBits),
              std::tuple(PKI_KEY_ED25519, 0xC0005U, 256U));
    const auto sign_alg = [](const CertSpec& spec) { return InfoOf(MakeCert(spec).der).signAlg; };
    EXPECT_EQ(sign_alg({.key = KeyType::kRsa2048, .sign = {.digest = "SHA256", .pss = true, .pss_salt = 20}}), 0U);
    // The outer algorithm counts; a bare key identifier in its place is no signature algorithm.
    EXPECT_EQ(sign_alg({.outer_algorithm = der::Sequence(der::Oid("rsaEncryption") + der::Null())}), PKI_KEY_RSA);
    EXPECT_EQ(sign_alg({.inner_algorithm = der::Sequence(der::Oid("1.2.3.4"))}), PKI_HASH_SHA256 | PKI_KEY_EC);
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
        const auto oracle = libcrypto::Decode<X509_free>(d2i_X509, cert.der);
        ERR_set_mark();
        EXPECT_EQ(InfoOf(cert.der).isCA, X509_check_ca(oracle.get()) != 0) << "case " << i / 2;
        ERR_pop_to_mark();
    }
}

// Of these libcrypto says that none is a CA: it gives up at a key that it does not know or that did not sign, and at
// bad extensions.
TEST_F(EngineTest, CaFlagWhereLibcryptoGivesUp) {
    const std::string yes = der::Boolean(true);
    const std::string gost = der::Sequence(der::Sequence(der::Oid("1.2.643.7.1.1.1.1")) + der::BitString("key"));
    const std::string rsa = der::Sequence(der::Oid("sha256WithRSAEncryption") + der::Null());
    const Extension bad_points{"crlDistributionPoints", false, "\x05"};
    const std::pair<CertSpec, bool> cases[] = {
        {{.version = 1, .spki = gost}, true},
        {{.issuer_der = NameDer("CN=Root"), .version = 1, .spki = gost}, false},
        {{.version = 1, .inner_algorithm = rsa}, true},
        {{.ca = true, .extensions = {bad_points}}, true},
        {{.ca = true, .key_usage = "digitalSignature", .extensions = {bad_points}}, false},
        {{.extensions = {{"basicConstraints", true, der::Sequence(yes + der::IntegerBytes("\xFF"))}}}, true},
        {{.key_usage = "keyCertSign", .extensions = {{"basicConstraints", true, "\x01"}}}, true},
        {{.ca = true, .extensions = {{"keyUsage", true, "\x01"}}}, true},
        {{.ca = false, .extensions = {{"basicConstraints", true, der::Sequence(yes)}}}, true},
    };
    for (const auto& row : cases) {
        const auto& [spec, is_ca] = row;
        EXPECT_EQ(InfoOf(MakeCert(spec).der).isCA, is_ca) << "row " << &row - cases;
    }
}

TEST_F(EngineTest, UnusualCertificates) {
    const auto info = [](const CertSpec& spec) { return InfoOf(MakeCert(spec).der); };
    EXPECT_EQ(info({.version = 1}).version, 1U);
    EXPECT_EQ(info({.serial = "\x80"}).serialNumber, "-80");
    EXPECT_EQ(info({.not_before = Time::Utc("soon"), .not_after = Time::Utc("")}).validFrom, CERT_TIME_UNKNOWN);
    EXPECT_EQ(info({.subject = ""}).subject, "");
    const std::string with_nul("CN=good.example\0.evil.example", 29);
    EXPECT_EQ(info({.subject = with_nul}).subject, "CN=good.example\\00.evil.example");
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
    EXPECT_EQ(DerOf(ReadCert(der + "trailing bytes")), der);

    for (const std::size_t size : {kMaxCertificateBytes - 1024, kMaxCertificateBytes}) {
        const Cert cert = MakeCert({.extensions = {{"1.2.3.4", false, std::string(size, 'x')}}});
        EXPECT_EQ(ReadCert(cert.der) != nullptr, size < kMaxCertificateBytes);
    }
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
        std::string tbs;
        std::string signature;
        std::string subject;
        std::string spki;
        std::string sha1;
        EXPECT_TRUE(CertEngine_RawCertInfo(cert.get(), tbs) && CertEngine_RawCertSignature(cert.get(), signature));
        EXPECT_TRUE(CertEngine_RawSubject(cert.get(), subject) && CertEngine_RawPubKey(cert.get(), spki, sha1));
        EXPECT_EQ(DerOf(cert), leaf.der);
        CheckErrorQueue();
        EXPECT_TRUE(VerifyData(root.key, {}, tbs, signature));
        SeedErrorQueue();  // libcrypto has emptied it
        EXPECT_EQ(std::tuple(subject, spki, sha1), std::tuple(leaf.subject_der, leaf.spki, Digest("SHA1", leaf.spki)));
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
    const std::string algorithm = SignatureAlgorithm(ca.key, {});
    const std::string content = der::Explicit(0, der::Integer(2)) + der::Integer(5) + algorithm + ca.subject_der +
                                der::Sequence(der::Tlv(0x17, "200101000000Z") + der::Tlv(0x17, "490101000000Z")) +
                                ca.subject_der + ca.spki;
    const std::string indefinite = "\x30\x80" + content + std::string(2, '\0');
    for (const std::string& tbs : {indefinite, WithLongLength(der::Sequence(content))}) {
        const std::string signature = SignData(ca.key, {}, tbs);
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
    const std::string sha1 = ExtensionsOf(der).sha1;
    std::atomic<int> wrong = 0;
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            const CertHandle own = ReadCert(der);
            CertInfo info;
            CertExtentions extensions;
            std::string tbs;
            CertEngine_GetCertInfo(i % 2 == 0 ? own.get() : shared.get(), info);
            CertEngine_GetCertExtentions(shared.get(), extensions);
            CertEngine_RawCertInfo(shared.get(), tbs);
            if (!info.isCA || extensions.sha1 != sha1 || tbs.empty()) ++wrong;
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace engine_test
