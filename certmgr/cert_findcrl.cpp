#include "certmgr/cert_findcrl.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "certmgr/cert_log.h"
#include "certmgr/cert_verifychain.h"
#include "certmgr/log.h"
#include "platform/params.h"

namespace CM {

namespace {

constexpr std::string_view kCheckedCrls = "\\\n\tChecked CRLs (";
constexpr std::string_view kChosenCrl = "\\\n\tCRL: ";
constexpr std::string_view kCrlItem = " \\\n\t\t";

/// Why the CRL cannot be the issuer's, as the log says it; empty when its signature must tell.
std::string Mismatch(const X509CRL& crl, const X509Cert& issuer) {
    if ((crl.info.signAlg & PKI_KEY_MASK) != (issuer.info.keyAlg & PKI_ALG_MASK)) {
        return std::string("sign alg missmatch (").append(ttt_pki_alg_to_str(crl.info.signAlg)).append(")");
    }
    std::string reason;
    if (crl.info.issuer != issuer.info.subject) cmprint_Value(reason.append("issuer missmatch: "), crl.info.issuer);
    return reason;
}

std::string Dates(const X509CRL& crl) {
    return "this update: " + CertTimeToString(crl.info.thisUpdate) +
           ", next update: " + CertTimeToString(crl.info.nextUpdate) +
           ", imported at: " + CertTimeToString(crl.downloadedAt);
}

using Verdicts = std::vector<std::pair<std::size_t, SignatureCheck>>;  // by position

/// Position of the CRL that the walk through the list from `first` on takes; the list's size when it takes none.
/// `verdicts` receives those on the signatures before it.
std::size_t Choose(const CrlList& crls, std::size_t first, const X509Cert& issuer, Verdicts& verdicts) {
    for (const std::uint32_t position : crls.WithIssuer(issuer.info.subject)) {
        if (position < first) continue;
        const X509CRL& crl = *crls[position];
        if (!Mismatch(crl, issuer).empty()) continue;
        const SignatureCheck check = crl.CheckSignature(&issuer);
        if (check == kSignatureRight) return position;
        verdicts.emplace_back(position, check);
    }
    return crls.size();
}

void ListPassedOver(const CrlList& crls, std::size_t first, std::size_t end, const X509Cert& issuer,
                    const Verdicts& verdicts, std::string& log) {
    auto verdict = verdicts.begin();
    for (std::size_t i = first; i < end; ++i) {
        log.append(kCrlItem).append(Mismatch(*crls[i], issuer));
        if (verdict != verdicts.end() && verdict->first == i) log.append(SignatureCheckText((verdict++)->second));
    }
}

/// Begins at the position `next`, which receives the one behind the CRL that was found.
CrlRef Search(const CrlList& crls, std::size_t& next, const X509Cert& issuer, std::string* log) {
    Verdicts verdicts;
    const std::size_t first = next;
    const std::size_t position = Choose(crls, first, issuer, verdicts);
    next = std::min(position + 1, crls.size());
    CrlRef chosen = position != crls.size() ? crls[position] : nullptr;
    if (log == nullptr) return chosen;
    if (chosen != nullptr && !LogsCrlDetails()) {
        log->assign(kChosenCrl).append(Dates(*chosen));
        return chosen;
    }
    log->append(kCheckedCrls).append(std::to_string(next - first)).append("):");
    ListPassedOver(crls, first, position, issuer, verdicts, *log);
    if (chosen != nullptr) log->append(kCrlItem).append("ok: ").append(Dates(*chosen));
    return chosen;
}

}  // namespace

CrlRef cm_crl_search_in_db_unlocked_(const X509Cert* /*cert*/, const X509Cert* issuer, std::string* log) {
    std::size_t next = 0;
    return Search(CertStorage::Instance().crls, next, *issuer, log);
}

StoreCrls::StoreCrls() {
    const CertStorage& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    crls_ = storage.crls;
}

CrlRef StoreCrls::Next(const X509Cert* issuer, std::string* log) {
    return Search(crls_, next_, *issuer, log);
}

bool LogsCrlDetails() {
    const vpnfc::ObjectLock lock(LPARAMS::server.log);
    return LPARAMS::server.log.crl_details;
}

}  // namespace CM
