// What tests of the local certificate need besides a started module.
#pragma once

#include "tests/vendor/module_test.h"

namespace local_test {

using namespace module_test;

class LocalTest : public ModuleTest {
  protected:
    /// An end entity under the root, with its key on the token. Returns its DER.
    std::string AddPersonal(const CertSpec& spec, const vendor_host::CertOptions& options = {}) {
        const Cert cert = MakeCert(spec, &root_);
        token_->AddPersonal(cert.der, cert.key, options);
        return cert.der;
    }

    // Shared by all tests: making certificates is the costly part.
    static inline const Cert root_ = MakeCa("CN=Root, O=Test");
};

inline LPCFG::ipsecid_t Id(std::uint32_t type, const std::string& value, const std::string& dn = {}) {
    return {.type = type, .value = value, .dn = dn};
}
inline LPCFG::ipsecid_t AnyId(std::uint32_t type) {
    return {.type = type, .any = 1};
}

}  // namespace local_test
