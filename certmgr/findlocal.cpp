#include "certmgr/findlocal.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "certmgr/cert_chain.h"
#include "certmgr/cert_log_local.h"
#include "certmgr/cert_storage.h"
#include "certmgr/certmgr.h"
#include "certmgr/records_sync.h"
#include "platform/params.h"

namespace CM {

// --- The search ---

namespace {

constexpr int kWaitWithoutLimit = -1;
constexpr std::size_t kIp4Bytes = 4;

UseHandleFromAuthType cm_without_wait_(UseHandleFromAuthType mode) {
    return static_cast<UseHandleFromAuthType>(mode & ~static_cast<std::uint32_t>(kWaitForReload));
}

/// Compares certificates by their DER; the end of the signature serves as the hash.
struct SameDer {
    std::size_t operator()(const X509Cert* cert) const { return std::hash<std::string_view>{}(EndOfEncoding(cert)); }
    bool operator()(const X509Cert* a, const X509Cert* b) const { return a == b || a->rawCert == b->rawCert; }
};

/// Everything that the filters of one search need; time and rule are read once.
class LocalSearch {
  public:
    LocalSearch(LocalSearchRecords& records, const LPCFG::auth_ike_t& rule, UseHandleFromAuthType mode,
                const std::string* excluded_subject, const IkeCertRequestIter* requests)
        : records_(records),
          rule_(rule),
          use_bound_(mode == kUseBoundFirst || mode == kUseBoundCollect),
          stop_at_first_(mode == kIgnoreBoundFirst || mode == kUseBoundFirst),
          excluded_subject_(excluded_subject != nullptr && !excluded_subject->empty() ? excluded_subject : nullptr),
          requests_(requests) {}

    /// False when the rule's bound certificate is not in the store.
    bool Run();

  private:
    bool UseBound();
    bool WalkPattern(const LPCFG::cert_t& pattern, pki_alg_t alg, std::uint64_t index);
    bool IsCandidate(const X509Cert* cert, const LPCFG::cert_t& pattern, pki_alg_t alg) const;
    bool Consider(const X509Cert* cert, std::uint64_t pattern_index);
    std::uint32_t JudgeUnlocked(const X509Cert* cert, LocalCertLog& record) const;

