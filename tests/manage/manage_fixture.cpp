#include "tests/manage/manage_fixture.h"

#include <openssl/pkcs12.h>

#include "libcrypto/libcrypto.h"

namespace manage_test {

using File = libcrypto::Owner<PKCS12, PKCS12_free>;

std::string MakePkcs12(const test_pki::Key& key, const std::vector<std::string>& certs_der, int mac_iterations) {
    STACK_OF(X509)* const certs = sk_X509_new_null();
    for (const std::string& der : certs_der) sk_X509_push(certs, libcrypto::Decode<X509_free>(d2i_X509, der).release());
    const libcrypto::CertPtr first(sk_X509_shift(certs));
    File file(PKCS12_create(kPassword, nullptr, key.get(), first.get(), certs, 0, 0, 1, 2, 0));
    sk_X509_pop_free(certs, X509_free);
    const ASN1_INTEGER* count = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &count, file.get());
    if (mac_iterations != 2) ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(count), mac_iterations);
    return libcrypto::Encode(file.get(), i2d_PKCS12);
}

std::string JoinPkcs12(const std::vector<std::string>& files) {
    STACK_OF(PKCS7)* const all = sk_PKCS7_new_null();
    for (const std::string& der : files) {
        STACK_OF(PKCS7)* const safes = PKCS12_unpack_authsafes(libcrypto::Decode<PKCS12_free>(d2i_PKCS12, der).get());
        while (PKCS7* const safe = sk_PKCS7_shift(safes)) sk_PKCS7_push(all, safe);
        sk_PKCS7_free(safes);
    }
    const File joined(PKCS12_add_safes(all, 0));
    sk_PKCS7_pop_free(all, PKCS7_free);
    return libcrypto::Encode(joined.get(), i2d_PKCS12);
}

}  // namespace manage_test
