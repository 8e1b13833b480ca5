// Start and stop; algorithm identifiers, times, identifier texts, numbers, key lengths, fingerprints.
#define OPENSSL_SUPPRESS_DEPRECATED  // a digest of another library is registered as such libraries do
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <array>

#include "libcrypto/libcrypto.h"
#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"

namespace {

using engine_test::EngineTest;

using AlgorithmPtr = libcrypto::Owner<X509_ALGOR, X509_ALGOR_free>;
using StringPtr = libcrypto::Owner<ASN1_STRING, ASN1_STRING_free>;
using ObjectPtr = libcrypto::Owner<ASN1_OBJECT, ASN1_OBJECT_free>;

AlgorithmPtr Algorithm(const std::string& der) {
    const auto* p = reinterpret_cast<const unsigned char*>(der.data());
    return AlgorithmPtr(d2i_X509_ALGOR(nullptr, &p, static_cast<long>(der.size())));
}

constexpr std::array kGostNames{"gostR3411-94", "GOST R 34.11-94 (Russian hash algorithm)",
                                "gostR3411-94-with-gostR3410-2001", "id-GostR3411-94-with-GostR3410-2001"};

TEST(EngineLifecycle, PlaceholderDigestLivesFromStartToStop) {
    for (int cycle = 0; cycle < 3; ++cycle) {
        for (const char* name : kGostNames) EXPECT_EQ(EVP_get_digestbyname(name), nullptr) << name;
        CertEngine_Init();
        CertEngine_Init();  // a second start changes nothing
        for (const char* dotted :
             {"1.2.643.2.2.9", "1.2.643.2.2.3", "1.2.643.2.2.20", "1.2.643.7.1.1.2.2", "1.2.643.7.1.1.2.3",
              "1.2.643.7.1.1.1.1", "1.2.643.7.1.1.1.2", "1.2.643.7.1.1.3.2", "1.2.643.7.1.1.3.3"}) {
            EXPECT_NE(OBJ_txt2nid(dotted), NID_undef) << dotted;
        }
        for (const char* name : kGostNames) EXPECT_NE(EVP_get_digestbyname(name), nullptr) << name;
        const EVP_MD* digest = EVP_get_digestbynid(OBJ_txt2nid("1.2.643.2.2.9"));
        ASSERT_NE(digest, nullptr);
        EXPECT_EQ(EVP_MD_get_size(digest), 32);
        EXPECT_EQ(EVP_MD_get_block_size(digest), 256);
        EXPECT_EQ(CertEngine_Finit(), 0);
        EXPECT_EQ(CertEngine_Finit(), 0);
        EXPECT_NE(EVP_get_digestbyname("SHA256"), nullptr) << "the daemon's libcrypto must go on working";
    }
}

// A digest that another library of the process brings under libcrypto's own identifier.
class RealGostDigest {
  public:
    RealGostDigest() : md_(EVP_MD_meth_new(OBJ_txt2nid("1.2.643.2.2.9"), NID_undef)) {
        EVP_MD_meth_set_result_size(md_, 32);
        EVP_add_digest(md_);
    }
    ~RealGostDigest() {
        for (const char* name : {OBJ_nid2sn(EVP_MD_get_type(md_)), OBJ_nid2ln(EVP_MD_get_type(md_))}) {
            OBJ_NAME_remove(name, OBJ_NAME_TYPE_MD_METH);
        }
        EVP_MD_meth_free(md_);
    }
    RealGostDigest(const RealGostDigest&) = delete;
    RealGostDigest& operator=(const RealGostDigest&) = delete;

    /// Whether libcrypto finds it by its identifier.
    bool IsFound() const { return EVP_get_digestbynid(EVP_MD_get_type(md_)) == md_; }
    void ExpectFoundByName() const {
        for (const char* name : kGostNames) EXPECT_EQ(EVP_get_digestbyname(name), md_) << name;
    }

