// What chain tests need besides a started module.
#pragma once

#include "tests/vendor/module_test.h"

namespace chain_test {

using namespace module_test;

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// Certificates as they come out of payloads.
class Payload : public Handle {
  public:
    Payload() = default;
    explicit Payload(const std::vector<const Cert*>& received) {
        for (const Cert* cert : received) Add(cert->der);
    }
    bool Add(const std::string& der) {
        return CM::VCertsListAddRawX509(certs, der.data(), static_cast<unsigned>(der.size()), {});
    }
    bool AddBundle(const std::string& der) {
        return CM::VCertsListAddRawPKCS7(certs, der.data(), static_cast<unsigned>(der.size()), {});
    }
};

class ChainTest : public ModuleTest {
  protected:
    /// Puts the certificates on the token and reads it.
    void Store(const std::vector<const Cert*>& trusted, const std::vector<const Cert*>& other = {},
               const std::vector<const Cert*>& personal = {}) {
        for (const Cert* cert : trusted) token_->AddCertificate(cert->der, {.trusted = true});
        for (const Cert* cert : other) token_->AddCertificate(cert->der);
        for (const Cert* cert : personal) token_->AddCertificate(cert->der, {.category = 1});
        Load();
        EXPECT_EQ(std::tuple(store().trustedCerts.size(), store().otherCerts.size(), store().personalCerts.size()),
                  std::tuple(trusted.size(), other.size(), personal.size()));
    }
};

}  // namespace chain_test
