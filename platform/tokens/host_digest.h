// Digests computed by the host, for tokens without the mechanism.
#pragma once

#include <string>
#include <string_view>

#include "platform/asn1.h"

namespace tokens {

bool HostKnowsDigest(pki_alg_t alg);
bool HostDigest(pki_alg_t alg, std::string_view data, std::string& digest);

}  // namespace tokens
