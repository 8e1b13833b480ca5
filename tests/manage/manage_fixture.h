// The store on a SoftHSM2 token behind the module that makes trouble.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "certmgr/cert_file.h"
#include "certmgr/cert_storage.h"
#include "certmgr/certmgr.h"
#include "tests/support/pki.h"
#include "tests/tokens/fixture.h"

namespace manage_test {

inline constexpr const char* kPassword = "pass word";

/// A file with a key, its certificate first; cheap to open unless it claims another number of iterations.
std::string MakePkcs12(const test_pki::Key& key, const std::vector<std::string>& certs_der, int mac_iterations = 2);

/// The contents of several files in one, which has no integrity check.
std::string JoinPkcs12(const std::vector<std::string>& files);

/// One token, logged in, and the started store.
class ManageTest : public token_test::TokenTest {
  protected:
    ManageTest() { CM::CertEngine_Init(); }
    ~ManageTest() override {
        store().ClearAll();
        CM::CertEngine_Finit();
    }
    void SetUp() override {
        StartForward();
        token_ = NewToken("one");
        store().Reload();
    }

    static CM::CertStorage& store() { return CM::CertStorage::Instance(); }

    /// Makes the token trouble; waits when that hides it.
    void SetTrouble(const std::vector<std::string>& trouble) {
        control_.Set(trouble);
        const bool hidden = trouble == std::vector<std::string>{"hide one"};
        EXPECT_TRUE(WaitUntilListed("one", !hidden));
    }
    /// The token is as it was, and logged in.
    void EndTrouble() {
        SetTrouble({});
        ASSERT_EQ(LogIn(token_), tokens::PinResult::kDone);
        store().Reload();
    }
    /// Certificates and key pairs on the token.
    std::size_t ObjectsOnToken() const {
        PKCS11::TokenSession session(token_.info);
        std::list<PKCS11::CertObject> objects;
        EXPECT_TRUE(session.EnumCertificates(objects));
        return objects.size();
    }
    /// Whether a public key, which no list shows, is there.
    bool KeyOnToken(const std::string& spki) const {
        return PKCS11::TokenSession(token_.info).ContainPubKeyObject(spki);
    }

    token_test::TestToken token_{};
};

}  // namespace manage_test
