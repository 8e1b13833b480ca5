// Many threads at once, for the thread sanitizer above all.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/tokens/fixture.h"

namespace token_test {
namespace {

using PKCS11::TokenSession;
using std::chrono::milliseconds;

constexpr int kThreads = 8;

class Threads : public TokenTest {
  protected:
    Threads() {
        StartForward();
        token_ = NewToken("one");
        AddPinFile(token_.info.serialNumber, token_.pin);
        Apply();
        Import(token_.info, PKI_KEY_ED25519, key_, "id");
    }
    /// Runs `work` on each thread until `end` was called.
    void Run(const std::function<void()>& work, const std::function<void()>& meanwhile) {
        std::atomic<bool> ended{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                while (!ended) work();
            });
        }
        meanwhile();
        ended = true;
        for (std::thread& thread : threads) thread.join();
    }

    const test_pki::Key key_ = test_pki::MakeKey(test_pki::KeyType::kEd25519);
    const std::string spki_ = test_pki::Spki(key_);
    TestToken token_;
};

TEST_F(Threads, SigningAndVerifyingGoOnWhileTheSettingsAreReloaded) {
    std::atomic<int> good{0};
    std::atomic<int> bad{0};
    const auto work = [&] {
        TokenSession signer(token_.info, TokenSession::kPrivate);
        TokenSession verifier(PKCS11::Manager::Instance().EnumTokens(PKI_KEY_ED25519).at(0));
        std::string signature;
        const bool done = signer.Sign(PKI_KEY_ED25519, "id", "data", signature) &&
                          verifier.Verify(PKI_KEY_ED25519, spki_, "data", signature) &&
                          !verifier.Verify(PKI_KEY_ED25519, spki_, "other", signature);
        std::list<PKCS11::CertObject> objects;
        const bool listed = verifier.EnumCertificates(objects) && objects.size() == 1;
        ++(done && listed ? good : bad);
    };
    Run(work, [&] {
        for (int i = 0; i < 20; ++i) {
            Apply();
            PKCS11::Manager::Instance().ReloadTokensContent(i % 2);
        }
    });
    EXPECT_EQ(bad, 0) << testing::PrintToString(reports_.All());
    EXPECT_GT(good, 0);
}

// Whatever happens to the token, calls end, and in the end everything works.
TEST_F(Threads, TokensComeAndGoUnderLoad) {
    std::atomic<int> worked{0};
    const auto work = [&] {
        TokenSession signer(token_.info, TokenSession::kPrivate);
        TokenSession verifier(token_.info);
        std::string signature;
        if (signer.Sign(PKI_KEY_ED25519, "id", "data", signature) &&
            verifier.Verify(PKI_KEY_ED25519, spki_, "data", signature)) {
            ++worked;
        }
        std::list<PKCS11::CertObject> objects;
        verifier.EnumCertificates(objects);
    };
    Run(work, [&] {
        for (std::size_t i = 1; i <= 5; ++i) {
            control_.Set({"hide one"});
            EXPECT_TRUE(reports_.WaitFor("removed one", i));
            control_.Set({});
            EXPECT_TRUE(reports_.WaitFor("inserted one", i + 1));
        }
    });
    EXPECT_TRUE(WaitUntilListed("one"));
    worked = 0;
    work();
    EXPECT_EQ(worked, 1) << testing::PrintToString(reports_.All());
}

TEST_F(Threads, StoppingUnderLoad) {
    const auto work = [&] {
        TokenSession signer(token_.info, TokenSession::kPrivate);
        std::string signature;
        signer.Sign(PKI_KEY_ED25519, "id", "data", signature);
        signer.Verify(PKI_KEY_ED25519, spki_, "data", signature);
    };
    Run(work, [&] {
        for (int i = 0; i < 3; ++i) {
            tokens::Stop();
            std::string error;
            EXPECT_TRUE(tokens::Start(settings_, error)) << error;
        }
    });
    EXPECT_TRUE(IsListed("one"));
}

// Callbacks are replaced and cleared while they are called.
TEST_F(Threads, CallbacksMayBeReplaced) {
    std::atomic<bool> ended{false};
    std::thread replacing([&] {
        while (!ended) {
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
    ended = true;
    replacing.join();
}

}  // namespace
}  // namespace token_test
