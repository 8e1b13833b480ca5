// IKE services on many threads while the store is reloaded: for the thread sanitizer, and for references that are lost
// or released twice.
#include <atomic>
#include <thread>

#include "tests/local/local_fixture.h"

namespace local_test {
namespace {

TEST_F(LocalTest, ServicesRunBesideReloads) {
    constexpr unsigned kThreads = 4;
    constexpr unsigned kRounds = 60;
    token_->AddCertificate(root_.der, {.trusted = true});
    AddPersonal({.subject = "CN=stays"}, {.id = "stays"});
    const test_pki::Cert moving = test_pki::MakeLeaf("CN=moves", root_);
    Load();

    // Something to choose from, half of the time; the user cancels.
    vendor_host::SetAnswer([](std::uint32_t, const std::string&, int) { return std::optional(std::string(1, '\0')); });
    std::atomic<unsigned> accepted{0};
    std::atomic<bool> done{false};
    const auto work = [&] {
        LPCFG::auth_ike_t rule;
        rule.cert_local = {SubjectPattern("CN=moves"), SubjectPattern("CN=stays")};
        Requests root(root_.subject_der);
        for (unsigned round = 0; round < kRounds; ++round) {
            const auto mode = round % 2 == 0 ? CM::kIgnoreBoundFirst : CM::kIgnoreBoundCollect;
            const auto result = CM::IkeSelectLocalCertificate(nullptr, rule, mode, nullptr, &root, ident_);
            const Handle cert(result.cert);
            if (result.status != CM::kLocalAccepted) continue;
            ++accepted;
            std::string signature;
            if (CM::Ike2Sign(cert.get(), CM::Ike2GetSignAlg(cert.get()), "octets", signature, ident_)) {
                EXPECT_TRUE(CM::Ike2Verify(cert.get(), PKI_KEY_EC, "octets", signature, ident_));
            }
            CM::IsValidLocalCertificateHandle(cert.get());
            std::string bundle;
            EXPECT_TRUE(CM::LocalCertsExportToRawPKCS7(bundle, ident_));
        }
    };
    std::thread reloads([&] {
        while (!done) {
            token_->AddPersonal(moving.der, moving.key, {.id = "moves"});
            CM::Reload();
            token_->Remove("moves");
            CM::Reload();
        }
    });
    {
        std::vector<std::jthread> workers;
        for (unsigned i = 0; i < kThreads; ++i) workers.emplace_back(work);
    }
    done = true;
    reloads.join();
    EXPECT_GE(accepted, kThreads * kRounds / 2);  // modes that stop at the first always find one
}

}  // namespace
}  // namespace local_test
