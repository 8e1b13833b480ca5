// Times, hexadecimal text, identifiers, DigestInfo, DSA signatures and key lengths.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <limits>
#include <random>
#include <string>

#include "platform/asn1.h"
#include "platform/asn1/oid.h"
#include "platform/base.h"
#include "tests/support/der.h"
#include "tests/support/pki.h"

namespace {

cert_time64_t Packed(int year, int month0, int day, int hour = 0, int minute = 0, int second = 0) {
    return CertTimeFromTm({.tm_sec = second,
                           .tm_min = minute,
                           .tm_hour = hour,
                           .tm_mday = day,
                           .tm_mon = month0,
                           .tm_year = year - 1900});
}

TEST(Times, PackedFormAndText) {
    EXPECT_EQ(Packed(2031, 1, 28, 23, 59, 58), 0x07EF011C173B3AULL);
    EXPECT_EQ(CertTimeToString(Packed(2031, 1, 28, 23, 59, 59)), "2031-02-28 23:59:59 UTC");
    EXPECT_EQ(CertTimeToString(CERT_TIME_UNKNOWN), "unknown");
    EXPECT_NE(Packed(0xFFFFFF, 0, 1), CERT_TIME_UNKNOWN);
    for (const int year : {-1, 0x1000000}) EXPECT_EQ(Packed(year, 0, 1), CERT_TIME_UNKNOWN);
    EXPECT_EQ(CertTimeFromTm({.tm_year = std::numeric_limits<int>::max()}), CERT_TIME_UNKNOWN);
}

TEST(Times, ConversionsKeepTheOrder) {
    cert_time64_t last = 0;
    for (const std::time_t t : {-62167219200, -1L, 0L, 951782400L, 1709164800L, 253402300799L, 253402300800L}) {
        const cert_time64_t packed = CertTimeFrom_time_t(t);
        EXPECT_EQ(CertTimeTo_time_t(packed), t);
        EXPECT_LT(last, packed);
        last = packed;
    }
    EXPECT_EQ(CertTimeTo_time_t(CERT_TIME_UNKNOWN), std::numeric_limits<std::time_t>::max());
    EXPECT_EQ(CertTimeFrom_time_t(std::numeric_limits<std::time_t>::max()), CERT_TIME_UNKNOWN);
}

TEST(Times, NowFollowsTheSettableClock) {
    vpnfc::SetCurrentTimeForTesting(1893456000);
    EXPECT_EQ(CertTimeNow(), Packed(2030, 0, 1));
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
    vpnfc::SecretString to(std::string(1U << 20, 's'));
    to = std::move(from);
    EXPECT_EQ(to.get(), "short pin");
    EXPECT_LT(to.get().capacity(), 100U) << "wiped at its full size ever after";
    EXPECT_TRUE(from.empty());  // NOLINT(bugprone-use-after-move): the point of the test
}

TEST(Hex, BothDirections) {
    const std::string bytes("\x00\x0a\xff", 3);
    EXPECT_EQ(TO_HEX_STD_STRING(bytes), "000aff");
    EXPECT_EQ(TO_HEX_STD_STRING(bytes, ':'), "00:0a:ff");
    std::string read;
    EXPECT_TRUE(FROM_HEX_STD_STRING(" 000a:Ff ", read));
    EXPECT_EQ(read, bytes);
    for (const char* text : {"0", "0g", "00-0a", "0 0", "00\n"}) EXPECT_FALSE(FROM_HEX_STD_STRING(text, read)) << text;
    EXPECT_EQ(read, bytes) << "kept";
}

TEST(Oids, DottedTextAsLibcryptoWritesItAndBack) {
    std::mt19937 random(3);
    for (int i = 0; i < 5000; ++i) {
        // Arcs of up to 24 septets, after first ones of all three roots.
        std::string dotted = std::to_string(i % 3) + '.' + std::to_string(random() % 40);
        std::string content;
        for (unsigned arc = random() % 8; arc > 0; --arc) {
            dotted += '.' + std::to_string(1 + random() % 9);
            for (unsigned digit = random() % (arc == 1 ? 48 : 8); digit > 0; --digit)
                dotted += std::to_string(random() % 10);
        }
        const std::string expected = der::Oid(dotted).substr(2);
        EXPECT_TRUE(asn1::OidFromDotted(dotted, content)) << dotted;
        EXPECT_EQ(content, expected) << dotted;
        std::string back = "before ";
        ASSERT_TRUE(oid_asn_to_str_(expected, &back));
        EXPECT_EQ(back, "before " + dotted);
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
    for (const char* text :
         {"", "1", "1.", ".1", "3.1", "0.40", "1.40", "1..2", "1.02", "01.2", "1.2a", "-1.2", "1 .2"}) {
        std::string content = "kept";
        EXPECT_FALSE(asn1::OidFromDotted(text, content)) << text;
        EXPECT_EQ(content, "kept");
    }
    EXPECT_FALSE(asn1::OidFromDotted("1.2." + std::string(100000, '1'), dotted));
}

TEST(Oids, MapNamesTheCommonOnes) {
    const std::array<const char*, 3> names[] = {
        {"2.5.4.3", "commonName", "CN"},
        {"1.3.6.1.5.5.7.3.17", "ipsecIKE", "id-kp-ipsecIKE"},
        {"2.5.29.19", "basicConstraints", ""},
        {"1.2.643.2.2.9", "GOST R 34.11-94 (Russian hash algorithm)", "gostR3411-94"},
        {"1.2.643.7.1.1.3.2", "id-tc26-signwithdigest-gost3410-12-256", ""},
    };
    for (const auto& [dotted, preferred, other] : names) {
        const std::string oid = der::Oid(dotted).substr(2);
        const OidMapEntry* const entry = oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, oid.data(), oid.size());
        ASSERT_NE(entry, nullptr) << dotted;
        EXPECT_EQ(entry->preferred_name, preferred);
        EXPECT_EQ(entry->other_name, other);
        EXPECT_EQ(oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, oid.data(), oid.size() - 1), nullptr);
        EXPECT_EQ(oid_map_find_asn(7, oid.data(), oid.size()), nullptr) << "there is one map";
    }
    EXPECT_EQ(oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, nullptr, 0), nullptr);
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
    const auto info = [&](const std::string& parameters) {
        return der::Sequence(der::Sequence(sha1 + parameters) + digest);
    };
    const auto reads = [](const std::string& der) {
        std::string oid = "kept";
        const bool good = asn_read_alg_from_digest(der, oid);
        EXPECT_EQ(oid == "kept", !good);
        return good;
    };
    EXPECT_TRUE(reads(info(der::Null())) && reads(info("")));
    const std::pair<const char*, std::string> bad[] = {
        {"trailing byte", info(der::Null()) + '\0'},
        {"element behind the digest", der::Sequence(der::Sequence(sha1) + digest + der::Null())},
        {"two parameters", info(der::Null() + der::Null())},
        {"NULL with content", info(der::Tlv(5, "x"))},
        {"other parameter", info(der::Sequence(""))},
        {"no digest", der::Sequence(der::Sequence(sha1))},
        {"no identifier", der::Sequence(der::Sequence("") + digest)},
    };
    for (const auto& [what, der] : bad) EXPECT_FALSE(reads(der)) << what;
}

