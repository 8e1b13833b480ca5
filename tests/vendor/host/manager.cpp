#include <tuple>

#include "token_state.h"

namespace PKCS11 {

using vendor_host::FindState;
using vendor_host::PresentStates;

std::vector<TokenInfo> Manager::EnumTokens(pki_alg_t alg) const {
    std::vector<TokenInfo> tokens;
    for (const auto& state : PresentStates()) {
        const std::lock_guard lock(state->mutex);
        if (state->Offers(alg, false)) tokens.push_back(state->info);
    }
    return tokens;
}

std::shared_ptr<const std::vector<TokenInfo>> Manager::EnumTokensShared(pki_alg_t alg) const {
    return std::make_shared<const std::vector<TokenInfo>>(EnumTokens(alg));
}

bool Manager::IsTokenSupportMechanism(const TokenInfo& token, pki_alg_t alg) const {
    const auto state = FindState(token.id);
    if (state == nullptr) return false;
    const std::lock_guard lock(state->mutex);
    return state->present && state->Offers(alg, true);
}

bool Manager::GetKeyPairGenMechanisms(const TokenInfo& token, std::vector<KeyPairGenMechanism>& mechanisms,
                                      std::vector<pki_alg_t>& digests) const {
    const auto state = FindState(token.id);
    if (state == nullptr) return false;
    const std::lock_guard lock(state->mutex);
    if (!state->present) return false;
    if (state->key_generation) {
        std::tie(mechanisms, digests) = *state->key_generation;
        return true;
    }
    for (const KeyPairGenMechanism& mechanism :
         {KeyPairGenMechanism{PKI_KEY_RSA, 1024, 4096}, KeyPairGenMechanism{PKI_KEY_DSA, 1024, 1024},
          KeyPairGenMechanism{PKI_KEY_EC, 256, 521}, KeyPairGenMechanism{PKI_KEY_ED25519, 256, 256}}) {
        if (state->Offers(mechanism.keyAlg, true)) mechanisms.push_back(mechanism);
    }
    for (const pki_alg_t hash : {PKI_HASH_SHA1, PKI_HASH_SHA224, PKI_HASH_SHA256, PKI_HASH_SHA384, PKI_HASH_SHA512}) {
        if (state->Offers(hash, true)) digests.push_back(hash);
    }
    return true;
}

void Manager::ReloadTokensContent(int) {
    vendor_host::NoteContentReload();
}

}  // namespace PKCS11
