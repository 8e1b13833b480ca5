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

constexpr unsigned kThreads = 8;
constexpr unsigned kRounds = 10;
constexpr unsigned kCallsPerRound = 40;

/// What one IKE thread does again and again.
class Worker {
  public:
    Worker(const LPCFG::auth_ike_t& rule, const Hosts& hosts) : rule_(rule), hosts_(hosts) {}

    void Once() {
        LPCFG::ipsecid_t id;
        const CM::SelectLocalResult own =
            CM::IkeSelectLocalCertificate(&id, rule_, CM::kIgnoreBoundFirst, nullptr, nullptr, {});
        std::string signature;
        const bool signed_now = own.status == CM::kLocalAccepted &&
                                CM::Ike2Sign(own.cert, CM::Ike2GetSignAlg(own.cert), "octets", signature, {});
        CM::VCertHandleClose(own.cert);
        VerifyPeer(signed_now ? &signature : nullptr);
    }

    unsigned verified() const { return verified_; }

  private:
    void VerifyPeer(const std::string* signature) {
        std::vector<const CM::X509Cert*> received;
        for (const std::string* der : {&hosts_.leaf().der, &hosts_.intermediate().der}) {
            CM::VCertsListAddRawX509(received, der->data(), static_cast<unsigned>(der->size()), {});
        }
        LPCFG::ipsecid_t id{.type = LPCFG::ipsecid_t::kFqdn};
        id.value = "alice.example";
        const CM::X509Cert* peer =
            CM::IkeVerifyPeerCertificate(rule_, id, received, LPARAMS::CRL_PROC_DISABLED, {}, {});
        if (peer != nullptr && signature != nullptr &&
            CM::Ike2Verify(peer, CM::Ike2GetSignAlg(peer), "octets", *signature, {})) {
            ++verified_;
        }
        CM::VCertHandleClose(peer);
        for (const CM::X509Cert* cert : received) CM::VCertHandleClose(cert);
    }

    const LPCFG::auth_ike_t& rule_;
    const Hosts& hosts_;
    unsigned verified_ = 0;
};

TEST(LoadTest, SelectionsAndVerificationsWhileTokensComeAndGo) {
    const Hosts hosts;
    hosts.WriteSettings("alice", "");
    setenv("FORWARD_PKCS11_CONTROL", hosts.control().path().c_str(), 1);  // before any thread starts
    vpnhost::Host host;
    ASSERT_EQ(host.Start(hosts.Settings("alice")), vpnhost::StartResult::kRunning);
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
        for (unsigned i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                Worker worker(*rule, hosts);
                while (!stop) {
                    worker.Once();
                    calls.Signal();
                }
                verified += worker.verified();
            });
        }
        unsigned wanted = 0;
        for (unsigned round = 0; round < kRounds; ++round) {
            hosts.control().Set(round % 2 == 0 ? std::vector<std::string>{} : std::vector<std::string>{"hide alice"});
            PKCS11::Manager::Instance().ReloadTokensContent(1);
            CM::Reload();
            if (round == kRounds / 2) {
                EXPECT_TRUE(host.Reload());
            }
            wanted = calls.Count() + kCallsPerRound;
            EXPECT_TRUE(calls.Wait(wanted));
        }
        stop = true;
        for (std::thread& thread : threads) thread.join();
        EXPECT_GT(verified.load(), 0U);
    }
    host.Stop();
}

}  // namespace
}  // namespace program_test
