// Identities on the wire and in rules.
#pragma once

#include <string>

#include "ike/wire/payloads.h"
#include "platform/policy.h"

namespace ikeauth {

Identification ToWire(const LPCFG::ipsecid_t& id);
/// False for types that rules do not have: IPv6 addresses, key identifiers.
bool FromWire(const Identification& wire, LPCFG::ipsecid_t& id);
/// "FQDN gateway.example".
std::string Describe(const Identification& id);

}  // namespace ikeauth
