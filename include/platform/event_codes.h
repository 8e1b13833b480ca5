// Codes of the event-log messages: the contract between those who write a message and the message catalogue
// (platform/eventlog/catalogue.cpp), which holds wording and severity. The comment lists the attributes in order.
#pragma once

#include <cstdint>

enum EventCode : std::uint16_t {
    // IKE signing and verification. One attribute: the whole text.
    kMsgIke2SignFailed = 3,
    kMsgIkeSignOrVerifyFailed = 4,
    kMsgIke2Verify = 7,  // also the success line

    // Selection reports. One attribute: the report.
    kMsgLocalCertSelected = 113,
    kMsgLocalCertNotFound = 114,
    kMsgLocalCertAlgsFound = 116,
    kMsgLocalCertAlgsNotFound = 117,
    kMsgPeerCertSelected = 118,
    kMsgPeerCertNotSelected = 119,
    kMsgTrustedCertsSelected = 120,
    kMsgTrustedCertsNotSelected = 121,
    kMsgTrustedCertsExpired = 122,

    // Revocation.
    kMsgCrlTransfer = 128,  // outcome, transfer
    kMsgCertRevoked = 129,  // certificate, entry (serial number, date, reason), CRL
    kMsgCrlNotFound = 130,  // certificate, CRLs checked and the cached one that could not be renewed
    kMsgCrlUsed = 131,  // certificate, CRL, search of the store's
    kMsgCrlNotCurrent = 132,  // certificate, CRL
    kMsgCrlOutOfScope = 133,  // certificate, CRL, why
    kMsgNoDistributionPoint = 134,  // subject, serial number, key algorithm name
    kMsgKeyUsageMissing = 135,  // usage, certificate
    kMsgKeyUsageTolerated = 136,  // usage, name of the parameter, certificate

    // Certificates that cannot be used.
    kMsgUnknownCriticalExtension = 137,  // extension, certificate
    kMsgUnknownCriticalExtensionTolerated = 138,  // extension, name of the parameter, certificate
    kMsgUnknownKeyAlg = 139,  // dotted identifier, certificate
    kMsgUnknownSignAlg = 140,  // dotted identifier, certificate
    kMsgInvalidTime = 141,  // certificate
    kMsgInvalidValidFrom = 142,  // certificate
    kMsgInvalidValidTo = 143,  // certificate

    // Certificate payloads. One attribute: the certificate; none for the failures.
    kMsgCertSentX509 = 144,
    kMsgCertSentPkcs7 = 145,
    kMsgCertReceivedX509 = 146,
    kMsgCertUnreadableX509 = 147,
    kMsgCertReceivedPkcs7 = 148,
    kMsgCertUnreadablePkcs7 = 149,

    // Changes on tokens: object, token.
    kMsgOtherCertDeleted = 150,
    kMsgPersonalCertDeleted = 151,
    kMsgTrustedCertDeleted = 152,
    kMsgKeyPairDeleted = 153,
    kMsgOtherCertNotDeleted = 154,
    kMsgPersonalCertNotDeleted = 155,
    kMsgTrustedCertNotDeleted = 156,
    kMsgKeyPairNotDeleted = 157,
    kMsgOtherCertImported = 158,
    kMsgPersonalCertImported = 159,
    kMsgTrustedCertImported = 160,
    kMsgPresharedKeyDeleted = 161,
    kMsgPresharedKeyCreated = 162,
    kMsgCrlDeleted = 163,
    kMsgCrlImported = 164,
    kMsgStoreChanged = 165,  // "PersonalCertAppeared: ..." and its kin, one attribute
    kMsgKeysLeftOut = 166,  // how many keys of a PKCS #12 file

    // Host libraries. One attribute: the text.
    kMsgTokenInserted = 200,
    kMsgTokenRemoved = 201,
    kMsgTokenLogin = 202,
    kMsgTokenError = 203,  // device trouble: token, function, CK_RV by name
    kMsgProviderReady = 204,
    kMsgProviderFailed = 205,
    kMsgSettingsLoaded = 210,
    kMsgSettingsRejected = 211,
    kMsgSettingsWarning = 212,
    kMsgStartFailed = 213,
    kMsgDaemon = 220,
    kMsgInternalError = 221,  // what the process goes on after, or ends for
    kMsgBridgeReady = 230,
    kMsgBridgeClientRefused = 231,
    kMsgBridgeClientDropped = 232,
    kMsgBridgeCommandFailed = 233,
};
