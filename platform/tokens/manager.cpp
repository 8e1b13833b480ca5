#include "platform/tokens.h"
#include "platform/tokens/registry.h"

namespace PKCS11 {
namespace {

using tokens::Registry;
using tokens::TokenPtr;

/// How long a caller waits for the slots to be looked at, over all providers.
constexpr std::chrono::milliseconds kReloadWait{10000};

}  // namespace

constinit CallbackTable Callbacks;

Manager& Manager::Instance() {
    static constinit Manager manager;
    return manager;
}

std::vector<TokenInfo> Manager::EnumTokens(pki_alg_t alg) const {
    return *EnumTokensShared(alg);
}

std::shared_ptr<const std::vector<TokenInfo>> Manager::EnumTokensShared(pki_alg_t alg) const {
    return Registry::Instance().Table()->Offering(alg);
}

bool Manager::IsTokenSupportMechanism(const TokenInfo& token, pki_alg_t alg) const {
    const TokenPtr found = Registry::Instance().Find(token.id);
    return found != nullptr && found->mechanisms().Offers(alg);
}

bool Manager::GetKeyPairGenMechanisms(const TokenInfo& token, std::vector<KeyPairGenMechanism>& mechanisms,
                                      std::vector<pki_alg_t>& digests) const {
    const TokenPtr found = Registry::Instance().Find(token.id);
    if (found == nullptr) return false;
    found->mechanisms().KeyPairGeneration(mechanisms);
    found->mechanisms().Digests(digests);
    return true;
}

void Manager::ReloadTokensContent(int wait_mode) {
    Registry& registry = Registry::Instance();
    for (const TokenPtr& token : registry.Table()->tokens()) token->ForgetContent();
    std::vector<tokens::ModuleMonitorPtr> monitors = registry.Monitors();
    for (const tokens::ModuleMonitorPtr& monitor : monitors) monitor->LookAgain();
    if (wait_mode != 0) Registry::AwaitLooks(monitors, kReloadWait);
}

}  // namespace PKCS11
