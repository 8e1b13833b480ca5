// Owners and encoders for libcrypto objects, which these tests use as the independent source.
#pragma once

#include <openssl/crypto.h>

#include <string>

template <auto kFree>
struct FreeWith {
    template <typename T>
    void operator()(T* object) const {
        kFree(object);
    }
};

/// DER of an object by its i2d function.
template <typename T, typename I2d>
std::string DerOf(T* object, I2d i2d) {
    unsigned char* bytes = nullptr;
    const int length = i2d(object, &bytes);
    std::string der(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(length < 0 ? 0 : length));
    OPENSSL_free(bytes);
    return der;
}
