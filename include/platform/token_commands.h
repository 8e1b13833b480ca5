// The commands of the token manager on the management bridge (group bridge::kGroupTokens), and the records that travel
// with them. docs/bridge.md lists inputs and outputs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/token_sync.h"
#include "platform/tokens.h"

namespace PKCS11 {

enum TokenCommand : std::uint32_t {
    kCommandListTokens = 0,
    kCommandLogin = 1,
    kCommandLogout = 2,
    kCommandInitToken = 3,
    kCommandChangePin = 4,
};

/// Whose PIN kCommandChangePin changes.
enum PinRole : std::uint32_t {
    kPinOfUser = 0,
    kPinOfSecurityOfficer = 1,
    kPinOfUserByOfficer = 2,  // the security officer gives the user a new one: it was forgotten, or is locked
};

/// How a command that takes a PIN ended.
enum PinStatus : std::uint32_t {
    kPinDone = 0,
    kPinWrong = 1,
    kPinKnownWrong = 2,  // it failed before on this token and was not tried again
    kPinFewTriesLeft = 3,  // the token says that few tries are left; it was not tried
    kPinLocked = 4,
    kPinTokenNotPresent = 5,
    kPinTokenFailed = 6,  // device trouble, or a new PIN that the token does not take
};

/// Bits of TokenStatus::flags.
enum TokenStatusBit : std::uint32_t {
    kTokenInitialised = 1,  // clear: a slot with a token that has to be initialised first; its identifier is 0
    kUserPinSet = 2,
    kUserPinFewTries = 4,
    kUserPinFinalTry = 8,
    kUserPinLocked = 16,
    kOfficerPinFewTries = 32,
    kOfficerPinFinalTry = 64,
    kOfficerPinLocked = 128,
};

/// A token, or a slot with one that is not initialised, as it is now.
struct TokenStatus {
    TokenInfo info;
    std::uint32_t flags = 0;  // TokenStatusBit
    std::uint32_t minPinBytes = 0;
    std::uint32_t maxPinBytes = 0;
};

struct TokenListing {
    std::vector<ProviderInfo> providers;  // in the order of the settings
    std::vector<TokenStatus> tokens;
};

template <typename Stream, RecordOf<ProviderInfo> Record>
void sync(Stream& stream, Record& provider) {
    stream.fields(provider.name, provider.description, provider.manufacturer, provider.available);
}

template <typename Stream, RecordOf<TokenStatus> Record>
void sync(Stream& stream, Record& token) {
    sync(stream, token.info);
    stream.fields(token.flags, token.minPinBytes, token.maxPinBytes);
}

}  // namespace PKCS11
