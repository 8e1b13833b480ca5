// Revocation: the verdict on a certificate and on a chain.
#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "certmgr/cert_crlfetch.h"
#include "certmgr/cert_crltransfer.h"
#include "certmgr/cert_findcrl.h"
#include "certmgr/cert_log.h"
#include "certmgr/chain.h"
#include "certmgr/key_usage.h"
#include "certmgr/log.h"
#include "platform/event_codes.h"

namespace CM {

namespace {

/// Addresses of one certificate that are asked: each may cost a time-out.
constexpr std::size_t kMaxAddresses = 16;
/// Longest address that is asked. Real ones have a few hundred bytes.
constexpr std::size_t kMaxAddressBytes = 4096;
constexpr std::string_view kNotRenewed = " \\\n\tCached CRL that could not be renewed:";

/// Name of a reason, by reason code plus one.
const char* ReasonName(int reason) {
    static constexpr std::array kNames = {"None",
                                          "Unspecified",
                                          "KeyCompromise",
                                          "CACompromise",
                                          "AffiliationChanged",
                                          "Superseded",
                                          "CessationOfOperation",
                                          "CertificateHold",
                                          "Unknown",
                                          "RemoveFromCRL",
                                          "PrivilegeWithDrawn",
                                          "AA Compromise"};
    const bool known = reason >= 0 && static_cast<std::size_t>(reason) < kNames.size();
    return known ? kNames[static_cast<std::size_t>(reason)] : "Unknown";
}

std::string Rendered(const X509Cert& cert) {
    std::string text;
    ttt_X509CertToLogString(&cert, text);
    return text;
}

std::string Rendered(const X509CRL& crl) {
    std::string text;
    ttt_X509CRLToLogString(&crl, text);
    if (!crl.uri.empty()) {
        cmprint_Value(text.append(" \\\n\t\tFrom: "), PrintableUri(crl.uri));
        text.append(", downloaded at: ").append(CertTimeToString(crl.downloadedAt));
    }
    return text;
}

std::string Rendered(const RevokedEntry& entry) {
    return "serial number " + entry.serialNumber + ", revoked at " + CertTimeToString(entry.revocationDate) +
           ", reason: " + ReasonName(entry.reason);
}

/// Why an address is of no use; null when it is worth a transfer.
const char* WhyNotAsked(const std::string& address) {
    constexpr std::string_view kAfterScheme = "://";
    if (address.size() > kMaxAddressBytes) return "not asked: the address is too long";
    const auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    if (std::any_of(address.begin(), address.end(), is_control)) return "not asked: the address is malformed";
    // What libcurl would guess a scheme for, or take the first part of the path for the host of.
    const std::size_t scheme_end = address.find(kAfterScheme);
    if (scheme_end == std::string::npos) return "not asked: the address names no scheme";
    const std::size_t host = scheme_end + kAfterScheme.size();
    return host == address.size() || address[host] == '/' ? "not asked: the address names no host" : nullptr;
}

/// What a CRL says of the certificate.
enum class Finding : std::uint8_t {
    kOpen,  // nothing
    kGood,
    kBad,  // it lists it, or would have to be current
};

/// The check of one certificate. Used once. Holds no lock.
class RevocationCheck {
  public:
    RevocationCheck(const X509Cert& cert, const X509Cert& issuer, LPARAMS::CRL_PROC_t mode,
                    const std::string& default_server, const TLogIdent& ident)
        : cert_(cert),
          issuer_(issuer),
          strict_(mode != LPARAMS::CRL_PROC_ENABLED_SOFT),
          default_server_(default_server),
          ident_(ident) {}

    /// Whether the certificate passes.
    bool Run();

  private:
    /// The cached CRL that will not do without being renewed, if any.
    struct Known {
        CrlRef crl;
        bool marked = false;  // it was to be downloaded again
        bool asked_for = false;  // by this check
    };
    struct Address {
        const std::string& named;  // as the certificate has it
        std::string used;
        bool done = false;  // refused, or judged by its CRL in the cache
    };

    void CompleteAddresses();
    Finding JudgeCached();
    Finding JudgeDownloaded();
    Finding JudgeStored();
    Finding JudgeNotRenewed();
    bool KnownServes() const;
    Finding Judge(const X509CRL& crl);
    bool Covers(const X509CRL& crl, std::string& why_not) const;
    void LogTransfer(const std::string& named, const std::string& used, const CrlAnswer& answer) const;
    template <typename... Details>
    void Log(EventCode code, const Details&... details) const;