TEST(DsaSignature, NumbersArePaddedToTheGroup) {
    using Sizes = std::array<std::size_t, 3>;
    for (const auto& [r_size, s_size, width] :
         {Sizes{20, 20, 20}, Sizes{1, 19, 20}, Sizes{21, 20, 28}, Sizes{29, 3, 32}, Sizes{33, 32, 33},
          Sizes{48, 47, 48}, Sizes{66, 64, 66}}) {
        for (const char* first : {"\x01", "\x80"}) {
            const std::string r_in = first + std::string(r_size - 1, '\x11');
            const std::string s_in = first + std::string(s_size - 1, '\x11');
            const std::string sign(*first == '\x01' ? 0 : 1, '\0');
            std::string r;
            std::string s;
            ASSERT_TRUE(asn_read_dsa_certsign(
                der::Sequence(der::IntegerBytes(sign + r_in) + der::IntegerBytes(sign + s_in)), r, s));
            EXPECT_EQ(r, std::string(width - r_size, '\0') + r_in);
            EXPECT_EQ(s, std::string(width - s_size, '\0') + s_in);
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
    const std::pair<KeyType, pki_alg_t> keys[] = {{KeyType::kRsa1024, PKI_KEY_RSA},
                                                  {KeyType::kEcP384, PKI_KEY_EC},
                                                  {KeyType::kEcP521, PKI_KEY_EC},
                                                  {KeyType::kEd25519, PKI_KEY_ED25519},
                                                  {KeyType::kDsa1024, PKI_KEY_DSA}};
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
    for (const auto& [alg, bits] : fixed) EXPECT_EQ(asn_spki_key_bits(alg, "no key"), bits);
}

TEST(KeyBits, OddRsaModuli) {
    using namespace std::string_literals;
    const auto bits = [](const std::string& modulus, std::uint8_t unused = 0) {
        const std::string key = der::Sequence(der::IntegerBytes(modulus) + der::Integer(65537));
        const std::string algorithm = der::Sequence(der::Oid("rsaEncryption") + der::Null());
        return asn_spki_key_bits(PKI_KEY_RSA, der::Sequence(algorithm + der::BitString(key, unused)));
    };
    const std::pair<std::string, unsigned> moduli[] = {{"\x7f"s, 7}, {"\x00\x80"s, 8}, {""s, 0},
                                                       {"\x00"s, 0}, {"\x80"s, 8},     {"\x00\x7f"s, 7}};
    for (const auto& [modulus, expected] : moduli) EXPECT_EQ(bits(modulus), expected) << TO_HEX_STD_STRING(modulus);
    EXPECT_EQ(bits("\x7f", 1), 0U) << "unused bits";
}

}  // namespace
