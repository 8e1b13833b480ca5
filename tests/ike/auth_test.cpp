// Which signatures of a peer are taken.

#include <gtest/gtest.h>

#include "ike/sa/auth.h"
#include "tests/support/pki.h"

namespace ike_test {
namespace {

TEST(AuthTest, TheOlderRsaMethodTakesNoWeakHash) {
    const test_pki::Key key = test_pki::MakeKey(test_pki::KeyType::kRsa2048);
    // Hash of the taken signature; 0: not taken.
    for (const auto& [digest, newer_agreed, hash] :
         std::vector<std::tuple<const char*, bool, pki_alg_t>>{{"MD5", false, 0},
                                                               {"SHA1", false, PKI_HASH_SHA1},
                                                               {"SHA1", true, 0},
                                                               {"SHA224", false, 0},
                                                               {"SHA256", true, PKI_HASH_SHA256}}) {
        const ikeauth::AuthData auth{.method = ikeauth::kMethodRsa,
                                     .data = test_pki::SignData(key, {.digest = digest}, "octets")};
        const ikeauth::SignaturePolicy policy{test_pki::Spki(key), ikeauth::AnnouncedHashes(), newer_agreed};
        pki_alg_t alg = 0;
        std::string signature;
        std::string why;
        const bool taken = ikeauth::DecodeSignature(auth, policy, alg, signature, why);
        EXPECT_EQ(taken, hash != 0) << digest << ": " << why;
        EXPECT_TRUE(!taken || alg == (PKI_KEY_RSA | hash)) << digest;
    }
}

}  // namespace
}  // namespace ike_test
