// The indexes of a list answer what walking it in order would.
#include <random>
#include <ranges>

#include "tests/vendor/module_test.h"

namespace {

using namespace module_test;
using List = CM::CertStorage::X509CertsDB;

/// Certificates of a few names and key identifiers, so that every index has entries with several positions.
Strings MakePool() {
    Strings pool{"junk"};
    const auto root = MakeCa("CN=Root");
    for (int i = 0; i < 24; ++i) {
        const auto key_id = i % 4 == 0 ? KeyId::None() : KeyId::Bytes(std::string(i % 4, 'k'));
        pool.push_back(MakeCert({.subject = "CN=" + std::to_string(i % 5), .ski = key_id}, &root).der);
    }
    return pool;
}

PKCS11::TokenInfo Token(unsigned n) {
    PKCS11::TokenInfo token;
    token.id = n;
    return token;
}

/// The entries for which `is` holds.
template <typename Is>
std::vector<std::uint32_t> Positions(const List& list, Is is) {
    std::vector<std::uint32_t> positions;
    for (std::uint32_t i = 0; i < list.size(); ++i) {
        if (is(*list[i])) positions.push_back(i);
    }
    return positions;
}

void ExpectSameAsWalk(const List& list, const CM::X509Cert& like, unsigned token, const std::string& id) {
    const CertInfo& info = like.info;
    const std::string& key_id = like.ext().subjectKeyIdHex;
    const auto expect = [&](const auto& indexed, auto is) {
        EXPECT_TRUE(std::ranges::equal(indexed, Positions(list, is)));
    };
    const auto expect_first = [&](CM::X509Cert* indexed, auto is) {
        const auto positions = Positions(list, is);
        const CM::X509Cert* const walked = positions.empty() ? nullptr : list[positions[0]];
        EXPECT_EQ(CM::MutableCertRef::Adopt(indexed).get(), walked);
    };
    expect(list.WithSubject(info.subject), [&](const auto& c) { return c.info.subject == info.subject; });
    expect(list.WithSubjectKeyId(key_id),
           [&](const auto& c) { return !key_id.empty() && c.ext().subjectKeyIdHex == key_id; });
    expect_first(list.Take(Token(token), {.id = id, .value = like.rawCert}),
                 [&](const auto& c) { return c.token.id == token && c.info.id == id && c.rawCert == like.rawCert; });
    CertInfo wanted = info;
    wanted.id = id;
    expect_first(list.Find(Token(token), wanted), [&](const auto& c) {
        return c.token.id == token && c.info.serialNumber == info.serialNumber && c.info.subject == info.subject &&
               c.info.issuer == info.issuer && (id.empty() || c.info.id.empty() || c.info.id == id);
    });
}

TEST_F(ModuleTest, LookUpsEqualTheOrderedWalkOnRandomLists) {
    const Strings pool = MakePool();
    std::mt19937 random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same lists in every run
    const auto below = [&random](std::size_t n) { return static_cast<unsigned>(random() % n); };
    const Strings ids = {"", "a", "b", "c"};
    for (const std::size_t size : {0U, 1U, 2U, 40U, 300U}) {
        List list;
        for (std::size_t i = 0; i < size; ++i) {
            list.Adopt(new CM::X509Cert(Token(below(3)), {.id = ids[below(4)], .value = pool[below(pool.size())]}));
        }
        list.Reindex();
        for (const std::string& der : pool) {
            const auto like = CM::MutableCertRef::Adopt(new CM::X509Cert({}, {.value = der}));
            for (unsigned token = 0; token < 4; ++token) {
                for (const std::string& id : ids) ExpectSameAsWalk(list, *like, token, id);
            }
            EXPECT_EQ(list.PositionOf(like.get()), List::npos);
        }
        for (std::size_t i = 0; i < size; ++i) EXPECT_EQ(list.PositionOf(list[i]), i);
    }
}

}  // namespace
