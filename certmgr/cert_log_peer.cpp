#include "certmgr/cert_log_peer.h"

#include <algorithm>
#include <string_view>

#include "certmgr/cert_log.h"
#include "certmgr/cert_log_local.h"
#include "platform/event_codes.h"

namespace CM {

namespace {

void AppendCount(std::string& out, std::size_t count, std::string_view noun) {
    out.append(std::to_string(count)).append(" ").append(noun).append(count == 1 ? "" : "s");
}

/// "Certificate 2: cert_remote[1]"
void AppendEntry(std::string& out, std::size_t number, std::string_view list_name, std::uint64_t pattern_number) {
    cmprint_Fact(out, "Certificate ", std::to_string(number));
    out.append(": ").append(list_name).append("[").append(std::to_string(pattern_number)).append("]");
}

void AppendIdentity(std::string& out, const PeerSearchReport& report) {
    cmprint_Fact(out, "Identity: ", {});
    if (report.rule.no_map_id_remote) {
        out.append("not checked - 'no_map_id_remote' is set in LSP rule");
    } else {
        cmprint_Identity(out, report.identity);
    }
}

void AppendTrustParams(std::string& out, const LPCFG::auth_ike_t* rule) {
    if (rule == nullptr) {
        cmprint_Fact(out, "LSP rule:", " - not defined yet, empty 'cert_trust' will be used");
    } else {
        cmprint_SearchParams(out, rule, "cert_trust", rule->cert_trust, 0);
    }
}

void AppendNotValid(std::string& out, const TrustedCertLogs& not_valid) {
    cmprint_Entries(out, not_valid, [&](const TrustedCertLog& entry, std::size_t number) {
        AppendEntry(out, number, "cert_trust", entry.pattern_index);
        cmprint_Cert(out, entry.cert.get(), false);
        cmprint_Validity(out, entry.cert->info);
    });
}

}  // namespace

void cmprint_Chain(std::string& out, const PeerCertStatus& status) {
    const CertList& chain = status.chain;
    const std::size_t length = chain.size() + status.left_out;
    cmprint_Fact(out, "Chain: ", {});
    AppendCount(out, length, "certificate");
    const std::size_t shown = std::min(chain.size(), kReportedMembers);
    for (std::size_t i = 0; i < shown; ++i) {
        const CertInfo& info = chain[i]->info;
        cmprint_Fact(out, "  [", std::to_string(i));
        cmprint_Value(out.append("] ").append(CertKindText(info.kind)).append(": "), info.subject);
    }
    if (shown < length) cmprint_Fact(out, "  ... and more: ", std::to_string(length - shown));
}

void CMLog_PeerCertificate_Selected(const PeerSearchReport& report, const PeerCertStatus& selected) {
    if (!TLogMessage::IsEnabled(kMsgPeerCertSelected)) return;
    std::string text;
    cmprint_Cert(text, selected.chain[0], true);
    cmprint_Fact(text, "LSP rule: ", report.rule.name);
    if (report.rule.cert_remote.empty()) {
        text.append(" - 'cert_remote' is empty");
    } else {
        text.append("->cert_remote[").append(std::to_string(selected.pattern_number)).append("]");
    }
    AppendIdentity(text, report);
    cmprint_Chain(text, selected);
    TLogMessage(kMsgPeerCertSelected, report.ident).Attr(text).Send();
}

void CMLog_PeerCertificate_NotSelected(const PeerSearchReport& report, const PeerCertStatuses& statuses) {
    if (!TLogMessage::IsEnabled(kMsgPeerCertNotSelected)) return;
    std::string text;
    cmprint_SearchParams(text, &report.rule, "cert_remote", report.rule.cert_remote, report.rule.authAlg);
    AppendIdentity(text, report);
    cmprint_Fact(text, "Received: ", {});
    AppendCount(text, report.received, "certificate");
    if (statuses.empty()) cmprint_Fact(text, "No certificate matches LSP rule and identity", {});
    const auto render = [&](const PeerCertStatus& status, std::size_t number) {
        AppendEntry(text, number, "cert_remote", status.pattern_number);
        cmprint_Value(text.append(": "), RefusalText(status.refusal));
        cmprint_Cert(text, status.chain[0], false);
        if (status.chain.size() > 1) cmprint_Chain(text, status);
    };
    cmprint_Entries(text, statuses, render, [](const PeerCertStatus& status) { return RefusalKind(status.refusal); });
    TLogMessage(kMsgPeerCertNotSelected, report.ident).Attr(text).Send();
}

void CMLog_TrustedCertificates_Selected(const TrustedCertLogs& selected, const LPCFG::auth_ike_t* rule,
                                        const TLogIdent& ident) {
    if (!TLogMessage::IsEnabled(kMsgTrustedCertsSelected)) return;
    std::string text;
    AppendTrustParams(text, rule);
    cmprint_Entries(text, selected, [&](const TrustedCertLog& entry, std::size_t number) {
        AppendEntry(text, number, "cert_trust", entry.pattern_index);
        cmprint_Cert(text, entry.cert.get(), false);
    });
    TLogMessage(kMsgTrustedCertsSelected, ident).Attr(text).Send();
}

void CMLog_TrustedCertificates_NotSelected(const TrustedCertLogs& not_valid, const LPCFG::auth_ike_t* rule,
                                           bool store_is_empty, const TLogIdent& ident) {
    if (!TLogMessage::IsEnabled(kMsgTrustedCertsNotSelected)) return;
    std::string text;
    AppendTrustParams(text, rule);
    if (store_is_empty) {
        cmprint_Fact(text, "Trusted Certificates DB is empty", {});
    } else if (not_valid.empty()) {
        cmprint_Fact(text, "No Trusted Certificates matching to LSP rule were found", {});
    } else {
        cmprint_Fact(text, "Not currently valid Trusted Certificates matching to LSP rule were found:", {});
        AppendNotValid(text, not_valid);
    }
    TLogMessage(kMsgTrustedCertsNotSelected, ident).Attr(text).Send();
}

void CMLog_TrustedCertificates_Expired(const TrustedCertLogs& not_valid, const TLogIdent& ident) {
    if (!TLogMessage::IsEnabled(kMsgTrustedCertsExpired)) return;
    std::string text;
    AppendNotValid(text, not_valid);
    TLogMessage(kMsgTrustedCertsExpired, ident).Attr(text).Send();
}

}  // namespace CM
