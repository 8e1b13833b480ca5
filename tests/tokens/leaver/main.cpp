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

int main(int argc, char** argv) {
    // Destroyed when everything else is gone.
    static std::unique_ptr<PKCS11::TokenSession> session;
    if (argc != 5) return 2;
    const std::string how = argv[1];
    const forward::Control forward(argv[4]);
    const tokens::Settings settings{
        .providers = {{.name = "forward", .module_path = argv[3], .init_args = forward.InitArgs()}},
        .poll_interval = std::chrono::milliseconds(50),
        .call_limit = std::chrono::milliseconds(300)};
    if (how == "callback") {
        PKCS11::Callbacks.providerInserted = [](const PKCS11::ProviderInfo&, unsigned long) { std::exit(0); };
    }
    std::string error;
    if (!tokens::PrepareSoftHsm(argv[2], error) || !tokens::Start(settings, error)) {
        std::cerr << error << '\n';
        return 2;
    }
    while (how == "callback") pause();
    auto& manager = PKCS11::Manager::Instance();
    session = std::make_unique<PKCS11::TokenSession>(manager.EnumTokens().at(0));
    if (!session->opened()) return 3;
    if (how == "finalising") forward.Set({"hang C_Finalize"});
    if (how == "hanging") forward.Set({"hang C_GetSlotList"});
    while (how == "hanging" && !manager.EnumTokens().empty()) manager.ReloadTokensContent(1);
    return 0;
}
