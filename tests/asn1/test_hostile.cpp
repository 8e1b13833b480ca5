// Every parser of DER values with input cut at each byte and with each bit flipped, and with random bytes: nothing may
// be read outside the input, which the address sanitizer watches, and outputs change only on success.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "platform/asn1.h"
#include "platform/asn1/der.h"
#include "tests/support/der.h"
#include "tests/support/pki.h"

namespace {

/// Runs the parser over an exact copy on the heap.
using Parser = std::function<bool(std::string_view)>;

struct Target {
    const char* name;
    Parser parse;
    std::vector<std::string> seeds;
    bool whole_element = true;  // a part of the input is never good
};

const std::string kPssOid = "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0a";

std::vector<Target> Targets() {
    using test_pki::KeyType;
    const auto key_bits = [](pki_alg_t alg) {
        return [alg](std::string_view in) { return asn_spki_key_bits(alg, in) != 0; };
    };
    const auto spki = [](KeyType type) { return test_pki::Spki(test_pki::MakeKey(type)); };
    const std::string sha256 = der::Sequence(der::Oid("2.16.840.1.101.3.4.2.1") + der::Null());
    const std::string mgf1 = der::Sequence(der::Oid("1.2.840.113549.1.1.8") + sha256);
    return {
        {"DigestInfo",
         [](std::string_view in) {
             std::string oid = "kept";
             const bool good = asn_read_alg_from_digest(in, oid);
             EXPECT_TRUE(good || oid == "kept");
             return good;
         },
         {der::Sequence(sha256 + der::OctetString(std::string(32, 'd')))}},
        {"DSA signature",
         [](std::string_view in) {
             std::string r = "kept";
             std::string s = "kept";
             const bool good = asn_read_dsa_certsign(in, r, s);
             EXPECT_TRUE(good ? r.size() == s.size() && r.size() >= 20 : r + s == "keptkept");
             return good;
         },
         {der::Sequence(der::IntegerBytes(std::string(20, 'r')) + der::IntegerBytes(std::string(20, 's')))}},
        {"RSA key", key_bits(PKI_KEY_RSA), {spki(KeyType::kRsa1024)}},
        {"DSA key", key_bits(PKI_KEY_DSA), {spki(KeyType::kDsa1024)}},
        {"EC key", key_bits(PKI_KEY_EC), {spki(KeyType::kEcP256)}},
        {"Ed25519 key", key_bits(PKI_KEY_ED25519), {spki(KeyType::kEd25519)}},
        {"RSASSA-PSS parameters",
         [](std::string_view in) { return asn_ike_signalg_t_to_pki_alg(kPssOid, in) != 0; },
         {der::Sequence(der::Explicit(0, sha256) + der::Explicit(1, mgf1) + der::Explicit(2, der::Integer(32)))}},
        {"identifier",
         [](std::string_view in) {
             std::string text;
             PKI_OID_TO_KEY_ALG(in.data(), in.size());
             PKI_OID_TO_HASH_ALG(in.data(), in.size());
             PKI_OID_TO_CERT_SIGN_ALG(in.data(), in.size());
             oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, in.data(), in.size());
             return oid_asn_to_str_(in, &text);
         },
         {kPssOid},
         false},
        {"hexadecimal text",
         [](std::string_view in) {
             std::string bytes;
             return FROM_HEX_STD_STRING(in, bytes);
         },
         {"00 0a:ff"},
         false},
    };
}

bool OnExactCopy(const Parser& parse, std::string_view input) {
    const std::vector<char> exact(input.begin(), input.end());
    return parse({exact.data(), exact.size()});
}

TEST(Hostile, CutAndFlippedInput) {
    for (const Target& target : Targets()) {
        SCOPED_TRACE(target.name);
        for (const std::string& seed : target.seeds) {
            EXPECT_TRUE(OnExactCopy(target.parse, seed));
            for (std::size_t length = 0; length < seed.size(); ++length) {
                const bool good = OnExactCopy(target.parse, seed.substr(0, length));
                EXPECT_FALSE(good && target.whole_element) << "cut at " << length;
            }
            std::string damaged = seed;
            for (std::size_t bit = 0; bit < seed.size() * 8; ++bit) {
                damaged[bit / 8] = static_cast<char>(seed[bit / 8] ^ (1 << bit % 8));
                OnExactCopy(target.parse, damaged);
                damaged[bit / 8] = seed[bit / 8];
            }
        }
    }
}

TEST(Der, TagsAndLengths) {
    using namespace std::string_literals;
    const struct {
        std::string der;
        bool good;
    } cases[] = {
        {"\x04\x00"s, true},
        {"\x04\x7f"s + std::string(127, 'x'), true},
        {"\x04\x81\x80"s + std::string(128, 'x'), true},
        {"\x04\x82\x01\x00"s + std::string(256, 'x'), true},
        {"\x1f\x1f\x00"s, true},
        {"\x1f\x81\x00\x00"s, true},
        {"\xbf\xff\xff\x7f\x00"s, true},
        {""s, false},
        {"\x04"s, false},
        {"\x04\x01"s, false},
        {"\x04\x80\x00\x00"s, false},
        {"\x04\x81\x7f"s + std::string(127, 'x'), false},
        {"\x04\x82\x00\x80"s + std::string(128, 'x'), false},
        {"\x04\x84\x01"s, false},
        {"\x04\x85\x00\x00\x00\x00\x00"s, false},
        {"\x04\xff"s + std::string(200, 'x'), false},
        {"\x1f"s, false},
        {"\x1f\x1e\x00"s, false},
        {"\x1f\x80\x1f\x00"s, false},
        {"\x1f\xff\xff\xff\x7f\x00"s, false},
    };
    for (const auto& c : cases) {
        const std::vector<char> exact(c.der.begin(), c.der.end());
        asn1::DerReader reader({exact.data(), exact.size()});
        asn1::Tlv element{};
        EXPECT_EQ(reader.Next(element) && reader.AtEnd(), c.good) << TO_HEX_STD_STRING(c.der).substr(0, 20);
        if (c.good) {
            EXPECT_EQ(element.whole, c.der);
            if ((element.tag & 0x1F) != 0x1F) {
                std::string written;
                asn1::AppendTlv(written, element.tag, element.content);
                EXPECT_EQ(written, c.der) << "the writer makes what the reader takes";
            }
        }
    }
}

}  // namespace
