// Start and stop; algorithm identifiers, times, identifier texts, numbers, key lengths, fingerprints.
#define OPENSSL_SUPPRESS_DEPRECATED  // a digest of another library is registered as such libraries do
#include <array>
#include <tuple>

#include "libcrypto/libcrypto.h"
#include "tests/engine/engine_fixture.h"
#include "tests/support/der.h"

namespace engine_test {
namespace {

using libcrypto::AlgorithmPtr;
using libcrypto::ObjectPtr;
using StringPtr = libcrypto::Owner<ASN1_STRING, ASN1_STRING_free>;

AlgorithmPtr Algorithm(const std::string& der) {
    return libcrypto::Decode<X509_ALGOR_free>(d2i_X509_ALGOR, der);
}

constexpr std::array kGostNames{"gostR3411-94", "GOST R 34.11-94 (Russian hash algorithm)",
                                "gostR3411-94-with-gostR3410-2001", "id-GostR3411-94-with-GostR3410-2001"};

TEST(EngineLifecycle, PlaceholderDigestLivesFromStartToStop) {
    for (int cycle = 0; cycle < 2; ++cycle) {
        for (const char* name : kGostNames) EXPECT_EQ(EVP_get_digestbyname(name), nullptr) << name;
        CertEngine_Init();
        CertEngine_Init();  // a second start changes nothing
        for (const char* name : kGostNames) EXPECT_NE(EVP_get_digestbyname(name), nullptr) << name;
        const EVP_MD* digest = EVP_get_digestbynid(OBJ_txt2nid("1.2.643.2.2.9"));
        ASSERT_NE(digest, nullptr);
        EXPECT_EQ(EVP_MD_get_size(digest), 32);
        EXPECT_EQ(CertEngine_Finit(), 0);
        EXPECT_EQ(CertEngine_Finit(), 0);
        EXPECT_NE(EVP_get_digestbyname("SHA256"), nullptr) << "the daemon's libcrypto must go on working";
    }
}

// A digest that another library of the process brings under libcrypto's own identifier.
struct RealGostDigest {
    RealGostDigest() {
        EVP_MD_meth_set_result_size(md, 32);
        EVP_add_digest(md);
    }
    ~RealGostDigest() {
        for (const char* name : {OBJ_nid2sn(nid), OBJ_nid2ln(nid)}) OBJ_NAME_remove(name, OBJ_NAME_TYPE_MD_METH);
        EVP_MD_meth_free(md);
    }
    RealGostDigest(const RealGostDigest&) = delete;
    RealGostDigest& operator=(const RealGostDigest&) = delete;

