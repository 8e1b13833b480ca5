// Reports of local certificate selection, and the pieces that the other selection reports share with them. Nothing is
// rendered for a message that is not enabled.
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "certmgr/cert_log.h"
#include "certmgr/findlocal.h"
#include "platform/eventlog.h"
#include "platform/policy.h"

namespace CM {

/// Appends what a search looked for: the rule (null: any), its pattern list of that name, and the excluded subject
/// (null: none). `alg` restricts the search where the list is empty.
void cmprint_SearchParams(std::string& out, const LPCFG::auth_ike_t* rule, std::string_view list_name,
                          const std::list<LPCFG::cert_t>& patterns, pki_alg_t alg,
                          const std::string* excluded_subject = nullptr);

/// Appends an identity: "FQDN host.example", "IP4 <any>", "DN CN=host".
void cmprint_Identity(std::string& out, const LPCFG::ipsecid_t& id);

/// Size at which a report takes no further entries; the event log would cut it anyway.
inline constexpr std::size_t kMaxReportBytes = 24U << 10;

/// Appends entries through `render(entry, number)`, numbered from 1, until the report is full.
template <typename Entries, typename Render>
void cmprint_Entries(std::string& out, const Entries& entries, Render render) {
    std::size_t number = 0;
    for (const auto& entry : entries) {
        if (out.size() > kMaxReportBytes) {
            cmprint_Fact(out, "... and more: ", std::to_string(entries.size() - number));
            return;
        }
        render(entry, ++number);
    }
}

/// What was looked for, and under which identity it is logged.
struct LocalSearchReport {
    const LPCFG::auth_ike_t& rule;
    const std::string* excluded_subject;
    const TLogIdent& ident;
};

/// The identity that goes with the selected certificate.
struct AnnouncedIdentity {
    LPCFG::ipsecid_t id;  // value and dn empty: none is announced
    bool is_explicit = false;  // written in the rule, not taken from the certificate
};

void CMLog_LocalCertificate_Selected_(const LocalCertLog& selected, const AnnouncedIdentity& announced,
                                      const TLogIdent& ident);
/// Every certificate considered, and why it was refused.
void CMLog_LocalCertificate_NotFound_(const LocalSearchReport& report, const LocalSearchRecords& records);
/// `algs` are the key algorithms of the accepted records.
void CMLog_LocalCertificateAlgs_Found_(const LocalSearchReport& report, const LocalSearchRecords& records,
                                       const std::vector<pki_alg_t>& algs);
void CMLog_LocalCertificateAlgs_NotFound_(const LocalSearchReport& report, const LocalSearchRecords& records);

}  // namespace CM
