// Leaves the process without tokens::Stop while the token manager runs: leaver HOW STATE MODULE CONTROL, with the state
// directory of SoftHSM2, the forwarding module and its control file. HOW: "idle", "hanging" (slots are not listed any
// more), "finalising" (C_Finalize does not return), "callback" (the process ends in a callback).
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>

#include "platform/tokens.h"
#include "platform/tokens/token_host.h"
#include "tests/tokens/forward/control.h"

namespace {

/// Destroyed when everything else is gone.
std::unique_ptr<PKCS11::TokenSession>& LastSession() {
    static std::unique_ptr<PKCS11::TokenSession> session;
    return session;
}

int Leave(const std::string& how, const std::string& state, const std::string& module, const std::string& control) {
    const forward::Control forward(control);
    const tokens::Settings settings{
        .providers = {{.name = "forward", .module_path = module, .init_args = forward.InitArgs()}},
        .poll_interval = std::chrono::milliseconds(50),
        .call_limit = std::chrono::milliseconds(300)};
    LastSession();
    if (how == "callback") {
        PKCS11::Callbacks.providerInserted = [](const PKCS11::ProviderInfo&, unsigned long) { std::exit(0); };
    }
    std::string error;
    if (!tokens::PrepareSoftHsm(state, error) || !tokens::Start(settings, error)) {
        std::cerr << error << '\n';
        return 2;
    }
    while (how == "callback") pause();
    auto& manager = PKCS11::Manager::Instance();
    for (const PKCS11::TokenInfo& token : manager.EnumTokens()) {
        LastSession() = std::make_unique<PKCS11::TokenSession>(token);
    }
    if (LastSession() == nullptr || !LastSession()->opened()) return 3;
    if (how == "finalising") forward.Set({"hang C_Finalize"});
    if (how == "hanging") forward.Set({"hang C_GetSlotList"});
    while (how == "hanging" && !manager.EnumTokens().empty()) manager.ReloadTokensContent(1);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return argc == 5 ? Leave(argv[1], argv[2], argv[3], argv[4]) : 2;
}
