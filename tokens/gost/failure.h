// How everything below the C functions fails: with the CK_RV that the caller gets.
#pragma once

#include <p11-kit/pkcs11.h>
#include <p11-kit/pkcs11x.h>

#include <exception>

namespace gost_token {

class Failure : public std::exception {
  public:
    explicit Failure(CK_RV rv) : rv_(rv) {}
    CK_RV rv() const { return rv_; }
    const char* what() const noexcept override { return "PKCS #11 failure"; }

  private:
    CK_RV rv_;
};

[[noreturn]] inline void Fail(CK_RV rv) {
    throw Failure(rv);
}

inline void Require(bool holds, CK_RV otherwise) {
    if (!holds) Fail(otherwise);
}

}  // namespace gost_token