  private:
    EVP_MD* md_;
};

TEST(EngineLifecycle, RealDigestLoadedBeforeTheStartIsTheOneFound) {
    const RealGostDigest real;
    for (int cycle = 0; cycle < 2; ++cycle) {
        CertEngine_Init();
        EXPECT_TRUE(real.IsFound());
        real.ExpectFoundByName();
        CertEngine_Finit();
        EXPECT_TRUE(real.IsFound());
        for (const char* name : kGostNames) EXPECT_EQ(EVP_get_digestbyname(name), nullptr) << name;
    }
}

TEST(EngineLifecycle, RealDigestLoadedLaterReplacesThePlaceholderAndStays) {
    CertEngine_Init();
    const RealGostDigest real;
    EXPECT_TRUE(real.IsFound());
    real.ExpectFoundByName();
    CertEngine_Finit();
    EXPECT_TRUE(real.IsFound());
}

TEST(EngineLifecycle, HandlesMayBeClosedAfterStop) {
    CertEngine_Init();
    void* const cert = engine_test::ReadCert(test_pki::MakeCa("CN=Root").der).release();
    ASSERT_NE(cert, nullptr);
    CertEngine_Finit();
    CertEngine_CloseCertHandle(cert);
}

// The static store of a process that ends without a stop closes its handles after libcrypto's own clean-up.
struct ClosedAtExit {
    ~ClosedAtExit() { CertEngine_CloseCertHandle(handle); }
    void* handle = nullptr;
} closed_at_exit;

TEST(EngineLifecycle, HandlesMayBeClosedAtExit) {
    CertEngine_Init();
    closed_at_exit.handle = engine_test::ReadCert(test_pki::MakeCa("CN=Root").der).release();
    EXPECT_NE(closed_at_exit.handle, nullptr);
}

TEST_F(EngineTest, AlgorithmIdentifiersAreRead) {
    using der::Sequence;
    EXPECT_EQ(X509_ALGOR_to_pki_alg_t(nullptr), 0U);
    const AlgorithmPtr empty(X509_ALGOR_new());
    EXPECT_EQ(X509_ALGOR_to_pki_alg_t(empty.get()), 0U);
    const std::string pss = der::Oid("rsassaPss");
    const std::string sha256 = Sequence(der::Oid("SHA256"));
    const std::string sha256_parameters =
        Sequence(der::Explicit(0, sha256) + der::Explicit(1, Sequence(der::Oid("mgf1") + sha256)) +
                 der::Explicit(2, der::Integer(32)));
    const struct {
        const char* what;
        std::string der;
        pki_alg_t code;
    } cases[] = {
        {"key with curve", Sequence(der::Oid("id-ecPublicKey") + der::Oid("prime256v1")), 0x4},
        {"Ed25519 reads as its key", Sequence(der::Oid("ED25519")), 0x5},
        {"signature", Sequence(der::Oid("RSA-SHA1") + der::Null()), 0x20001},
        {"unknown", Sequence(der::Oid("1.2.3.4")), 0},
        {"PSS, NULL parameter", Sequence(pss + der::Null()), 0x20002},
        {"PSS, no parameter", Sequence(pss), 0x2},
        {"PSS, default parameters", Sequence(pss + Sequence("")), 0x20002},
        {"PSS, SHA-256", Sequence(pss + sha256_parameters), 0x40002},
        {"PSS, parameter of a wrong type", Sequence(pss + der::Integer(1)), 0},
    };
    for (const auto& c : cases) EXPECT_EQ(X509_ALGOR_to_pki_alg_t(Algorithm(c.der).get()), c.code) << c.what;
}

TEST_F(EngineTest, AlgorithmIdentifiersAreWrittenInPlace) {
    using der::Sequence;
    const struct {
        pki_alg_t code;
        std::string der;  // empty: no entry
    } cases[] = {
        {0x1, Sequence(der::Oid("rsaEncryption") + der::Null())},
        {0x40004, Sequence(der::Oid("ecdsa-with-SHA256"))},
        {0x1090000, Sequence(der::Oid("1.2.643.2.2.9") + der::Null())},
        {0x209010E, Sequence(der::Oid("1.2.643.2.2.3") + der::Null())},
        {0xB0110, Sequence(der::Oid("1.2.643.7.1.1.3.3") + der::Null())},
        {14, ""},
        {0x109010E, ""},
    };
    for (const auto& c : cases) {
        const AlgorithmPtr algorithm = Algorithm(Sequence(der::Oid("rsaEncryption") + der::Null()));
        EXPECT_EQ(X509_ALGOR_from_pki_alg_t(algorithm.get(), c.code), !c.der.empty()) << std::hex << c.code;
        if (c.der.empty()) {
            EXPECT_EQ(algorithm->algorithm, nullptr) << std::hex << c.code;
        } else {
            EXPECT_EQ(libcrypto::Encode(algorithm.get(), i2d_X509_ALGOR), c.der) << std::hex << c.code;
        }
    }
}

TEST_F(EngineTest, DottedTextOfAnAlgorithmIsAppended) {
    std::string text = "algorithm ";
    EXPECT_TRUE(X509_ALGOR_to_std_string_(Algorithm(der::Sequence(der::Oid("1.2.3.4"))).get(), &text));
    EXPECT_FALSE(X509_ALGOR_to_std_string_(nullptr, &text));
    EXPECT_EQ(text, "algorithm 1.2.3.4");
    text.clear();
    EXPECT_TRUE(
        X509_ALGOR_to_std_string_(Algorithm(der::Sequence("\x06\x81\xc8" + std::string(200, '\1'))).get(), &text));
    EXPECT_EQ(text.size(), 401U) << "0.1 and 199 arcs";
}

constexpr cert_time64_t Packed(std::uint64_t year, std::uint64_t month, std::uint64_t day, std::uint64_t hour = 0,
                               std::uint64_t minute = 0, std::uint64_t second = 0) {
    return year << 40 | (month - 1) << 32 | day << 24 | hour << 16 | minute << 8 | second;
}

TEST_F(EngineTest, Times) {
    EXPECT_EQ(ASN1_TIME_to_time_t(nullptr), CERT_TIME_UNKNOWN);
    constexpr cert_time64_t kUnknown = CERT_TIME_UNKNOWN;
    const struct {
        int type;
        std::string text;
        cert_time64_t time;
    } cases[] = {
        {V_ASN1_UTCTIME, "491231235959Z", Packed(2049, 12, 31, 23, 59, 59)},
        {V_ASN1_UTCTIME, "500101000000Z", Packed(1950, 1, 1)},
        {V_ASN1_UTCTIME, "000301000000Z", Packed(2000, 3, 1)},
        {V_ASN1_UTCTIME, "300228235960Z", Packed(2030, 2, 28, 23, 59, 60)},
        {V_ASN1_UTCTIME, "300228235959Zjunk", Packed(2030, 2, 28, 23, 59, 59)},
        {V_ASN1_GENERALIZEDTIME, "20500101000000Z", Packed(2050, 1, 1)},
        {V_ASN1_GENERALIZEDTIME, "00000101000000Z", Packed(0, 1, 1)},
        {V_ASN1_GENERALIZEDTIME, "99991231235959Z", Packed(9999, 12, 31, 23, 59, 59)},
        {V_ASN1_GENERALIZEDTIME, "20500101000000.5Z", kUnknown},
        {V_ASN1_GENERALIZEDTIME, "2050010100000Z", kUnknown},
        {V_ASN1_GENERALIZEDTIME, "2O500101000000Z", kUnknown},
        {V_ASN1_GENERALIZEDTIME, "491231235959Z", kUnknown},
        {V_ASN1_UTCTIME, "4912312359+0100", kUnknown},
        {V_ASN1_UTCTIME, "491231235959", kUnknown},
        {V_ASN1_UTCTIME, "4912312359Z", kUnknown},
        {V_ASN1_UTCTIME, "490031235959Z", kUnknown},
        {V_ASN1_UTCTIME, "491331235959Z", kUnknown},
        {V_ASN1_UTCTIME, "491200235959Z", kUnknown},
        {V_ASN1_UTCTIME, "491232235959Z", kUnknown},
        {V_ASN1_UTCTIME, "491231245959Z", kUnknown},
        {V_ASN1_UTCTIME, "491231236059Z", kUnknown},
        {V_ASN1_UTCTIME, "491231235961Z", kUnknown},
        {V_ASN1_UTCTIME, "49 231235959Z", kUnknown},
        {V_ASN1_UTCTIME, "-91231235959Z", kUnknown},
        {V_ASN1_UTCTIME, "", kUnknown},
        {V_ASN1_VISIBLESTRING, "491231235959Z", kUnknown},
    };
    for (const auto& c : cases) {
        const StringPtr time(ASN1_STRING_type_new(c.type));
        ASN1_STRING_set(time.get(), c.text.data(), static_cast<int>(c.text.size()));
        EXPECT_EQ(ASN1_TIME_to_time_t(time.get()), c.time) << c.text;
    }
}

TEST_F(EngineTest, IdentifierTexts) {
    const struct {
        const char* dotted;
        StringOidFormat format;
        std::string text;
    } cases[] = {
        {"2.5.4.3", kOidNameDotted, "commonName (2.5.4.3)"},
        {"2.5.4.3", kOidName, "commonName"},
        {"2.5.4.3", kOidDotted, "2.5.4.3"},
        {"1.2.840.113549.1.9.16.3.9", kOidName, "id-alg-PWRI-KEK"},  // known to libcrypto alone
        {"1.2.3.4.5", kOidName, "1.2.3.4.5"},
        {"1.2.3.4.5", kOidNameDotted, "1.2.3.4.5"},
        {"2.999.340282366920938463463374607431768211456", kOidDotted, "2.999.340282366920938463463374607431768211456"},
    };
    for (const auto& c : cases) {
        const ObjectPtr object(OBJ_txt2obj(c.dotted, 1));
        std::string text = "=";
        EXPECT_TRUE(ASN1_OBJECT_to_std_string(object.get(), text, c.format));
        EXPECT_EQ(text, "=" + c.text);
    }
}

TEST_F(EngineTest, LongIdentifiersAreWrittenAsLibcryptoDoesOrNotAtAll) {
    for (const std::size_t arcs : {100U, 300U, 580U, 2000U}) {
        std::string content = "\x2A";
        for (std::size_t i = 0; i < arcs; ++i) content += '\x7F';
        const std::string encoded = der::Tlv(0x06, content);
        const auto* p = reinterpret_cast<const unsigned char*>(encoded.data());
        const ObjectPtr object(d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(encoded.size())));
        ASSERT_NE(object, nullptr);
        std::string expected(8192, '\0');
        ERR_set_mark();
        const int length = OBJ_obj2txt(expected.data(), static_cast<int>(expected.size()), object.get(), 1);
        ERR_pop_to_mark();
        expected.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        std::string text;
        EXPECT_EQ(ASN1_OBJECT_to_std_string(object.get(), text, kOidName), length > 0);
        EXPECT_EQ(text, expected);
    }
}

