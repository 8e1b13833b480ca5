// The store on in-memory tokens: a fresh host and a started module for every test.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <certmgr/cert_storage.h>
#include <certmgr/certmgr.h>
#include <platform/base.h>

#include "tests/support/pki.h"
#include "tests/vendor/host/vendor_host.h"

namespace store_test {

inline const TLogIdent kNoIdent{};
inline const std::string kDerNull{'\x05', '\x00'};

/// Calls of the module's hooks, in order.
class HookLog {
  public:
    static std::vector<std::string>& Calls() {
        static std::vector<std::string> calls;
        return calls;
    }
    static std::vector<std::string> Take() { return std::exchange(Calls(), {}); }

    static void Install() {
        Calls().clear();
        CM::Callbacks = {
            .PersonalCertAppeared = [](CM::X509Cert* cert, const CertInfo& info) { Add("cert+ ", cert, info); },
            .PersonalCertDisappeared = [](CM::X509Cert* cert, const CertInfo& info) { Add("cert- ", cert, info); },
            .PresharedKeyAppeared = [](const std::string& name) { Calls().push_back("key+ " + name); },
            .PresharedKeyDisappeared = [](const std::string& name) { Calls().push_back("key- " + name); },
            .TokenInserted = [](const PKCS11::TokenInfo& token) { Calls().push_back("token " + token.label); },
            .ProviderInserted = [](const PKCS11::ProviderInfo& p) { Calls().push_back("provider " + p.name); },
        };
    }

  private:
    static void Add(const char* what, const CM::X509Cert* cert, const CertInfo& info) {
        EXPECT_EQ(&cert->info, &info);
        Calls().push_back(what + info.subject);
    }
};

class StoreTest : public testing::Test {
  protected:
    StoreTest() {
        vendor_host::Reset();
        vpnfc::SetCurrentTimeForTesting(test_pki::kNow);
        CM::CertEngine_Init();
        CM::Init();
    }
    ~StoreTest() override {
        CM::Callbacks = {};
        CM::Finit();
        EXPECT_EQ(vendor_host::PendingEvents(), 0U);
        CM::CertEngine_Finit();
        vpnfc::SetCurrentTimeForTesting({});
    }

    static CM::CertStorage& store() { return CM::CertStorage::Instance(); }

    static std::vector<std::string> Subjects(const CM::CertList& list) {
        std::vector<std::string> subjects;
        for (const CM::X509Cert* cert : list) subjects.push_back(cert->info.subject);
        return subjects;
    }

    static std::vector<std::string> KeyNames() {
        std::vector<std::string> names;
        for (const auto& key : store().presharedKeys) names.push_back(key->name);
        return names;
    }
};

using Strings = std::vector<std::string>;

}  // namespace store_test
