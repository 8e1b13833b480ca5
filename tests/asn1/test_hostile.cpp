// Every parser of DER values with input cut at each byte and with each bit flipped: nothing may be read outside the input,
// which the address sanitizer watches.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/asn1.h"
#include "platform/asn1/der.h"
#include "tests/support/der.h"
#include "tests/support/pki.h"

namespace {

using namespace std::string_literals;
using Parse = std::function<bool(std::string_view)>;

bool OnExactCopy(const Parse& parse, std::string_view input) {
    const std::vector<char> exact(input.begin(), input.end());
    return parse({exact.data(), exact.size()});
}

Parse IsKey(pki_alg_t alg) {
    return [alg](std::string_view in) { return asn_spki_key_bits(alg, in) != 0; };
}

TEST(Hostile, CutAndFlippedInput) {
    using test_pki::KeyType;
    const auto spki = [](KeyType type) { return test_pki::Spki(test_pki::MakeKey(type)); };
    const std::string sha256 = der::Sequence(der::Oid("SHA256") + der::Null());
    const std::string mgf1 = der::Sequence(der::Oid("mgf1") + sha256);
    const std::string pss = "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0a";
    const std::string number = der::IntegerBytes(std::string(20, 'n'));
    const std::tuple<const char*, Parse, std::string> targets[] = {
        {"DigestInfo", [oid = ""s](auto in) mutable { return asn_read_alg_from_digest(in, oid); },
         der::Sequence(sha256 + der::OctetString(std::string(32, 'd')))},
        {"DSA signature", [r = ""s, s = ""s](auto in) mutable { return asn_read_dsa_certsign(in, r, s); },
         der::Sequence(number + number)},
        {"RSASSA-PSS parameters", [&](auto in) { return asn_ike_signalg_t_to_pki_alg(pss, in) != 0; },
         der::Sequence(der::Explicit(0, sha256) + der::Explicit(1, mgf1) + der::Explicit(2, der::Integer(32)))},
        {"RSA key", IsKey(PKI_KEY_RSA), spki(KeyType::kRsa1024)},
        {"DSA key", IsKey(PKI_KEY_DSA), spki(KeyType::kDsa1024)},
        {"EC key", IsKey(PKI_KEY_EC), spki(KeyType::kEcP256)},
        {"Ed25519 key", IsKey(PKI_KEY_ED25519), spki(KeyType::kEd25519)},
    };
    for (const auto& [name, parse, seed] : targets) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(OnExactCopy(parse, seed));
        std::string damaged = seed;
        for (std::size_t at = 0; at < damaged.size(); ++at) {
            EXPECT_FALSE(OnExactCopy(parse, seed.substr(0, at))) << "cut at " << at;
            for (int bit = 0; bit < 8; ++bit) {
                damaged[at] = static_cast<char>(seed[at] ^ (1 << bit));
                OnExactCopy(parse, damaged);
            }
            damaged[at] = seed[at];
        }
    }
}

TEST(Der, TagsAndLengths) {
    const auto x = [](std::size_t count) { return std::string(count, 'x'); };
    const auto read = [](const std::string& der, asn1::Tlv& element) {
        return OnExactCopy(
            [&](std::string_view in) {
                asn1::DerReader reader(in);
                const bool good = reader.Next(element) && reader.AtEnd();
                return good && element.whole == der;
            },
            der);
    };
    asn1::Tlv element{};
    for (const std::string& der : {"\x04\x7f" + x(127), "\x04\x81\x80" + x(128), "\x04\x82\x01\x00"s + x(256),
                                   "\x1f\x1f\x00"s, "\xbf\xff\xff\x7f\x00"s}) {
        EXPECT_TRUE(read(der, element)) << TO_HEX_STD_STRING(der);
        if (der[0] != 4) continue;
        std::string written;
        asn1::AppendTlv(written, element.tag, x(element.content.size()));
        EXPECT_EQ(written, der) << "the writer makes what the reader takes";
    }
    for (const std::string& der : {""s, "\x04"s, "\x04\x01"s, "\x04\x80\x00\x00"s, "\x04\x81\x7f" + x(127),
                                   "\x04\x82\x00\x80"s + x(128), "\x04\x84\x01"s, "\x04\x85\x00\x00\x00\x00\x00"s,
                                   "\x1f"s, "\x1f\x1e\x00"s, "\x1f\x80\x1f\x00"s, "\x1f\xff\xff\xff\x7f\x00"s}) {
        EXPECT_FALSE(read(der, element)) << TO_HEX_STD_STRING(der);
    }
}

}  // namespace
