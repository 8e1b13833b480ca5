// Times, hexadecimal text, identifiers, DigestInfo, DSA signatures and key lengths.
#include <gtest/gtest.h>
#include <openssl/dsa.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <limits>
#include <memory>
#include <random>
#include <string>

#include "libcrypto/libcrypto.h"
#include "platform/asn1.h"
#include "platform/asn1/oid.h"
#include "platform/base.h"
#include "tests/support/der.h"
#include "tests/support/pki.h"

namespace {

cert_time64_t Packed(int year, int month0, int day, int hour, int minute, int second) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month0;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    return CertTimeFromTm(tm);
}

TEST(Times, PackedFormAndText) {
    EXPECT_EQ(Packed(2031, 1, 28, 23, 59, 58), 0x07EF011C173B3AULL);
    EXPECT_EQ(CertTimeToString(Packed(2031, 1, 28, 23, 59, 59)), "2031-02-28 23:59:59 UTC");
    EXPECT_EQ(CertTimeToString(Packed(50, 0, 1, 0, 0, 0)), "0050-01-01 00:00:00 UTC");
    EXPECT_EQ(CertTimeToString(CERT_TIME_UNKNOWN), "unknown");
    EXPECT_EQ(Packed(-1, 0, 1, 0, 0, 0), CERT_TIME_UNKNOWN);
    EXPECT_EQ(Packed(0, 0, 1, 0, 0, 0), 0x000000000001000000ULL);
    EXPECT_NE(Packed(0xFFFFFF, 0, 1, 0, 0, 0), CERT_TIME_UNKNOWN);
    EXPECT_EQ(Packed(0x1000000, 0, 1, 0, 0, 0), CERT_TIME_UNKNOWN);
    std::tm huge{};
    huge.tm_year = std::numeric_limits<int>::max();
    EXPECT_EQ(CertTimeFromTm(huge), CERT_TIME_UNKNOWN);
}

TEST(Times, ConversionsKeepTheOrder) {
    std::mt19937_64 random(7);
    const std::time_t edges[] = {0, -1, -62167219200, 253402300799, 253402300800, 1709164800, 951782400};
    std::time_t last = -62167219200;  // year 0
    for (int i = 0; i < 2000; ++i) {
        const std::time_t t = i < 7 ? edges[i] : static_cast<std::time_t>(random() % 400000000000ULL) - 62167219200;
        const cert_time64_t packed = CertTimeFrom_time_t(t);
        EXPECT_EQ(CertTimeTo_time_t(packed), t);
        EXPECT_EQ(packed < CertTimeFrom_time_t(last), t < last);
        last = t;
    }
    EXPECT_EQ(CertTimeTo_time_t(CERT_TIME_UNKNOWN), std::numeric_limits<std::time_t>::max());
    EXPECT_EQ(CertTimeFrom_time_t(std::numeric_limits<std::time_t>::max()), CERT_TIME_UNKNOWN);
}

TEST(Times, NowFollowsTheSettableClock) {
    vpnfc::SetCurrentTimeForTesting(1893456000);
    EXPECT_EQ(CertTimeNow(), Packed(2030, 0, 1, 0, 0, 0));
    vpnfc::SetCurrentTimeForTesting(0);
    EXPECT_EQ(vpnfc::CurrentTime(), 0);
    vpnfc::SetCurrentTimeForTesting(std::nullopt);
    EXPECT_NEAR(static_cast<double>(vpnfc::CurrentTime()), static_cast<double>(std::time(nullptr)), 2);
}

TEST(Base, SecretsAreWipedWithTheirSpareCapacity) {
    std::string secret(200, 's');
    const char* const storage = secret.data();
    secret.resize(3);
    vpnfc::SecureWipe(secret);
    EXPECT_TRUE(secret.empty());
    ASSERT_EQ(secret.data(), storage);
    EXPECT_EQ(std::string_view(storage, 200), std::string(200, '\0'));

    vpnfc::SecretString from(std::string("short pin"));
    const vpnfc::SecretString to(std::move(from));
    EXPECT_EQ(to.get(), "short pin");
    EXPECT_TRUE(from.empty());  // NOLINT(bugprone-use-after-move): the point of the test
}

TEST(Hex, BothDirections) {
    const std::string bytes("\x00\x0a\xff", 3);
    EXPECT_EQ(TO_HEX_STD_STRING(bytes), "000aff");
    EXPECT_EQ(TO_HEX_STD_STRING(bytes, ' '), "00 0a ff");
    EXPECT_EQ(TO_HEX_STD_STRING(bytes, ':'), "00:0a:ff");
    EXPECT_EQ(TO_HEX_STD_STRING("", ' '), "");
    for (const char* text : {"000aff", "00 0A fF", "00:0a:ff", " 000a:ff "}) {
        std::string read;
        EXPECT_TRUE(FROM_HEX_STD_STRING(text, read)) << text;
        EXPECT_EQ(read, bytes) << text;
    }
    for (const char* text : {"0", "0g", "00-0a", "0 0", "00\n"}) {
        std::string read = "kept";
        EXPECT_FALSE(FROM_HEX_STD_STRING(text, read)) << text;
        EXPECT_EQ(read, "kept");
    }
}

