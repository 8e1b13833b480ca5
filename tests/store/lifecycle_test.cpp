// Start, stop and token events.
#include <thread>

#include "store_fixture.h"
#include "tests/support/wait.h"

namespace {

using namespace store_test;
using test_pki::MakeCa;
using vendor_host::Op;

class LifecycleTest : public StoreTest {
  protected:
    LifecycleTest() : card(vendor_host::AddToken("card")) {
        card->AddCertificate(MakeCa("CN=Root").der, {.trusted = true});
    }
    ~LifecycleTest() override { vendor_host::SetEventMode(vendor_host::EventMode::kManual); }

    /// Runs what is due and drops the count of it.
    static void Settle() {
        CM::Reload();
        vendor_host::Advance(10);
    }
    /// How often each kind of object was read since the last call.
    Strings Reads() const {
        Strings reads;
        for (const auto& [op, name] : {std::pair{Op::kEnumCertificates, "certificates"},
                                       {Op::kEnumPresharedKeys, "keys"},
                                       {Op::kEnumCRLs, "crls"}}) {
            for (unsigned i = 0; i < card->Calls(op); ++i) reads.emplace_back(name);
        }
        card->ClearCalls();
        return reads;
    }

    static const inline Strings kEverything{"certificates", "keys", "crls"};
    std::shared_ptr<vendor_host::Token> card;
};

TEST_F(LifecycleTest, SingleReloadsWorkInTheStoppedStateAndLeaveItStopped) {
    store().ReloadCertificates();
    EXPECT_EQ(store().trustedCerts.size(), 1U);
    vendor_host::Advance(10);
    vendor_host::FireInsert(*card);
    EXPECT_EQ(vendor_host::PendingEvents(), 0U);
}

TEST_F(LifecycleTest, EventsWithinTheDelayFoldIntoOneReload) {
    Settle();
    Reads();
    vendor_host::FireInsert(*card);
    vendor_host::FireRemove(*card);
    vendor_host::FireInsert(*card);
    EXPECT_EQ(vendor_host::Advance(1), 0U);
    EXPECT_EQ(vendor_host::Advance(1), 1U);
    EXPECT_EQ(Reads(), kEverything);

    CM::CertStorage::PutReloadEvent(CM::kReloadCertificates);
    CM::CertStorage::PutReloadEvent(CM::kReloadCRLs);
    EXPECT_EQ(vendor_host::Advance(2), 1U);
    EXPECT_EQ(Reads(), (Strings{"certificates", "crls"}));

    store().ReloadCertificatesAsync();
    EXPECT_EQ(vendor_host::RunDue(), 1U);
    EXPECT_EQ(Reads(), Strings{"certificates"});

    // A single reload takes its bit out of what is queued.
    CM::CertStorage::PutReloadEvent(CM::kReloadCertificates | CM::kReloadCRLs);
    store().ReloadCRLs();
    vendor_host::Advance(2);
    EXPECT_EQ(Reads(), (Strings{"certificates", "crls"}));
}

TEST_F(LifecycleTest, HandlersQueueAndTellTheDaemon) {
    HookLog::Install();
    Settle();
    HookLog::Take();
    const PKCS11::ProviderInfo ready{.name = "ready", .available = true};
    const PKCS11::ProviderInfo broken{.name = "broken", .available = false};
    struct Case {
        const char* name;
        std::function<void()> fire;
        bool reload;
        Strings hooks;
    };
    const Case cases[] = {
        {"insert", [this] { vendor_host::FireInsert(*card); }, true, {"token card"}},
        {"remove", [this] { vendor_host::FireRemove(*card); }, true, {}},
        {"login of another program", [this] { vendor_host::FireLogin(*card, false); }, true, {}},
        {"own login", [this] { vendor_host::FireLogin(*card, true); }, false, {}},
        {"provider with tokens", [&] { vendor_host::FireProviderInsert(ready, 2); }, true, {"provider ready"}},
        {"provider without tokens", [&] { vendor_host::FireProviderInsert(ready, 0); }, true, {}},
        {"provider not available", [&] { vendor_host::FireProviderInsert(broken, 2); }, false, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.fire();
        EXPECT_EQ(vendor_host::PendingEvents(), c.reload ? 1U : 0U);
        EXPECT_EQ(HookLog::Take(), c.hooks);
        vendor_host::Advance(2);
    }
    CM::Callbacks = {};
    for (const Case& c : cases) c.fire();
    EXPECT_EQ(HookLog::Take(), Strings());
}

TEST_F(LifecycleTest, FinitEmptiesTheStoreAndLeavesNothingQueued) {
    card->AddPresharedKey("psk", "secret");
    card->AddCrl("crl", test_pki::MakeCrl({}, MakeCa("CN=Root")));
    card->AddKeyPair("lone", test_pki::MakeKey(test_pki::KeyType::kRsa2048));
    CM::Reload();
    vendor_host::FireInsert(*card);
    EXPECT_EQ(vendor_host::PendingEvents(), 2U);  // the notification and the reload
    EXPECT_NE(vendor_host::Listener(bridge::kGroupCertificates), nullptr);
    CM::Finit();
    EXPECT_EQ(vendor_host::Listener(bridge::kGroupCertificates), nullptr);
    EXPECT_EQ(vendor_host::PendingEvents(), 0U);
    EXPECT_EQ(vendor_host::NotificationCount(9), 0U);
    EXPECT_TRUE(store().trustedCerts.empty() && store().keyPairCerts.empty());
    EXPECT_TRUE(store().presharedKeys.empty() && store().crls.empty());
    EXPECT_TRUE(PKCS11::Callbacks.tokenInserted == nullptr && PKCS11::Callbacks.tokenRemoved == nullptr);
    EXPECT_TRUE(PKCS11::Callbacks.tokenLogin == nullptr && PKCS11::Callbacks.providerInserted == nullptr);
    EXPECT_FALSE(store().WaitReloadDone());

    CM::Init();
    vendor_host::FireInsert(*card);
    EXPECT_EQ(vendor_host::PendingEvents(), 0U);
    CM::Reload();
    EXPECT_EQ(store().trustedCerts.size(), 1U);
}

TEST_F(LifecycleTest, WaitingEndsWithTheReload) {
    EXPECT_FALSE(store().WaitReloadDone());
    Settle();
    EXPECT_FALSE(store().WaitReloadDone());
    vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
    // The reload may end before the waiter gets as far as waiting: then it is tried again.
    constexpr int kAttempts = 100;
    bool waited = false;
    for (int attempt = 1; attempt <= kAttempts && !waited; ++attempt) {
        const auto gate = std::make_shared<vendor_host::Gate>();
        card->Block(Op::kEnumCertificates, gate);
        card->AddCertificate(MakeCa("CN=Number " + std::to_string(attempt)).der, {.trusted = true});
        vendor_host::FireInsert(*card);
        ASSERT_TRUE(gate->WaitForArrivals(1));
        const std::size_t before = static_cast<std::size_t>(attempt);
        test_support::Event about_to_wait;
        std::thread waiter([&] {
            about_to_wait.Signal();
            waited = store().WaitReloadDone();
            const vpnfc::ReadLock lock(store());
            EXPECT_TRUE(!waited || store().trustedCerts.size() == before + 1);
        });
        EXPECT_TRUE(about_to_wait.Wait());
        {
            const vpnfc::ReadLock lock(store());  // readers go on while the token is read
            EXPECT_EQ(store().trustedCerts.size(), before);
        }
        gate->Open();
        waiter.join();
        ASSERT_TRUE(vendor_host::WaitEventsIdle());
        card->Block(Op::kEnumCertificates, nullptr);
    }
    EXPECT_TRUE(waited);
}

TEST_F(LifecycleTest, StoppingReleasesWhoWaitsForAReload) {
    Settle();
    vendor_host::FireInsert(*card);
    test_support::Event started;
    std::thread waiter([&] {
        started.Signal();
        store().WaitReloadDone();
    });
    ASSERT_TRUE(started.Wait());
    store().ClearAll();
    waiter.join();
}

TEST_F(LifecycleTest, NothingThatIsReadDuringTheStopRemains) {
    Settle();
    const auto until = [end = std::chrono::steady_clock::now() + test_support::kWaitLimit](auto condition) {
        while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
        EXPECT_TRUE(condition());
    };
    std::thread stopper;
    {
        const vpnfc::ObjectLock running_reload(store().tokensLock);
        stopper = std::thread([] { CM::Finit(); });
        until([] {
            CM::CertStorage::PutReloadEvent(CM::kReloadAll);
            return vendor_host::PendingEvents() == 0;  // ignored already
        });
        vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
        store().ReloadCertificatesAsync();  // is not, and waits for the lock as the stopper does
        until([] { return vendor_host::PendingEvents() == 0; });
    }
    stopper.join();
    EXPECT_TRUE(store().trustedCerts.empty());
    CM::CertStorage::PutReloadEvent(CM::kReloadAll);
    EXPECT_EQ(vendor_host::PendingEvents(), 0U);
}

using LifecycleDeathTest = LifecycleTest;

}  // namespace
