// Which certificate is taken as the issuer.
#include <random>

#include "certmgr/cert_chain.h"
#include "tests/chain/chain_fixture.h"

namespace chain_test {
namespace {

/// Start of the leaf's validity; candidates are given in days around it.
constexpr std::time_t kLeafStart = kNow - 1000 * kDay;

struct Candidate {
    int from_days;
    int to_days;
    KeyType key = KeyType::kEcP256;
    const char* subject = "CN=CA";
};

Cert MakeCandidate(const Candidate& candidate) {
    return MakeCert({.key = candidate.key,
                     .subject = candidate.subject,
                     .not_before = kLeafStart + candidate.from_days * kDay,
                     .not_after = kLeafStart + candidate.to_days * kDay,
                     .ca = true,
                     .ski = KeyId::None(),
                     .aki = KeyId::None()});
}

TEST_F(ChainTest, BestIssuerInOneList) {
    constexpr KeyType kEc = KeyType::kEcP256;
    constexpr KeyType kRsa = KeyType::kRsa2048;
    constexpr KeyType kEd = KeyType::kEd25519;
    // The position that is found, -1: none.
    const auto expect = [](const char* rule, const std::vector<Candidate>& candidates, int position,
                           KeyType signed_by = KeyType::kEcP256, bool pss = false) {
        SCOPED_TRACE(rule);
        const Cert signer = MakeCert({.key = signed_by, .subject = "CN=CA", .ski = KeyId::None()});
        const auto cert =
            Object(MakeCert({.not_before = kLeafStart, .aki = KeyId::None(), .sign = {.pss = pss}}, &signer));
        CM::CertStorage::X509CertsDB list;
        for (const Candidate& candidate : candidates) list.Adopt(Object(MakeCandidate(candidate)).Detach());
        list.Reindex();
        const CM::X509Cert* expected = position < 0 ? nullptr : list[static_cast<std::size_t>(position)];
        const CM::MoreActualIssuerFinder find;
        EXPECT_EQ(find(list.certs(), cert.get(), CM::SubjectNameMatch{}).get(), expected);
        EXPECT_EQ(find(list, cert.get(), CM::SubjectNameMatch{}).get(), expected);
    };
    expect("no candidate", {}, -1);
    expect("names are compared in full", {{-10, 10, kEc, "CN=CA2"}, {-10, 10, kEc, "CN=C"}}, -1);
    expect("the latest start wins among the current", {{-30, 10}, {-10, 10}, {-20, 10}}, 1);
    expect("on a tie the first met stays", {{-30, 10}, {-10, 10}, {-10, 20}}, 1);
    expect("a start after the leaf's is not current", {{-30, 10}, {1, 10}}, 0);
    expect("a start with the leaf's is current", {{-30, 10}, {0, 10}}, 1);
    expect("an end before the leaf's start is not current", {{-30, 10}, {-10, -1}}, 0);
    expect("an end with the leaf's start is current", {{-30, 10}, {-10, 0}}, 1);
    expect("a current one replaces an earlier fallback", {{1, 10}, {-30, 10}}, 1);
    expect("without a current one the first match", {{5, 10}, {1, 10}, {-10, -5}}, 0);
    expect("another key algorithm cannot have signed", {{-10, 10, kRsa}, {-30, 10}}, 1);
    expect("nor is it a fallback", {{-10, 10, kRsa}}, -1);
    expect("RSASSA-PSS finds an RSA key", {{-10, 10}, {-10, 10, kRsa}}, 1, kRsa, true);
    expect("Ed25519 finds its own", {{-10, 10}, {-10, 10, kEd}}, 1, kEd);
}

/// A small world of names, key identifiers and validities, so that everything collides with everything.
Cert RandomCert(std::mt19937& random, const Cert& rsa_signer, const Cert& ec_signer) {
    const auto pick = [&](unsigned n) { return static_cast<int>(random() % n); };
    const auto name = [&] { return "CN=" + std::to_string(pick(6)); };
    const auto key_id = [&] {
        return pick(4) == 0 ? KeyId::None() : KeyId::Bytes(std::string(1, char('a' + pick(5))));
    };
    const std::time_t start = kLeafStart + pick(6) * kDay;
    return MakeCert({.key = pick(3) == 0 ? KeyType::kRsa1024 : KeyType::kEcP256,
                     .subject = name(),
                     .issuer_der = test_pki::NameDer(name()),
                     .not_before = start,
                     .not_after = start + pick(5) * kDay,
                     .ski = key_id(),
                     .aki = key_id()},
                    pick(3) == 0 ? &rsa_signer : &ec_signer);
}

TEST_F(ChainTest, IndexedSearchEqualsTheOrderedWalk) {
    const Cert rsa_signer = MakeCa("CN=signer", nullptr, KeyType::kRsa1024);
    const Cert ec_signer = MakeCa("CN=signer");
    std::mt19937 random(20300101);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same sets every time
    const CM::MoreActualIssuerFinder find;
    std::size_t hits = 0;
    for (const std::size_t size : {0U, 1U, 16U, 17U, 150U}) {
        CM::CertStorage::X509CertsDB indexed;
        for (std::size_t i = 0; i < size; ++i) {
            indexed.Adopt(Object(RandomCert(random, rsa_signer, ec_signer)).Detach());
        }
        indexed.Reindex();
        const std::vector<const CM::X509Cert*> walked(indexed.begin(), indexed.end());
        CM::CallersList callers(walked);
        for (int round = 0; round < 40; ++round) {
            const CM::MutableCertRef cert = Object(RandomCert(random, rsa_signer, ec_signer));
            const auto compare = [&](auto match) {
                const CM::CertRef expected = find(walked, cert.get(), match);
                hits += expected ? 1 : 0;
                EXPECT_EQ(find(indexed, cert.get(), match).get(), expected.get());
                EXPECT_EQ(find(callers, cert.get(), match).get(), expected.get());
                EXPECT_EQ(find(callers, cert.get(), match).get(), expected.get()) << "asked again";
            };
            compare(CM::SubjectNameMatch{});
            if (!cert->ext().authorityKeyIdHex.empty()) compare(CM::SubjectKeyIdMatch{});
        }
    }
    EXPECT_GT(hits, 100U) << "the sets are meant to collide";
}

TEST_F(ChainTest, SourcesAreTriedInOrder) {
    // One name, one key and one identifier, four certificates.
    const auto ca = [](const char* serial, bool is_ca) {
        return MakeCert({.subject = "CN=CA", .serial = serial, .ca = is_ca});
    };
    const Cert trusted = ca("1", true);
    const Cert received = ca("2", true);
    const Cert other = ca("3", true);
    const Cert personal = ca("4", false);
    const CM::MutableCertRef leaf = Object(MakeCert({.subject = "CN=leaf"}, &trusted));
    const Payload payload({&received});
    Store({&trusted}, {&other}, {&personal});

    // Flags, whether there is a caller's list, and the kind that is found (-1: none).
    const std::tuple<unsigned, bool, int> cases[] = {
        {7, true, kCertKindTrusted},  {6, true, kCertKindPeer},      {0, true, kCertKindPeer},
        {6, false, kCertKindOther},   {4, false, kCertKindPersonal}, {0, false, -1},
        {5, false, kCertKindTrusted},
    };
    const vpnfc::ReadLock lock(store());
    for (const auto& [flags, with_callers_list, expected] : cases) {
        SCOPED_TRACE(testing::Message() << "flags " << flags << ", list " << with_callers_list);
        const auto callers = with_callers_list ? payload.certs : std::vector<const CM::X509Cert*>();
        const auto found = [&, flags = flags](auto match) {
            const CM::MoreActualIssuerFinder finder;
            const CM::CertRef issuer = CM::FindIssuer_(finder, match, leaf.get(), callers, flags);
            return issuer ? static_cast<int>(issuer->info.kind) : -1;
        };
        EXPECT_EQ(found(CM::SubjectKeyIdMatch{}), expected);
        EXPECT_EQ(found(CM::SubjectNameMatch{}), expected);
    }
}

}  // namespace
}  // namespace chain_test
