#include "tests/manage/manage_fixture.h"

#include <openssl/pkcs12.h>

namespace manage_test {

std::string MakePkcs12(const test_pki::Key& key, const std::vector<std::string>& certs_der, int mac_iterations) {
    STACK_OF(X509)* const certs = sk_X509_new_null();
    for (const std::string& der : certs_der) {
        const auto* p = reinterpret_cast<const unsigned char*>(der.data());
        sk_X509_push(certs, d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    }
    X509* const first = sk_X509_shift(certs);
    PKCS12* const file = PKCS12_create(kPassword, nullptr, key.get(), first, certs, 0, 0, 1, 2, 0);
    const ASN1_INTEGER* count = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &count, file);
    if (mac_iterations != 2) ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(count), mac_iterations);
    std::string der(static_cast<std::size_t>(i2d_PKCS12(file, nullptr)), '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_PKCS12(file, &out);
    PKCS12_free(file);
    X509_free(first);
    sk_X509_pop_free(certs, X509_free);
    return der;
}

}  // namespace manage_test
