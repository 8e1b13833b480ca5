// Reports of local certificate selection, and the pieces that the other selection reports share with them. Nothing is
// rendered for a message that is not enabled.
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <utility>
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

/// What a report has no room for: how many entries, and how many for each reason.
class LeftOut {
  public:
    /// `reason` may be empty: there is none to tell.
    void Add(const std::string& reason);
    void Print(std::string& out) const;

  private:
    /// More reasons are counted together.
    static constexpr std::size_t kMaxReasons = 12;

    std::size_t entries_ = 0;
    std::size_t other_reasons_ = 0;
    std::vector<std::pair<std::string, std::size_t>> reasons_;  // in the order in which they were met
};

/// Appends entries through `render(entry, number)`, numbered from 1, until the report is full; then how many are left, by
/// `reason(entry)`.
template <typename Entries, typename Render, typename Reason>
void cmprint_Entries(std::string& out, const Entries& entries, Render render, Reason reason) {
    std::size_t number = 0;
    LeftOut left_out;
    for (const auto& entry : entries) {
        if (out.size() > kMaxReportBytes) {
            left_out.Add(reason(entry));
        } else {
            render(entry, ++number);
        }
    }
    left_out.Print(out);
}

template <typename Entries, typename Render>
void cmprint_Entries(std::string& out, const Entries& entries, Render render) {
    cmprint_Entries(out, entries, render, [](const auto&) { return std::string(); });
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
