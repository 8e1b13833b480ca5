// A module with one token, and the pieces of a rule that local selection reads.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "certmgr/certmgr.h"
#include "certmgr/ike.h"
#include "platform/base.h"
#include "platform/event_codes.h"
#include "tests/support/pki.h"
#include "tests/vendor/host/vendor_host.h"

namespace local_test {

using test_pki::CertSpec;
using test_pki::KeyType;
using test_pki::kNow;

inline constexpr std::time_t kDay = 24L * 60 * 60;

/// Started module; the store is empty until Load.
class LocalTest : public ::testing::Test {
  protected:
    void SetUp() override {
        vendor_host::Reset();
        vpnfc::SetCurrentTimeForTesting(kNow);
        CM::CertEngine_Init();
        CM::Init();
        token_ = vendor_host::AddToken("card");
    }
    void TearDown() override {
        CM::Finit();
        CM::CertEngine_Finit();
        vpnfc::SetCurrentTimeForTesting(std::nullopt);
        vendor_host::Reset();
    }

    /// An end entity under the root, with its key on the token. Returns its DER.
    std::string AddPersonal(const CertSpec& spec, const vendor_host::CertOptions& options = {}) {
        const test_pki::Cert cert = test_pki::MakeCert(spec, &root_);
        token_->AddPersonal(cert.der, cert.key, options);
        return cert.der;
    }
    /// Reads the token and forgets what was logged.
    void Load() {
        CM::Reload();
        vendor_host::ClearMessages();
    }
    /// The one message of that code, "" when there is none or more.
    static std::string OnlyMessage(std::uint16_t code) {
        const auto messages = vendor_host::FindMessages(code);
        return messages.size() == 1 ? messages.front().Text() : std::string();
    }

    // Shared by all tests: making certificates is the costly part.
    static inline const test_pki::Cert root_ = test_pki::MakeCa("CN=Root, O=Test");
    std::shared_ptr<vendor_host::Token> token_;
    const TLogIdent ident_{.id = 0x1122334455667788, .sub_id = 0, .kind = TLogIdent::kConnection};
};

/// A handle that the test owns.
class Handle {
  public:
    explicit Handle(const CM::X509Cert* cert) : cert_(cert) {}
    ~Handle() { CM::VCertHandleClose(cert_); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    const CM::X509Cert* get() const { return cert_; }
    const CM::X509Cert* operator->() const { return cert_; }
    /// Common name of "CN=x", "" for none.
    std::string Subject() const { return cert_ != nullptr ? cert_->info.subject : std::string(); }

  private:
    const CM::X509Cert* cert_;
};

/// The only personal certificate of that subject.
inline std::unique_ptr<Handle> FindLocal(const std::string& subject) {
    std::vector<const CM::X509Cert*> found;
    CM::GetLocalCertificatesBySubject(found, subject);
    EXPECT_EQ(found.size(), 1U) << subject;
    for (std::size_t i = 1; i < found.size(); ++i) CM::VCertHandleClose(found[i]);
    return std::make_unique<Handle>(found.empty() ? nullptr : found.front());
}

inline LPCFG::cert_t SubjectPattern(const std::string& subject) {
    LPCFG::cert_t pattern;
    pattern.subject = subject;
    return pattern;
}

inline LPCFG::ipsecid_t Id(std::uint32_t type, const std::string& value, const std::string& dn = {}) {
    LPCFG::ipsecid_t id;
    id.type = type;
    id.value = value;
    id.dn = dn;
    return id;
}

inline LPCFG::ipsecid_t AnyId(std::uint32_t type) {
    LPCFG::ipsecid_t id = Id(type, {});
    id.any = 1;
    return id;
}

/// The peer's certificate requests: what it accepts, by subject name.
struct Requests : CM::IkeCertRequestIter {
    explicit Requests(std::string authority) : name(std::move(authority)) {
        requested = [](const std::string& value, void* self) { return value == static_cast<Requests*>(self)->name; };
        context = this;
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    std::string name;
};

}  // namespace local_test
