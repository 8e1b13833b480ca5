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

/// What one peer may send before it has authenticated, in all of its payloads: a chain has a handful of certificates of
/// some kilobytes, and every certificate may make the chains of all others longer.
inline constexpr std::size_t kMaxReceivedCerts = 1024;
inline constexpr std::size_t kMaxReceivedBytes = 2U << 20;

/// Members of one chain that its report shows.
inline constexpr std::size_t kReportedMembers = 8;

/// One candidate for the peer's certificate.
struct PeerCertStatus {
    CertList chain;  // the candidate; once its chain was built, the issuers after it (of a refused one the first)
    std::uint64_t pattern_number = 0;  // from 1, in cert_remote, of the pattern that the candidate matched
    Refusal refusal{};
    std::size_t left_out = 0;  // members of a refused chain that are not kept
};
/// In the order in which they were found.
using PeerCertStatuses = std::list<PeerCertStatus>;

/// An identity that every certificate answers.
extern const LPCFG::ipsecid_t g_any_id_remote;

}  // namespace CM
