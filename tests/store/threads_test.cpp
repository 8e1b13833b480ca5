// IKE's calls, look-ups and CRL arrivals while the store is reloaded: for the thread sanitizer.
#include <atomic>
#include <thread>

#include "certmgr/chain.h"
#include "tests/chain/peer_fixture.h"

namespace chain_test {
namespace {

TEST_F(PeerTest, WorksWhileTheStoreIsReloaded) {
    constexpr unsigned kThreads = 4;
    constexpr unsigned kRounds = 40;
    const Cert local = MakeLeaf("CN=local", issuing_, KeyType::kEcP256, 5);
    Store({&root_}, {&issuing_}, {&local});
    const Payload payload({&peer_});
    const std::string crl = MakeCrl({}, root_);
    std::atomic<unsigned> requested{0};
    std::atomic<bool> done{false};
    CM::X509Cert* const stays = store().personalCerts[0];
    const auto work = [&] {
        for (unsigned round = 0; round < kRounds; ++round) {
            const Handle peer(
                CM::IkeVerifyPeerCertificate(rule_, id_, payload.certs, LPARAMS::CRL_PROC_DISABLED, {}, ident_));
            const auto count = [](const std::string&, void* counter) {
                ++*static_cast<std::atomic<unsigned>*>(counter);
            };
            CM::IkeBuildCertRequestList(count, &requested, CM::kPublicKeySha1, &rule_, ident_);
            {
                const vpnfc::ReadLock lock(store());
                const auto& list = store().otherCerts;
                for (std::size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list.PositionOf(list[i]), i);
                for (const auto position : list.WithSubject("CN=issuing")) EXPECT_LT(position, list.size());
                for (const auto& held : store().crls) EXPECT_EQ(held->rawCrl(), crl);
            }
            Handle locals;
            CM::GetLocalCertificatesBySubject(locals.certs, "CN=local");
            for (const CM::X509Cert* cert : locals.certs) {
                Handle chain;
                CM::BuildLocalCertChain(chain.certs, cert, ident_);
                std::string reason;
                CMT_VerifyCertChain(const_cast<CM::X509Cert*>(cert), 0, &reason);
                EXPECT_TRUE(CM::LocalCertsExportToRawPKCS7(reason, ident_));  // copies the list
            }
        }
    };
    vendor_host::SetEventMode(vendor_host::EventMode::kThreaded);
    std::thread reloads([&] {
        const std::string id = store().otherCerts[0]->info.id;
        while (!done) {
            token_->Remove(id);
            CM::Reload();
            vendor_host::FireInsert(*token_);
            store().PutCRLToDB(std::make_unique<CM::X509CRL>(PKCS11::TokenInfo{}, PKCS11::CRLObject{.value = crl}));
            token_->AddCertificate(issuing_.der, {.id = id});
            store().ReloadCertificates();
            store().WaitReloadDone();
        }
    });
    {
        std::vector<std::jthread> workers;
        for (unsigned i = 0; i < kThreads; ++i) workers.emplace_back(work);
    }
    done = true;
    reloads.join();
    vendor_host::SetEventMode(vendor_host::EventMode::kManual);
    EXPECT_EQ(requested, kThreads * kRounds);
    EXPECT_EQ(store().personalCerts.certs(), std::vector{stays});
    CM::Reload();
    EXPECT_EQ(Verify(payload), Strings{"CN=peer"});
}

}  // namespace
}  // namespace chain_test
