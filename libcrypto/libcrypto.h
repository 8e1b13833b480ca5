// Owners of libcrypto objects, and their encodings as byte strings: for every unit that calls libcrypto.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/types.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>
#include <string_view>

namespace libcrypto {

/// Deleter that calls a C library's free function.
template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};
template <typename T, auto Free>
using Owner = std::unique_ptr<T, Deleter<Free>>;

using AlgorithmPtr = Owner<X509_ALGOR, X509_ALGOR_free>;
using BioPtr = Owner<BIO, BIO_free_all>;
using BitStringPtr = Owner<ASN1_BIT_STRING, ASN1_BIT_STRING_free>;
using CertPtr = Owner<X509, X509_free>;
using CrlPtr = Owner<X509_CRL, X509_CRL_free>;
using GeneralNamesPtr = Owner<GENERAL_NAMES, GENERAL_NAMES_free>;
using KeyContextPtr = Owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using KeyPtr = Owner<EVP_PKEY, EVP_PKEY_free>;
using NamePtr = Owner<X509_NAME, X509_NAME_free>;
using ObjectPtr = Owner<ASN1_OBJECT, ASN1_OBJECT_free>;
using Pkcs7Ptr = Owner<PKCS7, PKCS7_free>;
using Pkcs8Ptr = Owner<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using SealedKeyPtr = Owner<X509_SIG, X509_SIG_free>;
using TypePtr = Owner<ASN1_TYPE, ASN1_TYPE_free>;

inline void FreeExtensions(STACK_OF(X509_EXTENSION) * extensions) {
    sk_X509_EXTENSION_pop_free(extensions, X509_EXTENSION_free);
}
using ExtensionsPtr = Owner<STACK_OF(X509_EXTENSION), FreeExtensions>;

/// The bytes as libcrypto takes them.
inline const unsigned char* Data(std::string_view bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}
inline unsigned char* Data(std::string& bytes) {
    return reinterpret_cast<unsigned char*>(bytes.data());
}

/// The object at the beginning of the bytes, read by its d2i function: Decode<X509_free>(d2i_X509, der). Null when there
/// is none; limits are the caller's. What follows is not looked at: `rest` is set to it.
template <auto Free, typename T>
Owner<T, Free> Decode(T* (*d2i)(T**, const unsigned char**, long), std::string_view der,
                      std::string_view* rest = nullptr) {
    const unsigned char* at = Data(der);
    Owner<T, Free> object(d2i(nullptr, &at, static_cast<long>(der.size())));
    if (rest != nullptr) *rest = der.substr(static_cast<std::size_t>(at - Data(der)));
    return object;
}

/// The object that fills the bytes; null when there is none.
template <auto Free, typename T>
Owner<T, Free> DecodeWhole(T* (*d2i)(T**, const unsigned char**, long), std::string_view der) {
    std::string_view rest;
    Owner<T, Free> object = Decode<Free>(d2i, der, &rest);
    if (!rest.empty()) object.reset();
    return object;
}

/// DER of an object, written by its i2d function; empty when that fails. Both the i2d functions that take const objects
/// and those that do not.
template <typename T, typename Object>
std::string Encode(T* object, int (*i2d)(Object*, unsigned char**)) {
    const int length = i2d(object, nullptr);
    if (length <= 0) return {};
    std::string der(static_cast<std::size_t>(length), '\0');
    unsigned char* out = Data(der);
    if (i2d(object, &out) != length) return {};
    return der;
}

}  // namespace libcrypto
