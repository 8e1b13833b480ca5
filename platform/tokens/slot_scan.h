// Looks which tokens stand in the slots of a module.
#pragma once

#include <string>
#include <vector>

#include "platform/token_commands.h"
#include "platform/tokens/token.h"

namespace tokens {

/// Slots of one module that are looked at: far more than readers and virtual tokens of use.
inline constexpr CK_ULONG kMaxSlots = 1024;

/// The slots that hold a token, each once and at most kMaxSlots; `left_out`: there were more.
struct SlotList {
    Result result{};
    std::vector<CK_SLOT_ID> slots{};
    bool left_out = false;
};
SlotList ListSlots(const Api& api);

/// TokenInfo::id; 0 when libcrypto has no memory for it.
std::uint64_t IdentifyToken(const CK_TOKEN_INFO& info);

struct SeenToken {
    TokenPtr token{};
    bool is_new = false;
    PKCS11::TokenInfo info{};
    LoginState login_state = LoginState::kPublic;
    unsigned login_changes = 0;  // of the token, before the state was asked for
};

struct SlotTrouble {
    CK_SLOT_ID slot = 0;
    Result result{};
};

struct ScanOutcome {
    Result result{};  // of the listing of slots
    std::vector<SeenToken> tokens{};  // in the module's order
    std::vector<SlotTrouble> troubles{};  // slots whose token could not be looked at
    bool slots_left_out = false;
};

/// A token of `known` that still stands in its slot, and was not taken out meanwhile, is the same object again; so it
/// is, once, when the module fails to tell. Enters the module.
ScanOutcome ScanSlots(const ModuleLinkPtr& link, const std::string& provider_name, const std::vector<TokenPtr>& known);

/// What a slot holds now, initialised or not.
struct SlotStatus {
    CK_SLOT_ID slot = 0;
    PKCS11::TokenStatus token{};  // without what only a session tells: login, and where trusted certificates may stand
};

/// All slots with a token that answers, in the module's order. Enters the module.
std::vector<SlotStatus> ReadSlotStatuses(const ModuleLinkPtr& link, const std::string& provider_name);

}  // namespace tokens