/// Dotted text by libcrypto of an identifier's content.
std::string DottedByLibcrypto(const std::string& content) {
    const std::string der = der::Tlv(0x06, content);
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    const libcrypto::Owner<ASN1_OBJECT, ASN1_OBJECT_free> object(
        d2i_ASN1_OBJECT(nullptr, &at, static_cast<long>(der.size())));
    if (object == nullptr) {
        return "";
    }
    std::string text(2048, '\0');
    text.resize(static_cast<std::size_t>(OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object.get(), 1)));
    return text;
}

/// Contents with arcs of every size, first arcs of all three roots among them.
std::string RandomOid(std::mt19937& random) {
    std::string content;
    const unsigned arcs = 1 + random() % 8;
    for (unsigned arc = 0; arc < arcs; ++arc) {
        const unsigned septets = random() % 4 == 0 ? 1 + random() % 24 : 1 + random() % 3;
        for (unsigned i = 0; i < septets; ++i) {
            unsigned char septet = random() & 0x7F;
            septet = i == 0 && septets > 1 && septet == 0 ? 1 : septet;
            content.push_back(static_cast<char>(septet | (i + 1 < septets ? 0x80 : 0)));
        }
    }
    return content;
}

TEST(Oids, DottedTextAsLibcryptoWritesItAndBack) {
    std::mt19937 random(3);
    for (int i = 0; i < 5000; ++i) {
        const std::string content = RandomOid(random);
        if (content.size() > asn1::kMaxOidBytes) {
            continue;
        }
        std::string dotted = "before ";
        ASSERT_TRUE(oid_asn_to_str_(content, &dotted));
        dotted.erase(0, 7);
        EXPECT_EQ(dotted, DottedByLibcrypto(content));
        std::string back;
        EXPECT_TRUE(asn1::OidFromDotted(dotted, back)) << dotted;
        EXPECT_EQ(back, content) << dotted;
    }
}

TEST(Oids, MalformedContentAndText) {
    using namespace std::string_view_literals;
    for (const std::string_view content :
         {""sv, "\x80"sv, "\x55\x80"sv, "\x55\x80\x01"sv, "\x80\x01"sv, "\x55\x04\x83"sv}) {
        std::string dotted = "kept";
        EXPECT_FALSE(oid_asn_to_str_(content, &dotted));
        EXPECT_EQ(dotted, "kept");
    }
    std::string dotted;
    EXPECT_TRUE(oid_asn_to_str_(std::string(asn1::kMaxOidBytes - 1, '\xff') + '\x7f', &dotted));
    EXPECT_FALSE(oid_asn_to_str_(std::string(asn1::kMaxOidBytes, '\xff') + '\x7f', &dotted));
    for (const char* text : {"", "1", "1.", ".1", "3.1", "0.40", "1.40", "1.100", "1..2", "1.2.", "1.02", "01.2",
                             "1.2a", "a.2", "-1.2", "1 .2", "1.2.3 "}) {
        std::string content = "kept";
        EXPECT_FALSE(asn1::OidFromDotted(text, content)) << text;
        EXPECT_EQ(content, "kept");
    }
    EXPECT_FALSE(asn1::OidFromDotted("1.2." + std::string(100000, '1'), dotted));
}

