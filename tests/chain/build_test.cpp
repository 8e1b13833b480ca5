// Chains: how they are built, where they end and what that is worth.
#include "certmgr/chain.h"
#include "tests/chain/chain_fixture.h"

namespace chain_test {
namespace {

/// The result and the subjects of a built chain, leaf first.
using Built = std::pair<ChainBuildResult, Strings>;

constexpr unsigned kPeerFlags = SearchTrusted | SearchOther;
constexpr unsigned kAllFlags = kPeerFlags | SearchPersonal;

Built Build(const CM::X509Cert* leaf, const Payload& payload = Payload(), unsigned flags = kAllFlags) {
    Handles<CM::X509Cert> chain(const_cast<CM::X509Cert*>(CM::CertRef(leaf).Detach()));
    const ChainBuildResult result = CMT_BuildCertChain(chain.certs, payload.certs, flags);
    return {result, SubjectsOf(chain.certs)};
}

class BuildTest : public ChainTest {
  protected:
    static Built BuildObject(const Cert& leaf, const Payload& payload = Payload(), unsigned flags = kAllFlags) {
        return Build(Object(leaf).get(), payload, flags);
    }
    /// Another token in place of the one before.
    void NextToken() {
        static int count = 0;
        token_->SetPresent(false);
        token_ = vendor_host::AddToken(std::to_string(++count));
    }

