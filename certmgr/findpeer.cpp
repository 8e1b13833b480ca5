#include "certmgr/findpeer.h"

#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "certmgr/cert_chain.h"
#include "certmgr/cert_engine.h"
#include "certmgr/cert_log_peer.h"
#include "certmgr/certmgr.h"
#include "certmgr/findlocal.h"
#include "certmgr/ike.h"
#include "certmgr/key_usage.h"
#include "certmgr/log.h"
#include "platform/event_codes.h"

namespace CM {

// --- The peer's certificate payloads ---

namespace {

/// Whether a list of received certificates may grow by one of that size.
bool HasRoom(const std::vector<const X509Cert*>& list, std::size_t bytes = 0) {
    for (const X509Cert* cert : list) bytes += cert->rawCert.size();
    return list.size() < kMaxReceivedCerts && bytes <= kMaxReceivedBytes;
}

/// Under the code of a failure. Always false.
bool LogFull(EventCode code, const TLogIdent& ident) {
    TLogMessage(code, ident)
        .Attr("a peer may send " + std::to_string(kMaxReceivedCerts) + " certificates and " +
              std::to_string(kMaxReceivedBytes) + " bytes")
        .Send();
    return false;
}

/// The codes of one kind of payload.
struct PayloadCodes {
    EventCode received;
    EventCode failed;
};
constexpr PayloadCodes kX509Codes{kMsgCertReceivedX509, kMsgCertUnreadableX509};
constexpr PayloadCodes kPkcs7Codes{kMsgCertReceivedPkcs7, kMsgCertUnreadablePkcs7};

enum class Received : std::uint8_t { kKept, kUnusable, kNoRoom };

/// Takes over a decoded certificate and appends it when it can be used.
Received AppendReceived(std::vector<const X509Cert*>& list, void* handle, const PayloadCodes& codes,
                        const TLogIdent& ident) {
    MutableCertRef cert = MutableCertRef::Adopt(new X509Cert(handle, nullptr));
    if (cert->CanBeUsed() != ImportCertOk) return Received::kUnusable;
    if (!HasRoom(list, cert->rawCert.size())) {
        LogFull(codes.failed, ident);
        return Received::kNoRoom;
    }
    cert->info.kind = kCertKindPeer;
    if (TLogMessage::IsEnabled(codes.received)) {
        std::string rendering;
        ttt_X509CertToLogString(cert.get(), rendering);
        TLogMessage(codes.received, ident).Attr(rendering).Send();
    }
    list.push_back(cert.Detach());
    return Received::kKept;
}

}  // namespace

bool VCertsListAddRawX509(std::vector<const X509Cert*>& list, const void* data, unsigned length,
                          const TLogIdent& ident) {
    if (!HasRoom(list)) return LogFull(kX509Codes.failed, ident);
    void* handle = data != nullptr ? CertEngine_CreateCertHandle(data, length) : nullptr;
    if (handle == nullptr) {
        TLogMessage(kX509Codes.failed, ident).Send();
        return false;
    }
    return AppendReceived(list, handle, kX509Codes, ident) == Received::kKept;
}

bool VCertsListAddRawPKCS7(std::vector<const X509Cert*>& list, const void* data, unsigned length,
                           const TLogIdent& ident) {
    constexpr int kHandled = 0;
    if (!HasRoom(list) || length > kMaxReceivedBytes) return LogFull(kPkcs7Codes.failed, ident);
    std::vector<void*> handles;
    if (data == nullptr || CertEngine_ReadP7CCertData(data, length, handles, nullptr) != kHandled) {
        TLogMessage(kPkcs7Codes.failed, ident).Send();
        return false;
    }
    bool full = false;  // what was taken until then stays
    for (void* handle : handles) {
        if (full) {
            CertEngine_CloseCertHandle(handle);
        } else {
            full = AppendReceived(list, handle, kPkcs7Codes, ident) == Received::kNoRoom;
        }
    }
    return true;
}

// --- The peer's certificate ---

const LPCFG::ipsecid_t g_any_id_remote{LPCFG::ipsecid_t::kIp4, 1, {}, {}};

namespace {

/// Keeps of a refused chain what its report shows: a thousand candidates may share a chain of a thousand.
void Shorten(PeerCertStatus& status) {
    if (status.chain.size() <= kReportedMembers) return;
    CertList shown;
    for (std::size_t i = 0; i < kReportedMembers; ++i) shown.Append(status.chain[i]);
    status.left_out = status.chain.size() - shown.size();
    status.chain = std::move(shown);
}

/// One verification: what was asked, read once, and the candidates found so far.
class PeerSearch {
  public:
    PeerSearch(const LPCFG::auth_ike_t& rule, const LPCFG::ipsecid_t& peer_id,
               const std::vector<const X509Cert*>& received, LPARAMS::CRL_PROC_t crl_mode,
               const std::string& default_crl_server, const TLogIdent& ident)
        : rule_(rule),
          identity_(rule.no_map_id_remote ? g_any_id_remote : peer_id),
          received_(received),
          crl_mode_(crl_mode),
          default_crl_server_(default_crl_server),
          ident_(ident),
          builder_(received, SearchTrusted | SearchOther),
          verify_task_(rule.cert_trust, true, now_, ident) {}

