// Owners of libcrypto objects.
#pragma once

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/types.h>

#include <memory>
#include <string>
#include <string_view>

namespace gost_token {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};
template <typename T, auto Free>
using Owner = std::unique_ptr<T, Deleter<Free>>;

using Number = Owner<BIGNUM, BN_clear_free>;

inline const unsigned char* Data(std::string_view bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}
inline unsigned char* Data(std::string& bytes) {
    return reinterpret_cast<unsigned char*>(bytes.data());
}

}  // namespace gost_token
