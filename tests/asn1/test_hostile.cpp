// Every parser of DER values with input cut at each byte and with each bit flipped: nothing may be read outside the input,
// which the address sanitizer watches.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/asn1.h"
#include "platform/asn1/der.h"
#include "tests/support/der.h"
#include "tests/support/pki.h"

namespace {

bool OnExactCopy(bool (*parse)(std::string_view), std::string_view input) {
    const std::vector<char> exact(input.begin(), input.end());
    return parse({exact.data(), exact.size()});
}

template <pki_alg_t kAlg>
bool IsKey(std::string_view in) {
    return asn_spki_key_bits(kAlg, in) != 0;
}

TEST(Hostile, CutAndFlippedInput) {
    using test_pki::KeyType;
    const auto spki = [](KeyType type) { return test_pki::Spki(test_pki::MakeKey(type)); };
    const std::string sha256 = der::Sequence(der::Oid("SHA256") + der::Null());
    const std::string mgf1 = der::Sequence(der::Oid("mgf1") + sha256);
    const struct {
        const char* name;
        bool (*parse)(std::string_view);
        std::string seed;
    } targets[] = {
        {"DigestInfo",
         [](std::string_view in) {
             std::string oid;
             return asn_read_alg_from_digest(in, oid);
         },
         der::Sequence(sha256 + der::OctetString(std::string(32, 'd')))},
        {"DSA signature",
         [](std::string_view in) {
             std::string r;
             std::string s;
             return asn_read_dsa_certsign(in, r, s);
         },
         der::Sequence(der::IntegerBytes(std::string(20, 'r')) + der::IntegerBytes(std::string(20, 's')))},
        {"RSASSA-PSS parameters",
         [](std::string_view in) {
             return asn_ike_signalg_t_to_pki_alg("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0a", in) != 0;
         },
         der::Sequence(der::Explicit(0, sha256) + der::Explicit(1, mgf1) + der::Explicit(2, der::Integer(32)))},
        {"RSA key", IsKey<PKI_KEY_RSA>, spki(KeyType::kRsa1024)},
        {"DSA key", IsKey<PKI_KEY_DSA>, spki(KeyType::kDsa1024)},
        {"EC key", IsKey<PKI_KEY_EC>, spki(KeyType::kEcP256)},
        {"Ed25519 key", IsKey<PKI_KEY_ED25519>, spki(KeyType::kEd25519)},
    };
    for (const auto& target : targets) {
        SCOPED_TRACE(target.name);
        EXPECT_TRUE(OnExactCopy(target.parse, target.seed));
        std::string damaged = target.seed;
        for (std::size_t at = 0; at < damaged.size(); ++at) {
            EXPECT_FALSE(OnExactCopy(target.parse, target.seed.substr(0, at))) << "cut at " << at;
            for (int bit = 0; bit < 8; ++bit) {
                damaged[at] = static_cast<char>(target.seed[at] ^ (1 << bit));
                OnExactCopy(target.parse, damaged);
            }
            damaged[at] = target.seed[at];
        }
    }
}

TEST(Der, TagsAndLengths) {
    using namespace std::string_literals;
    const struct {
        std::string head;
        std::size_t content;
        bool good;
    } cases[] = {
        {"\x04\x7f"s, 127, true},
        {"\x04\x81\x80"s, 128, true},
        {"\x04\x82\x01\x00"s, 256, true},
        {"\x1f\x1f\x00"s, 0, true},
        {"\xbf\xff\xff\x7f\x00"s, 0, true},
        {""s, 0, false},
        {"\x04"s, 0, false},
        {"\x04\x01"s, 0, false},
        {"\x04\x80\x00\x00"s, 0, false},
        {"\x04\x81\x7f"s, 127, false},
        {"\x04\x82\x00\x80"s, 128, false},
        {"\x04\x84\x01"s, 0, false},
        {"\x04\x85\x00\x00\x00\x00\x00"s, 0, false},
        {"\x1f"s, 0, false},
        {"\x1f\x1e\x00"s, 0, false},
        {"\x1f\x80\x1f\x00"s, 0, false},
        {"\x1f\xff\xff\xff\x7f\x00"s, 0, false},
    };
    for (const auto& c : cases) {
        const std::string der = c.head + std::string(c.content, 'x');
        const std::vector<char> exact(der.begin(), der.end());
        asn1::DerReader reader({exact.data(), exact.size()});
        asn1::Tlv element{};
        EXPECT_EQ(reader.Next(element) && reader.AtEnd(), c.good) << TO_HEX_STD_STRING(c.head);
        if (!c.good) continue;
        EXPECT_EQ(element.whole, der);
        if ((element.tag & 0x1F) == 0x1F) continue;
        std::string written;
        asn1::AppendTlv(written, element.tag, element.content);
        EXPECT_EQ(written, der) << "the writer makes what the reader takes";
    }
}

}  // namespace
