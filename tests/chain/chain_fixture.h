// A started module on one in-memory token, and what chain tests need around it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_storage.h"
#include "certmgr/certmgr.h"
#include "certmgr/ike.h"
#include "platform/base.h"
#include "platform/event_codes.h"
#include "platform/params.h"
#include "tests/support/pki.h"
#include "tests/vendor/host/vendor_host.h"

namespace chain_test {

using test_pki::CertSpec;
using test_pki::KeyId;
using test_pki::KeyType;
using test_pki::kNow;
using test_pki::MakeCa;
using test_pki::MakeCert;
using Cert = test_pki::Cert;
using Strings = std::vector<std::string>;

inline constexpr std::time_t kDay = 24L * 60 * 60;

inline LPCFG::cert_t SubjectPattern(const std::string& subject) {
    LPCFG::cert_t pattern;
    pattern.subject = subject;
    return pattern;
}

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// A certificate object outside of the store, of that kind.
inline CM::MutableCertRef Object(const Cert& cert, CertKind kind = kCertKindPeer) {
    auto object = CM::MutableCertRef::Adopt(new CM::X509Cert(
        CertEngine_CreateCertHandle(cert.der.data(), static_cast<unsigned>(cert.der.size())), nullptr));
    object->info.kind = kind;
    return object;
}

/// Certificates as they come out of payloads.
class Payload {
  public:
    Payload() = default;
    explicit Payload(const std::vector<const Cert*>& certs) {
        for (const Cert* cert : certs) Add(cert->der);
    }
    ~Payload() {
        for (const CM::X509Cert* cert : list_) CM::VCertHandleClose(cert);
    }
    Payload(const Payload&) = delete;
    Payload& operator=(const Payload&) = delete;

    bool Add(const std::string& der) {
        return CM::VCertsListAddRawX509(list_, der.data(), static_cast<unsigned>(der.size()), {});
    }
    bool AddBundle(const std::string& der) {
        return CM::VCertsListAddRawPKCS7(list_, der.data(), static_cast<unsigned>(der.size()), {});
    }
    const std::vector<const CM::X509Cert*>& list() const { return list_; }
    Strings Subjects() const {
        Strings subjects;
        for (const CM::X509Cert* cert : list_) subjects.push_back(cert->info.subject);
        return subjects;
    }

  private:
    std::vector<const CM::X509Cert*> list_;
};

/// A chain of the public interface, whose references the test owns.
template <typename Certificate>
struct OwnedChain {
    OwnedChain() = default;
    ~OwnedChain() {
        for (Certificate* cert : certs) CM::VCertHandleClose(cert);
    }
    OwnedChain(const OwnedChain&) = delete;
    OwnedChain& operator=(const OwnedChain&) = delete;

    Strings Subjects() const {
        Strings subjects;
        for (const CM::X509Cert* cert : certs) subjects.push_back(cert->info.subject);
        return subjects;
    }

    std::vector<Certificate*> certs;
};

class ChainTest : public testing::Test {
  protected:
    ChainTest() {
        vendor_host::Reset();
        vpnfc::SetCurrentTimeForTesting(kNow);
        CM::CertEngine_Init();
        CM::Init();
        token_ = vendor_host::AddToken("card");
    }
    ~ChainTest() override {
        CM::Finit();
        CM::CertEngine_Finit();
        vpnfc::SetCurrentTimeForTesting(std::nullopt);
        vendor_host::Reset();
    }

    /// Puts the certificates on the token and reads it.
    void Store(const std::vector<const Cert*>& trusted, const std::vector<const Cert*>& other = {},
               const std::vector<const Cert*>& personal = {}) {
        for (const Cert* cert : trusted) token_->AddCertificate(cert->der, {.trusted = true});
        for (const Cert* cert : other) token_->AddCertificate(cert->der);
        for (const Cert* cert : personal) token_->AddCertificate(cert->der, {.category = 1});
        CM::Reload();
        vendor_host::ClearMessages();
        EXPECT_EQ(store().trustedCerts.size(), trusted.size());
        EXPECT_EQ(store().otherCerts.size(), other.size());
        EXPECT_EQ(store().personalCerts.size(), personal.size());
    }
    static CM::CertStorage& store() { return CM::CertStorage::Instance(); }

    std::shared_ptr<vendor_host::Token> token_;
    const TLogIdent ident_{.id = 0x0A0B, .sub_id = 7, .kind = TLogIdent::kExchange, .role = TLogIdent::kInitiator};
};

}  // namespace chain_test
