// Who waits for whom: a transfer holds nobody up but those who need what it brings.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "certmgr/records_sync.h"
#include "tests/revocation/revocation_fixture.h"

namespace revocation_test {
namespace {

class WaitingTest : public RevocationTest {
  protected:
    /// Threads that are joined at the end.
    template <typename Work>
    void Start(unsigned count, Work work) {
        for (unsigned i = 0; i < count; ++i) threads_.emplace_back(work, i);
    }
    void Join() {
        for (std::thread& thread : threads_) thread.join();
        threads_.clear();
    }

    /// Starts a check that joins the transfer under way.
    template <typename Work>
    void StartJoining(Work work) {
        const std::uint64_t joined = CM::g_crl_counters.joined;
        Start(1, work);
        const auto limit = std::chrono::steady_clock::now() + test_support::kWaitLimit;
        while (CM::g_crl_counters.joined == joined && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
    }
    /// Starts work whose request of "/a", that of this number, hangs until it lands.
    template <typename Work>
    void StartHeld(unsigned request, Work work) {
        server_.Hold("/a");
        Start(1, work);
        ASSERT_TRUE(server_.WaitForRequests("/a", request));
    }
    void Land() {
        server_.Release("/a");
        Join();
    }
    /// A check that comes to that.
    auto Check(const Cert& cert, bool passes = true) {
        return [this, cert, passes](unsigned) { EXPECT_EQ(Passes(cert), passes); };
    }

    std::vector<std::thread> threads_;
};

TEST_F(WaitingTest, NothingIsHeldWhileATransferHangs) {
    Fill("/kept");
    Serve("/new", Crl());
    Serve("/a", Crl());
    StartHeld(1, Check(LeafAt("/a")));

    // Each of these would wait for ever.
    EXPECT_TRUE(Passes(LeafAt("/kept")) && Passes(LeafAt("/new")));
    EXPECT_TRUE(CM::g_crl_db_lock.try_lock());
    CM::g_crl_db_lock.unlock();
    EXPECT_TRUE(LPARAMS::server.cert.try_lock());
    LPARAMS::server.cert.unlock();
    Mark();
    CM::ClearDownloadedCrlDB();
    CM::Reload();
    Land();
    EXPECT_EQ(Cached(), Strings()) << "what was under way when all was to be downloaded again";
}

TEST_F(WaitingTest, AMarkFailsOneCheckAloneAndItsTransferServesAll) {
    const Cert leaf = LeafAt("/a");
    const std::string listing = Crl(Listing(leaf));
    const std::string older = Crl(Expired({.this_update = test_pki::kNotBefore - kDay}));
    CrlSpec newer = Listing(leaf);
    newer.this_update = kNow - 1;
    // What the server has by then, what a token has, and whether those who waited pass.
    const std::tuple<std::string, std::string, bool> cases[] = {
        {listing, older, false}, {"", older, true}, {"", Crl(newer), false}};
    unsigned requests = 0;
    for (const auto& [served, on_token, passes] : cases) {
        SCOPED_TRACE(requests);
        CM::ClearDownloadedCrlDB();
        Fill("/a");
        Mark();
        served.empty() ? ServeNothing("/a") : Serve("/a", served);
        token_->Remove("crl0");
        PutOnToken(on_token);
        StartHeld(requests += 2, Check(leaf, false));
        StartJoining(Check(leaf, passes));
        Land();
    }
    EXPECT_EQ(Transfers(), requests);
}

TEST_F(WaitingTest, AMarkOutlivesTheWrongCrlThatWasUnderWay) {
    Fill("/a");
    Mark();
    Serve("/a", test_pki::MakeCrl({}, stranger_));
    StartHeld(2, Check(LeafAt("/a"), false));
    Mark();
    Land();
    EXPECT_FALSE(Passes(LeafAt("/a")));
    EXPECT_EQ(Transfers(), 3U);
}

TEST_F(WaitingTest, WhatWasUnderWayAtAChangeIsAskedForAgain) {
    SetParams([](LPARAMS::CertParams& params) { params.crl_retry_seconds = 30; });
    unsigned requests = 0;
    for (const auto& change : {&CM::ClearDownloadedCrlDB, &Mark}) {
        for (const bool good : {false, true}) {
            good ? Serve("/a", Crl()) : ServeNothing("/a");
            StartHeld(++requests, Check(LeafAt("/a"), good));
            change();
            Land();
            Serve("/a", Crl());
            EXPECT_TRUE(Passes(LeafAt("/a")));
            EXPECT_EQ(server_.Requests("/a"), ++requests);
            CM::ClearDownloadedCrlDB();
        }
    }
}

TEST_F(WaitingTest, ARememberedFailureWaitsForNobody) {
    SetParams([](LPARAMS::CertParams& params) { params.crl_retry_seconds = 30; });
    const Cert others = OthersLeaf("/a", other_);
    Serve("/a", Crl());
    EXPECT_FALSE(PassesUnder(others, other_, kStrict));
    StartHeld(2, Check(LeafAt("/a")));
    EXPECT_FALSE(PassesUnder(others, other_, kStrict)) << "while the other one's transfer hangs";
    Land();
}

TEST_F(WaitingTest, AMarkThatComesDuringATransferIsForTheNextOne) {
    Fill("/a");
    Mark();
    StartHeld(2, Check(LeafAt("/a")));
    Mark();
    Start(1, Check(LeafAt("/a")));
    ASSERT_TRUE(server_.WaitForRequests("/a", 3)) << "what was asked for before will not do";
    Land();
}

TEST_F(WaitingTest, WhatComesAfterAMarkIsKeptAndAskedForAgain) {
    const Cert leaf = LeafAt("/a", "/b");
    Fill("/b");
    Mark();
    Serve("/a", Crl(Listing(leaf)));
    StartHeld(1, Check(leaf, false));
    Mark();
    Land();
    EXPECT_EQ(Cached(), Strings{"/a"});
    ServeNothing("/a");
    ServeNothing("/b");
    EXPECT_FALSE(Passes(leaf, kSoft));
    EXPECT_EQ(server_.Requests("/a"), 2U);
}

TEST_F(WaitingTest, ATokenThatHangsHoldsNobodyUp) {
    Serve("/a", Crl());
    const auto gate = std::make_shared<vendor_host::Gate>();
    token_->Block(vendor_host::Op::kVerify, gate);
    Start(1, Check(LeafAt("/a")));
    ASSERT_TRUE(gate->WaitForArrivals(1));
    EXPECT_TRUE(CM::g_crl_db_lock.try_lock());
    CM::g_crl_db_lock.unlock();
    { const vpnfc::WriteLock free(store()); }
    gate->Open();
    Join();
}

TEST_F(WaitingTest, AnswersOfASharedTransferAreJudgedByEachIssuer) {
    const Cert others = OthersLeaf("/a", stranger_);
    Serve("/a", Crl());
    const auto check_others = [&](unsigned) { EXPECT_FALSE(PassesUnder(others, stranger_, kStrict)); };
    StartHeld(1, check_others);
    StartJoining(check_others);
    Start(4, Check(LeafAt("/a")));
    Land();
    EXPECT_TRUE(Passes(LeafAt("/a")));
    EXPECT_EQ(Cached(), Strings{"/a"});
}

TEST_F(WaitingTest, OneTransferServesAllWhoNeedTheAddress) {
    SetParams([](LPARAMS::CertParams& params) {
        params.crl_retry_seconds = 30;
        params.crl_download_timeout_seconds = 1;
    });
    server_.Set("/dead", {.silent = true});
    Serve("/alive", Crl());
    Start(64, [&](unsigned) {
        EXPECT_TRUE(Passes(LeafAt("/dead", "/alive")));
        EXPECT_FALSE(Passes(LeafAt("/dead")));
    });
    Join();
    EXPECT_EQ(server_.Requests("/dead"), 1U);
    EXPECT_EQ(server_.Requests("/alive"), 1U);
    EXPECT_EQ(Parsed(), 1U);
}

// For the thread sanitizer above all.
TEST_F(WaitingTest, ChecksAmongChangesOfTheCache) {
    using std::chrono::milliseconds;
    SetParams([](LPARAMS::CertParams& params) {
        params.crl_cache_max_bytes = 4 * 400;
        params.crl_retry_seconds = 30;
    });
    const Cert revoked = LeafAt("/4");
    std::vector<Cert> good;
    for (int i = 0; i < 5; ++i) {
        const std::string path = "/" + std::to_string(i);
        server_.Set(path, {.body = Crl(Listing(revoked)), .byte_interval = milliseconds(i == 0 ? 1 : 0)});
        good.push_back(LeafAt(path));
    }
    const test_support::ReservedPort closed;
    const Cert dead = Leaf({closed.Uri("http", "/a")});
    Start(16, [&](unsigned thread) {
        for (unsigned i = 0; i < 24; ++i) {
            const unsigned turn = (thread + i) % 12;
            if (turn == 0) CM::ClearDownloadedCrlDB();
            if (turn == 1) Mark();
            if (turn == 2) {
                const auto listed = Listed();
                if (!listed.empty()) CM::DeleteDownloadedCrlDB(listed[0].first, listed[0].second);
            }
            const Cert& other = turn == 4 ? dead : good[(thread * 7 + i) % good.size()];
            const Cert& checked = turn == 3 ? revoked : other;
            EXPECT_EQ(Passes(checked, kSoft), turn != 3);
        }
    });
    Join();
}

}  // namespace
}  // namespace revocation_test
