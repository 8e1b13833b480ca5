#include "certmgr/cert_log_local.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "iputils/iputils.h"
#include "platform/asn1.h"
#include "platform/event_codes.h"

namespace CM {

namespace {

constexpr std::size_t kIp4Bytes = 4;

void AppendIp4(std::string& out, const std::string& value) {
    if (value.size() != kIp4Bytes) {
        return cmprint_Value(out.append("0x"), TO_HEX_STD_STRING(value));
    }
    std::uint32_t address = 0;
    for (const char c : value) address = address << 8 | static_cast<unsigned char>(c);
    std::array<char, 16> text{};
    IPUtils::ip2str(address, text.data());
    out.append(text.data());
}

/// A name is read and printed again: what the caller gives may be any text.
void AppendDn(std::string& out, const LPCFG::ipsecid_t& id) {
    std::string der = id.value;
    if (!id.dn.empty() && !printable_to_asn_dn(id.dn, der)) return cmprint_Text(out, id.dn);
    std::string printable;
    asn_dn_to_printable(der, printable);
    cmprint_Value(out, printable);
}

void AppendIdentityValue(std::string& out, const LPCFG::ipsecid_t& id) {
    switch (id.type) {
        case LPCFG::ipsecid_t::kIp4:
            return AppendIp4(out, id.value);
        case LPCFG::ipsecid_t::kDn:
            return AppendDn(out, id);
        default:
            return cmprint_Text(out, id.value);
    }
}

/// Names of identity types: as a rule writes them, and as the line of the selected certificate does.
struct IdentityType {
    const char* in_rule;
    const char* announced;
};

IdentityType TypeNames(std::uint32_t type) {
    static constexpr std::array<IdentityType, 4> kNames = {
        {{"IP4", "IP"}, {"FQDN", "DNS"}, {"E-Mail", "E-Mail"}, {"DN", "DN"}}};
    return type < kNames.size() ? kNames[type] : IdentityType{"unknown type", "unknown type"};
}

std::string AnnouncedText(const AnnouncedIdentity& announced) {
    const LPCFG::ipsecid_t& id = announced.id;
    if (id.value.empty() && id.dn.empty()) return "empty - any local IP address will be used";
    std::string text = TypeNames(id.type).announced;
    if (announced.is_explicit) {
        text.append(": ");
        AppendIdentityValue(text, id);
        return text.append(" (explicit - 'no_map_id_local' is set in LSP rule)");
    }
    if (id.type == LPCFG::ipsecid_t::kDn) return text.append(" from certificate");
    text.append(" - alt-subject from certificate: ");
    AppendIdentityValue(text, id);
    return text;
}

/// Text of a verdict; the certificate's own time follows the first three.
const char* StatusText(std::uint32_t status) {
    switch (status) {
        case kLocalNotYetValid:
            return kNotYetValidText;
        case kLocalExpired:
            return kExpiredText;
        case kLocalPrivateKeyExpired:
            return "Prvate Key not valid after: ";
        case kLocalIdMismatch:
            return "Not matched to 'id_local'";
        case kLocalAskFailed:
            return "multiple matches, but failed to send notification to choose one";
        case kLocalAskCancelled:
            return "multiple matches, but user don't choose any one (cancel pressed)";
        case kLocalOtherChosen:
            return "multiple matches, but user choose another";
        case kLocalMissingIkeEku:
            return "Missing IKE/IPsec Extended Key Usage";
        case kLocalNotRequested:
            return "Not matched to CR";
        default:
            return "";
    }
}

/// One refused certificate: where it was met, why it was refused, what it is.
void cmprint_NotMatchedCert(std::string& out, const LocalCertLog& record, std::size_t number) {
    cmprint_Fact(out, "Certificate ", std::to_string(number));
    if (record.pattern_index != 0) {
        out.append(": cert_local[").append(std::to_string(record.pattern_index)).append("]");
    } else {
        out.append(": bound to the rule");
    }
    std::string time;
    SelectLocalResult{record.status, record.cert.get()}.GetInfo(&time);
    out.append(": ").append(StatusText(record.status)).append(time);
    cmprint_Cert(out, record.cert.get(), false);
}

void cmprint_Pattern(std::string& out, std::string_view list_name, std::size_t index, const LPCFG::cert_t& pattern) {
    cmprint_Fact(out, "->", list_name);
    out.append("[").append(std::to_string(index)).append("], cert subject: ");
    out.append(pattern.subject.empty() ? "<any>" : pattern.subject);
    if (!pattern.subject.empty() && !pattern.subjectExact) out.append(" (among other attributes)");

    LPCFG::cert_t rest = pattern;
    rest.subject.clear();
    const bool restricted = rest.keyAlg != 0 || !rest.issuer.empty() || !rest.serialNumber.empty() ||
                            !rest.md5.empty() || !rest.sha1.empty();
    if (restricted) ttt_CertPatternToLogString(rest, out);
}

const char* CrlModeText(LPARAMS::CRL_PROC_t mode) {
    static constexpr std::array kNames = {"disabled", "enabled", "enabled soft"};
    return mode < kNames.size() ? kNames[mode] : "undefined";
}

/// An empty list of a rule does not restrict.
std::string CountText(std::size_t count) {
    return count == 0 ? "any" : std::to_string(count);
}

/// What the rule says of this host's identity, and in one line what it asks of the peer.
void cmprint_RuleIdentities(std::string& out, const LPCFG::auth_ike_t& rule) {
    std::size_t index = 0;
    for (const LPCFG::ipsecid_t& id : rule.id_local) {
        cmprint_Fact(out, "->id_local[", std::to_string(++index));
        out.append("]: ");
        cmprint_Identity(out, id);
    }
    if (rule.no_map_id_local) cmprint_Fact(out, "->no_map_id_local: ", "the certificate need not carry the identity");
    cmprint_Fact(out, "->peer: ", "cert_remote: " + CountText(rule.cert_remote.size()));
    out.append(", cert_trust: ").append(CountText(rule.cert_trust.size()));
    out.append(", id_remote: ").append(rule.no_map_id_remote ? "not mapped" : CountText(rule.id_remote.size()));
    out.append(", CRL processing: ").append(CrlModeText(rule.crlProcessing));
}

void cmprint_LocalSearch(std::string& out, const LocalSearchReport& report) {
    const LPCFG::auth_ike_t& rule = report.rule;
    cmprint_SearchParams(out, &rule, "cert_local", rule.cert_local, rule.authAlg, report.excluded_subject);
    cmprint_RuleIdentities(out, rule);
}

/// No record is an accepted one here.
void CMLog_NotFound__(TLogMessage& message, const LocalSearchReport& report, const LocalSearchRecords& records) {
    std::string text;
    cmprint_LocalSearch(text, report);
    if (records.empty()) cmprint_Fact(text, "No personal certificate matches", {});
    cmprint_Entries(
        text, records,
        [&](const LocalCertLog& record, std::size_t number) { cmprint_NotMatchedCert(text, record, number); },
        [](const LocalCertLog& record) { return std::string(StatusText(record.status)); });
    message.Attr(text);
}

void LogNotFound(EventCode code, const LocalSearchReport& report, const LocalSearchRecords& records) {
    if (!TLogMessage::IsEnabled(code)) return;
    TLogMessage message(code, report.ident);
    CMLog_NotFound__(message, report, records);
    message.Send();
}

}  // namespace

void LeftOut::Add(const std::string& reason) {
    ++entries_;
    if (reason.empty()) return;
    const auto known = std::ranges::find(reasons_, reason, &std::pair<std::string, std::size_t>::first);
    if (known != reasons_.end()) {
        ++known->second;
    } else if (reasons_.size() < kMaxReasons) {
        reasons_.emplace_back(reason, 1);
    } else {
        ++other_reasons_;
    }
}

void LeftOut::Print(std::string& out) const {
    if (entries_ == 0) return;
    cmprint_Fact(out, "... and more: ", std::to_string(entries_));
    const auto line = [&out](std::size_t count, std::string_view reason) {
        cmprint_Fact(out, "  ", std::to_string(count));
        cmprint_Value(out.append(": "), reason.substr(0, reason.find_last_not_of(": ") + 1));
    };
    for (const auto& [reason, count] : reasons_) line(count, reason);
    if (other_reasons_ != 0) line(other_reasons_, "other reasons");
}

void cmprint_Identity(std::string& out, const LPCFG::ipsecid_t& id) {
    out.append(TypeNames(id.type).in_rule).append(" ");
    if (id.any != 0) {
        out.append("<any>");
    } else {
        AppendIdentityValue(out, id);
    }
}

void cmprint_SearchParams(std::string& out, const LPCFG::auth_ike_t* rule, std::string_view list_name,
                          const std::list<LPCFG::cert_t>& patterns, pki_alg_t alg,
                          const std::string* excluded_subject) {
    cmprint_Fact(out, "LSP rule: ", rule != nullptr ? std::string_view(rule->name) : "<any>");
    if (patterns.empty()) {
        out.append(" - '").append(list_name).append("' is empty");
        if (alg != 0) out.append(", key alg: ").append(ttt_pki_alg_to_str(alg));
    }
    if (excluded_subject != nullptr && !excluded_subject->empty()) {
        cmprint_Value(out.append(", exclude subject name: "), *excluded_subject);
    }
    std::size_t index = 0;
    for (const LPCFG::cert_t& pattern : patterns) cmprint_Pattern(out, list_name, ++index, pattern);
}

void CMLog_LocalCertificate_Selected_(const LocalCertLog& selected, const AnnouncedIdentity& announced,
                                      const TLogIdent& ident) {
    if (!TLogMessage::IsEnabled(kMsgLocalCertSelected)) return;
    std::string text;
    cmprint_Cert(text, selected.cert.get(), true);
    if (selected.status == kLocalNotRequested) text.append(" (Not matched to CR)");
    cmprint_Fact(text, "Identity: ", AnnouncedText(announced));
    TLogMessage(kMsgLocalCertSelected, ident).Attr(text).Send();
}

void CMLog_LocalCertificate_NotFound_(const LocalSearchReport& report, const LocalSearchRecords& records) {
    LogNotFound(kMsgLocalCertNotFound, report, records);
}

void CMLog_LocalCertificateAlgs_NotFound_(const LocalSearchReport& report, const LocalSearchRecords& records) {
    LogNotFound(kMsgLocalCertAlgsNotFound, report, records);
}

void CMLog_LocalCertificateAlgs_Found_(const LocalSearchReport& report, const LocalSearchRecords& records,
                                       const std::vector<pki_alg_t>& algs) {
    if (!TLogMessage::IsEnabled(kMsgLocalCertAlgsFound)) return;
    std::string text;
    cmprint_LocalSearch(text, report);
    for (const pki_alg_t alg : algs) {
        const auto usable = std::ranges::count_if(records, [alg](const LocalCertLog& record) {
            return record.status == kLocalAccepted && record.cert->info.keyAlg == alg;
        });
        cmprint_Fact(text, ttt_pki_alg_to_str(alg), ": ");
        text.append(std::to_string(usable)).append(usable == 1 ? " certificate" : " certificates");
    }
    TLogMessage(kMsgLocalCertAlgsFound, report.ident).Attr(text).Send();
}

}  // namespace CM