    const X509Cert& cert_;
    const X509Cert& issuer_;
    const bool strict_;
    const std::string& default_server_;
    const TLogIdent& ident_;
    const CrlParams params_ = CrlParams::Read();

    std::vector<Address> addresses_;
    Known known_;
    std::string searched_;  // of the store, for the log
};

bool RevocationCheck::Run() {
    CompleteAddresses();
    Finding finding = JudgeCached();
    if (finding == Finding::kOpen) finding = JudgeDownloaded();
    if (finding == Finding::kOpen) finding = JudgeStored();
    if (finding != Finding::kOpen) return finding == Finding::kGood;
    return !strict_;
}

/// Addresses that would only cost time and memory are left out.
void RevocationCheck::CompleteAddresses() {
    const std::vector<std::string>& named = cert_.names().crlUris;
    addresses_.reserve(std::min(named.size(), kMaxAddresses));
    std::string work;
    for (std::size_t i = 0; i < named.size(); ++i) {
        const std::string& used = cm_crl_tune_uri_source_addr_(named[i], default_server_, work);
        const auto same = [&used](const Address& address) { return address.used == used; };
        if (std::any_of(addresses_.begin(), addresses_.end(), same)) continue;
        if (addresses_.size() == kMaxAddresses) {
            const std::string count = std::to_string(named.size() - i);
            LogTransfer(named[i], used,
                        {.outcome = "not asked: the certificate names too many addresses, the last " + count +
                                    " are left out"});
            return;
        }
        const char* const refused = WhyNotAsked(used);
        if (refused != nullptr) LogTransfer(named[i], used, {.outcome = refused});
        addresses_.push_back({.named = named[i], .used = used, .done = refused != nullptr});
    }
}

/// The first address that has a CRL of the issuer's in the cache gives it. Where that does not cover the
/// certificate, the next one does.
Finding RevocationCheck::JudgeCached() {
    for (Address& address : addresses_) {
        if (address.done) continue;
        const CrlRef cached = FindCachedCrl(address.used);
        if (cached == nullptr || cached->CheckSignature(&issuer_) != kSignatureRight) continue;
        const bool marked = IsMarked(*cached);
        if (marked || !IsCurrent(*cached)) {
            known_ = {.crl = cached, .marked = marked};
            return Finding::kOpen;
        }
        address.done = true;
        if (const Finding finding = Judge(*cached); finding != Finding::kOpen) return finding;
    }
    return Finding::kOpen;
}

/// The addresses in order, until one yields a CRL that covers the certificate.
Finding RevocationCheck::JudgeDownloaded() {
    for (const Address& address : addresses_) {
        if (address.done) continue;
        const CrlAnswer answer = ObtainCrl({address.used, issuer_, known_.crl, params_});
        if (answer.own && known_.crl != nullptr && address.used == known_.crl->uri) known_.asked_for = true;
        LogTransfer(address.named, address.used, answer);
        if (answer.crl == nullptr) continue;
        const Finding finding = Judge(*answer.crl);
        if (finding == Finding::kOpen && answer.crl != known_.crl) continue;
        // It takes the place of what another address had given.
        if (known_.crl != nullptr && answer.crl != known_.crl && answer.kept) DropCachedCrl(known_.crl);
        known_ = {};
        if (finding != Finding::kOpen) return finding;
    }
    return Finding::kOpen;
}

/// The store's CRL goes before one of the cache that could not be renewed; where either is used as it is, the newer
/// one does. A mark asks for one transfer: those who only waited for it, and it failed, find none any more.
Finding RevocationCheck::JudgeStored() {
    if (known_.marked && !known_.asked_for) known_.marked = IsMarked(*known_.crl);
    StoreCrls stored;
    const bool told = strict_ || LogsCrlDetails();
    const auto next = [&] { return stored.Next(&issuer_, told ? &searched_ : nullptr); };
    CrlRef crl = next();
    const bool newer = known_.crl != nullptr && (crl == nullptr || known_.crl->info.thisUpdate > crl->info.thisUpdate);
    if (newer && KnownServes()) {
        if (const Finding finding = JudgeNotRenewed(); finding != Finding::kOpen) return finding;
    }
    for (; crl != nullptr; crl = next()) {
        if (const Finding finding = Judge(*crl); finding != Finding::kOpen) return finding;
    }
    const Finding finding = JudgeNotRenewed();
    if (strict_ && finding == Finding::kOpen) Log(kMsgCrlNotFound, cert_, searched_);
    return finding;
}

/// Once. Where it cannot be used as it is, it counts as not there.
Finding RevocationCheck::JudgeNotRenewed() {
    if (known_.crl == nullptr) return Finding::kOpen;
    const bool serves = KnownServes();
    const CrlRef crl = std::exchange(known_, {}).crl;
    std::string why_not;
    if (serves || !Covers(*crl, why_not)) return Judge(*crl);
    searched_.append(kNotRenewed).append(Rendered(*crl));
    return Finding::kOpen;
}

/// Whether the known CRL may be used as it is.
bool RevocationCheck::KnownServes() const {
    return !strict_ || (!known_.marked && IsCurrent(*known_.crl));
}

bool RevocationCheck::Covers(const X509CRL& crl, std::string& why_not) const {
    return !params_.honour_scope || CrlCanClear(crl, crl.uri, cert_, why_not);
}

Finding RevocationCheck::Judge(const X509CRL& crl) {
    // What does not cover the certificate counts as not there, but for what it lists.
    std::string why_not;
    const bool covers = Covers(crl, why_not);
    if (covers && strict_ && !IsCurrent(crl)) {
        Log(kMsgCrlNotCurrent, cert_, crl);
        return Finding::kBad;
    }
    RevokedEntry entry;
    if (crl.FindRevoked(cert_, entry)) {
        Log(kMsgCertRevoked, cert_, entry, crl);
        return Finding::kBad;
    }
    if (!covers) {
        Log(kMsgCrlOutOfScope, cert_, crl, why_not);
        return Finding::kOpen;
    }
    if (LogsCrlDetails()) Log(kMsgCrlUsed, cert_, crl, searched_);
    return Finding::kGood;
}

void RevocationCheck::LogTransfer(const std::string& named, const std::string& used, const CrlAnswer& answer) const {
    if (answer.outcome.empty() || !TLogMessage::IsEnabled(kMsgCrlTransfer)) return;
    std::string line;
    log_uri_(line, used, named).append(answer.received);
    TLogMessage(kMsgCrlTransfer, ident_).Attr(answer.outcome).Attr(line).Send();
}

const std::string& Rendered(const std::string& text) {
    return text;
}

template <typename... Details>
void RevocationCheck::Log(EventCode code, const Details&... details) const {
    if (!TLogMessage::IsEnabled(code)) return;
    TLogMessage message(code, ident_);
    (message.Attr(Rendered(details)), ...);
    message.Send();
}

void LogNoDistributionPoint(const X509Cert& cert, const TLogIdent& ident) {
    if (!LogsCrlDetails()) return;
    TLogMessage(kMsgNoDistributionPoint, ident)
        .Attr(cert.info.subject)
        .Attr(cert.info.serialNumber)
        .Attr(ttt_pki_alg_to_str(cert.info.keyAlg))
        .Send();
}

}  // namespace

bool CertVerifyRevocation(const X509Cert* cert, const X509Cert* issuer, LPARAMS::CRL_PROC_t mode,
                          const std::string& default_crl_server, const TLogIdent& ident) {
    if (mode == LPARAMS::CRL_PROC_DISABLED) return true;
    return RevocationCheck(*cert, *issuer, mode, default_crl_server, ident).Run();
}

bool CertChainVerifyRevocation(const std::vector<X509Cert*>& chain, LPARAMS::CRL_PROC_t mode,
                               const std::string& default_crl_server, std::string* reason, const TLogIdent& ident) {
    if (mode == LPARAMS::CRL_PROC_DISABLED) return true;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const X509Cert* const cert = chain[i];
        const X509Cert* const issuer = i + 1 < chain.size() ? chain[i + 1] : cert;
        if (cert->names().crlUris.empty()) {
            if (mode == LPARAMS::CRL_PROC_ENABLED && !cert->selfSigned) LogNoDistributionPoint(*cert, ident);
            continue;
        }
        if (!HasKeyUsage(issuer, kKeyUsageCrlSign, ident)) {
            *reason = "Revocation cannot be checked, issuer[" + std::to_string(i) +
                      "] does not contain required key usage: CRL Signing";
            return false;
        }
        if (!CertVerifyRevocation(cert, issuer, mode, default_crl_server, ident)) {
            *reason = "Revoked certificate(s) present in chain";
            return false;
        }
    }
    return true;
}

}  // namespace CM
