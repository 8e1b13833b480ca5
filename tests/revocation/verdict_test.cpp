// The verdict: modes, and the steps from the cached CRL to the store's.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/revocation/revocation_fixture.h"
#include "tests/support/der.h"

namespace revocation_test {
namespace {

/// Issuing distribution point for the CRL at that address.
std::string PointAt(const std::string& address) {
    return der::Sequence(der::Explicit(0, der::Explicit(0, test_pki::GeneralName("URI:" + address))));
}

class VerdictTest : public RevocationTest {
  protected:
    const std::string path_ = "/ca.crl";
    const Cert leaf_ = LeafAt(path_);
    const std::string elsewhere_ = PointAt("http://elsewhere.example/shard.crl");
};

TEST_F(VerdictTest, Modes) {
    const struct {
        const char* situation;
        std::optional<CrlSpec> crl;
        bool marked;  // for refresh, and not to be had any more
        bool strict;
        bool soft;
    } rows[] = {
        {"no CRL", {}, false, false, true},
        {"a CRL", CrlSpec{}, false, true, true},
        {"a CRL that lists it", Listing(leaf_), false, false, false},
        {"a CRL past its next update", Expired(), false, false, true},
        {"the same, listing it", Expired(Listing(leaf_)), false, false, false},
        {"a marked CRL", CrlSpec{}, true, false, true},
        {"a marked CRL that lists it", Listing(leaf_), true, false, false},
    };
    for (const auto& row : rows) {
        const auto verdict = [&](LPARAMS::CRL_PROC_t mode) {
            CM::ClearDownloadedCrlDB();
            row.crl ? Serve(path_, Crl(*row.crl)) : ServeNothing(path_);
            if (row.marked) {
                Passes(leaf_, kSoft);
                Mark();
                ServeNothing(path_);
            }
            return Passes(leaf_, mode);
        };
        EXPECT_EQ(verdict(kStrict), row.strict) << row.situation;
        EXPECT_EQ(verdict(kSoft), row.soft) << row.situation;
        const std::uint64_t transfers = Transfers();
        CM::ClearDownloadedCrlDB();
        EXPECT_TRUE(Passes(leaf_, LPARAMS::CRL_PROC_DISABLED)) << row.situation;
        EXPECT_EQ(Transfers(), transfers) << row.situation;
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
    const auto at = [this](std::time_t now, const CrlSpec& served) {
        vpnfc::SetCurrentTimeForTesting(now);
        Serve(path_, Crl(served));
        const bool passes = Passes(leaf_);
        return std::pair(passes, Transfers());
    };
    const CrlSpec first{.next_update = kNow + 10};
    EXPECT_EQ(at(kNow, first), std::pair(true, 1UL));
    EXPECT_EQ(at(kNow + 9, first), std::pair(true, 1UL));
    EXPECT_EQ(at(kNow + 10, first), std::pair(false, 2UL)) << "asked again, and no newer one there";
    EXPECT_EQ(at(kNow + 10, {.this_update = kNow + 9, .next_update = kNow + 20}), std::pair(true, 3UL));
    const CM::CrlRef kept = CM::FindCachedCrl(server_.Uri(path_));
    EXPECT_EQ(kept->info.thisUpdate, CertTimeFrom_time_t(kNow + 9)) << "in place of the old one";
    CM::ClearDownloadedCrlDB();
    EXPECT_EQ(at(kNow + kDay, {.next_update = std::nullopt}), std::pair(true, 4UL)) << "one without an end is current";
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
        {"no data: more than 1048576 bytes", here, {.body = std::string((1U << 20U) + 1, 'x')}},
    };
    Serve("/second", crl);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.outcome);
        CM::ClearDownloadedCrlDB();
        vendor_host::ClearMessages();
        server_.Set("/first", test.answer);
        EXPECT_TRUE(Passes(Leaf({test.address, server_.Uri("/second")})));
        EXPECT_EQ(Outcomes(), (Strings{test.outcome, "CRL downloaded"}));
        EXPECT_EQ(Cached(), Strings{"/second"});
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
    Fill("/b");
    EXPECT_TRUE(Passes(LeafAt("/a", "/b")));
    EXPECT_EQ(server_.Requests("/a"), 0U);
    const Cert leaf = LeafAt("/c", "/b");
    Fill("/c", Listing(leaf));
    EXPECT_FALSE(Passes(leaf)) << "the address that is named first";
    Fill("/old", Expired());
    const Cert renewed = LeafAt("/old", "/b");
    Serve("/old", Crl(Listing(renewed)));
    EXPECT_FALSE(Passes(renewed)) << "though it has to be downloaded again";
}

TEST_F(VerdictTest, ACrlFromAnotherAddressReplacesWhatIsOutOfDate) {
    Serve("/a", Crl());
    Fill("/b", Expired());
    EXPECT_TRUE(Passes(LeafAt("/a", "/b")));
    EXPECT_EQ(Cached(), Strings{"/a"});
}

TEST_F(VerdictTest, ACurrentCrlBehindOneOutOfDateNeedsNoTransfer) {
    Fill("/stale", Expired());
    Fill("/current");
    ServeNothing("/stale");
    Outcomes();
    EXPECT_TRUE(Passes(LeafAt("/stale", "/current")));
    EXPECT_EQ(Transfers(), 3U);
    EXPECT_EQ(Outcomes().size(), 1U) << "of what was asked";
}

TEST_F(VerdictTest, WhatALaterAddressGaveIsRenewedToo) {
    const Cert leaf = LeafAt("/a", "/b");
    for (const bool marked : {true, false}) {
        CM::ClearDownloadedCrlDB();
        for (const char* path : {"/a", "/b"}) Fill(path, marked ? CrlSpec{} : Expired());
        if (marked) Mark();
        ServeNothing("/a");
        Serve("/b", Crl(Listing(leaf)));
        EXPECT_FALSE(Passes(leaf, kSoft)) << marked;
    }
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
    EXPECT_TRUE(Passes(LeafAt("/other", path_), kSoft));
    EXPECT_EQ(Outcomes(), Strings{unchanged});
    EXPECT_EQ(Parsed(), 1U);
    EXPECT_EQ(token_->Calls(vendor_host::Op::kVerify), 1U) << "nor is its signature verified again";
}

TEST_F(VerdictTest, AMarkedCrlIsDownloadedOnce) {
    Fill(path_);
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
    Fill(path_);
    Serve("/other", test_pki::MakeCrl({}, other_));
    EXPECT_TRUE(PassesUnder(others, other_, kStrict));
    EXPECT_EQ(Cached(), (Strings{path_, "/other"})) << "neither drives the other out";
    Mark();
    Serve(path_, Crl(Listing(leaf_)));
    PassesUnder(others, other_, kStrict);
    EXPECT_FALSE(Passes(leaf_));
}

TEST_F(VerdictTest, ARevocationThatWasSeenIsNotTakenBack) {
    const Cert leaf = LeafAt(path_, "/replayed");
    const CrlSpec newer{.entries = {{.serial = leaf_.serial}, {.serial = leaf.serial}}, .this_update = kNow - 1};
    Serve(path_, Crl(newer));
    EXPECT_FALSE(Passes(leaf_));
    Serve(path_, Crl({.this_update = kNow - 2}));
    Mark();
    vendor_host::ClearMessages();
    EXPECT_FALSE(Passes(leaf_));
    EXPECT_TRUE(vendor_host::Logged(", data[", kMsgCrlTransfer));
    EXPECT_EQ(Outcomes()[0].find("CRL is older than the cached one"), 0U);
    EXPECT_FALSE(Passes(leaf_));
    EXPECT_EQ(Transfers(), 2U) << "asked once for a mark";

    // Nor by another address, while the first is silent.
    ServeNothing(path_);
    Serve("/replayed", Crl({.this_update = kNow - 2}));
    Mark();
    EXPECT_FALSE(Passes(leaf, kSoft));

    // Nor when what was seen is out of date.
    CM::ClearDownloadedCrlDB();
    Serve(path_, Crl({.entries = newer.entries, .this_update = kNow - 1, .next_update = kNow}));
    EXPECT_FALSE(Passes(leaf_, kSoft));
    Serve(path_, Crl({.this_update = kNow - 2}));
    EXPECT_FALSE(Passes(leaf_, kSoft));
}

TEST_F(VerdictTest, ACachedCrlServesThoseWhoseIssuerSignedIt) {
    const Cert others = OthersLeaf(path_, other_);
    Fill(path_, {.this_update = kNow - 1});
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
        EXPECT_TRUE(PassesUnder(OthersLeaf(path, other_), other_, kStrict));
    }
    ServeNothing("/a");
    const Cert leaf = LeafAt("/a", "/b");
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
    CrlSpec cached = Expired({.this_update = kNow - 2 * kDay});
    cached.entries = {{.serial = leaf_.serial}};
    Fill(path_, cached);
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

TEST_F(VerdictTest, ACrlOutOfScopeRevokesButDoesNotClear) {
    Serve(path_, Crl({.issuing_distribution_point = elsewhere_}));
    EXPECT_FALSE(Passes(leaf_, kStrict));
    EXPECT_TRUE(Passes(leaf_, kSoft));
    const auto messages = vendor_host::FindMessages(kMsgCrlOutOfScope);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_NE(messages[0].attributes[2].find("http://elsewhere.example/shard.crl"), std::string::npos);
    EXPECT_EQ(vendor_host::FindMessages(kMsgCrlNotFound).size(), 1U);
    EXPECT_EQ(Transfers(), 1U) << "what is in the cache is not asked for again";
    Mark();
    EXPECT_FALSE(Passes(leaf_, kStrict));
    EXPECT_EQ(vendor_host::FindMessages(kMsgCrlOutOfScope).size(), 3U) << "downloaded unchanged: judged once";

    const auto passes = [this](LPARAMS::CRL_PROC_t mode, const std::string& point, CrlSpec spec = {}) {
        CM::ClearDownloadedCrlDB();
        spec.issuing_distribution_point = point;
        Serve(path_, Crl(spec));
        return Passes(leaf_, mode);
    };
    EXPECT_FALSE(passes(kSoft, elsewhere_, Listing(leaf_)));
    EXPECT_TRUE(passes(kStrict, PointAt(server_.Uri(path_))));
    SetParams([](LPARAMS::CertParams& params) { params.honour_crl_scope = false; });
    EXPECT_TRUE(passes(kStrict, elsewhere_));
}

TEST_F(VerdictTest, TheNextSourceClearsWhatAnOutOfScopeCrlCannot) {
    const Cert leaf = LeafAt("/shard", "/full");
    Serve("/shard", Crl({.issuing_distribution_point = elsewhere_}));
    Serve("/full", Crl());
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(Passes(leaf));
    EXPECT_EQ(Transfers(), 2U) << "both are kept";
    ServeNothing("/full");
    CM::ClearDownloadedCrlDB();
    PutOnToken(Crl({.number = "\x01", .delta_base = "\x01"}));
    EXPECT_FALSE(Passes(leaf));
    PutOnToken(Crl());
    EXPECT_TRUE(Passes(leaf)) << "the store's second one";
}

TEST_F(VerdictTest, ANewerCrlForOthersIsNoReasonToRefuseAnother) {
    const Cert leaf = LeafAt("/shard", "/full");
    Serve("/shard", Crl({.this_update = kNow - 1, .issuing_distribution_point = elsewhere_}));
    Serve("/full", Crl({.this_update = kNow - 2}));
    EXPECT_TRUE(Passes(leaf));
    Mark();
    ServeNothing("/shard");
    EXPECT_TRUE(Passes(leaf));
}

TEST_F(VerdictTest, AMarkIsAnsweredByAnyOfTheAddresses) {
    const Cert leaf = LeafAt("/a", "/b");
    const std::string known = Crl({.this_update = kNow - 1});
    const std::string shard = Crl({.issuing_distribution_point = elsewhere_});
    const struct {
        std::string known;
        std::string confirming;
        bool passes;
        unsigned transfers;
    } rows[] = {
        {known, known, true, 1},
        {known, Crl({.this_update = kNow - 2}), true, 3},  // confirms nothing
        {shard, shard, false, 2},  // the second keeps it under the first address as well
    };
    for (const auto& row : rows) {
        CM::ClearDownloadedCrlDB();
        ServeNothing("/a");
        Serve("/b", row.known);
        EXPECT_EQ(Passes(leaf), row.passes);
        Mark();
        Serve("/a", row.confirming);
        const std::uint64_t transfers = Transfers();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(Passes(leaf), row.passes);
        EXPECT_EQ(Transfers(), transfers + row.transfers);
    }
}

TEST_F(VerdictTest, WhatIsOutOfScopeStandsInNobodysWay) {
    const Cert leaf = LeafAt("/full", "/shard");
    Fill("/full", Expired(Listing(leaf)));
    ServeNothing("/full");
    Serve("/shard", Crl({.issuing_distribution_point = elsewhere_}));
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(Passes(leaf, kSoft)) << "a revocation that was seen is not forgotten";

    ServeNothing(path_);
    PutOnToken(Crl(Expired({.issuing_distribution_point = elsewhere_})));
    PutOnToken(Crl());
    EXPECT_TRUE(Passes(leaf_)) << "behind one that is out of date";
}

// --- Addresses ---

TEST_F(VerdictTest, AnAddressWithoutHostIsCompleted) {
    const std::string crl = Crl();
    Serve(path_, crl);
    const std::string host = server_.Uri("");
    const Cert leaf = Leaf({"http://" + path_});
    EXPECT_FALSE(Passes(leaf));
    EXPECT_TRUE(Passes(leaf, kStrict, host));
    EXPECT_TRUE(vendor_host::Logged(" - " + server_.Uri(path_) + "(modified), application/pkix-crl", kMsgCrlTransfer));
    EXPECT_TRUE(vendor_host::Logged(", data[" + std::to_string(crl.size()) + "]: 30", kMsgCrlTransfer));
    EXPECT_EQ(Cached(), Strings{path_});

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
    EXPECT_EQ(Verdict({&hostless, &issuing, &root_}, kStrict, server_.Uri("")), "");
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