TEST_F(EngineTest, NumbersAreWrittenAsLibcryptoWritesThem) {
    std::string text = "kept";
    EXPECT_FALSE(ASN1_INTEGER_to_std_string(nullptr, text));
    EXPECT_EQ(text, "kept");
    for (const std::size_t length : {0U, 1U, 20U, 35U, 36U, 64U, 70U, 71U}) {
        for (const int type : {V_ASN1_INTEGER, V_ASN1_NEG_INTEGER}) {
            std::string bytes;
            for (std::size_t i = 0; i < length; ++i) bytes += static_cast<char>(0xA0 + i);
            const StringPtr number(ASN1_STRING_type_new(type));
            ASN1_STRING_set(number.get(), bytes.data(), static_cast<int>(bytes.size()));
            const libcrypto::Owner<BIO, BIO_free> stream(BIO_new(BIO_s_mem()));
            i2a_ASN1_INTEGER(stream.get(), number.get());
            char* expected = nullptr;
            const long expected_length = BIO_get_mem_data(stream.get(), &expected);
            EXPECT_TRUE(ASN1_INTEGER_to_std_string(number.get(), text));
            EXPECT_EQ(text, std::string_view(expected, static_cast<std::size_t>(expected_length)));
        }
    }
}

TEST_F(EngineTest, FingerprintOfBytes) {
    std::string text;
    EXPECT_TRUE(CertEngine_FingerprintSHA1("abc", text, 0));
    EXPECT_EQ(text, "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_TRUE(CertEngine_FingerprintSHA1("abc", text, ':'));
    EXPECT_EQ(text.substr(0, 9), "a9:99:3e:");
}

}  // namespace
