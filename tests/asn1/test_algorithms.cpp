// Algorithm codes against the identifiers, names and numbers that libcrypto and p11-kit's headers know.
#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/ec.h>
#include <openssl/objects.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "libcrypto/libcrypto.h"
#include "platform/asn1.h"
#include "platform/asn1/alg_table.h"
#include "tests/support/der.h"

namespace {

std::string OidOfNid(int nid) {
    const ASN1_OBJECT* const object = OBJ_nid2obj(nid);
    return {reinterpret_cast<const char*>(OBJ_get0_data(object)), OBJ_length(object)};
}

template <auto kRead>
pki_alg_t CodeOf(const std::string& oid) {
    return kRead(oid.data(), oid.size());
}
constexpr auto KeyAlg = CodeOf<PKI_OID_TO_KEY_ALG>;
constexpr auto HashAlg = CodeOf<PKI_OID_TO_HASH_ALG>;
constexpr auto SignAlg = CodeOf<PKI_OID_TO_CERT_SIGN_ALG>;

/// The place of the identifier in the list, from `first` on; 0 when it is not there.
pki_alg_t PlaceIn(std::initializer_list<int> list, int nid, pki_alg_t first) {
    const auto* const found = std::find(list.begin(), list.end(), nid);
    return found == list.end() ? 0 : first + static_cast<pki_alg_t>(found - list.begin());
}
pki_alg_t KeyOf(int nid) {
    if (nid == NID_rsa || nid == NID_dsa_2) return nid == NID_rsa ? 0x1 : 0x3;
    return PlaceIn({NID_rsaEncryption, NID_rsassaPss, NID_dsa, NID_X9_62_id_ecPublicKey, NID_ED25519}, nid, 0x1) |
           PlaceIn({NID_id_GostR3410_2001, NID_id_GostR3410_2012_256, NID_id_GostR3410_2012_512}, nid, 0x10E);
}
pki_alg_t HashOf(int nid) {
    return PlaceIn({NID_sha, NID_sha1, NID_sha224, NID_sha256, NID_sha384, NID_sha512, NID_md2, NID_md5,
                    NID_id_GostR3411_94, NID_id_GostR3411_2012_256, NID_id_GostR3411_2012_512},
                   nid, 1)
           << 16;
}

/// Of a signature's hash and key, as libcrypto knows them.
pki_alg_t SignatureOf(int nid) {
    if (nid == NID_ED25519) return 0xC0005;
    if (nid == NID_rsassaPss) return 0x2;
    int hash = NID_undef;
    int key = NID_undef;
    OBJ_find_sigid_algs(nid, &hash, &key);
    const bool unknown = nid == NID_dsa_with_SHA384 || nid == NID_dsa_with_SHA512;
    return !unknown && HashOf(hash) != 0 && KeyOf(key) != 0 ? HashOf(hash) | KeyOf(key) : 0;
}

TEST(Algorithms, EveryIdentifierOfLibcryptoReadsAndWritesItsCode) {
    const std::set<int> read_only{NID_sha1WithRSA,          NID_md5WithRSA, NID_dsaWithSHA1_2,    NID_dsa_2,
                                  NID_X9_62_id_ecPublicKey, NID_rsassaPss,  NID_id_GostR3410_2001};
    std::set<pki_alg_t> writable{0xC0005};
    for (int nid = 1; nid < OBJ_new_nid(0); ++nid) {
        if (OBJ_nid2obj(nid) == nullptr || nid == NID_rsa) continue;  // of X.500, with libcrypto's sha1WithRSA
        SCOPED_TRACE(OBJ_nid2ln(nid));
        const std::string oid = OidOfNid(nid);
        const pki_alg_t key = nid == NID_rsassaPss ? 0 : KeyOf(nid);
        const pki_alg_t signature = SignatureOf(nid);
        EXPECT_EQ(KeyAlg(oid), key);
        EXPECT_EQ(HashAlg(oid), HashOf(nid));
        EXPECT_EQ(SignAlg(oid), signature);
        const pki_alg_t code = nid == NID_ED25519 ? key : key | HashOf(nid) | signature;
        if (code == 0 || read_only.contains(nid)) continue;
        writable.insert(code);
        std::string written;
        bool null_parameter = false;
        EXPECT_TRUE(asn_pki_alg_to_identifier(code, written, null_parameter));
        EXPECT_EQ(written, oid);
        EXPECT_EQ(null_parameter, (code & PKI_KEY_MASK) < 0x3 || (code & PKI_KEY_MASK) > 0x5);
    }
    EXPECT_EQ(writable.size(), 37U);
    for (pki_alg_t code = 0; code < 0x100000; code += (code & 0x1FF) == 0x1FF ? 0x10000 - 0x1FF : 1) {
        std::string oid = "untouched";
        bool null_parameter = false;
        EXPECT_EQ(asn_pki_alg_to_identifier(code, oid, null_parameter), writable.contains(code)) << std::hex << code;
        EXPECT_NE(oid == "untouched", writable.contains(code)) << std::hex << code;
    }
}

TEST(Algorithms, VariantFlagsInWriting) {
    using Good = std::set<pki_alg_t>;
    for (const auto& [code, good] :
         {std::pair{0x90000U, Good{0, 1, 2, 4}}, {0x9010E, {0, 2, 4}}, {0x40001, {0}}, {0x3, {0}}}) {
        for (pki_alg_t variant = 0; variant < 0x100; ++variant) {
            std::string oid;
            bool null_parameter = false;
            EXPECT_EQ(asn_pki_alg_to_identifier(variant << 24 | code, oid, null_parameter), good.contains(variant))
                << std::hex << code << " " << variant;
        }
    }
}

TEST(Algorithms, UnknownAndHostileIdentifiers) {
    EXPECT_EQ(PKI_OID_TO_KEY_ALG(nullptr, 0), 0U);
    const std::string rsa = OidOfNid(NID_rsaEncryption);
    EXPECT_EQ(KeyAlg(rsa.substr(0, rsa.size() - 1)), 0U) << "a prefix is another identifier";
    EXPECT_EQ(KeyAlg(rsa + '\x01'), 0U);
    EXPECT_EQ(SignAlg(std::string(100000, '\x81')), 0U);
    EXPECT_EQ(HashAlg(der::Oid("1.2.643.2.2.20").substr(2)), 0U);
}

TEST(Algorithms, NamesBothWays) {
    EXPECT_STREQ(I2S_PKI_ALG_T.find(0x40002), "RSASSA-PSS with SHA-256");
    EXPECT_STREQ(I2S_PKI_ALG_T.find(0x209010E), "GOST R 34.10-2001 with GOST R 34.11-94")
        << "variant flags are ignored";
    EXPECT_EQ(I2S_PKI_ALG_T.find(0), nullptr);
    EXPECT_STREQ(I2S_PKI_ALG_T.getString(0x70004), "unknown");
    std::set<std::string> seen;
    for (const asn1::AlgRow& row : asn1::AlgTable()) {
        if (row.name == nullptr || row.code == 0xC0005) continue;  // one name for key and signature
        EXPECT_TRUE(seen.insert(row.name).second) << row.name;
        EXPECT_EQ(PKI_ALG_FROM_NAME(row.name), row.code) << row.name;
    }
    EXPECT_EQ(PKI_ALG_FROM_NAME("rsa_WITH-sha1 "), 0x20001U);
    for (const char* unknown : {"", " ", "rs", "rsaa"}) EXPECT_EQ(PKI_ALG_FROM_NAME(unknown), 0U) << unknown;
}

TEST(Algorithms, MechanismsOfEveryKeyAndHash) {
    for (const asn1::AlgRow& row : asn1::AlgTable()) {
        SCOPED_TRACE(row.code);
        const bool key_row = (row.code & PKI_HASH_MASK) == 0 && row.code != PKI_KEY_512BIT && row.name != nullptr;
        EXPECT_EQ(row.key.sign != asn1::kNoMechanism, key_row);
        if ((row.code & PKI_HASH_MASK) == 0 || (row.code & PKI_KEY_MASK) == 0) continue;
        EXPECT_NE(asn1::FindKeyAlg(row.code), nullptr);
        EXPECT_NE(asn1::FindHashAlg(row.code), nullptr);
    }
    const std::pair<pki_alg_t, unsigned> lengths[] = {{0x80000, 16}, {0x20000, 20}, {0x30001, 28}, {0x40004, 32},
                                                      {0x50000, 48}, {0x60002, 64}, {0x9010E, 32}, {0xB0110, 64},
                                                      {0xC0005, 0},  {0x1, 0}};
    for (const auto& [code, length] : lengths) EXPECT_EQ(PKI_HASH_LENGTH(code), length) << code;
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
    EXPECT_EQ(asn1::FindCurveByBits(255), nullptr);
}

TEST(Algorithms, RsassaPssParameters) {
    // Hash and that of the mask: null is the default; salt and trailer: negative is the default.
    const std::tuple<const char*, const char*, int, int, pki_alg_t> cases[] = {
        {nullptr, nullptr, -1, -1, 0x20002},  {"SHA1", "SHA1", 20, 1, 0x20002}, {"SHA256", "SHA256", 32, -1, 0x40002},
        {"SHA512", "SHA512", 64, 1, 0x60002}, {"SHA256", "SHA256", -1, -1, 0},  // the default salt is SHA-1's
        {"SHA256", "SHA256", 0x120, -1, 0},   {"SHA256", "SHA1", 32, -1, 0},    {"SHA256", nullptr, 32, -1, 0},
        {"SHA256", "SHA256", 32, 2, 0},       {"MD5", "MD5", 16, -1, 0},        {"SHA256", "rsaEncryption", 32, -1, 0},
    };
    const auto identifier = [](const char* name) { return der::Sequence(der::Oid(name) + der::Null()); };
    const std::string pss = OidOfNid(NID_rsassaPss);
    for (const auto& [hash, mask, salt, trailer, expected] : cases) {
        std::string fields;
        if (hash != nullptr) fields += der::Explicit(0, identifier(hash));
        if (mask != nullptr) fields += der::Explicit(1, der::Sequence(der::Oid("mgf1") + identifier(mask)));
        if (salt >= 0) fields += der::Explicit(2, der::Integer(static_cast<unsigned>(salt)));
        if (trailer >= 0) fields += der::Explicit(3, der::Integer(static_cast<unsigned>(trailer)));
        const std::string parameters = der::Sequence(fields);
        EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(pss, parameters), expected) << TO_HEX_STD_STRING(parameters);
        EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(pss, parameters + '\0'), 0U);
    }
    EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(pss, der::Null()), 0U);
    EXPECT_EQ(asn_ike_signalg_t_to_pki_alg(OidOfNid(NID_sha256WithRSAEncryption), "\x05"), 0x40001U);
    EXPECT_EQ(asn_ike_signalg_t_to_pki_alg({}, {}), 0U);
}

}  // namespace
