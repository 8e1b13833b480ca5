// Readers, reloads and CRL arrivals at the same time: for the thread sanitizer.
#include <atomic>
#include <thread>

#include "store_fixture.h"

namespace {

using namespace store_test;

class ThreadsTest : public StoreTest {
  protected:
    static constexpr unsigned kReaders = 4;
    static constexpr unsigned kRounds = 100;

    /// Everything a reader does, once; what it held on to is checked after the lock is gone.
    static void ReadOnce(const LPCFG::cert_t& pattern) {
        CM::CertRef held;
        {
            const vpnfc::ReadLock lock(store());
            const auto& list = store().personalCerts;
            for (std::size_t i = 0; i < list.size(); ++i) {
                ASSERT_EQ(list.PositionOf(list[i]), i);
                if (list[i]->MatchToPattern(pattern, 0)) held = CM::CertRef(list[i]);
            }
            for (const std::uint32_t position : list.WithSubject("CN=stays")) ASSERT_LT(position, list.size());
            for (const auto& crl : store().crls) ASSERT_FALSE(crl->rawCrl().empty());
        }
        if (held) {
            ASSERT_EQ(held->info.subject, pattern.subject);
        }
        const CM::CertStorage::CopyCertificates copy(store(), store().personalCerts);
        for (const CM::X509Cert* cert : copy) ASSERT_EQ(cert->info.kind, kCertKindPersonal);
    }
};

TEST_F(ThreadsTest, ReadersSeeWholeListsWhileReloadsSwapThem) {
    const auto root = test_pki::MakeCa("CN=Root");
    const auto card = vendor_host::AddToken("card");
    card->AddCertificate(test_pki::MakeLeaf("CN=stays", root).der, {.id = "stays", .category = 1});
    const std::string guest = test_pki::MakeLeaf("CN=guest", root).der;
    const std::string crl = test_pki::MakeCrl({}, root);
    CM::Reload();
    vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);

    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kReaders; ++i) {
        threads.emplace_back([&stop, i] {
            const LPCFG::cert_t pattern{.subject = i % 2 == 0 ? "CN=stays" : "CN=guest"};
            while (!stop && !HasFatalFailure()) ReadOnce(pattern);
        });
    }
    threads.emplace_back([&] {
        while (!stop) {
            store().PutCRLToDB(std::make_unique<CM::X509CRL>(PKCS11::TokenInfo{}, PKCS11::CRLObject{.value = crl}));
            store().WaitReloadDone();
        }
    });
    CM::X509Cert* const stays = store().personalCerts[0];
    for (unsigned round = 0; round < kRounds; ++round) {
        card->AddCertificate(guest, {.id = "guest", .category = 1});
        vendor_host::FireInsert(*card);
        store().ReloadCertificates();
        card->Remove("guest");
        vendor_host::FireRemove(*card);
        CM::Reload();
    }
    ASSERT_TRUE(vendor_host::WaitEventsIdle());
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(store().personalCerts.certs(), std::vector{stays});
    vendor_host::SetEventMode(vendor_host::EventMode::kManual);
}

}  // namespace
