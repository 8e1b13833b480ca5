// A fresh in-memory host and a started module for every test, and what such tests need around them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <set>
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

namespace module_test {

using test_pki::CertSpec;
using test_pki::KeyId;
using test_pki::KeyType;
using test_pki::kNow;
using test_pki::MakeCa;
using test_pki::MakeCert;
using test_pki::MakeCrl;
using test_pki::MakeLeaf;
using vendor_host::Op;
using Cert = test_pki::Cert;
using Strings = std::vector<std::string>;

inline constexpr std::time_t kDay = 24L * 60 * 60;

inline LPCFG::cert_t SubjectPattern(const std::string& subject) {
    LPCFG::cert_t pattern;
    pattern.subject = subject;
    return pattern;
}

/// A certificate object outside of the store, of that kind.
inline CM::MutableCertRef Object(const Cert& cert, CertKind kind = kCertKindPeer) {
    auto object = CM::MutableCertRef::Adopt(new CM::X509Cert(
        CertEngine_CreateCertHandle(cert.der.data(), static_cast<unsigned>(cert.der.size())), nullptr));
    object->info.kind = kind;
    return object;
}

template <typename Certs>
Strings SubjectsOf(const Certs& certs) {
    Strings subjects;
    for (const CM::X509Cert* cert : certs) subjects.push_back(cert->info.subject);
    return subjects;
}

/// Handles whose references the test owns.
template <typename Certificate = const CM::X509Cert>
struct Handles {
    Handles() = default;
    explicit Handles(Certificate* one) : certs{one} {}
    ~Handles() {
        for (Certificate* cert : certs) CM::VCertHandleClose(cert);
    }
    Handles(const Handles&) = delete;
    Handles& operator=(const Handles&) = delete;

    Certificate* get() const { return certs.at(0); }
    /// Of a single one, "" for null.
    std::string Subject() const { return get() != nullptr ? get()->info.subject : std::string(); }

    std::vector<Certificate*> certs;
};
using Handle = Handles<>;

/// The peer's certificate requests: names of authorities, or for kind 1 digests of their keys.
struct Requests : CM::IkeCertRequestIter {
    explicit Requests(std::set<std::string> requested_values, std::int32_t request_kind = 0)
        : values(std::move(requested_values)) {
        kind = request_kind;
        requested = [](const std::string& value, void* self) {
            return static_cast<Requests*>(self)->values.contains(value);
        };
        context = this;
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    std::set<std::string> values;
};

class ModuleTest : public testing::Test {
  protected:
    ModuleTest() {
        vendor_host::Reset();
        vpnfc::SetCurrentTimeForTesting(kNow);
        CM::CertEngine_Init();
        CM::Init();
        token_ = vendor_host::AddToken("card");
    }
    ~ModuleTest() override {
        CM::Callbacks = {};
        CM::Finit();
        EXPECT_EQ(vendor_host::PendingEvents(), 0U);
        CM::CertEngine_Finit();
        vpnfc::SetCurrentTimeForTesting({});
        vendor_host::Reset();
    }

    static CM::CertStorage& store() { return CM::CertStorage::Instance(); }
    /// Reads the tokens and forgets what was logged.
    static void Load() {
        CM::Reload();
        vendor_host::ClearMessages();
    }
    /// The only personal certificate of that subject.
    static std::unique_ptr<Handle> FindLocal(const std::string& subject) {
        auto found = std::make_unique<Handle>();
        CM::GetLocalCertificatesBySubject(found->certs, subject);
        EXPECT_EQ(found->certs.size(), 1U) << subject;
        return found;
    }
    /// The one message of that code, "" when there is none or more.
    static std::string OnlyMessage(std::uint16_t code) {
        const auto messages = vendor_host::FindMessages(code);
        return messages.size() == 1 ? messages.front().Text() : std::string();
    }
    static void Set(LPARAMS::NamedSwitch LPARAMS::CertParams::*parameter) {
        const vpnfc::ObjectLock lock(LPARAMS::server.cert);
        (LPARAMS::server.cert.*parameter).on = true;
    }
    static void Set(bool LPARAMS::LogParams::*parameter, bool on) {
        const vpnfc::ObjectLock lock(LPARAMS::server.log);
        LPARAMS::server.log.*parameter = on;
    }

    std::shared_ptr<vendor_host::Token> token_;
    const TLogIdent ident_{.id = 0x1122334455667788, .sub_id = 0, .kind = TLogIdent::kConnection};
};

}  // namespace module_test
