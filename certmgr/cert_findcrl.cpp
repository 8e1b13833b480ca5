#include "certmgr/cert_findcrl.h"

#include "certmgr/cert_verifychain.h"
#include "certmgr/log.h"
#include "platform/params.h"

namespace CM {

namespace {

constexpr std::string_view kCheckedCrls = "\\\n\tChecked CRLs (";
constexpr std::string_view kChosenCrl = "\\\n\tCRL: ";
constexpr std::string_view kCrlItem = " \\\n\t\t";

bool LogsDetails() {
    const vpnfc::ObjectLock lock(LPARAMS::server.log);
    return LPARAMS::server.log.crl_details;
}

/// Why the CRL is not one that the issuer signs, as the log says it; empty when it may be.
std::string Mismatch(const X509CRL& crl, const X509Cert& issuer) {
    if ((crl.info.signAlg & PKI_KEY_MASK) != (issuer.info.keyAlg & PKI_ALG_MASK)) {
        return std::string("sign alg missmatch (").append(ttt_pki_alg_to_str(crl.info.signAlg)).append(")");
    }
    if (crl.info.issuer != issuer.info.subject) return "issuer missmatch: " + crl.info.issuer;
    return {};
}

std::string Dates(const X509CRL& crl) {
    return "this update: " + CertTimeToString(crl.info.thisUpdate) +
           ", next update: " + CertTimeToString(crl.info.nextUpdate) +
           ", imported at: " + CertTimeToString(crl.downloadedAt);
}

CrlRef Search(const std::vector<CrlRef>& crls, const X509Cert& issuer, std::string* log) {
    std::string checked;
    std::size_t count = 0;
    CrlRef chosen;
    for (const CrlRef& crl : crls) {
        ++count;
        std::string why_not = Mismatch(*crl, issuer);
        if (why_not.empty()) why_not = SignatureCheckText(crl->CheckSignature(&issuer));
        if (why_not.empty()) {
            chosen = crl;
            break;
        }
        checked.append(kCrlItem).append(why_not);
    }
    if (log == nullptr) return chosen;
    if (chosen != nullptr && !LogsDetails()) {
        log->append(kChosenCrl).append(Dates(*chosen));
        return chosen;
    }
    log->append(kCheckedCrls).append(std::to_string(count)).append("):").append(checked);
    if (chosen != nullptr) log->append(kCrlItem).append("ok: ").append(Dates(*chosen));
    return chosen;
}

}  // namespace

CrlRef cm_crl_search_in_db_unlocked_(const X509Cert* /*cert*/, const X509Cert* issuer, std::string* log) {
    return Search(CertStorage::Instance().crls, *issuer, log);
}

CrlRef FindStoreCrl(const X509Cert* /*cert*/, const X509Cert* issuer, std::string* log) {
    std::vector<CrlRef> crls;
    {
        const CertStorage& storage = CertStorage::Instance();
        const vpnfc::ReadLock lock(storage);
        crls = storage.crls;
    }
    return Search(crls, *issuer, log);
}

}  // namespace CM
