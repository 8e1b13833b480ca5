// The certificate request list: what its reports share with it.
#pragma once

#include <cstdint>
#include <vector>

#include "certmgr/x509cert.h"

namespace CM {

/// One trusted certificate that the rule allows.
struct TrustedCertLog {
    CertRef cert;
    std::uint32_t pattern_index = 0;  // from 1, in cert_trust, of the first pattern that it matched
};
using TrustedCertLogs = std::vector<TrustedCertLog>;

}  // namespace CM