    /// The first candidate that passes every check, or null.
    const PeerCertStatus* Run();
    const PeerCertStatuses& statuses() const { return statuses_; }
    const LPCFG::ipsecid_t& identity() const { return identity_; }

  private:
    void FindCandidates(const LPCFG::cert_t& pattern, pki_alg_t alg);
    void cm_SearchValidCertsInList(const CertStorage::X509CertsDB& list, const LPCFG::cert_t& pattern, pki_alg_t alg);
    bool Answers(const X509Cert* cert, const LPCFG::cert_t& pattern, pki_alg_t alg) const;
    void Consider(const X509Cert* cert);
    PeerCertStatus& cm_PeerCertPushBack(const X509Cert* cert);
    Refusal JudgeByItself(const X509Cert* cert) const;
    Refusal JudgeChain(CertList& chain);

    const LPCFG::auth_ike_t& rule_;
    const LPCFG::ipsecid_t& identity_;
    const std::vector<const X509Cert*>& received_;
    const LPARAMS::CRL_PROC_t crl_mode_;
    const std::string& default_crl_server_;
    const TLogIdent& ident_;
    const cert_time64_t now_ = CertTimeNow();

    std::uint64_t pattern_number_ = 0;
    PeerCertStatuses statuses_;
    std::set<const X509Cert*, EncodingLess> candidates_;  // the statuses keep them alive
    ChainBuilder builder_;  // never from the personal list; keeps alive every member of its chains
    cm_VerifyCertChainTask verify_task_;
};

const PeerCertStatus* PeerSearch::Run() {
    const bool any = rule_.cert_remote.empty();
    const auto& patterns = any ? *CM_GetAnyCertPatternList() : rule_.cert_remote;
    const pki_alg_t alg = any ? rule_.authAlg : 0;
    for (const LPCFG::cert_t& pattern : patterns) {
        ++pattern_number_;
        const std::size_t judged = statuses_.size();
        FindCandidates(pattern, alg);
        for (auto status = std::next(statuses_.begin(), static_cast<std::ptrdiff_t>(judged)); status != statuses_.end();
             ++status) {
            if (status->refusal) continue;
            status->refusal = JudgeChain(status->chain);
            if (!status->refusal) return &*status;
            Shorten(*status);
        }
    }
    return nullptr;
}

/// Where candidates are looked for, in this order: what the peer sent; the store's other certificates; and its
/// trusted ones, but only as the bearers of an identity that is checked.
void PeerSearch::FindCandidates(const LPCFG::cert_t& pattern, pki_alg_t alg) {
    for (const X509Cert* cert : received_) {
        if (Answers(cert, pattern, alg)) Consider(cert);
    }
    const CertStorage& store = CertStorage::Instance();
    cm_SearchValidCertsInList(store.otherCerts, pattern, alg);
    if (identity_.any == 0) cm_SearchValidCertsInList(store.trustedCerts, pattern, alg);
}

/// An exact subject, asked for by the identity or the pattern, is looked up instead of walking the whole list.
void PeerSearch::cm_SearchValidCertsInList(const CertStorage::X509CertsDB& list, const LPCFG::cert_t& pattern,
                                           pki_alg_t alg) {
    const std::string* subject = nullptr;
    if (identity_.any == 0 && identity_.type == LPCFG::ipsecid_t::kDn) {
        subject = &identity_.dn;
    } else if (pattern.subjectExact && !pattern.subject.empty()) {
        subject = &pattern.subject;
    }
    std::vector<CertRef> found;  // judged, which may write to the log, without the lock
    const auto keep = [&](const X509Cert* cert) {
        if (Answers(cert, pattern, alg)) found.emplace_back(cert);
    };
    {
        const vpnfc::ReadLock lock(CertStorage::Instance());
        if (subject != nullptr) {
            for (const std::uint32_t position : list.WithSubject(*subject)) keep(list[position]);
        } else {
            for (const X509Cert* cert : list) keep(cert);
        }
    }
    for (const CertRef& cert : found) Consider(cert.get());
}

/// A certificate that does not answer identity and pattern is passed over without a trace.
bool PeerSearch::Answers(const X509Cert* cert, const LPCFG::cert_t& pattern, pki_alg_t alg) const {
    return (identity_.any != 0 || cert_map_to_lp_cfg_ipsecid(cert, identity_) != nullptr) &&
           cert->MatchToPattern(pattern, alg);
}

/// Makes the certificate a candidate, unless it is one already.
void PeerSearch::Consider(const X509Cert* cert) {
    if (!candidates_.insert(cert).second) return;
    cm_PeerCertPushBack(cert).refusal = JudgeByItself(cert);
}

PeerCertStatus& PeerSearch::cm_PeerCertPushBack(const X509Cert* cert) {
    PeerCertStatus& status = statuses_.emplace_back();
    AppendToChain(status.chain, CertRef(cert));
    status.pattern_number = pattern_number_;
    return status;
}

Refusal PeerSearch::JudgeByItself(const X509Cert* cert) const {
    if (!HasKeyUsage(cert, kKeyUsageDigitalSignature, ident_)) return {.id = RefusalId::kNoDigitalSignature};
    const CertInfo& info = cert->info;
    const ValidityCheck validity = CheckValidity(info, now_);
    if (validity == kNotYetValid) return {.id = RefusalId::kNotYetValid, .time = info.validFrom};
    if (validity == kExpired) return {.id = RefusalId::kExpired, .time = info.validTo};
    return {};
}

/// Builds the candidate's chain and judges it.
Refusal PeerSearch::JudgeChain(CertList& chain) {
    if (Refusal refusal = RefusalOfBuild(builder_.Build(chain))) return refusal;
    if (Refusal refusal = verify_task_.Run(chain.certs())) return refusal;
    if (crl_mode_ == LPARAMS::CRL_PROC_DISABLED) return {};
    std::string reason;
    if (CertChainVerifyRevocation(chain.certs(), crl_mode_, default_crl_server_, &reason, ident_)) return {};
    return {.id = RefusalId::kRevocation, .detail = std::move(reason)};
}

}  // namespace

const X509Cert* IkeVerifyPeerCertificate(const LPCFG::auth_ike_t& rule, const LPCFG::ipsecid_t& peer_id,
                                         const std::vector<const X509Cert*>& received, LPARAMS::CRL_PROC_t crl_mode,
                                         const std::string& default_crl_server, const TLogIdent& ident) {
    PeerSearch search(rule, peer_id, received, crl_mode, default_crl_server, ident);
    const PeerCertStatus* selected = search.Run();
    const PeerSearchReport report{rule, search.identity(), received.size(), ident};
    if (selected == nullptr) {
        CMLog_PeerCertificate_NotSelected(report, search.statuses());
        return nullptr;
    }
    CMLog_PeerCertificate_Selected(report, *selected);
    return CertRef(selected->chain[0]).Detach();
}

}  // namespace CM
