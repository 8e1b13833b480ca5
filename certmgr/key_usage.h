// Required key usages, and their tolerance.
#pragma once

#include "certmgr/records.h"
#include "certmgr/x509cert.h"
#include "platform/eventlog.h"

namespace CM {

/// Whether the certificate may be used so: it lists the usage, or the settings tolerate that it does not. A certificate
/// without the extension lists nothing. A missing usage is logged either way.
bool HasKeyUsage(const X509Cert* cert, KeyUsageBit usage, const TLogIdent& ident);

/// Name of a usage that is required somewhere, as logs and reasons give it.
const char* KeyUsageName(KeyUsageBit usage);

}  // namespace CM
