// The verdict: modes, and the steps from the cached CRL to the store's.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/revocation/revocation_fixture.h"
#include "tests/support/der.h"

namespace revocation_test {
namespace {

class VerdictTest : public RevocationTest {
  protected:
    const std::string path_ = "/ca.crl";
    const Cert leaf_ = LeafAt(path_);
    const Cert other_ = chain_test::MakeCa("CN=other", nullptr, chain_test::KeyType::kEcP256, 8);
    const Cert stranger_ = chain_test::MakeCa("CN=issuing", nullptr, chain_test::KeyType::kEcP256, 7);
};

TEST_F(VerdictTest, Modes) {
    const auto mark = [this](const CrlSpec& spec) {
        Serve(path_, Crl(spec));
        Passes(leaf_, kSoft);
        CM::cm_crl_apply_lparams_(false);
        ServeNothing(path_);
    };
    const struct {
        const char* situation;
        std::function<void()> arrange;
        bool strict;
        bool soft;
    } rows[] = {
        {"no CRL", [&] { ServeNothing(path_); }, false, true},
        {"a CRL", [&] { Serve(path_, Crl()); }, true, true},
        {"a CRL that lists it", [&] { Serve(path_, Crl(Listing(leaf_))); }, false, false},
        {"a CRL past its next update", [&] { Serve(path_, Crl(Expired())); }, false, true},
        {"the same, listing it", [&] { Serve(path_, Crl(Expired(Listing(leaf_)))); }, false, false},
        {"marked for refresh and not to be had", [&] { mark({}); }, false, true},
        {"the same, listing it", [&] { mark(Listing(leaf_)); }, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.situation);
        const auto verdict = [&](LPARAMS::CRL_PROC_t mode) {
            CM::ClearDownloadedCrlDB();
            row.arrange();
            return Passes(leaf_, mode);
        };
        EXPECT_EQ(verdict(kStrict), row.strict);
        EXPECT_EQ(verdict(kSoft), row.soft);
        const std::uint64_t transfers = Transfers();
        CM::ClearDownloadedCrlDB();
        EXPECT_TRUE(Passes(leaf_, LPARAMS::CRL_PROC_DISABLED));
        EXPECT_EQ(Transfers(), transfers);
    }
}

TEST_F(VerdictTest, WhatIsLoggedOfTheVerdict) {
    const auto logged = [this](LPARAMS::CRL_PROC_t mode, EventCode code, const std::string& text = {}) {
        vendor_host::ClearMessages();
        Passes(leaf_, mode);
        return vendor_host::Logged(text, code);
    };
    ServeNothing(path_);
    EXPECT_FALSE(logged(kSoft, kMsgCrlNotFound));
    EXPECT_TRUE(logged(kStrict, kMsgCrlNotFound, "Subject: CN=host"));
    Serve(path_, Crl(Expired()));
    EXPECT_FALSE(logged(kSoft, kMsgCrlNotCurrent));
    EXPECT_TRUE(logged(kStrict, kMsgCrlNotCurrent, "From: " + server_.Uri(path_)));
    Serve(path_, Crl());
    EXPECT_FALSE(logged(kStrict, kMsgCrlUsed));
    SetDetails();
    EXPECT_TRUE(logged(kStrict, kMsgCrlUsed));
    const std::pair<std::optional<int>, const char*> reasons[] = {
        {std::nullopt, "None"}, {0, "Unspecified"}, {7, "Unknown"}, {9, "PrivilegeWithDrawn"}, {11, "Unknown"}};
    for (const auto& [code, name] : reasons) {
        CM::ClearDownloadedCrlDB();
        Serve(path_, Crl({.entries = {{.serial = "other"}, {.serial = leaf_.serial, .reason = code}}}));
        EXPECT_TRUE(logged(kSoft, kMsgCertRevoked, std::string("reason: ") + name)) << name;
    }
}

TEST_F(VerdictTest, ACrlIsCurrentBeforeItsNextUpdateOnly) {
    Serve(path_, Crl({.next_update = kNow + 10}));
    EXPECT_TRUE(Passes(leaf_));
    vpnfc::SetCurrentTimeForTesting(kNow + 9);
    EXPECT_TRUE(Passes(leaf_));
    EXPECT_EQ(Transfers(), 1U);
    vpnfc::SetCurrentTimeForTesting(kNow + 10);
    EXPECT_FALSE(Passes(leaf_)) << "asked again, and no newer one there";
    EXPECT_EQ(Transfers(), 2U);
    Serve(path_, Crl({.this_update = kNow + 9, .next_update = kNow + 20}));
    EXPECT_TRUE(Passes(leaf_));
    EXPECT_EQ(Transfers(), 3U);
    const CM::CrlRef kept = CM::FindCachedCrl(server_.Uri(path_));
    EXPECT_EQ(kept->info.thisUpdate, CertTimeFrom_time_t(kNow + 9)) << "in place of the old one";
    vpnfc::SetCurrentTimeForTesting(kNow + kDay);
    Serve(path_, Crl({.next_update = std::nullopt}));
    CM::ClearDownloadedCrlDB();
    EXPECT_TRUE(Passes(leaf_)) << "one without an end is current";
}

TEST_F(VerdictTest, AddressesAreTriedInOrderUntilOneYieldsACrl) {
    SetParams([](LPARAMS::CertParams& params) {
        params.crl_max_bytes = 1U << 20U;
        params.crl_download_timeout_seconds = 2;
    });
    const test_support::ReservedPort closed;
    const std::string here = server_.Uri("/first");
    const std::string crl = Crl();
    const struct {
        const char* outcome;
        std::string address;
        HostileServer::Answer answer;
    } cases[] = {
        {"no data: Couldn't connect to server", closed.Uri("http", "/a.crl"), {}},
        {"no data: Unsupported protocol", "file://localhost/etc/hostname", {}},
        {"no data", here, {}},
        {"no data: HTTP status 404", here, {.status = 404}},
        {"data malformed, X509 ASN.1 expected", here, {.body = "<html></html>"}},
        {"data malformed, X509 ASN.1 expected", here, {.body = crl, .claimed_length = crl.size() - 1}},
        {"Invalid signature", here, {.body = test_pki::MakeCrl({}, stranger_)}},
        {"no data: Timeout was reached", here, {.silent = true}},
        {"no data: Server returned nothing (no headers, no data)", here, {.body = crl, .close_after = 0}},
        {"no data: Transferred a partial file", here, {.body = crl, .close_after = 200}},
        {"no data: Transferred a partial file", here, {.body = crl, .claimed_length = crl.size() + 1}},
        {"no data: Number of redirects hit maximum amount", here, HostileServer::Redirect("/first")},
        {"no data: more than 1048576 bytes", here, {.body = crl, .padding = 10'000'000'000}},
    };
    Serve("/second", crl);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.outcome);
        CM::ClearDownloadedCrlDB();
        vendor_host::ClearMessages();
        server_.Set("/first", test.answer);
        EXPECT_TRUE(Passes(Leaf({test.address, server_.Uri("/second")})));
        EXPECT_EQ(Outcomes(), (Strings{test.outcome, "CRL downloaded"}));
        EXPECT_EQ(CachedAddresses(), Strings{server_.Uri("/second")});
        EXPECT_FALSE(Passes(Leaf({test.address})));
    }
    EXPECT_TRUE(server_.WaitForIdle()) << "all were hung up on";
    vendor_host::ClearMessages();
    CM::ClearDownloadedCrlDB();
    Serve("/first", crl);
    EXPECT_TRUE(Passes(Leaf({here, server_.Uri("/second")})));
    EXPECT_EQ(Outcomes(), Strings{"CRL downloaded"}) << "the first is enough";
}

TEST_F(VerdictTest, TheFirstAddressInTheCacheGivesTheCrl) {
    Serve("/b", Crl());
    EXPECT_TRUE(Passes(LeafAt("/b")));
    EXPECT_TRUE(Passes(Leaf({server_.Uri("/a"), server_.Uri("/b")})));
    EXPECT_EQ(server_.Requests("/a"), 0U);
    const Cert leaf = Leaf({server_.Uri("/c"), server_.Uri("/b")});
    Serve("/c", Crl(Listing(leaf)));
    EXPECT_TRUE(Passes(LeafAt("/c"), kSoft));
    EXPECT_FALSE(Passes(leaf)) << "the address that is named first";
    Serve("/old", Crl(Expired()));
    EXPECT_TRUE(Passes(LeafAt("/old"), kSoft));
    const Cert renewed = Leaf({server_.Uri("/old"), server_.Uri("/b")});
    Serve("/old", Crl(Listing(renewed)));
    EXPECT_FALSE(Passes(renewed)) << "though it has to be downloaded again";
}

TEST_F(VerdictTest, ACrlFromAnotherAddressReplacesWhatIsOutOfDate) {
    Serve("/a", Crl());
    Serve("/b", Crl(Expired()));
    Passes(LeafAt("/b"), kSoft);
    EXPECT_TRUE(Passes(Leaf({server_.Uri("/a"), server_.Uri("/b")})));
    EXPECT_EQ(CachedAddresses(), Strings{server_.Uri("/a")});
}

TEST_F(VerdictTest, ACurrentCrlBehindOneOutOfDateNeedsNoTransfer) {
    Serve("/stale", Crl(Expired()));
    Serve("/current", Crl());
    Passes(LeafAt("/stale"), kSoft);
    Passes(LeafAt("/current"));
    ServeNothing("/stale");
    Outcomes();
    EXPECT_TRUE(Passes(Leaf({server_.Uri("/stale"), server_.Uri("/current")})));
    EXPECT_EQ(Transfers(), 3U);
    EXPECT_EQ(Outcomes().size(), 1U) << "of what was asked";
}

TEST_F(VerdictTest, WhatALaterAddressGaveIsRenewedToo) {
    const Cert leaf = Leaf({server_.Uri("/a"), server_.Uri("/b")});
    const auto check = [&](const CrlSpec& cached, const std::function<void()>& then) {
        CM::ClearDownloadedCrlDB();
        for (const char* path : {"/a", "/b"}) {
            Serve(path, Crl(cached));
            EXPECT_TRUE(Passes(LeafAt(path), kSoft));
        }
        then();
        ServeNothing("/a");
        Serve("/b", Crl(Listing(leaf)));
        EXPECT_FALSE(Passes(leaf, kSoft));
    };
    check({}, [] { CM::cm_crl_apply_lparams_(false); });
    check(Expired(), [] {});
}

TEST_F(VerdictTest, EqualDataIsNotDecodedAgain) {
    const std::string der = Crl(Expired());
    for (const std::string& data : {der + "\n", der, test_pki::ToPem("X509 CRL", der)}) {
        Serve(path_, data);
        EXPECT_TRUE(Passes(leaf_, kSoft));
        vpnfc::SetCurrentTimeForTesting(kNow + 60);
    }
    EXPECT_EQ(CM::FindCachedCrl(server_.Uri(path_))->rawCrl(), der) << "without what followed it";
    const std::string unchanged =
        "CRL not changed, first downloaded at: " + CertTimeToString(CertTimeFrom_time_t(kNow));
    EXPECT_EQ(Outcomes(), (Strings{"CRL downloaded", unchanged, unchanged}));
    // Not at the first address, where it has not been seen, either.
    Serve("/other", der);
    EXPECT_TRUE(Passes(Leaf({server_.Uri("/other"), server_.Uri(path_)}), kSoft));
    EXPECT_EQ(Outcomes(), Strings{unchanged});
    EXPECT_EQ(Parsed(), 1U);
    EXPECT_EQ(token_->Calls(vendor_host::Op::kVerify), 1U) << "nor is its signature verified again";
}

TEST_F(VerdictTest, AMarkedCrlIsDownloadedOnce) {
    Serve(path_, Crl());
    EXPECT_TRUE(Passes(leaf_));
    const auto after_mark = [this](bool first_load = false) {
        const std::uint64_t transfers = Transfers();
        CM::cm_crl_apply_lparams_(first_load);
        const bool first = Passes(leaf_);
        EXPECT_TRUE(Passes(leaf_)) << "the mark asks for one download, though it fails";
        EXPECT_EQ(Transfers(), transfers + (first_load ? 0 : 1));
        return first;
    };
    EXPECT_TRUE(after_mark());
    EXPECT_TRUE(after_mark(true)) << "the first load of the settings changes nothing";
    Serve(path_, Crl({.number = "\x02"}));
    EXPECT_TRUE(after_mark());
    ServeNothing(path_);
    EXPECT_FALSE(after_mark());
    Serve(path_, test_pki::MakeCrl({}, stranger_));
    EXPECT_FALSE(after_mark());
}

TEST_F(VerdictTest, AMarkIsAnsweredForTheIssuerAlone) {
    const Cert others = MakeCert(Spec({server_.Uri(path_), server_.Uri("/other")}), &other_);
    Serve(path_, Crl());
    Serve("/other", test_pki::MakeCrl({}, other_));
    EXPECT_TRUE(Passes(leaf_));
    EXPECT_TRUE(PassesUnder(others, other_, kStrict));
    EXPECT_EQ(CachedAddresses(), (Strings{server_.Uri(path_), server_.Uri("/other")}))
        << "neither drives the other out";
    CM::cm_crl_apply_lparams_(false);
    Serve(path_, Crl(Listing(leaf_)));
    PassesUnder(others, other_, kStrict);
    EXPECT_FALSE(Passes(leaf_));
}

TEST_F(VerdictTest, ARevocationThatWasSeenIsNotTakenBack) {
    const Cert leaf = Leaf({server_.Uri(path_), server_.Uri("/replayed")});
    const CrlSpec newer{.entries = {{.serial = leaf_.serial}, {.serial = leaf.serial}}, .this_update = kNow - 1};
    Serve(path_, Crl(newer));
    EXPECT_FALSE(Passes(leaf_));
    Serve(path_, Crl({.this_update = kNow - 2}));
    CM::cm_crl_apply_lparams_(false);
    vendor_host::ClearMessages();
    EXPECT_FALSE(Passes(leaf_));
    EXPECT_TRUE(vendor_host::Logged(", data[", kMsgCrlTransfer));
    EXPECT_EQ(Outcomes()[0].find("CRL is older than the cached one"), 0U);
    EXPECT_FALSE(Passes(leaf_));
    EXPECT_EQ(Transfers(), 2U) << "asked once for a mark";

    // Nor by another address, while the first is silent.
    ServeNothing(path_);
    Serve("/replayed", Crl({.this_update = kNow - 2}));
    CM::cm_crl_apply_lparams_(false);
    EXPECT_FALSE(Passes(leaf, kSoft));

    // Nor when what was seen is out of date.
    CM::ClearDownloadedCrlDB();
    Serve(path_, Crl({.entries = newer.entries, .this_update = kNow - 1, .next_update = kNow}));
    EXPECT_FALSE(Passes(leaf_, kSoft));
    Serve(path_, Crl({.this_update = kNow - 2}));
    EXPECT_FALSE(Passes(leaf_, kSoft));
}

TEST_F(VerdictTest, ACachedCrlServesThoseWhoseIssuerSignedIt) {
    const Cert others = MakeCert(Spec({server_.Uri(path_)}), &other_);
    Serve(path_, Crl({.this_update = kNow - 1}));
    EXPECT_TRUE(Passes(leaf_));
    EXPECT_FALSE(PassesUnder(others, other_, kStrict));
    EXPECT_TRUE(Passes(leaf_));
    EXPECT_EQ(Transfers(), 2U);
    // One of an earlier day takes its place for the issuer who signed that.
    Serve(path_, test_pki::MakeCrl({.this_update = kNow - 2}, other_));
    EXPECT_TRUE(PassesUnder(others, other_, kStrict));
}

TEST_F(VerdictTest, AnotherIssuersCrlAtALaterAddressDoesNotServe) {
    for (const char* path : {"/a", "/b"}) {
        Serve(path, test_pki::MakeCrl({}, other_));
        EXPECT_TRUE(PassesUnder(MakeCert(Spec({server_.Uri(path)}), &other_), other_, kStrict));
    }
    ServeNothing("/a");
    const Cert leaf = Leaf({server_.Uri("/a"), server_.Uri("/b")});
    Serve("/b", Crl(Listing(leaf)));
    EXPECT_FALSE(Passes(leaf, kSoft));
}

// --- The store ---

TEST_F(VerdictTest, TheStoreServesWhereNothingCanBeDownloaded) {
    ServeNothing(path_);
    PutOnToken(Crl(Listing(leaf_)));
    EXPECT_FALSE(Passes(leaf_, kSoft));
    EXPECT_TRUE(Passes(LeafAt(path_), kStrict));
    Serve(path_, Crl());
    EXPECT_TRUE(Passes(leaf_, kStrict)) << "but not before the address";
}

TEST_F(VerdictTest, AStoredCrlOutOfDateServesSoftModeAlone) {
    PutOnToken(Crl(Expired()));
    ServeNothing(path_);
    EXPECT_TRUE(Passes(leaf_, kSoft));
    EXPECT_FALSE(Passes(leaf_, kStrict));
    EXPECT_EQ(vendor_host::FindMessages(kMsgCrlNotCurrent).size(), 1U);
    PutOnToken(Crl(Listing(leaf_)));
    EXPECT_TRUE(Passes(leaf_, kSoft)) << "the first of the issuer's is the one";
}

TEST_F(VerdictTest, ACachedCrlOutOfDateComesAfterTheStore) {
    vpnfc::SetCurrentTimeForTesting(kNow);
    CrlSpec cached = Expired(Listing(leaf_));
    cached.this_update = kNow - 2 * kDay;
    Serve(path_, Crl(cached));
    Passes(leaf_, kSoft);
    ServeNothing(path_);
    vendor_host::ClearMessages();
    EXPECT_FALSE(Passes(leaf_, kStrict));
    EXPECT_FALSE(vendor_host::Logged("", kMsgCrlNotCurrent)) << "there is none";
    EXPECT_TRUE(vendor_host::Logged("Checked CRLs (0)", kMsgCrlNotFound));
    EXPECT_TRUE(vendor_host::Logged("From: ", kMsgCrlNotFound));
    PutOnToken(Crl({.this_update = kNow - 3 * kDay}));
    EXPECT_TRUE(Passes(leaf_, kStrict)) << "the store's is current";
    EXPECT_FALSE(Passes(leaf_, kSoft)) << "the cache's is newer";
}

// --- Scope ---

/// Issuing distribution point for the CRL at that address.
std::string PointAt(const std::string& address) {
    return der::Sequence(der::Explicit(0, der::Explicit(0, test_pki::GeneralName("URI:" + address))));
}

TEST_F(VerdictTest, ACrlOutOfScopeRevokesButDoesNotClear) {
    const std::string elsewhere = PointAt("http://elsewhere.example/shard.crl");
    Serve(path_, Crl({.issuing_distribution_point = elsewhere}));
    EXPECT_FALSE(Passes(leaf_, kStrict));
    EXPECT_TRUE(Passes(leaf_, kSoft));
    const auto messages = vendor_host::FindMessages(kMsgCrlOutOfScope);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_NE(messages[0].attributes[2].find("http://elsewhere.example/shard.crl"), std::string::npos);
    EXPECT_EQ(vendor_host::FindMessages(kMsgCrlNotFound).size(), 1U);
    EXPECT_EQ(Transfers(), 1U) << "what is in the cache is not asked for again";
    CM::cm_crl_apply_lparams_(false);
    EXPECT_FALSE(Passes(leaf_, kStrict));
    EXPECT_EQ(vendor_host::FindMessages(kMsgCrlOutOfScope).size(), 3U) << "downloaded unchanged: judged once";

    CM::ClearDownloadedCrlDB();
    CrlSpec listing = Listing(leaf_);
    listing.issuing_distribution_point = elsewhere;
    Serve(path_, Crl(listing));
    EXPECT_FALSE(Passes(leaf_, kSoft));

    CM::ClearDownloadedCrlDB();
    Serve(path_, Crl({.issuing_distribution_point = PointAt(server_.Uri(path_))}));
    EXPECT_TRUE(Passes(leaf_, kStrict));

    SetParams([](LPARAMS::CertParams& params) { params.honour_crl_scope = false; });
    CM::ClearDownloadedCrlDB();
    Serve(path_, Crl({.issuing_distribution_point = elsewhere}));
    EXPECT_TRUE(Passes(leaf_, kStrict));
}

TEST_F(VerdictTest, TheNextSourceClearsWhatAnOutOfScopeCrlCannot) {
    const std::string elsewhere = PointAt("http://elsewhere.example/shard.crl");
    const Cert leaf = Leaf({server_.Uri("/shard"), server_.Uri("/full")});
    Serve("/shard", Crl({.issuing_distribution_point = elsewhere}));
    Serve("/full", Crl());
    EXPECT_TRUE(Passes(leaf));
    EXPECT_TRUE(Passes(leaf));
    EXPECT_EQ(Transfers(), 2U) << "both are kept";
    ServeNothing("/full");
    CM::ClearDownloadedCrlDB();
    PutOnToken(Crl({.number = "\x01", .delta_base = "\x01"}));
    EXPECT_FALSE(Passes(leaf));
    PutOnToken(Crl());
    EXPECT_TRUE(Passes(leaf)) << "the store's second one";
}

TEST_F(VerdictTest, ANewerCrlForOthersIsNoReasonToRefuseAnother) {
    const Cert leaf = Leaf({server_.Uri("/shard"), server_.Uri("/full")});
    Serve("/shard",
          Crl({.this_update = kNow - 1, .issuing_distribution_point = PointAt("http://elsewhere.example/shard.crl")}));
    Serve("/full", Crl({.this_update = kNow - 2}));
    EXPECT_TRUE(Passes(leaf));
    CM::cm_crl_apply_lparams_(false);
    ServeNothing("/shard");
    EXPECT_TRUE(Passes(leaf));
}

TEST_F(VerdictTest, AMarkIsAnsweredByAnyOfTheAddresses) {
    const Cert leaf = Leaf({server_.Uri("/a"), server_.Uri("/b")});
    const std::string known = Crl({.this_update = kNow - 1});
    const std::string shard = Crl({.issuing_distribution_point = PointAt("http://elsewhere.example/shard.crl")});
    const struct {
        std::string known;
        std::string confirming;
        bool passes;
        unsigned transfers;
    } rows[] = {
        {known, known, true, 1},
        {known, Crl({.this_update = kNow - 2}), true, 1},
        {shard, shard, false, 2},  // the second keeps it under the first address as well
    };
    for (const auto& row : rows) {
        CM::ClearDownloadedCrlDB();
        ServeNothing("/a");
        Serve("/b", row.known);
        EXPECT_EQ(Passes(leaf), row.passes);
        CM::cm_crl_apply_lparams_(false);
        Serve("/a", row.confirming);
        const std::uint64_t transfers = Transfers();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(Passes(leaf), row.passes);
        EXPECT_EQ(Transfers(), transfers + row.transfers);
    }
}

TEST_F(VerdictTest, WhatIsOutOfScopeStandsInNobodysWay) {
    const std::string elsewhere = PointAt("http://elsewhere.example/shard.crl");
    const Cert leaf = Leaf({server_.Uri("/full"), server_.Uri("/shard")});
    Serve("/full", Crl(Expired(Listing(leaf))));
    EXPECT_FALSE(Passes(LeafAt("/full"), kStrict));
    ServeNothing("/full");
    Serve("/shard", Crl({.issuing_distribution_point = elsewhere}));
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(Passes(leaf, kSoft)) << "a revocation that was seen is not forgotten";

    CrlSpec stale = Expired();
    stale.issuing_distribution_point = elsewhere;
    ServeNothing(path_);
    PutOnToken(Crl(stale));
    PutOnToken(Crl());
    EXPECT_TRUE(Passes(leaf_)) << "behind one that is out of date";
}

// --- Addresses ---

TEST_F(VerdictTest, AnAddressWithoutHostIsCompleted) {
    const std::string crl = Crl();
    Serve(path_, crl);
    const std::string whole = server_.Uri(path_);
    const std::string host = whole.substr(0, whole.size() - path_.size());
    const Cert leaf = Leaf({"http://" + path_});
    EXPECT_FALSE(Passes(leaf));
    EXPECT_TRUE(Passes(leaf, kStrict, host));
    EXPECT_TRUE(vendor_host::Logged(" - " + whole + "(modified), application/pkix-crl", kMsgCrlTransfer));
    EXPECT_TRUE(vendor_host::Logged(", data[" + std::to_string(crl.size()) + "]: 30", kMsgCrlTransfer));
    EXPECT_EQ(CachedAddresses(), Strings{whole});

    CM::ClearDownloadedCrlDB();
    server_.Set(path_, {.content_type = std::string(40'000, 'x'), .body = Crl(Expired(Listing(leaf)))});
    EXPECT_FALSE(Passes(leaf, kSoft, host));
    EXPECT_TRUE(vendor_host::Logged(" bytes cut), data[", kMsgCrlTransfer)) << "a server's type of any length";
    ServeNothing(path_);
    EXPECT_FALSE(Passes(leaf, kSoft, host)) << "by what the cache has under the whole address";
}

TEST_F(VerdictTest, AddressesThatWouldOnlyCostAreNotAsked) {
    const struct {
        std::string address;
        const char* outcome;
    } cases[] = {
        {server_.Uri("/" + std::string(5000, 'x')), "not asked: the address is too long"},
        {std::string("http://127.0.0.1/\0.crl", 22), "not asked: the address is malformed"},
        {"http://127.0.0.1/\\\n\t\tforged", "not asked: the address is malformed"},
        {"ldap.example/ca.crl", "not asked: the address names no scheme"},
        {"http:///ca.crl", "not asked: the address names no host"},
        {"ldap://", "not asked: the address names no host"},
    };
    for (const auto& test : cases) {
        EXPECT_FALSE(Passes(Leaf({test.address})));
        EXPECT_FALSE(vendor_host::Logged("\n\t\tforged", kMsgCrlTransfer));
        EXPECT_EQ(Outcomes(), Strings{test.outcome});
    }
    EXPECT_EQ(Transfers(), 0U);

    Strings addresses(3, server_.Uri("/same"));
    for (int i = 0; i < 20; ++i) addresses.push_back(server_.Uri("/" + std::to_string(i)));
    EXPECT_FALSE(Passes(Leaf(addresses)));
    EXPECT_EQ(Transfers(), 16U);
    const Strings outcomes = Outcomes();
    ASSERT_EQ(outcomes.size(), 17U);
    EXPECT_EQ(outcomes[0], "not asked: the certificate names too many addresses, the last 5 are left out");
}

// --- Chains ---

class ChainVerdictTest : public VerdictTest {
  protected:
    std::string Verdict(const std::vector<const Cert*>& certs, LPARAMS::CRL_PROC_t mode,
                        const std::string& default_server = {}) const {
        CM::CertList chain;
        for (const Cert* cert : certs) chain.Append(Object(*cert).get());
        std::string reason;
        const bool passes = CM::CertChainVerifyRevocation(chain.certs(), mode, default_server, &reason, ident_);
        EXPECT_EQ(passes, reason.empty());
        return reason;
    }
};

TEST_F(ChainVerdictTest, EveryCertificateThatNamesAnAddressIsChecked) {
    test_pki::CertSpec spec = Spec({server_.Uri("/root.crl")}, "CN=issuing 2");
    spec.ca = true;
    spec.key_usage = "keyCertSign, cRLSign";
    const Cert issuing = MakeCert(spec, &root_);
    const Cert leaf = MakeCert(Spec({server_.Uri(path_)}), &issuing);
    const std::string revoked = "Revoked certificate(s) present in chain";
    Serve(path_, test_pki::MakeCrl({}, issuing));
    Serve("/root.crl", test_pki::MakeCrl({}, root_));
    EXPECT_EQ(Verdict({&leaf, &issuing, &root_}, kStrict), "");
    const Cert hostless = MakeCert(Spec({"http://" + path_}), &issuing);
    const std::string whole = server_.Uri(path_);
    EXPECT_EQ(Verdict({&hostless, &issuing, &root_}, kStrict, whole.substr(0, whole.size() - path_.size())), "");
    Serve("/root.crl", test_pki::MakeCrl(Listing(issuing), root_));
    CM::ClearDownloadedCrlDB();
    EXPECT_EQ(Verdict({&leaf, &issuing, &root_}, kStrict), revoked);
    EXPECT_EQ(Verdict({&leaf, &issuing, &root_}, LPARAMS::CRL_PROC_DISABLED), "");
    EXPECT_EQ(Verdict({&leaf, &issuing}, kStrict), revoked) << "the last one is taken for its own issuer";
    EXPECT_EQ(Verdict({}, kStrict), "");
    EXPECT_EQ(Verdict({&leaf, &issuing, &leaf}, kStrict),
              "Revocation cannot be checked, issuer[1] does not contain required key usage: CRL Signing");
}

TEST_F(ChainVerdictTest, AnIssuerThatMayNotSignCrlsIsNotAsked) {
    test_pki::CertSpec spec{.key_index = 1, .subject = "CN=issuing", .ca = true, .key_usage = "keyCertSign"};
    const Cert issuing = MakeCert(spec, &root_);
    Serve(path_, Crl());
    EXPECT_EQ(Verdict({&leaf_, &issuing, &root_}, kSoft),
              "Revocation cannot be checked, issuer[0] does not contain required key usage: CRL Signing");
    EXPECT_EQ(Transfers(), 0U);
    EXPECT_EQ(Verdict({&leaf_, &issuing, &root_}, LPARAMS::CRL_PROC_DISABLED), "");
    EXPECT_TRUE(vendor_host::Logged("CN=issuing", kMsgKeyUsageMissing));

    SetParams([](LPARAMS::CertParams& params) { params.ignore_key_usage.on = true; });
    const std::uint64_t transfers = Transfers();
    EXPECT_EQ(Verdict({&leaf_, &issuing, &root_}, kStrict), "");
    EXPECT_EQ(Transfers(), transfers + 1) << "and revocation is checked";
    EXPECT_TRUE(vendor_host::Logged("ignore_key_usage", kMsgKeyUsageTolerated));
}

TEST_F(ChainVerdictTest, CertificatesWithoutAddressesPassAndMayBeLogged) {
    const Cert silent = chain_test::MakeCert(Spec({}), &ca_);
    const auto logged = [&](LPARAMS::CRL_PROC_t mode) {
        EXPECT_EQ(Verdict({&silent, &ca_, &root_}, mode), "");
        return vendor_host::FindMessages(kMsgNoDistributionPoint).size();
    };
    EXPECT_EQ(logged(kStrict), 0U);
    SetDetails();
    EXPECT_EQ(logged(kSoft), 0U);
    EXPECT_EQ(logged(kStrict), 2U) << "not of the self-signed one";
}

}  // namespace
}  // namespace revocation_test
