// Tests of the certificate engine: started for each test, and expected to leave libcrypto's error queue alone.
#pragma once

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "certmgr/cert_engine.h"
#include "tests/support/pki.h"

namespace engine_test {

template <auto Close>
struct CloseWith {
    void operator()(void* handle) const { Close(handle); }
};
using CertHandle = std::unique_ptr<void, CloseWith<CertEngine_CloseCertHandle>>;
using CrlHandle = std::unique_ptr<void, CloseWith<CertEngine_CloseCRLHandle>>;

inline CertHandle ReadCert(std::string_view der) {
    return CertHandle(CertEngine_CreateCertHandle(der.data(), static_cast<unsigned>(der.size())));
}
inline CrlHandle ReadCrl(std::string_view der) {
    return CrlHandle(CertEngine_CreateCRLHandle(der.data(), static_cast<unsigned>(der.size())));
}

inline CertInfo InfoOf(std::string_view der) {
    CertInfo info;
    const CertHandle cert = ReadCert(der);
    EXPECT_NE(cert, nullptr);
    if (cert != nullptr) {
        EXPECT_TRUE(CertEngine_GetCertInfo(cert.get(), info));
    }
    return info;
}

inline CertExtentions ExtensionsOf(std::string_view der) {
    CertExtentions extensions;
    const CertHandle cert = ReadCert(der);
    EXPECT_NE(cert, nullptr);
    if (cert != nullptr) CertEngine_GetCertExtentions(cert.get(), extensions);
    return extensions;
}

/// DER of the object behind a handle; empty for null.
inline std::string DerOf(const CertHandle& cert) {
    std::string der;
    if (cert != nullptr) CertEngine_RawCert(cert.get(), der);
    return der;
}

class EngineTest : public ::testing::Test {
  protected:
    void SetUp() override {
        CertEngine_Init();
        SeedErrorQueue();
    }
    void TearDown() override {
        CheckErrorQueue();
        ERR_clear_error();
        EXPECT_EQ(CertEngine_Finit(), 0);
    }

    /// Whether libcrypto, which empties its error queue on the way, finds the signature right.
    static bool Verifies(const test_pki::Key& key, std::string_view data, std::string_view signature) {
        CheckErrorQueue();
        const bool right = test_pki::VerifyData(key, {}, data, signature);
        SeedErrorQueue();
        return right;
    }

    /// The daemon's own entry must survive everything. After something else than the engine emptied the queue.
    static void SeedErrorQueue() {
        ERR_clear_error();
        ERR_raise(ERR_LIB_USER, kForeignReason);
    }

  private:
    static constexpr int kForeignReason = 4711;

    static void CheckErrorQueue() {
        EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), kForeignReason);
        EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), kForeignReason);
    }
};

}  // namespace engine_test
