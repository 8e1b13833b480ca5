// The GOST token, and with it libcrypto's engine, in a process that starts and stops the certificate engine.
#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include "certmgr/certmgr.h"
#include "tests/gost/module.h"
#include "tests/support/temp_dir.h"
#include "tests/tokens/fixture.h"

namespace gost_test {
namespace {

/// Loads the token, signs, and lets it go.
void UseToken(const std::string& directory, const std::string& pin) {
    const Module module(GOST_TOKEN_PATH, directory);
    const CK_SESSION_HANDLE session = module.Open();
    EXPECT_EQ(module.Login(session, pin), CKR_OK);
    const auto keys = module.Find(session);
    ASSERT_EQ(keys.size(), 2U);
    CK_MECHANISM mechanism{CKM_GOSTR3410_WITH_GOSTR3411_2012_256, nullptr, 0};
    std::string signature(64, '\0');
    CK_ULONG size = signature.size();
    const bool first = module->C_SignInit(session, &mechanism, keys[0]) == CKR_OK;
    EXPECT_TRUE(first || module->C_SignInit(session, &mechanism, keys[1]) == CKR_OK);
    EXPECT_EQ(module->C_Sign(session, Bytes(pin), 1, Bytes(signature), &size), CKR_OK);
}

/// Bytes that repeating something adds, after what is made once.
template <typename Work>
long Growth(const Work& work) {
    for (int i = 0; i < 3; ++i) work();
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 10; ++i) work();
    return static_cast<long>(mallinfo2().uordblks) - static_cast<long>(before);
}

/// libcrypto keeps the engine itself.
TEST(GostRestart, StartsAndStopsLeakNothing) {
    const test_support::TempDir directory;
    const std::string state = directory / "state";
    const std::string pin = token_test::RandomPin();
    {
        const Module module(GOST_TOKEN_PATH, state);
        ASSERT_EQ(module.InitToken(0, pin), CKR_OK);
        const CK_SESSION_HANDLE session = module.Open();
        ASSERT_EQ(module.Login(session, pin, CKU_SO), CKR_OK);
        ASSERT_EQ(module->C_InitPIN(session, Bytes(pin), pin.size()), CKR_OK);
        ASSERT_EQ(module->C_Logout(session), CKR_OK);
        ASSERT_EQ(module.Login(session, pin), CKR_OK);
        ASSERT_NE(module.GeneratePair(session, true)[1], CK_INVALID_HANDLE);
    }
    // The loader itself keeps some bytes of each load: the module stays.
    void* const loaded = dlopen(GOST_TOKEN_PATH, RTLD_NOW);
    EXPECT_LT(Growth([&] { UseToken(state, pin); }), 2000);
    // The leak sanitizer watches this.
    for (int i = 0; i < 2; ++i) {
        CM::CertEngine_Init();
        UseToken(state, pin);
        CM::CertEngine_Finit();
    }
    dlclose(loaded);
}

/// The host's own use of libcrypto is as it was: no error is left behind, no default is the engine's.
TEST(GostRestart, TheProcessKeepsItsDefaults) {
    const test_support::TempDir directory;
    ERR_clear_error();
    {
        const Module module(GOST_TOKEN_PATH, directory / "state");
        EXPECT_EQ(module.result, CKR_OK);
        EXPECT_EQ(ERR_peek_error(), 0U);
        EXPECT_EQ(module->C_InitToken(7, Bytes("1234"), 4, Bytes(std::string(32, ' '))), CKR_SLOT_ID_INVALID);
        EXPECT_EQ(ERR_peek_error(), 0U);
    }
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_id(NID_id_GostR3410_2001, nullptr), EVP_PKEY_CTX_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_PKEY_new(), EVP_PKEY_free);
    EXPECT_EQ(EVP_PKEY_set_type(key.get(), NID_id_GostR3410_2001), 0) << "the way to keys was taken back";
    ERR_clear_error();
}

}  // namespace
}  // namespace gost_test
