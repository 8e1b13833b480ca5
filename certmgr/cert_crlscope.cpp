// Whether a CRL covers a certificate (RFC 5280, 5.2.5).
#include <algorithm>

#include <utility>

#include "certmgr/cert_crlfetch.h"
#include "certmgr/cert_log.h"
#include "certmgr/x509cert.h"

namespace CM {

namespace {

using Strings = std::vector<std::string>;

bool Holds(const Strings& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

bool Meet(const Strings& one, const Strings& other) {
    return std::any_of(one.begin(), one.end(), [&other](const std::string& value) { return Holds(other, value); });
}

/// Whether the issuing distribution point is where the CRL came from, or one that the certificate names.
bool PointFits(const CrlScope& scope, const std::string& source_uri, const X509Cert& cert) {
    if (!scope.namesPoint) return true;
    if (!source_uri.empty() && Holds(scope.uris, source_uri)) return true;
    return Meet(scope.uris, cert.names().crlUris) || Meet(scope.otherNames, cert.names().crlOtherNames);
}

/// Why the kind of CRL, or of certificate, forbids it; empty when nothing does.
std::string WrongKind(const CrlScope& scope, const X509Cert& cert) {
    if (!scope.firstUnreadable.empty()) return "extension that cannot be read: " + scope.firstUnreadable;
    if (!scope.firstUnknownCritical.empty()) return "unknown critical extension: " + scope.firstUnknownCritical;
    if (scope.isDelta) return "delta CRL";
    if (scope.indirectCRL) return "indirect CRL";
    if (scope.onlySomeReasons) return "for some revocation reasons only";
    if (scope.onlyContainsAttributeCerts) return "for attribute certificates only";
    if (scope.onlyContainsUserCerts && cert.facts().isCA) return "for user certificates only";
    if (scope.onlyContainsCACerts && !cert.facts().isCA) return "for CA certificates only";
    return {};
}

}  // namespace

bool CrlCanClear(const X509CRL& crl, const std::string& source_uri, const X509Cert& cert, std::string& why_not) {
    const CrlScope& scope = crl.scope();
    std::string reason = WrongKind(scope, cert);
    // One key may sign under several names.
    if (reason.empty() && crl.info.issuer != cert.info.issuer) {
        cmprint_Value(reason.append("of another issuer: "), crl.info.issuer);
    }
    if (reason.empty() && !PointFits(scope, source_uri, cert)) {
        reason = "for another distribution point";
        if (!scope.uris.empty()) cmprint_Value(reason.append(": "), PrintableUri(scope.uris.front()));
    }
    if (reason.empty()) return true;
    why_not = std::move(reason);
    return false;
}

}  // namespace CM