TEST(Oids, MapNamesTheCommonOnes) {
    const struct {
        const char* dotted;
        const char* preferred;
        const char* other;
    } names[] = {
        {"2.5.4.3", "commonName", "CN"},
        {"1.2.840.113549.1.9.1", "emailAddress", ""},
        {"1.3.6.1.5.5.7.3.17", "ipsecIKE", "id-kp-ipsecIKE"},
        {"2.5.29.19", "basicConstraints", ""},
        {"1.2.643.2.2.9", "GOST R 34.11-94 (Russian hash algorithm)", "gostR3411-94"},
        {"1.2.643.2.2.3", "id-GostR3411-94-with-GostR3410-2001", "gostR3411-94-with-gostR3410-2001"},
        {"1.2.643.2.2.20", "id-GostR3410-94", "gostR3410-94"},
        {"1.2.643.7.1.1.2.2", "id-tc26-gost3411-12-256", ""},
        {"1.2.643.7.1.1.2.3", "id-tc26-gost3411-12-512", ""},
        {"1.2.643.7.1.1.1.1", "id-tc26-gost3410-12-256", ""},
        {"1.2.643.7.1.1.1.2", "id-tc26-gost3410-12-512", ""},
        {"1.2.643.7.1.1.3.2", "id-tc26-signwithdigest-gost3410-12-256", ""},
        {"1.2.643.7.1.1.3.3", "id-tc26-signwithdigest-gost3410-12-512", ""},
    };
    for (const auto& name : names) {
        std::string oid;
        ASSERT_TRUE(asn1::OidFromDotted(name.dotted, oid));
        const OidMapEntry* const entry = oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, oid.data(), oid.size());
        ASSERT_NE(entry, nullptr) << name.dotted;
        EXPECT_EQ(entry->preferred_name, name.preferred);
        EXPECT_EQ(entry->other_name, name.other);
        EXPECT_EQ(oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, oid.data(), oid.size() - 1), nullptr);
        EXPECT_EQ(oid_map_find_asn(7, oid.data(), oid.size()), nullptr) << "there is one map";
    }
    EXPECT_EQ(oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, nullptr, 0), nullptr);
    EXPECT_EQ(oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, names, 0), nullptr);
}

TEST(DigestInfo, OfHashesThatHaveOneAlone) {
    for (const pki_alg_t alg : {0x0U, 0x1U, 0x10001U, 0x90000U, 0xA010FU, 0xC0005U}) {
        std::string digest = "kept";
        EXPECT_FALSE(asn_add_alg_to_digest(alg, digest));
        EXPECT_EQ(digest, "kept");
    }
}

TEST(DigestInfo, ReadStrictly) {
    const std::string sha1 = der::Oid("1.3.14.3.2.26");
    const std::string digest = der::OctetString(std::string(20, 'd'));
    const struct {
        const char* what;
        std::string der;
        bool good;
    } cases[] = {
        {"with NULL", der::Sequence(der::Sequence(sha1 + der::Null()) + digest), true},
        {"parameters absent", der::Sequence(der::Sequence(sha1) + digest), true},
        {"trailing byte", der::Sequence(der::Sequence(sha1 + der::Null()) + digest) + '\0', false},
        {"element behind the digest", der::Sequence(der::Sequence(sha1) + digest + der::Null()), false},
        {"two parameters", der::Sequence(der::Sequence(sha1 + der::Null() + der::Null()) + digest), false},
        {"NULL with content", der::Sequence(der::Sequence(sha1 + der::Tlv(5, "x")) + digest), false},
        {"other parameter", der::Sequence(der::Sequence(sha1 + der::Sequence("")) + digest), false},
        {"no digest", der::Sequence(der::Sequence(sha1)), false},
        {"no identifier", der::Sequence(der::Sequence("") + digest), false},
        {"empty identifier", der::Sequence(der::Sequence(der::Tlv(6, "")) + digest), false},
        {"long form of a short length", "\x30\x81\x1f" + der::Sequence(sha1) + digest, false},
        {"bare digest", std::string(20, 'd'), false},
        {"empty", "", false},
    };
    for (const auto& c : cases) {
        std::string oid = "kept";
        EXPECT_EQ(asn_read_alg_from_digest(c.der, oid), c.good) << c.what;
        EXPECT_EQ(oid == "kept", !c.good) << c.what;
    }
}

TEST(DsaSignature, NumbersArePaddedToTheGroup) {
    const auto number = [](std::size_t size, unsigned char first) {
        return std::string(1, static_cast<char>(first)) + std::string(size - 1, '\x11');
    };
    const struct {
        std::size_t r, s, width;
    } sizes[] = {{20, 20, 20}, {19, 20, 20}, {1, 1, 20},   {21, 20, 28}, {28, 28, 28},
                 {29, 3, 32},  {32, 32, 32}, {33, 32, 33}, {48, 47, 48}, {66, 64, 66}};
    for (const auto& c : sizes) {
        for (const unsigned char first : {0x01, 0x7F, 0x80, 0xFF}) {
            const std::string r_in = number(c.r, first);
            const std::string s_in = number(c.s, first);
            const libcrypto::Owner<DSA_SIG, DSA_SIG_free> signature(DSA_SIG_new());
            const auto bn = [](const std::string& bytes) {
                return BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                                 nullptr);
            };
            DSA_SIG_set0(signature.get(), bn(r_in), bn(s_in));
            std::string r;
            std::string s;
            ASSERT_TRUE(asn_read_dsa_certsign(libcrypto::Encode(signature.get(), i2d_DSA_SIG), r, s));
            EXPECT_EQ(r, std::string(c.width - c.r, '\0') + r_in);
            EXPECT_EQ(s, std::string(c.width - c.s, '\0') + s_in);
        }
    }
}

