// The indexes of a list answer what walking it in order would.
#include <random>

#include "store_fixture.h"

namespace {

using namespace store_test;

class IndexTest : public StoreTest {
  protected:
    using List = CM::CertStorage::X509CertsDB;

    /// Certificates of a few names and key identifiers, so that every index has entries with several positions.
    static std::vector<std::string> MakePool() {
        std::vector<std::string> pool;
        const auto root = test_pki::MakeCa("CN=Root");
        for (int i = 0; i < 24; ++i) {
            const auto key_id = i % 4 == 0 ? test_pki::KeyId::None() : test_pki::KeyId::Bytes(std::string(i % 4, 'k'));
            pool.push_back(test_pki::MakeCert({.subject = "CN=" + std::to_string(i % 5), .ski = key_id}, &root).der);
        }
        pool.emplace_back("junk");
        return pool;
    }

    static PKCS11::TokenInfo Token(unsigned n) {
        PKCS11::TokenInfo token;
        token.id = n;
        return token;
    }

    /// The first entry for which `is` holds, as the list's look-ups return it.
    template <typename Is>
    static const CM::X509Cert* Walk(const List& list, Is is) {
        for (const CM::X509Cert* cert : list) {
            if (is(*cert)) return cert;
        }
        return nullptr;
    }
    template <typename Is>
    static std::vector<std::uint32_t> Positions(const List& list, Is is) {
        std::vector<std::uint32_t> positions;
        for (std::uint32_t i = 0; i < list.size(); ++i) {
            if (is(*list[i])) positions.push_back(i);
        }
        return positions;
    }
    static std::vector<std::uint32_t> ToVector(std::span<const std::uint32_t> span) {
        return {span.begin(), span.end()};
    }
    static const CM::X509Cert* Released(CM::X509Cert* cert) { return CM::MutableCertRef::Adopt(cert).get(); }

    static void ExpectSameAsWalk(const List& list, const CM::X509Cert& like, unsigned token, const std::string& id) {
        const CertInfo& info = like.info;
        const std::string& key_id = like.ext().subjectKeyIdHex;
        EXPECT_EQ(ToVector(list.WithSubject(info.subject)),
                  Positions(list, [&](const auto& c) { return c.info.subject == info.subject; }));
        EXPECT_EQ(ToVector(list.WithSubjectKeyId(key_id)),
                  Positions(list, [&](const auto& c) { return !key_id.empty() && c.ext().subjectKeyIdHex == key_id; }));
        EXPECT_EQ(Released(list.Take(Token(token), {.id = id, .value = like.rawCert})), Walk(list, [&](const auto& c) {
                      return c.token.id == token && c.info.id == id && c.rawCert == like.rawCert;
                  }));
        CertInfo wanted = info;
        wanted.id = id;
        EXPECT_EQ(Released(list.Find(Token(token), wanted)), Walk(list, [&](const auto& c) {
                      return c.token.id == token && c.info.serialNumber == info.serialNumber &&
                             c.info.subject == info.subject && c.info.issuer == info.issuer &&
                             (id.empty() || c.info.id.empty() || c.info.id == id);
                  }));
    }
};

TEST_F(IndexTest, LookUpsEqualTheOrderedWalkOnRandomLists) {
    const std::vector<std::string> pool = MakePool();
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
