#include "certmgr/findtrust.h"

#include <list>

#include "certmgr/cert_log_peer.h"
#include "certmgr/cert_storage.h"
#include "certmgr/certmgr.h"
#include "certmgr/ike.h"

namespace CM {

namespace {

/// Number, from 1, of the first pattern that the certificate matches; 0 when it matches none.
std::uint32_t FirstPattern(const X509Cert* cert, const std::list<LPCFG::cert_t>& patterns) {
    std::uint32_t index = 0;
    for (const LPCFG::cert_t& pattern : patterns) {
        ++index;
        if (cert->MatchToPattern(pattern, 0)) return index;
    }
    return 0;
}

/// The trusted certificates that the rule allows, in the store's order.
struct AllowedCerts {
    TrustedCertLogs selected;
    TrustedCertLogs not_valid;
    bool store_is_empty = false;
};

AllowedCerts FindAllowed(const std::list<LPCFG::cert_t>& patterns, cert_time64_t now,
                         void (*add)(const std::string& datum, void* argument), void* argument, CertDataFormat format) {
    // Held for the whole walk, the callback included.
    const CertStorage& store = CertStorage::Instance();
    const vpnfc::ReadLock lock(store);
    AllowedCerts allowed;
    allowed.store_is_empty = store.trustedCerts.empty();
    allowed.selected.reserve(store.trustedCerts.size());
    for (const X509Cert* cert : store.trustedCerts) {
        const std::uint32_t pattern_index = FirstPattern(cert, patterns);
        if (pattern_index == 0) continue;
        const bool valid = CheckValidity(cert->info, now) == kValid;
        (valid ? allowed.selected : allowed.not_valid).push_back({CertRef(cert), pattern_index});
        if (valid) add(format == kPublicKeySha1 ? cert->pubKeyHash : cert->rawSubject, argument);
    }
    return allowed;
}

}  // namespace

bool IkeBuildCertRequestList(void (*add)(const std::string& datum, void* argument), void* argument,
                             CertDataFormat format, const LPCFG::auth_ike_t* rule, const TLogIdent& ident) {
    const bool any = rule == nullptr || rule->cert_trust.empty();
    const std::list<LPCFG::cert_t>& patterns = any ? *CM_GetAnyCertPatternList() : rule->cert_trust;
    const AllowedCerts allowed = FindAllowed(patterns, CertTimeNow(), add, argument, format);
    if (allowed.selected.empty()) {
        CMLog_TrustedCertificates_NotSelected(allowed.not_valid, rule, allowed.store_is_empty, ident);
        return false;
    }
    if (!allowed.not_valid.empty()) CMLog_TrustedCertificates_Expired(allowed.not_valid, ident);
    CMLog_TrustedCertificates_Selected(allowed.selected, rule, ident);
    return true;
}

}  // namespace CM
