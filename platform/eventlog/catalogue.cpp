#include "platform/eventlog/catalogue.h"

#include <algorithm>

#include "platform/event_codes.h"

namespace eventlog {

namespace {

constexpr Severity kInfo = Severity::kInfo;
constexpr Severity kWarning = Severity::kWarning;
constexpr Severity kError = Severity::kError;

constexpr Wording kCatalogue[] = {
    {kMsgIke2SignFailed, kError, "%1"},
    {kMsgIkeSignOrVerifyFailed, kError, "%1"},
    {kMsgIke2Verify, kWarning, "%1", "CM::Ike2Verify ok"},

    {kMsgLocalCertSelected, kInfo, "Local certificate selected: %1"},
    {kMsgLocalCertNotFound, kWarning, "No local certificate selected: %1"},
    {kMsgLocalCertAlgsFound, kInfo, "Key algorithms of the local certificates: %1"},
    {kMsgLocalCertAlgsNotFound, kWarning, "No local certificate, so no key algorithm to offer: %1"},
    {kMsgPeerCertSelected, kInfo, "Peer certificate accepted: %1"},
    {kMsgPeerCertNotSelected, kWarning, "No peer certificate accepted: %1"},
    {kMsgTrustedCertsSelected, kInfo, "Authorities to request from the peer: %1"},
    {kMsgTrustedCertsNotSelected, kWarning, "No authority to request from the peer: %1"},
    {kMsgTrustedCertsExpired, kWarning, "Authorities not requested, not currently valid: %1"},

    {kMsgCrlTransfer, kWarning, "CRL transfer%2: %1", "CRL "},
    {kMsgCertRevoked, kWarning, "Certificate is revoked: %2\n\tCertificate: %1\n\tCRL: %3"},
    {kMsgCrlNotFound, kWarning, "No CRL for a certificate.\n\tCertificate: %1 %2"},
    {kMsgCrlUsed, kInfo, "Certificate checked with a CRL.\n\tCertificate: %1\n\tCRL: %2 %3"},
    {kMsgCrlNotCurrent, kWarning, "CRL is out of date.\n\tCertificate: %1\n\tCRL: %2"},
    {kMsgCrlOutOfScope, kWarning, "CRL does not cover the certificate: %3\n\tCertificate: %1\n\tCRL: %2"},
    {kMsgNoDistributionPoint, kInfo,
     "Certificate names no CRL distribution point.\n\tSubject: %1\n\tSn: %2\n\tKeyAlg: %3"},
    {kMsgKeyUsageMissing, kWarning, "Certificate lacks a required key usage: %1\n\tCertificate: %2"},
    {kMsgKeyUsageTolerated, kWarning,
     "Certificate lacks a required key usage: %1, tolerated because %2 is on\n\tCertificate: %3"},

    {kMsgUnknownCriticalExtension, kWarning,
     "Certificate cannot be used: unknown critical extension %1\n\tCertificate: %2"},
    {kMsgUnknownCriticalExtensionTolerated, kWarning,
     "Certificate has an unknown critical extension: %1, tolerated because %2 is on\n\tCertificate: %3"},
    {kMsgUnknownKeyAlg, kWarning, "Certificate cannot be used: unknown key algorithm %1\n\tCertificate: %2"},
    {kMsgUnknownSignAlg, kWarning, "Certificate cannot be used: unknown signature algorithm %1\n\tCertificate: %2"},
    {kMsgInvalidTime, kWarning, "Certificate cannot be used: both validity times are invalid\n\tCertificate: %1"},
    {kMsgInvalidValidFrom, kWarning,
     "Certificate cannot be used: the start of its validity is invalid\n\tCertificate: %1"},
    {kMsgInvalidValidTo, kWarning, "Certificate cannot be used: the end of its validity is invalid\n\tCertificate: %1"},

    {kMsgCertSentX509, kInfo, "Certificate sent to the peer: %1"},
    {kMsgCertSentPkcs7, kInfo, "Certificate sent to the peer in a PKCS #7 bundle: %1"},
    {kMsgCertReceivedX509, kInfo, "Certificate received from the peer: %1"},
    {kMsgCertUnreadableX509, kWarning, "Certificate received from the peer cannot be read"},
    {kMsgCertReceivedPkcs7, kInfo, "Certificate received from the peer in a PKCS #7 bundle: %1"},
    {kMsgCertUnreadablePkcs7, kWarning, "PKCS #7 bundle received from the peer cannot be read"},

    {kMsgOtherCertDeleted, kInfo, "Certificate deleted: %1\n\tToken: %2"},
    {kMsgPersonalCertDeleted, kInfo, "Personal certificate deleted: %1\n\tToken: %2"},
    {kMsgTrustedCertDeleted, kInfo, "Trusted certificate deleted: %1\n\tToken: %2"},
    {kMsgKeyPairDeleted, kInfo, "Key pair deleted: %1\n\tToken: %2"},
    {kMsgOtherCertNotDeleted, kWarning, "Certificate could not be deleted: %1\n\tToken: %2"},
    {kMsgPersonalCertNotDeleted, kWarning, "Personal certificate could not be deleted: %1\n\tToken: %2"},
    {kMsgTrustedCertNotDeleted, kWarning, "Trusted certificate could not be deleted: %1\n\tToken: %2"},
    {kMsgKeyPairNotDeleted, kWarning, "Key pair could not be deleted: %1\n\tToken: %2"},
    {kMsgOtherCertImported, kInfo, "Certificate imported: %1\n\tToken: %2"},
    {kMsgPersonalCertImported, kInfo, "Personal certificate imported: %1\n\tToken: %2"},
    {kMsgTrustedCertImported, kInfo, "Trusted certificate imported: %1\n\tToken: %2"},
    {kMsgPresharedKeyDeleted, kInfo, "Preshared key deleted: %1\n\tToken: %2"},
    {kMsgPresharedKeyCreated, kInfo, "Preshared key created: %1\n\tToken: %2"},
    {kMsgCrlDeleted, kInfo, "CRL deleted: %1\n\tToken: %2"},
    {kMsgCrlImported, kInfo, "CRL imported: %1\n\tToken: %2"},
    {kMsgStoreChanged, kInfo, "%1"},
    {kMsgKeysLeftOut, kWarning, "Private keys of a PKCS #12 file left out, for want of a certificate of their own: %1"},

    {kMsgTokenInserted, kInfo, "Token inserted: %1"},
    {kMsgTokenRemoved, kInfo, "Token removed: %1"},
    {kMsgTokenLogin, kInfo, "Token login: %1"},
    {kMsgTokenError, kError, "Token trouble: %1"},
    {kMsgProviderReady, kInfo, "Provider ready: %1"},
    {kMsgProviderFailed, kError, "Provider failed: %1"},
    {kMsgSettingsLoaded, kInfo, "Settings loaded: %1"},
    {kMsgSettingsRejected, kError, "Settings rejected: %1"},
    {kMsgSettingsWarning, kWarning, "Settings: %1"},
    {kMsgStartFailed, kError, "Cannot start: %1"},
    {kMsgDaemon, kInfo, "%1"},
    {kMsgInternalError, kError, "Internal error: %1"},
    {kMsgBridgeReady, kInfo, "Management bridge ready: %1"},
    {kMsgBridgeClientRefused, kWarning, "Management client refused: %1"},
    {kMsgBridgeClientDropped, kWarning, "Management client dropped: %1"},
    {kMsgBridgeCommandFailed, kError, "Management command failed: %1"},
};

constexpr Wording kUnknown = {0, Severity::kWarning, "Message without wording: %1"};

constexpr bool ByCode(const Wording& a, const Wording& b) {
    return a.code < b.code;
}
static_assert(std::is_sorted(std::begin(kCatalogue), std::end(kCatalogue), ByCode));

}  // namespace

const Wording& FindWording(std::uint16_t code) noexcept {
    const auto* found = std::lower_bound(std::begin(kCatalogue), std::end(kCatalogue), Wording{code, {}, {}}, ByCode);
    return found != std::end(kCatalogue) && found->code == code ? *found : kUnknown;
}

}  // namespace eventlog