TEST(DsaSignature, OtherFormsOfIntegers) {
    const std::string high = "\x80" + std::string(19, 'h');
    std::string r;
    std::string s;
    // Halves of a concatenation wrapped as they stand: leading zero bytes kept or lacking.
    EXPECT_TRUE(asn_read_dsa_certsign(
        der::Sequence(der::IntegerBytes(high) + der::IntegerBytes(std::string(19, '\0') + 's')), r, s));
    EXPECT_EQ(r, high);
    EXPECT_EQ(s, std::string(19, '\0') + 's');
    EXPECT_TRUE(asn_read_dsa_certsign(der::Sequence(der::Integer(0) + der::Integer(0)), r, s));
    EXPECT_EQ(r, std::string(20, '\0'));
    r = "kept";
    const std::string one = der::Integer(1);
    for (const std::string& bad :
         {std::string(), one + one, der::Sequence(one), der::Sequence(one + one + one), der::Sequence(one + one) + '\0',
          der::Sequence(one + der::IntegerBytes("")), der::Sequence(one + der::OctetString("1")), der::Set(one + one),
          der::Sequence(one + der::IntegerBytes(std::string(133, 'x')))}) {
        EXPECT_FALSE(asn_read_dsa_certsign(bad, r, s)) << TO_HEX_STD_STRING(bad);
    }
    EXPECT_EQ(r, "kept");
}

TEST(KeyBits, AsLibcryptoCountsThem) {
    using test_pki::KeyType;
    const std::pair<KeyType, pki_alg_t> keys[] = {
        {KeyType::kRsa1024, PKI_KEY_RSA}, {KeyType::kRsa2048, PKI_KEY_RSA}, {KeyType::kEcP256, PKI_KEY_EC},
        {KeyType::kEcP384, PKI_KEY_EC},   {KeyType::kEcP521, PKI_KEY_EC},   {KeyType::kEd25519, PKI_KEY_ED25519},
        {KeyType::kDsa1024, PKI_KEY_DSA},
    };
    for (const auto& [type, alg] : keys) {
        const test_pki::Key key = test_pki::MakeKey(type);
        const std::string spki = test_pki::Spki(key);
        unsigned expected = static_cast<unsigned>(EVP_PKEY_get_bits(key.get()));
        if (alg == PKI_KEY_ED25519) {
            expected = 256;
        } else if (alg == PKI_KEY_DSA) {
            BIGNUM* y = nullptr;
            ASSERT_EQ(EVP_PKEY_get_bn_param(key.get(), "pub", &y), 1);
            expected = static_cast<unsigned>(BN_num_bits(y));
            BN_free(y);
        }
        EXPECT_EQ(asn_spki_key_bits(alg, spki), expected);
        EXPECT_EQ(asn_spki_key_bits(alg | 0x2000000, spki), expected) << "variant flags are ignored";
        EXPECT_EQ(asn_spki_key_bits(alg | PKI_HASH_SHA1, spki), 0U) << "not a key code";
        EXPECT_EQ(asn_spki_key_bits(alg == PKI_KEY_RSA ? PKI_KEY_EC : PKI_KEY_RSA, spki), 0U) << "another key";
        EXPECT_EQ(asn_spki_key_bits(alg, spki + '\0'), 0U);
    }
    const std::pair<pki_alg_t, unsigned> fixed[] = {{14, 512}, {270, 512}, {271, 512}, {272, 1024}, {0, 0}, {6, 0}};
    for (const auto& [alg, bits] : fixed) {
        EXPECT_EQ(asn_spki_key_bits(alg, "no key"), bits);
    }
}

TEST(KeyBits, OddRsaModuli) {
    using namespace std::string_literals;
    const std::pair<std::string, unsigned> moduli[] = {
        {"\x01"s, 1}, {"\x7f"s, 7}, {"\x00\x80"s, 8}, {"\x01\x00"s, 9},
        {""s, 0},     {"\x00"s, 0}, {"\x80"s, 8},     {"\x00\x7f"s, 7},
    };
    for (const auto& [modulus, bits] : moduli) {
        const std::string key = der::Sequence(der::IntegerBytes(modulus) + der::Integer(65537));
        const std::string spki =
            der::Sequence(der::Sequence(der::Oid("rsaEncryption") + der::Null()) + der::BitString(key));
        EXPECT_EQ(asn_spki_key_bits(PKI_KEY_RSA, spki), bits) << TO_HEX_STD_STRING(modulus);
    }
    const std::string unused_bits = der::Sequence(der::Sequence(der::Oid("rsaEncryption") + der::Null()) +
                                                  der::BitString(der::Sequence(der::Integer(5) + der::Integer(3)), 1));
    EXPECT_EQ(asn_spki_key_bits(PKI_KEY_RSA, unused_bits), 0U);
}

}  // namespace
