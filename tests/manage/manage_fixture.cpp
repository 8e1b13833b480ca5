#include "tests/manage/manage_fixture.h"

namespace manage_test {

std::string Encoded(PKCS12* file) {
    std::string der(static_cast<std::size_t>(i2d_PKCS12(file, nullptr)), '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_PKCS12(file, &out);
    PKCS12_free(file);
    return der;
}

std::string MakePkcs12(const test_pki::Key& key, const std::vector<std::string>& certs_der, int mac_iterations) {
    STACK_OF(X509)* const certs = sk_X509_new_null();
    for (const std::string& der : certs_der) {
        const auto* p = reinterpret_cast<const unsigned char*>(der.data());
        sk_X509_push(certs, d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    }
    X509* const first = sk_X509_shift(certs);
    PKCS12* const file = PKCS12_create(kPassword, nullptr, key.get(), first, certs, 0, 0, 1, 2, 0);
    X509_free(first);
    sk_X509_pop_free(certs, X509_free);
    const ASN1_INTEGER* count = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &count, file);
    if (mac_iterations != 2) ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(count), mac_iterations);
    return Encoded(file);
}

std::string JoinPkcs12(const std::vector<std::string>& files) {
    STACK_OF(PKCS7)* const all = sk_PKCS7_new_null();
    for (const std::string& der : files) {
        const auto* p = reinterpret_cast<const unsigned char*>(der.data());
        PKCS12* const file = d2i_PKCS12(nullptr, &p, static_cast<long>(der.size()));
        STACK_OF(PKCS7)* const safes = PKCS12_unpack_authsafes(file);
        while (PKCS7* const safe = sk_PKCS7_shift(safes)) sk_PKCS7_push(all, safe);
        sk_PKCS7_free(safes);
        PKCS12_free(file);
    }
    PKCS12* const joined = PKCS12_add_safes(all, 0);
    sk_PKCS7_pop_free(all, PKCS7_free);
    return Encoded(joined);
}

}  // namespace manage_test
