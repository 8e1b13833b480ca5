// Many threads at once, for the thread sanitizer above all.
#include <atomic>
#include <thread>

#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using PKCS11::TokenSession;

class Threads : public TokenTest {
  protected:
    Threads() {
        StartForward();
        token_ = NewToken("one");
        AddPinFile(token_.info.serialNumber, token_.pin);
        Apply();
        Import(token_.info, PKI_KEY_ED25519, key_, "id");
    }
    /// Whether everything that a thread does works.
    bool Works() {
        TokenSession signer(token_.info, TokenSession::kPrivate);
        TokenSession verifier(token_.info);
        std::string signature;
        std::list<PKCS11::CertObject> objects;
        const bool listed = verifier.EnumCertificates(objects) && objects.size() == 1;
        return signer.Sign(PKI_KEY_ED25519, "id", "data", signature) &&
               verifier.Verify(PKI_KEY_ED25519, spki_, "data", signature) &&
               !verifier.Verify(PKI_KEY_ED25519, spki_, "other", signature) && listed;
    }
    /// Eight threads work meanwhile; whether everything always worked.
    bool AlwaysWorks(const std::function<void()>& meanwhile) {
        std::atomic<bool> ended{false};
        std::atomic<int> good{0};
        std::atomic<int> bad{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] {
                while (!ended) ++(Works() ? good : bad);
            });
        }
        meanwhile();
        ended = true;
        for (std::thread& thread : threads) thread.join();
        return good > 0 && bad == 0;
    }

    const test_pki::Key key_ = test_pki::MakeKey(test_pki::KeyType::kEd25519);
    const std::string spki_ = test_pki::Spki(key_);
    TestToken token_;
};

TEST_F(Threads, WorkGoesOnWhileTheSettingsAreReloaded) {
    EXPECT_TRUE(AlwaysWorks([&] {
        for (int i = 0; i < 20; ++i) {
            Apply();
            PKCS11::Manager::Instance().ReloadTokensContent(i % 2);
        }
    })) << testing::PrintToString(reports_.All());
}

// Whatever happens to the token and the manager, calls end, and in the end everything works. Callbacks are replaced
// while they are called.
TEST_F(Threads, TokensAndTheManagerComeAndGoUnderLoad) {
    AlwaysWorks([&] {
        const std::jthread replacing([&](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                reports_.Remove();
                reports_.Install();
            }
        });
        for (int i = 0; i < 5; ++i) {
            control_.Set({"hide one"});
            EXPECT_TRUE(WaitUntilListed("one", false));
            control_.Set({});
            EXPECT_TRUE(WaitUntilListed("one"));
        }
        for (int i = 0; i < 3; ++i) {
            tokens::Stop();
            Start();
        }
    });
    EXPECT_TRUE(WaitUntilListed("one"));
    EXPECT_TRUE(Works()) << testing::PrintToString(reports_.All());
}

}  // namespace
}  // namespace token_test
