// Chains: how they are built, where they end and what that is worth.
#include <set>

#include "certmgr/chain.h"
#include "tests/chain/chain_fixture.h"

namespace chain_test {
namespace {

/// Subjects of a built chain, leaf first, and the result.
struct Built {
    ChainBuildResult result = ChainIncomplete;
    Strings subjects;

    bool operator==(const Built&) const = default;
};

void PrintTo(const Built& built, std::ostream* out) {
    *out << "result " << built.result << ":";
    for (const std::string& subject : built.subjects) *out << " " << subject;
}

Built Build(const CM::X509Cert* leaf, const Payload& payload, unsigned flags) {
    OwnedChain<CM::X509Cert> chain;
    chain.certs.push_back(const_cast<CM::X509Cert*>(CM::CertRef(leaf).Detach()));
    Built built;
    built.result = CMT_BuildCertChain(chain.certs, payload.list(), flags);
    built.subjects = chain.Subjects();
    return built;
}

constexpr unsigned kPeerFlags = SearchTrusted | SearchOther;
constexpr unsigned kAllFlags = kPeerFlags | SearchPersonal;

class BuildTest : public ChainTest {
  protected:
    Built BuildObject(const Cert& leaf, const Payload& payload = Payload(), unsigned flags = kAllFlags) {
        return Build(Object(leaf).get(), payload, flags);
    }

