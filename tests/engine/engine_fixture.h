// Tests of the certificate engine: started for each test, and expected to leave libcrypto's error queue alone.
#pragma once

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <memory>
#include <string>
#include <string_view>

#include "certmgr/cert_engine.h"
#include "tests/support/pki.h"

namespace engine_test {

using namespace test_pki;

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
    EXPECT_TRUE(CertEngine_GetCertInfo(ReadCert(der).get(), info));
    return info;
}

inline CertExtentions ExtensionsOf(std::string_view der) {
    CertExtentions extensions;
    CertEngine_GetCertExtentions(ReadCert(der).get(), extensions);
    EXPECT_NE(extensions.sha1, "");
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

    /// The daemon's own entry must survive everything. After something else than the engine emptied the queue.
    static void SeedErrorQueue() {
        ERR_clear_error();
        ERR_raise(ERR_LIB_USER, kForeignReason);
    }

    static void CheckErrorQueue() {
        for (const unsigned long entry : {ERR_peek_error(), ERR_peek_last_error()}) {
            EXPECT_EQ(ERR_GET_REASON(entry), kForeignReason);
        }
    }

  private:
    static constexpr int kForeignReason = 4711;
};

}  // namespace engine_test