    const Cert root_ = MakeCa("CN=root");
    const Cert upper_ = MakeCa("CN=upper", &root_);
    const Cert lower_ = MakeCa("CN=lower", &upper_);
    const Cert leaf_ = MakeLeaf("CN=leaf", lower_);
};

TEST_F(BuildTest, ResultsOfTheEnds) {
    const Strings whole{"CN=leaf", "CN=lower", "CN=upper", "CN=root"};
    const Strings to_upper{"CN=leaf", "CN=lower", "CN=upper"};
    using Certs = std::vector<const Cert*>;
    const std::tuple<const char*, Certs, Certs, Certs, Built, unsigned> cases[] = {
        {"no issuer at all", {&root_}, {}, {}, {ChainIncomplete, {"CN=leaf"}}, kAllFlags},
        {"one missing", {&root_}, {}, {&lower_}, {ChainIncomplete, {"CN=leaf", "CN=lower"}}, kAllFlags},
        {"to a trusted root", {&root_}, {&upper_}, {&lower_}, {ChainTrusted, whole}, kAllFlags},
        {"a root that nobody trusts", {}, {&root_, &upper_}, {&lower_}, {ChainNotTrusted, whole}, kAllFlags},
        {"ends at a trusted intermediate", {&upper_}, {}, {&lower_}, {ChainEndsAtTrusted, to_upper}, kAllFlags},
        {"above it must be trusted", {&upper_}, {&root_}, {&lower_}, {ChainNotTrusted, whole}, kAllFlags},
        {"trusted to the end", {&upper_, &root_}, {}, {&lower_}, {ChainTrusted, whole}, kAllFlags},
        {"trusted below one that is not", {&lower_, &root_}, {&upper_}, {}, {ChainNotTrusted, whole}, kAllFlags},
        {"stops", {&upper_}, {&root_}, {&lower_}, {ChainTrusted, to_upper}, kAllFlags | StopAtTrusted},
        {"without the others", {&root_}, {&lower_, &upper_}, {}, {ChainIncomplete, {"CN=leaf"}}, SearchTrusted},
        {"without the trusted", {&root_}, {&lower_, &upper_}, {}, {ChainIncomplete, to_upper}, SearchOther},
    };
    for (const auto& [rule, trusted, other, received, expected, flags] : cases) {
        SCOPED_TRACE(rule);
        NextToken();
        Store(trusted, other);
        EXPECT_EQ(BuildObject(leaf_, Payload(received), flags), expected);
    }
}

TEST_F(BuildTest, SelfSignedLeafIsAChainOfOne) {
    for (const auto& [kind, result] : {std::pair{kCertKindTrusted, ChainTrusted}, {kCertKindOther, ChainNotTrusted}}) {
        EXPECT_EQ(Build(Object(root_, kind).get()), (Built{result, {"CN=root"}}));
    }
    std::vector<CM::X509Cert*> empty;
    EXPECT_EQ(CMT_BuildCertChain(empty, {}, kAllFlags), ChainNotTrusted);
}

TEST_F(BuildTest, KeyIdentifierComesBeforeNameInAllSources) {
    // A renamed authority in the last source has the key identifier, one of the right name stands in the first.
    const Cert renamed = MakeCert({.subject = "CN=renamed", .ski = KeyId::Bytes("id")});
    const Cert named = MakeCert({.subject = "CN=named", .ca = true, .ski = KeyId::Bytes("other id")});
    const auto leaf = [&](const KeyId& aki) { return MakeCert({.subject = "CN=leaf", .aki = aki}, &named); };
    const Cert by_id = leaf(KeyId::Bytes("id"));
    Store({&named}, {}, {&renamed});
    EXPECT_EQ(BuildObject(by_id), (Built{ChainNotTrusted, {"CN=leaf", "CN=renamed"}}));
    EXPECT_EQ(BuildObject(leaf(KeyId::Bytes("nobody's"))), (Built{ChainTrusted, {"CN=leaf", "CN=named"}}));
    EXPECT_EQ(BuildObject(leaf(KeyId::None())), (Built{ChainTrusted, {"CN=leaf", "CN=named"}}));
    // A personal certificate is never an issuer of what a peer sends.
    EXPECT_EQ(BuildObject(by_id, Payload(), kPeerFlags), (Built{ChainTrusted, {"CN=leaf", "CN=named"}}));
}

TEST_F(BuildTest, ChainWithACycleKeepsTheIssuerThatClosesIt) {
    const auto cert = [](const char* subject, const char* issuer, const KeyId& id) {
        return MakeCert({.subject = subject, .issuer_der = test_pki::NameDer(issuer), .ski = id, .aki = id});
    };
    const Cert x = cert("CN=X", "CN=Y", KeyId::None());
    const Cert y = cert("CN=Y", "CN=X", KeyId::None());
    const Cert leaf = cert("CN=leaf", "CN=X", KeyId::None());
    const Cert own = cert("CN=own", "CN=X", KeyId::Bytes("k"));  // its own key identifier, under another issuer name

    // The same encoding on two tokens: the object at the start is another than the one that is found.
    Store({}, {&x, &y});
    const auto second = vendor_host::AddToken("second");
    second->AddCertificate(x.der);
    second->AddCertificate(y.der);
    CM::Reload();
    ASSERT_EQ(store().otherCerts.size(), 4U);
    EXPECT_EQ(Build(store().otherCerts[2]), (Built{ChainCycle, {"CN=X", "CN=Y", "CN=X"}}));
    EXPECT_EQ(BuildObject(leaf), (Built{ChainCycle, {"CN=leaf", "CN=X", "CN=Y", "CN=X"}}));
    // A cycle among what the peer sent, and with the store.
    EXPECT_EQ(BuildObject(leaf, Payload({&y, &x}), 0), (Built{ChainCycle, {"CN=leaf", "CN=X", "CN=Y", "CN=X"}}));
    const Payload self({&own});
    EXPECT_EQ(Build(self.certs[0], self, 0), (Built{ChainCycle, {"CN=own", "CN=own"}}));
}

TEST_F(BuildTest, LocalChainIsKeptWhenAnchoredAndOutlivesTheStore) {
    const auto chain_with = [&](const std::vector<const Cert*>& trusted, const std::vector<const Cert*>& other) {
        Store(trusted, other);
        Handle chain;
        const bool kept = CM::BuildLocalCertChain(chain.certs, Object(leaf_).get(), ident_);
        EXPECT_EQ(kept, !chain.certs.empty());
        NextToken();
        CM::Reload();
        return SubjectsOf(chain.certs);
    };
    EXPECT_EQ(chain_with({&root_}, {&upper_, &lower_}), (Strings{"CN=leaf", "CN=lower", "CN=upper", "CN=root"}));
    EXPECT_EQ(chain_with({&upper_}, {&lower_}), (Strings{"CN=leaf", "CN=lower", "CN=upper"}));
    EXPECT_EQ(chain_with({&root_}, {&lower_}), Strings());
    EXPECT_EQ(chain_with({}, {&root_, &upper_, &lower_}), Strings());
}

// --- Requested authorities ---

TEST_F(BuildTest, RequestedAuthorityIsLookedForFromLeafToRoot) {
    Store({&root_}, {&upper_}, {&leaf_});
    const CM::X509Cert* leaf = store().personalCerts[0];
    const auto answers = [&](std::int32_t kind, const std::string& value) {
        const Requests requests({value}, kind);
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
        EXPECT_TRUE(answers(1, digest(*cert)));
        EXPECT_FALSE(answers(1, cert->subject_der));
        EXPECT_FALSE(answers(0, digest(*cert)));
    }
    EXPECT_FALSE(answers(0, test_pki::NameDer("CN=somebody else")));
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
    for (const unsigned size : {1U, 2U, 3U, 8U}) {
        SCOPED_TRACE(size);
        const std::vector<Cert> ring = MakeRing(size);
        std::vector<const Cert*> others = {&below};
        for (const Cert& cert : ring) others.push_back(&cert);
        NextToken();
        Store({}, others, {&leaf});
        const Requests nobody({test_pki::NameDer("CN=nobody")});
        const Requests last({ring.back().subject_der});
        const vpnfc::ReadLock lock(store());
        EXPECT_FALSE(CM::CheckLocalChainUnlocked(store().personalCerts[0], &nobody));
        EXPECT_TRUE(CM::CheckLocalChainUnlocked(store().personalCerts[0], &last));
    }
}

}  // namespace
}  // namespace chain_test
