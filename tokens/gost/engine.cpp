// The engine interface is deprecated in libcrypto 3, and the only one there is for these algorithms.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "tokens/gost/engine.h"

#include <openssl/crypto.h>
#include <openssl/engine.h>
#include <openssl/obj_mac.h>

#include <mutex>

#include "tokens/gost/failure.h"

namespace gost_token {
namespace {

constinit std::mutex registration_mutex;
/// Engines of this module that use the method: one may begin while another still ends.
constinit int registrations = 0;  // guarded by registration_mutex

/// The process may have made the engine its default.
bool IsRegistered() {
    ENGINE* const found = ENGINE_get_pkey_asn1_meth_engine(NID_id_GostR3410_2001);
    if (found != nullptr) ENGINE_finish(found);
    return found != nullptr;
}

int Nid(HashAlg alg) {
    switch (alg) {
        case HashAlg::k94:
            return NID_id_GostR3411_94;
        case HashAlg::k2012_256:
            return NID_id_GostR3411_2012_256;
        default:
            return NID_id_GostR3411_2012_512;
    }
}

}  // namespace

Engine::Engine() {
    OPENSSL_init_crypto(OPENSSL_INIT_ENGINE_DYNAMIC, nullptr);
    const libcrypto::Owner<ENGINE, ENGINE_free> found(ENGINE_by_id("gost"));
    Require(found != nullptr && ENGINE_init(found.get()) == 1, CKR_FUNCTION_FAILED);
    engine_ = found.get();
    const std::lock_guard lock(registration_mutex);
    const bool ours = registrations > 0 || !IsRegistered();
    registered_ = ours && ENGINE_register_pkey_asn1_meths(engine_) == 1;
    if (registered_) ++registrations;
}

Engine::~Engine() {
    {
        const std::lock_guard lock(registration_mutex);
        if (registered_ && --registrations == 0) ENGINE_unregister_pkey_asn1_meths(engine_);
    }
    ENGINE_finish(engine_);
}

Hash::Hash(const Engine& engine, HashAlg alg) : context_(EVP_MD_CTX_new()) {
    const EVP_MD* const digest = ENGINE_get_digest(engine.get(), Nid(alg));
    Require(context_ != nullptr && digest != nullptr && EVP_DigestInit_ex(context_.get(), digest, engine.get()) == 1,
            CKR_DEVICE_ERROR);
}

void Hash::Update(std::string_view data) {
    Require(EVP_DigestUpdate(context_.get(), data.data(), data.size()) == 1, CKR_DEVICE_ERROR);
}

std::string Hash::Finish() {
    std::string digest(EVP_MAX_MD_SIZE, '\0');
    unsigned length = 0;
    Require(EVP_DigestFinal_ex(context_.get(), libcrypto::Data(digest), &length) == 1, CKR_DEVICE_ERROR);
    digest.resize(length);
    return digest;
}

}  // namespace gost_token
