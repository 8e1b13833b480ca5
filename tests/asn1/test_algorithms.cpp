// Algorithm codes against the identifiers, names and numbers that libcrypto and p11-kit's headers know.
#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "libcrypto/libcrypto.h"
#include "platform/asn1.h"
#include "platform/asn1/alg_table.h"

namespace {

std::string OidOfNid(int nid) {
    const ASN1_OBJECT* const object = OBJ_nid2obj(nid);
    return {reinterpret_cast<const char*>(OBJ_get0_data(object)), OBJ_length(object)};
}

std::string OidOfDotted(const char* dotted) {
    const libcrypto::Owner<ASN1_OBJECT, ASN1_OBJECT_free> object(OBJ_txt2obj(dotted, 1));
    return {reinterpret_cast<const char*>(OBJ_get0_data(object.get())), OBJ_length(object.get())};
}

pki_alg_t KeyAlg(const std::string& oid) {
    return PKI_OID_TO_KEY_ALG(oid.data(), oid.size());
}
pki_alg_t HashAlg(const std::string& oid) {
    return PKI_OID_TO_HASH_ALG(oid.data(), oid.size());
}
pki_alg_t SignAlg(const std::string& oid) {
    return PKI_OID_TO_CERT_SIGN_ALG(oid.data(), oid.size());
}

enum class Kind { kKey, kHash, kSignature };

struct Mapping {
    pki_alg_t code;
    Kind kind;
    int nid;
    bool written;
    bool null_parameter;
};

constexpr Mapping kMappings[] = {
    {0x1, Kind::kKey, NID_rsaEncryption, true, true},
    {0x3, Kind::kKey, NID_dsa, true, false},
    {0x3, Kind::kKey, NID_dsa_2, false, false},
    {0x4, Kind::kKey, NID_X9_62_id_ecPublicKey, false, false},
    {0x5, Kind::kKey, NID_ED25519, true, false},
    {0x10E, Kind::kKey, NID_id_GostR3410_2001, false, false},
    {0x10F, Kind::kKey, NID_id_GostR3410_2012_256, true, true},
    {0x110, Kind::kKey, NID_id_GostR3410_2012_512, true, true},
    {0x10000, Kind::kHash, NID_sha, true, true},
    {0x20000, Kind::kHash, NID_sha1, true, true},
    {0x30000, Kind::kHash, NID_sha224, true, true},
    {0x40000, Kind::kHash, NID_sha256, true, true},
    {0x50000, Kind::kHash, NID_sha384, true, true},
    {0x60000, Kind::kHash, NID_sha512, true, true},
    {0x70000, Kind::kHash, NID_md2, true, true},
    {0x80000, Kind::kHash, NID_md5, true, true},
    {0x90000, Kind::kHash, NID_id_GostR3411_94, true, true},
    {0xA0000, Kind::kHash, NID_id_GostR3411_2012_256, true, true},
    {0xB0000, Kind::kHash, NID_id_GostR3411_2012_512, true, true},
    {0x10001, Kind::kSignature, NID_shaWithRSAEncryption, true, true},
    {0x20001, Kind::kSignature, NID_sha1WithRSAEncryption, true, true},
    {0x20001, Kind::kSignature, NID_sha1WithRSA, false, false},
    {0x30001, Kind::kSignature, NID_sha224WithRSAEncryption, true, true},
    {0x40001, Kind::kSignature, NID_sha256WithRSAEncryption, true, true},
    {0x50001, Kind::kSignature, NID_sha384WithRSAEncryption, true, true},
    {0x60001, Kind::kSignature, NID_sha512WithRSAEncryption, true, true},
    {0x70001, Kind::kSignature, NID_md2WithRSAEncryption, true, true},
    {0x80001, Kind::kSignature, NID_md5WithRSAEncryption, true, true},
    {0x80001, Kind::kSignature, NID_md5WithRSA, false, false},
    {0x2, Kind::kSignature, NID_rsassaPss, false, false},
    {0x10003, Kind::kSignature, NID_dsaWithSHA, true, false},
    {0x20003, Kind::kSignature, NID_dsaWithSHA1, true, false},
    {0x20003, Kind::kSignature, NID_dsaWithSHA1_2, false, false},
    {0x30003, Kind::kSignature, NID_dsa_with_SHA224, true, false},
    {0x40003, Kind::kSignature, NID_dsa_with_SHA256, true, false},
    {0x20004, Kind::kSignature, NID_ecdsa_with_SHA1, true, false},
    {0x30004, Kind::kSignature, NID_ecdsa_with_SHA224, true, false},
    {0x40004, Kind::kSignature, NID_ecdsa_with_SHA256, true, false},
    {0x50004, Kind::kSignature, NID_ecdsa_with_SHA384, true, false},
    {0x60004, Kind::kSignature, NID_ecdsa_with_SHA512, true, false},
    {0xC0005, Kind::kSignature, NID_ED25519, true, false},
    {0x9010E, Kind::kSignature, NID_id_GostR3411_94_with_GostR3410_2001, true, true},
    {0xA010F, Kind::kSignature, NID_id_tc26_signwithdigest_gost3410_2012_256, true, true},
    {0xB0110, Kind::kSignature, NID_id_tc26_signwithdigest_gost3410_2012_512, true, true},
};

TEST(Algorithms, EveryIdentifierReadsAndWritesItsCode) {
    std::set<pki_alg_t> writable;
    for (const Mapping& m : kMappings) {
        SCOPED_TRACE(OBJ_nid2ln(m.nid));
        const std::string oid = OidOfNid(m.nid);
        const bool ed25519 = m.nid == NID_ED25519;
        EXPECT_EQ(KeyAlg(oid), m.kind == Kind::kKey || ed25519 ? m.code & PKI_KEY_MASK : 0);
        EXPECT_EQ(HashAlg(oid), m.kind == Kind::kHash ? m.code : 0);
        EXPECT_EQ(SignAlg(oid), m.kind == Kind::kSignature ? m.code : ed25519 ? 0xC0005 : 0);
        std::string written;
        bool null_parameter = !m.null_parameter;
        if (m.written) {
            writable.insert(m.code);
            ASSERT_TRUE(asn_pki_alg_to_identifier(m.code, written, null_parameter));
            EXPECT_EQ(written, oid);
            EXPECT_EQ(null_parameter, m.null_parameter);
        }
    }
    // Nothing else is writable, and every code that has a name here is one of these or a known exception.
    for (pki_alg_t code = 0; code < 0x100000; code += (code & 0x1FF) == 0x1FF ? 0x10000 - 0x1FF : 1) {
        std::string oid = "untouched";
        bool null_parameter = false;
        EXPECT_EQ(asn_pki_alg_to_identifier(code, oid, null_parameter), writable.contains(code)) << std::hex << code;
        if (!writable.contains(code)) {
            EXPECT_EQ(oid, "untouched");
        }
    }
}

TEST(Algorithms, VariantFlagsInWriting) {
    for (pki_alg_t variant = 0; variant < 0x100; ++variant) {
        std::string oid;
        bool null_parameter = false;
        const auto writable = [&](pki_alg_t code) {
            return asn_pki_alg_to_identifier(variant << 24 | code, oid, null_parameter);
        };
        EXPECT_EQ(writable(0x90000), variant == 0 || variant == 1 || variant == 2 || variant == 4) << variant;
        EXPECT_EQ(writable(0x9010E), variant == 0 || variant == 2 || variant == 4) << variant;
        EXPECT_EQ(writable(0x40001), variant == 0) << variant;
        EXPECT_EQ(writable(0x3), variant == 0) << variant;
    }
}

TEST(Algorithms, UnknownAndHostileIdentifiers) {
    EXPECT_EQ(PKI_OID_TO_KEY_ALG(nullptr, 0), 0U);
    const std::string rsa = OidOfNid(NID_rsaEncryption);
    for (std::size_t length = 0; length < rsa.size(); ++length) {
        EXPECT_EQ(PKI_OID_TO_KEY_ALG(rsa.data(), length), 0U) << "a prefix is another identifier";
    }
    EXPECT_EQ(KeyAlg(rsa + '\x01'), 0U);
    EXPECT_EQ(SignAlg(std::string(100000, '\x81')), 0U);
    EXPECT_EQ(KeyAlg(OidOfNid(NID_rsassaPss)), 0U) << "RSASSA-PSS has no key code";
    EXPECT_EQ(HashAlg(OidOfDotted("1.2.643.2.2.20")), 0U);
}

TEST(Algorithms, NamesBothWays) {
    const std::pair<pki_alg_t, const char*> names[] = {
        {0x1, "RSA"},
        {0x4, "ECDSA"},
        {0x40000, "SHA-256"},
        {0x40001, "RSA with SHA-256"},
        {0x50004, "ECDSA with SHA-384"},
        {0x40002, "RSASSA-PSS with SHA-256"},
        {0x10F, "GOST R 34.10-2012-256"},
        {0x9010E, "GOST R 34.10-2001 with GOST R 34.11-94"},
    };
    for (const auto& [code, name] : names) {
        EXPECT_STREQ(I2S_PKI_ALG_T.find(code), name);
        EXPECT_STREQ(I2S_PKI_ALG_T.find(code | 0x2000000), name) << "variant flags are ignored";
    }
    EXPECT_EQ(I2S_PKI_ALG_T.find(0), nullptr);
    EXPECT_EQ(I2S_PKI_ALG_T.find(0x70004), nullptr);
    EXPECT_STREQ(I2S_PKI_ALG_T.getString(0x70004), "unknown");
    EXPECT_STREQ(I2S_PKI_ALG_T.getString(0x70004, "Unknown"), "Unknown");

    std::set<std::string> seen;
    for (const asn1::AlgRow& row : asn1::AlgTable()) {
        if (row.name != nullptr && row.code != 0xC0005) {
            EXPECT_TRUE(seen.insert(row.name).second) << row.name;
            EXPECT_EQ(PKI_ALG_FROM_NAME(row.name), row.code) << row.name;
        }
    }
    EXPECT_EQ(PKI_ALG_FROM_NAME("sha256"), 0x40000U);
    EXPECT_EQ(PKI_ALG_FROM_NAME("rsa_WITH-sha1 "), 0x20001U);
    EXPECT_EQ(PKI_ALG_FROM_NAME("ed25519"), 0x5U) << "the key, not the signature";
    for (const char* unknown : {"", " ", "rs", "rsaa", "sha257"}) {
        EXPECT_EQ(PKI_ALG_FROM_NAME(unknown), 0U) << unknown;
    }
}

TEST(Algorithms, MechanismsOfEveryKeyAndHash) {
    for (const asn1::AlgRow& row : asn1::AlgTable()) {
        const bool key_row = (row.code & PKI_HASH_MASK) == 0 && row.code != PKI_KEY_512BIT && row.name != nullptr;
        EXPECT_EQ(row.key.sign != asn1::kNoMechanism, key_row) << std::hex << row.code;
        if ((row.code & PKI_HASH_MASK) != 0 && (row.code & PKI_KEY_MASK) != 0) {
            EXPECT_NE(asn1::FindKeyAlg(row.code), nullptr) << std::hex << row.code;
            EXPECT_NE(asn1::FindHashAlg(row.code), nullptr) << std::hex << row.code;
        }
    }
    const std::pair<pki_alg_t, const EVP_MD*> digests[] = {
        {0x80000, EVP_md5()},    {0x20000, EVP_sha1()},   {0x30001, EVP_sha224()},
        {0x40004, EVP_sha256()}, {0x50000, EVP_sha384()}, {0x60002, EVP_sha512()},
    };
    for (const auto& [code, md] : digests) {
        EXPECT_EQ(PKI_HASH_LENGTH(code), static_cast<unsigned>(EVP_MD_get_size(md)));
    }
    EXPECT_EQ(PKI_HASH_LENGTH(0x9010E), 32U);
    EXPECT_EQ(PKI_HASH_LENGTH(0xB0110), 64U);
    EXPECT_EQ(PKI_HASH_LENGTH(0xC0005), 0U);
    EXPECT_EQ(PKI_HASH_LENGTH(0x1), 0U);
}

TEST(Algorithms, CurvesAgainstLibcrypto) {
    for (const asn1::CurveRow& curve : asn1::CurveTable()) {
        std::string dotted;
        ASSERT_TRUE(oid_asn_to_str_(curve.oid, &dotted));
        const int nid = OBJ_txt2nid(dotted.c_str());
        const libcrypto::Owner<EC_GROUP, EC_GROUP_free> group(EC_GROUP_new_by_curve_name(nid));
        ASSERT_NE(group, nullptr) << curve.name;
        EXPECT_EQ(static_cast<unsigned>(EC_GROUP_get_degree(group.get())), curve.bits) << curve.name;
    }
    EXPECT_STREQ(asn1::FindCurveByBits(256)->name, "P-256");
    EXPECT_STREQ(asn1::FindCurveByBits(384)->name, "P-384");
    EXPECT_EQ(asn1::FindCurveByBits(255), nullptr);
}

// RSASSA-PSS parameters as libcrypto encodes them.
struct PssCase {
    int hash = NID_undef;  // undefined: the field is left out, its default applies
    int mgf_hash = NID_undef;
    int salt = -1;
    int trailer = -1;
    pki_alg_t expected = 0;
};

libcrypto::Owner<X509_ALGOR, X509_ALGOR_free> HashIdentifier(int nid) {
    libcrypto::Owner<X509_ALGOR, X509_ALGOR_free> identifier(X509_ALGOR_new());
    X509_ALGOR_set0(identifier.get(), OBJ_nid2obj(nid), V_ASN1_NULL, nullptr);
    return identifier;
}

ASN1_INTEGER* NewInteger(long value) {
    ASN1_INTEGER* const integer = ASN1_INTEGER_new();
    ASN1_INTEGER_set(integer, value);
    return integer;
}

std::string PssParameters(const PssCase& c) {
    const libcrypto::Owner<RSA_PSS_PARAMS, RSA_PSS_PARAMS_free> parameters(RSA_PSS_PARAMS_new());
    if (c.hash != NID_undef) {
        parameters->hashAlgorithm = HashIdentifier(c.hash).release();
    }
    if (c.mgf_hash != NID_undef) {
        const auto inner = HashIdentifier(c.mgf_hash);
        const std::string der = libcrypto::Encode(inner.get(), i2d_X509_ALGOR);
        ASN1_STRING* const sequence = ASN1_STRING_new();
        ASN1_STRING_set(sequence, der.data(), static_cast<int>(der.size()));
        parameters->maskGenAlgorithm = X509_ALGOR_new();
        X509_ALGOR_set0(parameters->maskGenAlgorithm, OBJ_nid2obj(NID_mgf1), V_ASN1_SEQUENCE, sequence);
    }
    if (c.salt >= 0) {
        parameters->saltLength = NewInteger(c.salt);
    }
    if (c.trailer >= 0) {
        parameters->trailerField = NewInteger(c.trailer);
    }
    return libcrypto::Encode(parameters.get(), i2d_RSA_PSS_PARAMS);
}

TEST(Algorithms, RsassaPssParameters) {
    const PssCase cases[] = {
        {NID_undef, NID_undef, -1, -1, 0x20002},
        {NID_sha1, NID_sha1, 20, 1, 0x20002},
        {NID_sha256, NID_sha256, 32, -1, 0x40002},
        {NID_sha224, NID_sha224, 28, -1, 0x30002},
        {NID_sha384, NID_sha384, 48, -1, 0x50002},
        {NID_sha512, NID_sha512, 64, 1, 0x60002},
        {NID_sha256, NID_sha256, 20, -1, 0},
        {NID_sha256, NID_sha256, -1, -1, 0},  // the default salt is SHA-1's
        {NID_sha256, NID_sha256, 0x120, -1, 0},
        {NID_sha256, NID_sha1, 32, -1, 0},
        {NID_sha256, NID_undef, 32, -1, 0},
        {NID_sha256, NID_sha256, 32, 2, 0},
        {NID_md5, NID_md5, 16, -1, 0},
        {NID_sha256, NID_rsaEncryption, 32, -1, 0},
    };
    const std::string pss = OidOfNid(NID_rsassaPss);
    for (const PssCase& c : cases) {
        const std::string parameters = PssParameters(c);
        EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(pss, parameters), c.expected) << TO_HEX_STD_STRING(parameters);
        for (std::size_t length = 0; length < parameters.size(); ++length) {
            EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(pss, parameters.substr(0, length)), 0U);
        }
        EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(pss, parameters + '\0'), 0U);
    }
    EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(pss, std::string("\x05\x00", 2)), 0U);
    EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(OidOfNid(NID_sha256WithRSAEncryption), "\x05"), 0x40001U);
    EXPECT_EQ(asn_ike_signalg_t_to_pki_alg({}, {}), 0U);
}

}  // namespace
