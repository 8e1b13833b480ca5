// The module on real tokens under load: eight threads select, sign and verify while tokens go, come back and are
// reloaded. For the thread sanitizer; the outcomes of single calls depend on the moment.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "certmgr/certmgr.h"
#include "certmgr/ike.h"
#include "platform/host/host.h"
#include "tests/programs/hosts.h"
#include "tests/support/wait.h"

namespace program_test {
namespace {

/// What an IKE thread does again and again; whether the peer was verified.
bool SelectSignAndVerify(const LPCFG::auth_ike_t& rule, const Hosts& hosts) {
    LPCFG::ipsecid_t id;
    const CM::SelectLocalResult own =
        CM::IkeSelectLocalCertificate(&id, rule, CM::kIgnoreBoundFirst, nullptr, nullptr, {});
    std::string signature;
    const bool signed_now = own.status == CM::kLocalAccepted &&
                            CM::Ike2Sign(own.cert, CM::Ike2GetSignAlg(own.cert), "octets", signature, {});
    CM::VCertHandleClose(own.cert);
    std::vector<const CM::X509Cert*> received;
    for (const std::string* der : {&hosts.leaf.der, &hosts.intermediate.der}) {
        CM::VCertsListAddRawX509(received, der->data(), static_cast<unsigned>(der->size()), {});
    }
    id = {.type = LPCFG::ipsecid_t::kFqdn};
    id.value = "alice.example";
    const CM::X509Cert* peer = CM::IkeVerifyPeerCertificate(rule, id, received, LPARAMS::CRL_PROC_DISABLED, {}, {});
    const bool verified =
        peer != nullptr && signed_now && CM::Ike2Verify(peer, CM::Ike2GetSignAlg(peer), "octets", signature, {});
    CM::VCertHandleClose(peer);
    for (const CM::X509Cert* cert : received) CM::VCertHandleClose(cert);
    return verified;
}

TEST(LoadTest, SelectionsAndVerificationsWhileTokensComeAndGo) {
    const Hosts hosts;
    setenv("FORWARD_PKCS11_CONTROL", hosts.control.path().c_str(), 1);  // before any thread starts
    vpnhost::Host host;
    ASSERT_EQ(host.Start(hosts.alice.settings()), vpnhost::StartResult::kRunning);
    {
        const CM::RunningModule module;
        CM::Reload();
        const auto rules = host.rules();
        const LPCFG::auth_ike_t* rule = rules->find("office");
        ASSERT_NE(rule, nullptr);

        std::atomic<bool> stop{false};
        test_support::Event calls;
        std::atomic<unsigned> verified{0};
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < 8; ++i) {
            threads.emplace_back([&] {
                while (!stop) {
                    if (SelectSignAndVerify(*rule, hosts)) ++verified;
                    calls.Signal();
                }
            });
        }
        for (unsigned round = 0; round < 10; ++round) {
            hosts.control.Set({round % 2 == 0 ? "" : "hide alice"});
            PKCS11::Manager::Instance().ReloadTokensContent(1);
            CM::Reload();
            EXPECT_TRUE(round != 5 || host.Reload());
            EXPECT_TRUE(calls.Wait(calls.Count() + 40));
        }
        stop = true;
        for (std::thread& thread : threads) thread.join();
        EXPECT_GT(verified.load(), 0U);
    }
    host.Stop();
}

}  // namespace
}  // namespace program_test
