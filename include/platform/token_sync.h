// Order of the fields in which a token's description travels on a command stream. `sync` takes a CommandStreamOut and a
// constant record to write, or a CommandStreamIn and a record to read; so it is for every record that travels.
#pragma once

#include <concepts>
#include <type_traits>

#include "platform/bridge.h"
#include "platform/tokens.h"

template <typename Record, typename Wanted>
concept RecordOf = std::same_as<std::remove_const_t<Record>, Wanted>;

namespace PKCS11 {

template <typename Stream, RecordOf<TokenInfo> Record>
void sync(Stream& stream, Record& token) {
    stream.fields(token.id, token.label, token.manufacturer, token.model, token.serialNumber, token.slotDescription,
                  token.providerName, token.loggedIn, token.writeProtected, token.loginRequired, token.hardware,
                  token.removable, token.pinPad, token.holdsTrusted);
}

}  // namespace PKCS11
