// The cache of downloaded CRLs and the memory of failures: what they hold, how much, and until when.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/revocation/revocation_fixture.h"

namespace revocation_test {
namespace {

using CrlCacheTest = RevocationTest;

TEST_F(CrlCacheTest, AChangeOfTheParametersAndTheModulesEndReachIt) {
    ASSERT_EQ(LPARAMS::server.cert.on_change.size(), 1U);
    const auto change = LPARAMS::server.cert.on_change[0];
    Fill("/b", {.number = "\x0B"});
    vpnfc::SetCurrentTimeForTesting(kNow + 5);
    Fill("/a", {.number = "\x0A"});
    EXPECT_EQ(Cached(), (Strings{"/a", "/b"}));
    const auto listed = Listed();
    ASSERT_EQ(listed.size(), 2U);
    EXPECT_EQ(listed[0].second.crlNumber + listed[1].second.crlNumber, "0A0B");
    EXPECT_EQ(CM::FindCachedCrl(server_.Uri("/a"))->downloadedAt, CertTimeFrom_time_t(kNow + 5));
    change(true);
    EXPECT_FALSE(CM::FindCachedCrl(server_.Uri("/a"))->refresh);
    change(false);
    EXPECT_TRUE(CM::FindCachedCrl(server_.Uri("/a"))->refresh && CM::FindCachedCrl(server_.Uri("/b"))->refresh);
    EXPECT_EQ(CM::Finit(), 0);
    EXPECT_TRUE(Cached().empty() && LPARAMS::server.cert.on_change.empty());
    CM::Init();
    Fill("/a");
    SetParams([](LPARAMS::CertParams& params) { params.crl_cache = 0; });
    EXPECT_EQ(Cached().size(), 1U);
    change(false);
    Fill("/a");
    EXPECT_EQ(Cached(), Strings()) << "nothing is kept";
    EXPECT_EQ(server_.Requests("/a"), 3U);
}

TEST_F(CrlCacheTest, DeletesTheFirstOneThatFits) {
    Fill("/a", {.number = "\x01"});
    Fill("/b", {.number = "\x02"});
    Fill("/c", {.number = "\x02"});
    const CM::CrlRef crl = CM::FindCachedCrl(server_.Uri("/b"));
    const auto differs = [&](auto change) {
        PKCS11::TokenInfo token = crl->token;
        CRLInfo info = crl->info;
        change(token, info);
        EXPECT_FALSE(CM::DeleteDownloadedCrlDB(token, info));
    };
    differs([](auto& token, auto&) { ++token.id; });
    differs([](auto&, auto& info) { info.issuer += "x"; });
    differs([](auto&, auto& info) { ++info.thisUpdate; });
    differs([](auto&, auto& info) { ++info.nextUpdate; });
    differs([](auto&, auto& info) { ++info.signAlg; });
    differs([](auto&, auto& info) { info.crlNumber = "03"; });
    CRLInfo wanted = crl->info;
    wanted.id = "ignored";
    wanted.deltaCrlIndicator = "ignored";
    EXPECT_TRUE(CM::DeleteDownloadedCrlDB(crl->token, wanted));
    EXPECT_EQ(Cached(), (Strings{"/a", "/c"}));
    EXPECT_TRUE(CM::DeleteDownloadedCrlDB(crl->token, wanted));
    EXPECT_FALSE(CM::DeleteDownloadedCrlDB(crl->token, wanted));
}

TEST_F(CrlCacheTest, HasABoundInBytes) {
    const std::size_t size = Crl({.number = "\x01"}).size();
    SetParams([&](LPARAMS::CertParams& params) { params.crl_cache_max_bytes = 2 * size + size / 2; });
    // Downloaded at different times, not in the order of the addresses.
    std::time_t now = kNow;
    for (const char* path : {"/c", "/b", "/a"}) {
        vpnfc::SetCurrentTimeForTesting(++now);
        Fill(path, {.number = "\x01"});
    }
    EXPECT_EQ(Cached(), (Strings{"/a", "/b"}));
    CrlSpec large;
    for (int i = 0; i < 100; ++i) large.entries.push_back({.serial = "serial" + std::to_string(i)});
    Fill("/d", large);
    EXPECT_EQ(Cached(), (Strings{"/a", "/b"})) << "too large to be kept";
}

TEST_F(CrlCacheTest, HasABoundInNumber) {
    const std::string der = Crl();
    {
        const vpnfc::ObjectLock lock(CM::g_crl_db_lock);
        for (std::size_t i = 0; i < CM::kMaxCachedCrls; ++i) {
            const auto crl = std::make_shared<CM::X509CRL>(
                CertEngine_CreateCRLHandle(der.data(), static_cast<unsigned>(der.size())), true);
            crl->uri = "http://filler/" + std::to_string(i);
            crl->downloadedAt = i == 7 ? 0 : crl->downloadedAt;
            CM::g_crl_db.emplace(&crl->uri, crl);
        }
    }
    Fill("/a");
    EXPECT_EQ(Cached().size(), CM::kMaxCachedCrls);
    EXPECT_NE(CM::FindCachedCrl(server_.Uri("/a")), nullptr);
    EXPECT_EQ(CM::FindCachedCrl("http://filler/7"), nullptr);
}

// --- Failures ---

class CrlFailureTest : public RevocationTest {
  protected:
    CrlFailureTest() {
        SetParams([](LPARAMS::CertParams& params) { params.crl_retry_seconds = 30; });
    }
    void Ask(const std::string& path = "/a") { Passes(LeafAt(path), kSoft); }
    void At(std::time_t seconds) { vpnfc::SetCurrentTimeForTesting(kNow + seconds); }
};

TEST_F(CrlFailureTest, IsNotRepeatedForAWhile) {
    const auto asked = [this](std::time_t second) {
        At(second);
        Ask();
        return server_.Requests("/a");
    };
    EXPECT_EQ(asked(0), 1U);
    EXPECT_EQ(asked(29), 1U);
    EXPECT_EQ(Outcomes(),
              (Strings{"no data: HTTP status 404", "no data: HTTP status 404 (29 s ago, not asked again yet)"}));
    EXPECT_FALSE(Passes(LeafAt("/a"), kStrict)) << "it counts as a failure of its own";
    Ask("/b");
    EXPECT_EQ(server_.Requests("/b"), 1U) << "another address";
    EXPECT_EQ(asked(30), 2U);
    EXPECT_EQ(asked(10), 3U) << "a clock that was put back";
    Serve("/a", Crl(Expired()));
    EXPECT_EQ(asked(40), 4U);
    EXPECT_EQ(asked(20), 5U) << "forgotten when it answers";
    ServeNothing("/a");
    EXPECT_EQ(asked(20), 6U);
    CM::cm_crl_apply_lparams_(true);
    EXPECT_EQ(asked(20), 6U);
    Mark();
    EXPECT_EQ(asked(20), 7U) << "forgotten when the parameters change";
    CM::ClearDownloadedCrlDB();
    EXPECT_EQ(asked(20), 8U) << "or the cache is emptied";
    SetParams([](LPARAMS::CertParams& params) { params.crl_retry_seconds = 0; });
    EXPECT_EQ(asked(20), 9U) << "0 asks always";
}

TEST_F(CrlFailureTest, OfEveryKindIsRemembered) {
    const test_support::ReservedPort closed;
    Serve("/empty", "");
    Serve("/html", "<html></html>");
    for (const std::string& address : {server_.Uri("/empty"), server_.Uri("/html"), closed.Uri("http", "/a")}) {
        const std::uint64_t transfers = Transfers();
        for (int i = 0; i < 2; ++i) EXPECT_FALSE(Passes(Leaf({address})));
        EXPECT_EQ(Transfers(), transfers + 1) << address;
    }
}

TEST_F(CrlFailureTest, OfOneIssuerIsNotAnothers) {
    Serve("/a", Crl());
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(PassesUnder(OthersLeaf("/a", other_), other_, kStrict));
    EXPECT_EQ(Transfers(), 1U);
    EXPECT_EQ(Outcomes(), (Strings{"Invalid signature", "Invalid signature (0 s ago, not asked again yet)"}));
    EXPECT_TRUE(Passes(LeafAt("/a")));
}

TEST_F(CrlFailureTest, TroubleWithTheTokenIsNotTheAddresss) {
    using vendor_host::Op;
    Serve("/a", Crl());
    for (const auto& [op, outcome] : {std::pair(Op::kDigest, "Digest error"),
                                      {Op::kVerify, "Invalid signature"},
                                      {Op::kOpenPublic, "Can't open token to verify signature"}}) {
        token_->Fail(op, 1);
        EXPECT_FALSE(Passes(LeafAt("/a")));
        EXPECT_EQ(Outcomes(), Strings{outcome});
    }
    token_->SetAlgorithms({});
    EXPECT_FALSE(Passes(LeafAt("/a")));
    EXPECT_EQ(Outcomes(), Strings{"No token to verify signature"});
    token_->SetAlgorithms({PKI_KEY_EC, PKI_HASH_SHA256});
    EXPECT_TRUE(Passes(LeafAt("/a")));
}

TEST_F(CrlFailureTest, MemoryHasABound) {
    const test_support::ReservedPort closed;
    Ask();
    At(1);
    for (std::size_t i = 0; i < CM::kMaxCrlFailures - 1; ++i) {
        Passes(Leaf({closed.Uri("http", "/" + std::to_string(i))}), kSoft);
    }
    Ask();
    EXPECT_EQ(server_.Requests("/a"), 1U);
    Passes(Leaf({closed.Uri("http", "/one-more")}), kSoft);
    Ask();
    EXPECT_EQ(server_.Requests("/a"), 2U) << "the oldest one had to go";
}

}  // namespace
}  // namespace revocation_test
