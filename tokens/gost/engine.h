// The GOST engine of libcrypto, for as long as the module is initialised.
//
// libcrypto has no other way to these algorithms. What the process sees of it: the engine is in libcrypto's list, where
// it stays, and its names of digests are known. No default of the process is changed: keys, digests and signatures of
// this module name the engine themselves. Only the method that ties a key to its identifier has to be registered; that
// is taken back at the end unless it was there before.
#pragma once

#include <string>
#include <string_view>

#include "libcrypto/libcrypto.h"
#include "tokens/gost/param_sets.h"

namespace gost_token {

class Engine {
  public:
    /// Fails with CKR_FUNCTION_FAILED when the engine is not installed.
    Engine();
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    ENGINE* get() const { return engine_; }

  private:
    ENGINE* engine_ = nullptr;
    bool registered_ = false;
};

/// A digest being computed.
class Hash {
  public:
    Hash(const Engine& engine, HashAlg alg);
    void Update(std::string_view data);
    std::string Finish();

  private:
    libcrypto::Owner<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

}  // namespace gost_token
