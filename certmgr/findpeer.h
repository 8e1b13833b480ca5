// Peer verification: what its report shares with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "certmgr/cert_storage.h"
#include "certmgr/cert_verifychain.h"
#include "platform/eventlog.h"
#include "platform/policy.h"

namespace CM {

/// One candidate for the peer's certificate.
struct PeerCertStatus {
    CertList chain;  // the candidate; once its chain was built, the issuers after it
    std::uint64_t pattern_number = 0;  // from 1, in cert_remote, of the pattern that the candidate matched
    Refusal refusal{};
};
/// In the order in which they were found.
using PeerCertStatuses = std::list<PeerCertStatus>;

/// An identity that every certificate answers.
extern const LPCFG::ipsecid_t g_any_id_remote;

}  // namespace CM
