// Order of the fields in which a record travels on a command stream. `sync` takes a CommandStreamOut and a constant
// record to write, or a CommandStreamIn and a record to read.
#pragma once

#include <concepts>
#include <type_traits>

#include "certmgr/records.h"
#include "platform/bridge.h"
#include "platform/tokens.h"

namespace CM {

template <typename Record, typename Wanted>
concept RecordOf = std::same_as<std::remove_const_t<Record>, Wanted>;

template <typename Stream, RecordOf<CertInfo> Record>
void sync(Stream& stream, Record& info) {
    stream.fields(info.id, info.serialNumber, info.subject, info.issuer, info.validFrom, info.validTo, info.keyAlg,
                  info.signAlg, info.isCA, info.version, info.keyBits, info.kind);
}

template <typename Stream, RecordOf<CRLInfo> Record>
void sync(Stream& stream, Record& info) {
    stream.fields(info.id, info.issuer, info.thisUpdate, info.nextUpdate, info.signAlg, info.crlNumber,
                  info.deltaCrlIndicator);
}

template <typename Stream, RecordOf<PKCS11::TokenInfo> Record>
void sync(Stream& stream, Record& token) {
    stream.fields(token.id, token.label, token.manufacturer, token.model, token.serialNumber, token.slotDescription,
                  token.providerName, token.loggedIn, token.writeProtected, token.loginRequired, token.hardware,
                  token.removable, token.pinPad, token.holdsTrusted);
}

}  // namespace CM
