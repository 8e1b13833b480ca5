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
    std::tie(mechanisms, digests) = state->key_generation;
    return true;
}

void Manager::ReloadTokensContent(int) {
    vendor_host::NoteContentReload();
}

}  // namespace PKCS11