    LocalSearchRecords& records_;
    const LPCFG::auth_ike_t& rule_;
    const bool use_bound_;
    const bool stop_at_first_;
    const std::string* const excluded_subject_;
    const IkeCertRequestIter* const requests_;
    const cert_time64_t now_ = CertTimeNow();
    // Certificates that have a record; the records keep them alive.
    std::unordered_set<const X509Cert*, SameDer, SameDer> judged_;
};

/// The handle if it is one of the store's personal certificates, else null. The caller holds the read lock.
const X509Cert* cm_find_local_cert_by_handle_unlocked_(const X509Cert* cert) {
    const auto& personal = CertStorage::Instance().personalCerts;
    return personal.PositionOf(cert) != CertStorage::X509CertsDB::npos ? cert : nullptr;
}

/// The one place that makes a record.
LocalCertLog& cm_cert_logs_push_back_(LocalSearchRecords& records, const X509Cert* cert, std::uint64_t pattern_index) {
    LocalCertLog& record = records.emplace_back();
    record.cert = CertRef(cert);
    record.pattern_index = pattern_index;
    return record;
}

bool LocalSearch::Run() {
    // A bound certificate is the only one looked at.
    if (use_bound_ && rule_.boundCert != nullptr) return UseBound();

    const bool any = rule_.cert_local.empty();
    const auto& patterns = any ? *CM_GetAnyCertPatternList() : rule_.cert_local;
    const pki_alg_t alg = any ? rule_.authAlg : 0;

    std::uint64_t index = 0;
    for (const auto& pattern : patterns) {
        if (WalkPattern(pattern, alg, ++index)) break;
    }
    return true;
}

std::uint32_t StatusOfValidity(ValidityCheck check) {
    switch (check) {
        case kNotYetValid:
            return kLocalNotYetValid;
        case kExpired:
            return kLocalExpired;
        case kPrivateKeyExpired:
            return kLocalPrivateKeyExpired;
        default:
            return kLocalAccepted;
    }
}

bool LocalSearch::UseBound() {
    const vpnfc::ReadLock lock(CertStorage::Instance());
    const X509Cert* const cert = cm_find_local_cert_by_handle_unlocked_(rule_.boundCert);
    if (cert == nullptr) return false;
    LocalCertLog& record = cm_cert_logs_push_back_(records_, cert, 0);
    record.id_index = 1;
    record.status = StatusOfValidity(cert->PrivKeyCheckValidFromTo());
    return true;
}

/// One pattern, under the read lock. True when the search is over. An exact subject is looked up in the store's index
/// instead of walking everything.
bool LocalSearch::WalkPattern(const LPCFG::cert_t& pattern, pki_alg_t alg, std::uint64_t index) {
    const auto& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    const auto& personal = storage.personalCerts;
    const auto done = [&](const X509Cert* cert) { return IsCandidate(cert, pattern, alg) && Consider(cert, index); };
    if (pattern.subjectExact && !pattern.subject.empty()) {
        return std::ranges::any_of(personal.WithSubject(pattern.subject),
                                   [&](std::uint32_t position) { return done(personal[position]); });
    }
    return std::ranges::any_of(personal, done);
}

/// What fails here leaves no record, so the cheapest test goes first.
bool LocalSearch::IsCandidate(const X509Cert* cert, const LPCFG::cert_t& pattern, pki_alg_t alg) const {
    return cert->MatchToPattern(pattern, alg) &&
           (excluded_subject_ == nullptr || cert->info.subject != *excluded_subject_) && !judged_.contains(cert);
}

/// Makes the record and judges the certificate. True when it ends the search.
bool LocalSearch::Consider(const X509Cert* cert, std::uint64_t pattern_index) {
    LocalCertLog& record = cm_cert_logs_push_back_(records_, cert, pattern_index);
    judged_.insert(cert);
    record.status = JudgeUnlocked(cert, record);
    return record.status == kLocalAccepted && stop_at_first_;
}

bool cm_missing_ike_eku_allowed_() {
    const vpnfc::ObjectLock lock(LPARAMS::server.cert);
    return LPARAMS::server.cert.allow_missing_ike_eku.on;
}

/// The first filter that refuses decides. Expects the store's read lock.
std::uint32_t LocalSearch::JudgeUnlocked(const X509Cert* cert, LocalCertLog& record) const {
    if (!rule_.id_local.empty()) {
        record.id_index = rule_.no_map_id_local ? 1 : cert_map_to_lp_cfg_ipsecid_list(nullptr, cert, rule_.id_local);
        if (record.id_index == 0) return kLocalIdMismatch;
    }
    if (const std::uint32_t status = StatusOfValidity(cert->PrivKeyCheckValidFromTo(now_)); status != kLocalAccepted) {
        return status;
    }
    // No Extended Key Usage means any.
    if (cert->facts().hasExtKeyUsage && !cert->facts().hasIpsecIkeEku && !cm_missing_ike_eku_allowed_()) {
        return kLocalMissingIkeEku;
    }
    if (requests_ != nullptr && !CheckLocalChainUnlocked(cert, requests_)) return kLocalNotRequested;
    return kLocalAccepted;
}

/// Fills `records` with every certificate considered and its verdict. False when the rule's bound certificate is
/// not in the store.
bool cm_IkeSelectLocalCertificates_(LocalSearchRecords& records, const LPCFG::auth_ike_t& rule,
                                    UseHandleFromAuthType mode, const std::string* excluded_subject,
                                    const IkeCertRequestIter* requests) {
    return LocalSearch(records, rule, mode, excluded_subject, requests).Run();
}

using Candidates = std::vector<LocalCertLog*>;

Candidates cm_records_with_status_(LocalSearchRecords& records, std::uint32_t status) {
    Candidates found;
    for (LocalCertLog& record : records) {
        if (record.status == status) found.push_back(&record);
    }
    return found;
}

// --- The user's choice ---

/// Certificates, then their tokens, in the order of the candidates.
std::string cm_select_cert_question_(const Candidates& candidates) {
    std::string question;
    CommandStreamOut out(question);
    const auto count = static_cast<std::uint32_t>(candidates.size());
    out.fields(count);
    for (const LocalCertLog* candidate : candidates) sync(out, candidate->cert->info);
    out.fields(count);
    for (const LocalCertLog* candidate : candidates) sync(out, candidate->cert->token);
    return question;
}

bool cm_is_chosen_(const CertInfo& candidate, const CertInfo& chosen) {
    return candidate.serialNumber == chosen.serialNumber && candidate.subject == chosen.subject &&
           candidate.issuer == chosen.issuer &&
           (candidate.id.empty() || chosen.id.empty() || candidate.id == chosen.id);
}

void cm_set_status_(const Candidates& candidates, std::uint32_t status) {
    for (LocalCertLog* candidate : candidates) candidate->status = status;
}

/// Asks the user which candidate to take and waits for the answer, without a lock. Null, with the reason in the
/// candidates' status, when none was chosen. Throws "CommandStreamError" on a short answer.
LocalCertLog* cm_send_select_cert_notification_(const Candidates& candidates) {
    std::string message = cm_select_cert_question_(candidates);
    if (!bridge::server::NotifyClientAndWaitResponse(bridge::kQuestionSelectCertificate, message, kWaitWithoutLimit)) {
        cm_set_status_(candidates, kLocalAskFailed);
        return nullptr;
    }
    CommandStreamIn answer(message);
    bool certificate_chosen = false;
    answer.fields(certificate_chosen);
    if (!certificate_chosen) {
        cm_set_status_(candidates, kLocalAskCancelled);
        return nullptr;
    }
    // The first candidate that is the chosen one; those before it lost.
    CertInfo chosen;
    sync(answer, chosen);
    for (LocalCertLog* candidate : candidates) {
        if (cm_is_chosen_(candidate->cert->info, chosen)) return candidate;
        candidate->status = kLocalOtherChosen;
    }
    return nullptr;
}

// --- The selection ---

SelectLocalResult cm_make_result_(std::uint32_t status, const CertRef& cert) {
    SelectLocalResult result;
    result.status = status;
    result.cert = CertRef(cert).Detach();
    return result;
}

/// What is announced as this host's identity, for the caller and for the log. Without id_local: nothing.
AnnouncedIdentity cm_announce_identity_(LPCFG::ipsecid_t* id, const LPCFG::auth_ike_t& rule, const X509Cert* cert) {
    AnnouncedIdentity announced;
    if (rule.id_local.empty()) return announced;
    announced.is_explicit = rule.no_map_id_local;
    if (rule.no_map_id_local) {
        announced.id = rule.id_local.front();
        if (id != nullptr) *id = announced.id;
        return announced;
    }
    if (cert_map_to_lp_cfg_ipsecid_list(&announced.id, cert, rule.id_local) != 0 && id != nullptr) {
        id->type = announced.id.type;
        id->value = announced.id.value;
    }
    return announced;
}

/// One run of a selection over its records. `found` is false when nothing usable was found and nothing is logged yet.
struct Selection {
    bool found = false;
    SelectLocalResult result;
};

Selection cm_select_among_(LocalSearchRecords& records, LPCFG::ipsecid_t* id, const LocalSearchReport& report,
                           bool requests_given) {
    // The accepted ones, else those whose only fault is that the peer did not ask for them.
    Candidates candidates = cm_records_with_status_(records, kLocalAccepted);
    if (candidates.empty() && requests_given) candidates = cm_records_with_status_(records, kLocalNotRequested);
    if (candidates.empty()) return {};
    const LocalCertLog* chosen = candidates.front();
    if (candidates.size() > 1) {
        chosen = cm_send_select_cert_notification_(candidates);
        if (chosen == nullptr) {
            CMLog_LocalCertificate_NotFound_(report, records);
            return {true, cm_make_result_(candidates.front()->status, candidates.front()->cert)};
        }
    }
    const AnnouncedIdentity announced = cm_announce_identity_(id, report.rule, chosen->cert.get());
    CMLog_LocalCertificate_Selected_(*chosen, announced, report.ident);
    return {true, cm_make_result_(kLocalAccepted, chosen->cert)};
}

}  // namespace

SelectLocalResult IkeSelectLocalCertificate(LPCFG::ipsecid_t* id, const LPCFG::auth_ike_t& rule,
                                            UseHandleFromAuthType mode, const std::string* excluded_subject,
                                            IkeCertRequestIter* requests, const TLogIdent& ident) {
    CertStorage& storage = CertStorage::Instance();
    const std::uint64_t reloads = storage.ReloadCount();
    LocalSearchRecords records;
    if (!cm_IkeSelectLocalCertificates_(records, rule, cm_without_wait_(mode), excluded_subject, requests)) {
        return {kLocalBoundMissing, nullptr};
    }
    const LocalSearchReport report{rule, excluded_subject, ident};
    if (const Selection selection = cm_select_among_(records, id, report, requests != nullptr); selection.found) {
        return selection.result;
    }
    // A pending reload may bring it, once; one that ended during the search may have brought it.
    if ((mode & kWaitForReload) != 0 && (storage.WaitReloadDone() || storage.ReloadCount() != reloads)) {
        records.clear();
        return IkeSelectLocalCertificate(id, rule, cm_without_wait_(mode), excluded_subject, requests, ident);
    }
    CMLog_LocalCertificate_NotFound_(report, records);
    if (records.size() == 1) return cm_make_result_(records.front().status, records.front().cert);
    return {};
}

void IkeSelectLocalCertificateAlgs(std::vector<pki_alg_t>& algs, const LPCFG::auth_ike_t& rule,
                                   const TLogIdent& ident) {
    algs.clear();
    LocalSearchRecords records;
    if (!cm_IkeSelectLocalCertificates_(records, rule, kUseBoundCollect, nullptr, nullptr)) return;
    for (const LocalCertLog& record : records) {
        const pki_alg_t alg = record.cert->info.keyAlg;
        if (record.status == kLocalAccepted && std::ranges::find(algs, alg) == algs.end()) algs.push_back(alg);
    }
    const LocalSearchReport report{rule, nullptr, ident};
    if (algs.empty()) {
        CMLog_LocalCertificateAlgs_NotFound_(report, records);
    } else {
        CMLog_LocalCertificateAlgs_Found_(report, records, algs);
    }
}

void GetLocalCertificatesBySubject(std::vector<const X509Cert*>& certs, const std::string& subject) {
    const auto& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    for (const std::uint32_t position : storage.personalCerts.WithSubject(subject)) {
        certs.push_back(CertRef(storage.personalCerts[position]).Detach());
    }
}

bool IsValidLocalCertificateHandle(const X509Cert* cert) {
    const vpnfc::ReadLock lock(CertStorage::Instance());
    return cm_find_local_cert_by_handle_unlocked_(cert) != nullptr && cert->PrivKeyCheckValidFromTo() == kValid;
}

void SelectLocalResult::GetInfo(std::string* out) const {
    if (cert == nullptr || out == nullptr) return;
    switch (status) {
        case kLocalNotYetValid:
            *out = CertTimeToString(cert->info.validFrom);
            break;
        case kLocalExpired:
            *out = CertTimeToString(cert->info.validTo);
            break;
        case kLocalPrivateKeyExpired:
            *out = CertTimeToString(cert->privKeyNotAfter);
            break;
        default:
            break;
    }
}

// --- Identity mapping ---

namespace {

/// The certificate's value of the identity's type, null for an unknown type.
const std::string* cm_cert_value_of_type_(const X509Cert* cert, std::uint32_t type) {
    switch (type) {
        case LPCFG::ipsecid_t::kIp4:
            return &cert->names().altSubject.ipAddress;
        case LPCFG::ipsecid_t::kFqdn:
            return &cert->names().altSubject.dnsName;
        case LPCFG::ipsecid_t::kEmail:
            return &cert->names().altSubject.email;
        case LPCFG::ipsecid_t::kDn:
            return &cert->rawSubject;
        default:
            return nullptr;
    }
}

}  // namespace

const std::string* cert_map_to_lp_cfg_ipsecid(const X509Cert* cert, const LPCFG::ipsecid_t& id) {
    const std::string* const value = cm_cert_value_of_type_(cert, id.type);
    if (value == nullptr || value->empty()) return nullptr;
    // An IPv6 address is not an IPv4 identity, whatever the "any" flag says.
    if (id.type == LPCFG::ipsecid_t::kIp4 && value->size() != kIp4Bytes) return nullptr;
    if (id.any != 0) return value;
    const bool equal = id.type == LPCFG::ipsecid_t::kDn ? id.dn == cert->info.subject : id.value == *value;
    return equal ? value : nullptr;
}

std::uint32_t cert_map_to_lp_cfg_ipsecid_list(LPCFG::ipsecid_t* mapped, const X509Cert* cert,
                                              const std::list<LPCFG::ipsecid_t>& ids) {
    std::uint32_t index = 0;
    for (const LPCFG::ipsecid_t& id : ids) {
        ++index;
        const std::string* const value = cert_map_to_lp_cfg_ipsecid(cert, id);
        if (value == nullptr) continue;
        if (mapped != nullptr) {
            mapped->type = id.type;
            mapped->value = *value;
        }
        return index;
    }
    return 0;
}

}  // namespace CM