    const int nid = OBJ_txt2nid("1.2.643.2.2.9");
    EVP_MD* const md = EVP_MD_meth_new(nid, NID_undef);
};

TEST(EngineLifecycle, ARealDigestIsTheOneFoundWheneverItIsLoaded) {
    for (const bool first : {true, false}) {
        if (!first) CertEngine_Init();
        const RealGostDigest real;
        if (first) CertEngine_Init();
        EXPECT_EQ(EVP_get_digestbynid(real.nid), real.md);
        for (const char* name : kGostNames) EXPECT_EQ(EVP_get_digestbyname(name), real.md) << name;
        CertEngine_Finit();
        EXPECT_EQ(EVP_get_digestbynid(real.nid), real.md);
    }
}

// The static store of a process that ends without a stop closes its handles after libcrypto's own clean-up.
struct ClosedAtExit {
    ~ClosedAtExit() { CertEngine_CloseCertHandle(handle); }
    void* handle = nullptr;
} closed_at_exit;

TEST(EngineLifecycle, HandlesMayBeClosedAtExit) {
    CertEngine_Init();
    closed_at_exit.handle = ReadCert(MakeCa("CN=Root").der).release();
    EXPECT_NE(closed_at_exit.handle, nullptr);
}

TEST_F(EngineTest, AlgorithmIdentifiers) {
    using der::Sequence;
    EXPECT_EQ(X509_ALGOR_to_pki_alg_t(nullptr), 0U);
    const AlgorithmPtr empty(X509_ALGOR_new());
    EXPECT_EQ(X509_ALGOR_to_pki_alg_t(empty.get()), 0U);
    const std::string pss = der::Oid("rsassaPss");
    const std::tuple<const char*, std::string, pki_alg_t> read[] = {
        {"key with curve", Sequence(der::Oid("id-ecPublicKey") + der::Oid("prime256v1")), 0x4},
        {"Ed25519 reads as its key", Sequence(der::Oid("ED25519")), 0x5},
        {"unknown", Sequence(der::Oid("1.2.3.4")), 0},
        {"PSS, NULL parameter", Sequence(pss + der::Null()), 0x20002},
        {"PSS, no parameter", Sequence(pss), 0x2},
        {"PSS, default parameters", Sequence(pss + Sequence("")), 0x20002},
        {"PSS, parameter of a wrong type", Sequence(pss + der::Integer(1)), 0},
    };
    for (const auto& [what, der, code] : read) {
        EXPECT_EQ(X509_ALGOR_to_pki_alg_t(Algorithm(der).get()), code) << what;
    }

    const std::pair<pki_alg_t, std::string> written[] = {
        {0x40004, Sequence(der::Oid("ecdsa-with-SHA256"))},
        {0x1090000, Sequence(der::Oid("1.2.643.2.2.9") + der::Null())},
        {14, ""},
    };
    for (const auto& [code, der] : written) {
        const AlgorithmPtr algorithm = Algorithm(Sequence(der::Oid("rsaEncryption") + der::Null()));
        EXPECT_EQ(X509_ALGOR_from_pki_alg_t(algorithm.get(), code), !der.empty()) << std::hex << code;
        EXPECT_EQ(algorithm->algorithm == nullptr, der.empty());
        EXPECT_TRUE(der.empty() || libcrypto::Encode(algorithm.get(), i2d_X509_ALGOR) == der) << std::hex << code;
    }
    std::string text = "algorithm ";
    EXPECT_TRUE(X509_ALGOR_to_std_string_(Algorithm(Sequence(der::Oid("1.2.3.4"))).get(), &text));
    EXPECT_FALSE(X509_ALGOR_to_std_string_(nullptr, &text));
    EXPECT_EQ(text, "algorithm 1.2.3.4");
}

TEST_F(EngineTest, Times) {
    EXPECT_EQ(ASN1_TIME_to_time_t(nullptr), CERT_TIME_UNKNOWN);
    const auto read = [](const std::string& text, int type) {
        const StringPtr time(ASN1_STRING_type_new(type));
        ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size()));
        return CertTimeToString(ASN1_TIME_to_time_t(time.get()));
    };
    constexpr int kUtc = V_ASN1_UTCTIME;
    constexpr int kGeneralized = V_ASN1_GENERALIZEDTIME;
    EXPECT_EQ(read("491231235959Z", kUtc), "2049-12-31 23:59:59 UTC");
    EXPECT_EQ(read("500101000000Z", kUtc), "1950-01-01 00:00:00 UTC");
    EXPECT_EQ(read("300228235960Z", kUtc), "2030-02-28 23:59:60 UTC");
    EXPECT_EQ(read("300228235959Zjunk", kUtc), "2030-02-28 23:59:59 UTC");
    EXPECT_EQ(read("99991231235959Z", kGeneralized), "9999-12-31 23:59:59 UTC");
    for (const char* text : {"20500101000000.5Z", "2O500101000000Z", "491231235959Z"}) {
        EXPECT_EQ(read(text, kGeneralized), "unknown") << text;
    }
    for (const char* text : {"4912312359+0100", "4912312359Z", "491331235959Z", "491232235959Z", "491231245959Z",
                             "491231235961Z", "-91231235959Z", ""}) {
        EXPECT_EQ(read(text, kUtc), "unknown") << text;
    }
    EXPECT_EQ(read("491231235959Z", V_ASN1_VISIBLESTRING), "unknown");
}

TEST_F(EngineTest, IdentifierTexts) {
    const std::string long_arc = "2.999.340282366920938463463374607431768211456";
    const std::tuple<std::string, StringOidFormat, std::string> cases[] = {
        {"2.5.4.3", kOidNameDotted, "commonName (2.5.4.3)"},
        {"2.5.4.3", kOidName, "commonName"},
        {"2.5.4.3", kOidDotted, "2.5.4.3"},
        {"1.2.840.113549.1.9.16.3.9", kOidName, "id-alg-PWRI-KEK"},  // known to libcrypto alone
        {"1.2.3.4.5", kOidName, "1.2.3.4.5"},
        {"1.2.3.4.5", kOidNameDotted, "1.2.3.4.5"},
        {long_arc, kOidDotted, long_arc},
    };
    for (const auto& [dotted, format, expected] : cases) {
        std::string text = "=";
        EXPECT_TRUE(ASN1_OBJECT_to_std_string(ObjectPtr(OBJ_txt2obj(dotted.c_str(), 1)).get(), text, format));
        EXPECT_EQ(text, "=" + expected);
    }
    // Long ones are written whole or not at all.
    for (const std::size_t arcs : {100U, 2000U}) {
        const auto object =
            libcrypto::Decode<ASN1_OBJECT_free>(d2i_ASN1_OBJECT, der::Tlv(0x06, "\x2A" + std::string(arcs, '\x7F')));
        std::string text;
        EXPECT_EQ(ASN1_OBJECT_to_std_string(object.get(), text, kOidName), arcs == 100);
        EXPECT_EQ(text.size(), arcs == 100 ? 3 + 4 * arcs : 0);
    }
}

TEST_F(EngineTest, NumbersAreWrittenAsLibcryptoWritesThem) {
    std::string text = "kept";
    EXPECT_FALSE(ASN1_INTEGER_to_std_string(nullptr, text));
    EXPECT_EQ(text, "kept");
    for (const std::size_t length : {0U, 1U, 35U, 36U, 71U}) {
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

}  // namespace
}  // namespace engine_test
