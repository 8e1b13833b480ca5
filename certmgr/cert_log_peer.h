// Reports of the peer verification and of the certificate request list. Nothing is rendered for a message that is not
// enabled. A report stops at a bounded size and says how much it leaves out.
#pragma once

#include <cstddef>
#include <string>

#include "certmgr/findpeer.h"
#include "certmgr/findtrust.h"

namespace CM {

/// What was looked for, and under which identity it is logged.
struct PeerSearchReport {
    const LPCFG::auth_ike_t& rule;
    const LPCFG::ipsecid_t& identity;  // the one that candidates had to answer
    std::size_t received;  // certificates that the peer sent
    const TLogIdent& ident;
};

/// Appends the members of a candidate's chain, leaf first, each with its role.
void cmprint_Chain(std::string& out, const PeerCertStatus& status);

void CMLog_PeerCertificate_Selected(const PeerSearchReport& report, const PeerCertStatus& selected);
/// Every candidate, with its pattern, its chain and why it was refused.
void CMLog_PeerCertificate_NotSelected(const PeerSearchReport& report, const PeerCertStatuses& statuses);

// `rule` null: none is known yet.
void CMLog_TrustedCertificates_Selected(const TrustedCertLogs& selected, const LPCFG::auth_ike_t* rule,
                                        const TLogIdent& ident);
/// `not_valid`: those that match the rule but are not valid now.
void CMLog_TrustedCertificates_NotSelected(const TrustedCertLogs& not_valid, const LPCFG::auth_ike_t* rule,
                                           bool store_is_empty, const TLogIdent& ident);
void CMLog_TrustedCertificates_Expired(const TrustedCertLogs& not_valid, const TLogIdent& ident);

}  // namespace CM
