// Local certificate selection: what the reports and the peer verification share with it.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "certmgr/ike.h"
#include "certmgr/x509cert.h"
#include "platform/policy.h"

namespace CM {

/// The certificate's value that answers the identity: its last alternative subject name of that kind, or its DER
/// subject. Null when the certificate has none or it differs from the identity's (byte comparison). Points into the
/// certificate.
const std::string* cert_map_to_lp_cfg_ipsecid(const X509Cert* cert, const LPCFG::ipsecid_t& id);

/// 1-based position of the first identity that the certificate answers; 0 when there is none. `mapped` (may be null)
/// receives the entry's type and the certificate's value, its other fields stay.
std::uint32_t cert_map_to_lp_cfg_ipsecid_list(LPCFG::ipsecid_t* mapped, const X509Cert* cert,
                                              const std::list<LPCFG::ipsecid_t>& ids);

/// One certificate that a search considered, and the verdict.
struct LocalCertLog {
    CertRef cert;
    std::uint64_t pattern_index = 0;  // from 1, in the searched pattern list; 0 for the rule's bound certificate
    std::uint32_t id_index = 0;  // from 1, in id_local; 0 while unset
    std::uint32_t status = kLocalNotFound;
};
using LocalSearchRecords = std::vector<LocalCertLog>;

}  // namespace CM