    const Cert root_ = MakeCa("CN=root");
    const Cert upper_ = MakeCa("CN=upper", &root_, KeyType::kEcP256, 1);
    const Cert lower_ = MakeCa("CN=lower", &upper_, KeyType::kEcP256, 2);
    const Cert leaf_ = test_pki::MakeLeaf("CN=leaf", lower_, KeyType::kEcP256, 3);
};

struct ResultCase {
    const char* rule;
    std::vector<const Cert*> trusted;
    std::vector<const Cert*> other;
    std::vector<const Cert*> received;
    Built expected;
    unsigned flags = kAllFlags;
};

TEST_F(BuildTest, ResultsOfTheEnds) {
    const ResultCase cases[] = {
        {"no issuer at all", {&root_}, {}, {}, {ChainIncomplete, {"CN=leaf"}}},
        {"an issuer missing on the way", {&root_}, {}, {&lower_}, {ChainIncomplete, {"CN=leaf", "CN=lower"}}},
        {"all the way to a trusted root",
         {&root_},
         {&upper_},
         {&lower_},
         {ChainTrusted, {"CN=leaf", "CN=lower", "CN=upper", "CN=root"}}},
        {"a root that nobody trusts",
         {},
         {&root_, &upper_},
         {&lower_},
         {ChainNotTrusted, {"CN=leaf", "CN=lower", "CN=upper", "CN=root"}}},
        {"ends at a trusted intermediate",
         {&upper_},
         {},
         {&lower_},
         {ChainEndsAtTrusted, {"CN=leaf", "CN=lower", "CN=upper"}}},
        {"what stands above the first trusted one must be trusted",
         {&upper_},
         {&root_},
         {&lower_},
         {ChainNotTrusted, {"CN=leaf", "CN=lower", "CN=upper", "CN=root"}}},
        {"trusted from the first trusted one to the end",
         {&upper_, &root_},
         {},
         {&lower_},
         {ChainTrusted, {"CN=leaf", "CN=lower", "CN=upper", "CN=root"}}},
        {"a trusted one below one that is not",
         {&lower_, &root_},
         {&upper_},
         {},
         {ChainNotTrusted, {"CN=leaf", "CN=lower", "CN=upper", "CN=root"}}},
        {"stops at the first trusted one when asked to",
         {&upper_},
         {&root_},
         {&lower_},
         {ChainTrusted, {"CN=leaf", "CN=lower", "CN=upper"}},
         kAllFlags | StopAtTrusted},
        {"the other list is left out without its flag",
         {&root_},
         {&lower_, &upper_},
         {},
         {ChainIncomplete, {"CN=leaf"}},
         SearchTrusted},
        {"the trusted list is left out without its flag",
         {&root_},
         {&lower_, &upper_},
         {},
         {ChainIncomplete, {"CN=leaf", "CN=lower", "CN=upper"}},
         SearchOther},
    };
    for (const ResultCase& c : cases) {
        SCOPED_TRACE(c.rule);
        token_ = vendor_host::AddToken(c.rule);
        Store(c.trusted, c.other);
        EXPECT_EQ(BuildObject(leaf_, Payload(c.received), c.flags), c.expected);
        vendor_host::RemoveToken(*token_);
    }
}

TEST_F(BuildTest, SelfSignedLeafIsAChainOfOne) {
    for (const auto& [kind, result] : {std::pair{kCertKindTrusted, ChainTrusted}, {kCertKindOther, ChainNotTrusted}}) {
        EXPECT_EQ(Build(Object(root_, kind).get(), Payload(), kAllFlags), (Built{result, {"CN=root"}}));
    }
    std::vector<CM::X509Cert*> empty;
    EXPECT_EQ(CMT_BuildCertChain(empty, {}, kAllFlags), ChainNotTrusted);
}

TEST_F(BuildTest, KeyIdentifierComesBeforeNameInAllSources) {
    // A renamed authority in the last source has the key identifier, one of the right name stands in the first.
    const Cert renamed = MakeCert({.subject = "CN=renamed", .ski = KeyId::Bytes("id")});
    const Cert named = MakeCert({.subject = "CN=named", .ca = true, .ski = KeyId::Bytes("other id")});
    const Cert by_id =
        MakeCert({.subject = "CN=leaf", .issuer_der = named.subject_der, .aki = KeyId::Bytes("id")}, &named);
    const Cert by_name =
        MakeCert({.subject = "CN=leaf", .issuer_der = named.subject_der, .aki = KeyId::Bytes("nobody's")}, &named);
    const Cert without =
        MakeCert({.subject = "CN=leaf", .issuer_der = named.subject_der, .aki = KeyId::None()}, &named);
    Store({&named}, {}, {&renamed});
    EXPECT_EQ(BuildObject(by_id), (Built{ChainNotTrusted, {"CN=leaf", "CN=renamed"}}));
    EXPECT_EQ(BuildObject(by_name), (Built{ChainTrusted, {"CN=leaf", "CN=named"}}));
    EXPECT_EQ(BuildObject(without), (Built{ChainTrusted, {"CN=leaf", "CN=named"}}));
    // A personal certificate is never an issuer of what a peer sends.
    EXPECT_EQ(BuildObject(by_id, Payload(), kPeerFlags), (Built{ChainTrusted, {"CN=leaf", "CN=named"}}));
}

TEST_F(BuildTest, ChainWithACycleKeepsTheIssuerThatClosesIt) {
    const Cert x = MakeCert(
        {.subject = "CN=X", .issuer_der = test_pki::NameDer("CN=Y"), .ski = KeyId::None(), .aki = KeyId::None()});
    const Cert y = MakeCert(
        {.subject = "CN=Y", .issuer_der = test_pki::NameDer("CN=X"), .ski = KeyId::None(), .aki = KeyId::None()});
    const Cert leaf = MakeCert({.subject = "CN=leaf", .issuer_der = x.subject_der, .aki = KeyId::None()});
    // Its own key identifier, under another issuer name.
    const Cert own = MakeCert(
        {.subject = "CN=own", .issuer_der = x.subject_der, .ski = KeyId::Bytes("k"), .aki = KeyId::Bytes("k")});

    // The same encoding on two tokens: the object at the start is another than the one that is found.
    Store({}, {&x, &y});
    const auto second = vendor_host::AddToken("second");
    second->AddCertificate(x.der);
    second->AddCertificate(y.der);
    CM::Reload();
    ASSERT_EQ(store().otherCerts.size(), 4U);
    EXPECT_EQ(Build(store().otherCerts[2], Payload(), kAllFlags), (Built{ChainCycle, {"CN=X", "CN=Y", "CN=X"}}));
    EXPECT_EQ(BuildObject(leaf), (Built{ChainCycle, {"CN=leaf", "CN=X", "CN=Y", "CN=X"}}));
    // A cycle among what the peer sent, and with the store.
    EXPECT_EQ(BuildObject(leaf, Payload({&y, &x}), 0), (Built{ChainCycle, {"CN=leaf", "CN=X", "CN=Y", "CN=X"}}));
    const Payload self({&own});
    EXPECT_EQ(Build(self.list()[0], self, 0), (Built{ChainCycle, {"CN=own", "CN=own"}}));
}

TEST_F(BuildTest, ChainOutlivesTheStore) {
    Store({&root_}, {&upper_, &lower_});
    OwnedChain<const CM::X509Cert> chain;
    const CM::MutableCertRef leaf = Object(leaf_);
    ASSERT_TRUE(CM::BuildLocalCertChain(chain.certs, leaf.get(), ident_));
    vendor_host::RemoveToken(*token_);
    CM::Reload();
    EXPECT_TRUE(store().trustedCerts.empty());
    EXPECT_EQ(chain.Subjects(), (Strings{"CN=leaf", "CN=lower", "CN=upper", "CN=root"}));
}

TEST_F(BuildTest, LocalChainIsKeptOnlyWhenAnchored) {
    struct Case {
        const char* rule;
        std::vector<const Cert*> trusted;
        std::vector<const Cert*> other;
        Strings expected;
    };
    const Case cases[] = {
        {"trusted root", {&root_}, {&upper_, &lower_}, {"CN=leaf", "CN=lower", "CN=upper", "CN=root"}},
        {"ends at a trusted one", {&upper_}, {&lower_}, {"CN=leaf", "CN=lower", "CN=upper"}},
        {"incomplete", {&root_}, {&lower_}, {}},
        {"not trusted", {}, {&root_, &upper_, &lower_}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        token_ = vendor_host::AddToken(c.rule);
        Store(c.trusted, c.other, {&leaf_});
        OwnedChain<const CM::X509Cert> chain;
        EXPECT_EQ(CM::BuildLocalCertChain(chain.certs, store().personalCerts[0], ident_), !c.expected.empty());
        EXPECT_EQ(chain.Subjects(), c.expected);
        vendor_host::RemoveToken(*token_);
    }
}

// --- Requested authorities ---

/// Requests of a peer: a set of names or of key digests.
struct Requests : CM::IkeCertRequestIter {
    Requests(std::int32_t request_kind, std::set<std::string> requested_values) : values(std::move(requested_values)) {
        kind = request_kind;
        requested = [](const std::string& value, void* self) {
            return static_cast<Requests*>(self)->values.contains(value);
        };
        context = this;
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    std::set<std::string> values;
};

constexpr std::int32_t kByDigest = 1;

TEST_F(BuildTest, RequestedAuthorityIsLookedForFromLeafToRoot) {
    Store({&root_}, {&upper_}, {&leaf_});
    const Payload lower({&lower_});
    const CM::X509Cert* leaf = store().personalCerts[0];
    const auto answers = [&](std::int32_t kind, const std::string& value) {
        const Requests requests(kind, {value});
        const vpnfc::ReadLock lock(store());
        return CM::CheckLocalChainUnlocked(leaf, &requests);
    };
    const auto digest = [](const Cert& cert) { return test_pki::Digest("SHA1", cert.spki); };
    // The chain breaks above the leaf: the lower authority is not in the store.
    EXPECT_TRUE(answers(0, leaf_.subject_der));
    EXPECT_FALSE(answers(0, root_.subject_der));
    token_->AddCertificate(lower_.der);
    CM::Reload();
    for (const Cert* cert : {&leaf_, &lower_, &upper_, &root_}) {
        EXPECT_TRUE(answers(0, cert->subject_der));
        EXPECT_TRUE(answers(2, cert->subject_der)) << "every kind but 1 names authorities";
        EXPECT_TRUE(answers(kByDigest, digest(*cert)));
        EXPECT_FALSE(answers(kByDigest, cert->subject_der));
        EXPECT_FALSE(answers(0, digest(*cert)));
    }
    EXPECT_FALSE(answers(0, test_pki::NameDer("CN=somebody else")));
}

TEST_F(BuildTest, RequestedAuthorityIsFoundByKeyIdentifierFirst) {
    const Cert renamed = MakeCert({.subject = "CN=renamed", .ca = true, .ski = KeyId::Bytes("id")});
    const Cert named = MakeCert({.subject = "CN=named", .ca = true});
    const Cert leaf =
        MakeCert({.subject = "CN=host", .issuer_der = named.subject_der, .aki = KeyId::Bytes("id")}, &named);
    Store({&named}, {&renamed}, {&leaf});
    const Requests asks_for_renamed(0, {renamed.subject_der});
    const Requests asks_for_named(0, {named.subject_der});
    const vpnfc::ReadLock lock(store());
    EXPECT_TRUE(CM::CheckLocalChainUnlocked(store().personalCerts[0], &asks_for_renamed));
    EXPECT_FALSE(CM::CheckLocalChainUnlocked(store().personalCerts[0], &asks_for_named));
}

/// Authorities in a ring, each issued by the next: none is self-signed, every issuer is there.
std::vector<Cert> MakeRing(unsigned size) {
    const auto name = [size](unsigned i) { return "CN=" + std::to_string(i % size) + ", O=ring"; };
    // A ring of one has its own key identifier, but not its own name.
    const auto issuer = [&](unsigned i) { return size == 1 ? std::string("CN=other") : name(i + 1); };
    std::vector<Cert> ring;
    for (unsigned i = 0; i < size; ++i) {
        ring.push_back(MakeCert({.subject = name(i),
                                 .issuer_der = test_pki::NameDer(issuer(i)),
                                 .ski = KeyId::Bytes(name(i)),
                                 .aki = KeyId::Bytes(name(i + 1))}));
    }
    return ring;
}

TEST_F(BuildTest, CrossCertificatesDoNotKeepTheWalkGoing) {
    const Cert below = MakeCert({.subject = "CN=below",
                                 .issuer_der = test_pki::NameDer("CN=0, O=ring"),
                                 .ski = KeyId::Bytes("below"),
                                 .aki = KeyId::None()});
    const Cert leaf = MakeCert({.subject = "CN=leaf", .issuer_der = below.subject_der, .aki = KeyId::Bytes("below")});
    for (const unsigned size : {1U, 2U, 3U, 5U, 8U}) {
        SCOPED_TRACE(size);
        const std::vector<Cert> ring = MakeRing(size);
        std::vector<const Cert*> others = {&below};
        for (const Cert& cert : ring) others.push_back(&cert);
        token_ = vendor_host::AddToken("ring" + std::to_string(size));
        Store({}, others, {&leaf});
        const Requests nobody(0, {test_pki::NameDer("CN=nobody")});
        const Requests last(0, {ring.back().subject_der});
        {
            const vpnfc::ReadLock lock(store());
            EXPECT_FALSE(CM::CheckLocalChainUnlocked(store().personalCerts[0], &nobody));
            EXPECT_TRUE(CM::CheckLocalChainUnlocked(store().personalCerts[0], &last));
        }
        vendor_host::RemoveToken(*token_);
    }
}

}  // namespace
}  // namespace chain_test
