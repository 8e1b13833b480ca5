#include "platform/tokens/token_listener.h"

#include <iterator>

#include "platform/token_commands.h"
#include "platform/token_sync.h"
#include "platform/tokens/pins.h"
#include "platform/tokens/token_host.h"

namespace tokens {
namespace {

using PKCS11::FindToken;
using PKCS11::TokenInfo;
using vpnfc::SecretString;

static_assert(static_cast<int>(PinResult::kDone) == PKCS11::kPinDone);
static_assert(static_cast<int>(PinResult::kWrongPin) == PKCS11::kPinWrong);
static_assert(static_cast<int>(PinResult::kKnownWrong) == PKCS11::kPinKnownWrong);
static_assert(static_cast<int>(PinResult::kFewTriesLeft) == PKCS11::kPinFewTriesLeft);
static_assert(static_cast<int>(PinResult::kLocked) == PKCS11::kPinLocked);
static_assert(static_cast<int>(PinResult::kNotPresent) == PKCS11::kPinTokenNotPresent);
static_assert(static_cast<int>(PinResult::kFailed) == PKCS11::kPinTokenFailed);

void Reply(CommandStreamOut& out, PinResult result) {
    out.fields(static_cast<std::uint32_t>(result), std::string_view(PinResultText(result)));
}

void ListCommand(CommandStreamIn& /*in*/, CommandStreamOut& out) {
    const PKCS11::TokenListing listing = ListTokens();
    out.fields(static_cast<std::uint32_t>(listing.providers.size()));
    for (const PKCS11::ProviderInfo& provider : listing.providers) sync(out, provider);
    out.fields(static_cast<std::uint32_t>(listing.tokens.size()));
    for (const PKCS11::TokenStatus& token : listing.tokens) sync(out, token);
}

void LoginCommand(CommandStreamIn& in, CommandStreamOut& out) {
    std::uint64_t id = 0;
    SecretString pin;
    bool try_anyway = false;
    in.fields(id, pin.edit(), try_anyway);
    const TokenInfo token = FindToken(id);
    Reply(out, pin.get().size() > kMaxPinBytes
                   ? PinResult::kWrongPin
                   : Login(token, pin, try_anyway ? FewTries::kTryAnyway : FewTries::kRefuse));
}

void LogoutCommand(CommandStreamIn& in, CommandStreamOut& out) {
    std::uint64_t id = 0;
    in.fields(id);
    const TokenInfo token = FindToken(id);
    if (token.providerName.empty()) return Reply(out, PinResult::kNotPresent);
    Reply(out, Logout(token) ? PinResult::kDone : PinResult::kFailed);
}

PinResult ChangePinOf(std::uint32_t role, const TokenInfo& token, const SecretString& old_pin,
                      const SecretString& new_pin, FewTries few_tries) {
    if (role == PKCS11::kPinOfSecurityOfficer) return ChangeOfficerPin(token, old_pin, new_pin, few_tries);
    if (role == PKCS11::kPinOfUserByOfficer) return ResetUserPin(token, old_pin, new_pin, few_tries);
    return ChangePin(token, old_pin, new_pin, few_tries);
}

/// An empty PIN is typed on a PIN pad.
bool IsPossiblePin(const TokenInfo& token, const SecretString& pin) {
    return pin.get().size() <= kMaxPinBytes && (!pin.empty() || token.pinPad);
}

void ChangePinCommand(CommandStreamIn& in, CommandStreamOut& out) {
    std::uint64_t id = 0;
    std::uint32_t role = 0;
    SecretString old_pin;
    SecretString new_pin;
    bool try_anyway = false;
    in.fields(id, role, old_pin.edit(), new_pin.edit(), try_anyway);
    const TokenInfo token = FindToken(id);
    if (token.providerName.empty()) return Reply(out, PinResult::kNotPresent);
    if (!IsPossiblePin(token, old_pin)) return Reply(out, PinResult::kWrongPin);
    if (!IsPossiblePin(token, new_pin) || role > PKCS11::kPinOfUserByOfficer) return Reply(out, PinResult::kFailed);
    Reply(out, ChangePinOf(role, token, old_pin, new_pin, try_anyway ? FewTries::kTryAnyway : FewTries::kRefuse));
}

void InitCommand(CommandStreamIn& in, CommandStreamOut& out) {
    std::string provider;
    std::string label;
    SecretString officer_pin;
    SecretString user_pin;
    in.fields(provider, label, officer_pin.edit(), user_pin.edit());
    TokenInfo token;
    std::string error;
    const bool done = InitToken(provider, label, officer_pin, user_pin, token, error);
    out.fields(done, error);
    if (done) sync(out, std::as_const(token));
}

/// By number.
constexpr void (*kCommands[])(CommandStreamIn&, CommandStreamOut&) = {ListCommand, LoginCommand, LogoutCommand,
                                                                      InitCommand, ChangePinCommand};
static_assert(std::size(kCommands) == PKCS11::kCommandChangePin + 1);

}  // namespace

TokenListener::TokenListener() : CommandListener(bridge::kGroupTokens) {
    AddCommandListener(this);
}

TokenListener::~TokenListener() {
    DelCommandListener(this);
}

bool TokenListener::ExecCommand(BridgeSession& /*session*/, long number, const std::string& input,
                                std::string& output) {
    if (number < 0 || static_cast<std::size_t>(number) >= std::size(kCommands)) return false;
    CommandStreamIn in(input);
    CommandStreamOut out(output);
    kCommands[number](in, out);
    return true;
}

}  // namespace tokens
