// Calls of the module's hooks, in order.
#pragma once

#include <string>
#include <utility>

#include "tests/vendor/module_test.h"

namespace store_test {

using namespace module_test;

class HookLog {
  public:
    static Strings Take() { return std::exchange(Calls(), {}); }
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
    static Strings& Calls() {
        static Strings calls;
        return calls;
    }
    static void Add(const char* what, const CM::X509Cert* cert, const CertInfo& info) {
        EXPECT_EQ(&cert->info, &info);
        Calls().push_back(what + info.subject);
    }
};

}  // namespace store_test
