// Revocation: the verdict on a certificate and on a chain.
#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "certmgr/cert_crlcache.h"
#include "certmgr/cert_crlfetch.h"
#include "certmgr/cert_findcrl.h"
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
        text.append(" \\\n\t\tFrom: ").append(PrintableUri(crl.uri));
        text.append(", downloaded at: ").append(CertTimeToString(crl.downloadedAt));
    }
    return text;
}

std::string Rendered(const RevokedEntry& entry) {
    return "serial number " + entry.serialNumber + ", revoked at " + CertTimeToString(entry.revocationDate) +
           ", reason: " + ReasonName(entry.reason);
}

/// What a CRL says of the certificate.
enum class Finding : std::uint8_t {
    kOpen,  // nothing
    kGood,
    kBad,
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
    struct Address {
        const std::string& named;  // as the certificate has it
        std::string used;
        bool judged = false;  // by its CRL in the cache
    };

    void CompleteAddresses();
    Finding JudgeCached();
    Finding JudgeDownloaded();
    Finding JudgeStored();
    Finding Judge(const X509CRL& crl, bool marked);
    void LogTransfer(const std::string& named, const std::string& used, const CrlAnswer& answer) const;
    template <typename... Details>
    void Log(EventCode code, const Details&... details) const;

    const X509Cert& cert_;
    const X509Cert& issuer_;
    const bool strict_;
    const std::string& default_server_;
    const TLogIdent& ident_;
    const CrlParams params_ = CrlParams::Read();
    const cert_time64_t now_ = CertTimeNow();

    std::vector<Address> addresses_;
    CrlRef known_;  // the cached CRL that will not do without being renewed
    bool known_marked_ = false;  // it was to be downloaded again
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

/// 1. Addresses that would only cost time and memory are left out.
void RevocationCheck::CompleteAddresses() {
    const std::vector<std::string>& named = cert_.names().crlUris;
    addresses_.reserve(std::min(named.size(), kMaxAddresses));
    std::string work;
    for (const std::string& uri : named) {
        const std::string& used = cm_crl_tune_uri_source_addr_(uri, default_server_, work);
        const char* refused = nullptr;
        if (addresses_.size() == kMaxAddresses) refused = "not asked: the certificate names too many addresses";
        if (used.size() > kMaxAddressBytes) refused = "not asked: the address is too long";
        if (used.find('\0') != std::string::npos) refused = "not asked: the address is malformed";
        if (refused != nullptr) {
            LogTransfer(uri, used, {.crl = nullptr, .received = {}, .outcome = refused});
        } else {
            addresses_.push_back({uri, used});
        }
    }
}

/// 1. and 2. The first address that has a CRL in the cache gives it. Where that does not cover the certificate, the next
/// one does.
Finding RevocationCheck::JudgeCached() {
    for (Address& address : addresses_) {
        const CachedCrl cached = TakeCachedCrl(address.used);
        if (cached.crl == nullptr) continue;
        if (cached.marked || cached.crl->info.nextUpdate <= now_ ||
            cached.crl->CheckSignature(&issuer_) != kSignatureRight) {
            known_ = cached.crl;
            known_marked_ = cached.marked;
            return Finding::kOpen;
        }
        address.judged = true;
        if (const Finding finding = Judge(*cached.crl, false); finding != Finding::kOpen) return finding;
    }
    return Finding::kOpen;
}

/// 3. The addresses in order, until one yields a CRL that covers the certificate.
Finding RevocationCheck::JudgeDownloaded() {
    for (const Address& address : addresses_) {
        if (address.judged) continue;
        const CrlAnswer answer = ObtainCrl({address.used, issuer_, known_, params_, now_});
        LogTransfer(address.named, address.used, answer);
        if (answer.crl == nullptr) continue;
        // 3.5. It takes the place of what another address had given.
        if (known_ != nullptr && answer.crl != known_) DropCachedCrl(known_);
        known_ = nullptr;
        if (const Finding finding = Judge(*answer.crl, false); finding != Finding::kOpen) return finding;
    }
    return Finding::kOpen;
}

/// 4. The store's CRL goes before one of the cache that could not be renewed; where either is used as it is, the newer
/// one does.
Finding RevocationCheck::JudgeStored() {
    StoreCrls stored;
    const bool told = strict_ || LogsCrlDetails();
    const auto next = [&] { return stored.Next(&issuer_, told ? &searched_ : nullptr); };
    CrlRef crl = next();
    if (known_ != nullptr && known_->CheckSignature(&issuer_) != kSignatureRight) known_ = nullptr;
    const bool newer = known_ != nullptr && (crl == nullptr || known_->info.thisUpdate > crl->info.thisUpdate);
    if (newer && !strict_) {
        if (const Finding finding = Judge(*known_, known_marked_); finding != Finding::kOpen) return finding;
        known_ = nullptr;
    }
    for (; crl != nullptr; crl = next()) {
        if (const Finding finding = Judge(*crl, false); finding != Finding::kOpen) return finding;
    }
    if (known_ != nullptr) {
        if (const Finding finding = Judge(*known_, known_marked_); finding != Finding::kOpen) return finding;
    }
    if (strict_) Log(kMsgCrlNotFound, cert_, searched_);
    return Finding::kOpen;
}

Finding RevocationCheck::Judge(const X509CRL& crl, bool marked) {
    // 5.
    if (strict_ && (marked || crl.info.nextUpdate <= now_)) {
        Log(kMsgCrlNotCurrent, cert_, crl);
        return Finding::kBad;
    }
    // 6.
    RevokedEntry entry;
    if (crl.FindRevoked(cert_, entry)) {
        Log(kMsgCertRevoked, cert_, entry, crl);
        return Finding::kBad;
    }
    std::string why_not;
    if (params_.honour_scope && !CrlCanClear(crl, crl.uri, cert_, why_not)) {
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
    // 1.
    if (mode == LPARAMS::CRL_PROC_DISABLED) return true;
    // 2.
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const X509Cert* const cert = chain[i];
        const X509Cert* const issuer = i + 1 < chain.size() ? chain[i + 1] : cert;
        if (cert->names().crlUris.empty()) {
            // 2.2.
            if (mode == LPARAMS::CRL_PROC_ENABLED && !cert->selfSigned) LogNoDistributionPoint(*cert, ident);
            continue;
        }
        // 2.1.
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
    // 3.
    return true;
}

}  // namespace CM
