// Start, stop and token events.
#include <functional>
#include <thread>

#include "tests/store/hook_log.h"
#include "tests/support/wait.h"

namespace {

using namespace store_test;
using vendor_host::FireInsert;
using vendor_host::PendingEvents;

class LifecycleTest : public ModuleTest {
  protected:
    LifecycleTest() { token_->AddCertificate(MakeCa("CN=Root").der, {.trusted = true}); }
    ~LifecycleTest() override { vendor_host::SetEventMode(vendor_host::EventMode::kManual); }

    /// Reloads and runs what is due.
    static void Settle() {
        CM::Reload();
        vendor_host::Advance(10);
    }
    /// How often certificates, keys and CRLs were read since the last call.
    std::vector<unsigned> Reads() const {
        const std::vector<unsigned> reads{token_->Calls(Op::kEnumCertificates), token_->Calls(Op::kEnumPresharedKeys),
                                          token_->Calls(Op::kEnumCRLs)};
        token_->ClearCalls();
        return reads;
    }
};

TEST_F(LifecycleTest, SingleReloadsWorkInTheStoppedStateAndLeaveItStopped) {
    store().ReloadCertificates();
    EXPECT_EQ(store().trustedCerts.size(), 1U);
    vendor_host::Advance(10);
    FireInsert(*token_);
    EXPECT_EQ(PendingEvents(), 0U);
}

TEST_F(LifecycleTest, EventsWithinTheDelayFoldIntoOneReload) {
    using Counts = std::vector<unsigned>;
    Settle();
    Reads();
    FireInsert(*token_);
    PKCS11::Callbacks.tokenRemoved(token_->Info());
    FireInsert(*token_);
    EXPECT_EQ(vendor_host::Advance(1), 0U);
    EXPECT_EQ(vendor_host::Advance(1), 1U);
    EXPECT_EQ(Reads(), (Counts{1, 1, 1}));

    CM::CertStorage::PutReloadEvent(CM::kReloadCertificates);
    CM::CertStorage::PutReloadEvent(CM::kReloadCRLs);
    EXPECT_EQ(vendor_host::Advance(2), 1U);
    EXPECT_EQ(Reads(), (Counts{1, 0, 1}));

    store().ReloadCertificatesAsync();
    EXPECT_EQ(vendor_host::RunDue(), 1U);
    EXPECT_EQ(Reads(), (Counts{1, 0, 0}));

    // A single reload takes its bit out of what is queued.
    CM::CertStorage::PutReloadEvent(CM::kReloadCertificates | CM::kReloadCRLs);
    store().ReloadCRLs();
    vendor_host::Advance(2);
    EXPECT_EQ(Reads(), (Counts{1, 0, 1}));
}

TEST_F(LifecycleTest, HandlersQueueAndTellTheDaemon) {
    HookLog::Install();
    Settle();
    const PKCS11::ProviderInfo ready{.name = "ready", .available = true};
    const PKCS11::ProviderInfo broken{.name = "broken", .available = false};
    const PKCS11::CallbackTable& tell = PKCS11::Callbacks;
    // What happens, whether it makes a reload, and the hooks that are called.
    const std::tuple<const char*, std::function<void()>, bool, Strings> cases[] = {
        {"insert", [&] { tell.tokenInserted(token_->Info()); }, true, {"token card"}},
        {"remove", [&] { tell.tokenRemoved(token_->Info()); }, true, {}},
        {"login of another program", [&] { tell.tokenLogin(token_->Info(), false); }, true, {}},
        {"own login", [&] { tell.tokenLogin(token_->Info(), true); }, false, {}},
        {"provider with tokens", [&] { tell.providerInserted(ready, 2); }, true, {"provider ready"}},
        {"provider without tokens", [&] { tell.providerInserted(ready, 0); }, true, {}},
        {"provider not available", [&] { tell.providerInserted(broken, 2); }, false, {}},
    };
    for (const auto& [name, fire, reload, hooks] : cases) {
        SCOPED_TRACE(name);
        fire();
        EXPECT_EQ(PendingEvents(), reload ? 1U : 0U);
        EXPECT_EQ(HookLog::Take(), hooks);
        vendor_host::Advance(2);
    }
    CM::Callbacks = {};
    for (const auto& happen : cases) std::get<1>(happen)();
    EXPECT_EQ(HookLog::Take(), Strings());
}

TEST_F(LifecycleTest, FinitEmptiesTheStoreAndLeavesNothingQueued) {
    token_->AddPresharedKey("psk", "secret");
    token_->AddCrl("crl", MakeCrl({}, MakeCa("CN=Root")));
    token_->AddKeyPair("lone", test_pki::MakeKey(KeyType::kRsa2048));
    CM::Reload();
    FireInsert(*token_);
    EXPECT_EQ(PendingEvents(), 2U);  // the notification and the reload
    EXPECT_NE(vendor_host::Listener(bridge::kGroupCertificates), nullptr);
    CM::Finit();
    EXPECT_EQ(vendor_host::Listener(bridge::kGroupCertificates), nullptr);
    EXPECT_EQ(PendingEvents(), 0U);
    EXPECT_TRUE(vendor_host::Notifications().empty());
    EXPECT_TRUE(store().trustedCerts.empty() && store().keyPairCerts.empty());
    EXPECT_TRUE(store().presharedKeys.empty() && store().crls.empty());
    EXPECT_TRUE(PKCS11::Callbacks.tokenInserted == nullptr && PKCS11::Callbacks.tokenRemoved == nullptr);
    EXPECT_TRUE(PKCS11::Callbacks.tokenLogin == nullptr && PKCS11::Callbacks.providerInserted == nullptr);
    EXPECT_FALSE(store().WaitReloadDone());

    CM::Init();
    FireInsert(*token_);
    EXPECT_EQ(PendingEvents(), 0U);
    CM::Reload();
    EXPECT_EQ(store().trustedCerts.size(), 1U);
}

TEST_F(LifecycleTest, ReadersGoOnWhileATokenIsRead) {
    EXPECT_FALSE(store().WaitReloadDone()) << "nothing to wait for";
    Settle();
    EXPECT_FALSE(store().WaitReloadDone());
    vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
    const auto gate = std::make_shared<vendor_host::Gate>();
    token_->Block(Op::kEnumCertificates, gate);
    token_->AddCertificate(MakeCa("CN=Second").der, {.trusted = true});
    FireInsert(*token_);
    ASSERT_TRUE(gate->WaitForArrivals(1));
    const auto count = [] {
        const vpnfc::ReadLock lock(store());
        return store().trustedCerts.size();
    };
    EXPECT_EQ(count(), 1U);
    gate->Open();
    store().WaitReloadDone();  // false when it is done already
    EXPECT_EQ(count(), 2U);
}

TEST_F(LifecycleTest, StoppingReleasesWhoWaitsForAReload) {
    Settle();
    FireInsert(*token_);
    test_support::Event started;
    std::jthread waiter([&] {
        started.Signal();
        store().WaitReloadDone();
    });
    ASSERT_TRUE(started.Wait());
    store().ClearAll();
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
            return PendingEvents() == 0;  // ignored already
        });
        vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
        store().ReloadCertificatesAsync();  // is not, and waits for the lock as the stopper does
        until([] { return PendingEvents() == 0; });
    }
    stopper.join();
    EXPECT_TRUE(store().trustedCerts.empty());
}

}  // namespace
