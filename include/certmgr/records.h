// The shared records: what the engine fills, the store keeps and the management bridge carries.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/asn1.h"

/// Role of a certificate in the store.
enum CertKind : std::uint32_t {
    kCertKindNone = 0,
    kCertKindOther = 1,
    kCertKindTrusted = 2,
    kCertKindPersonal = 3,  // its key pair is on the token
    kCertKindPeer = 4,  // decoded from a peer's payload
    kCertKindKeyPair = 5,  // key pair without a usable certificate
    kCertKindMalformed = 6,
};

/// Description of a certificate.
struct CertInfo {
    std::string id;  // identifier of the token object; empty when not on a token
    std::string serialNumber;  // hexadecimal, upper case
    std::string subject;  // printable name
    std::string issuer;
    cert_time64_t validFrom = CERT_TIME_UNKNOWN;
    cert_time64_t validTo = CERT_TIME_UNKNOWN;
    pki_alg_t keyAlg = 0;
    pki_alg_t signAlg = 0;
    bool isCA = false;
    std::uint32_t version = 0;  // 1, 2 or 3
    std::uint32_t keyBits = 0;
    std::uint32_t kind = kCertKindNone;
};

/// Description of a CRL.
struct CRLInfo {
    std::string id;
    std::string issuer;
    cert_time64_t thisUpdate = CERT_TIME_UNKNOWN;
    cert_time64_t nextUpdate = CERT_TIME_UNKNOWN;
    pki_alg_t signAlg = 0;
    std::string crlNumber;  // hexadecimal; empty when absent
    std::string deltaCrlIndicator;  // repeats crlNumber when the CRL is a delta
};

/// One entry of a CRL.
struct RevokedCertInfo {
    std::string serialNumber;
    std::string reserved;  // left empty
    cert_time64_t revocationDate = CERT_TIME_UNKNOWN;
    int reasonCode = -1;  // -1: none; the engine always leaves it so
};
using RevokedCertInfoList = std::vector<RevokedCertInfo>;

/// The entry that a look-up in a CRL found.
struct RevokedEntry {
    std::string serialNumber;  // as in RevokedCertInfo
    cert_time64_t revocationDate = CERT_TIME_UNKNOWN;
    int reason = 0;  // reason code of X.509 plus one; 0: the entry carries none; -1: what it carries is unreadable
};

/// What a CRL says about the certificates that it covers (RFC 5280, 5.2.4, 5.2.5 and the rules for critical
/// extensions in 5.2 and 5.3).
struct CrlScope {
    bool hasIssuingPoint = false;  // the issuing distribution point extension is there; it says the seven that follow
    bool namesPoint = false;  // it names the distribution point
    std::vector<std::string> uris;  // URIs of the point's full name
    std::vector<std::string> otherNames;  // what else the full name holds: GeneralNames, DER; none of a relative name
    bool onlyContainsUserCerts = false;
    bool onlyContainsCACerts = false;
    bool onlyContainsAttributeCerts = false;
    bool indirectCRL = false;
    bool onlySomeReasons = false;

    bool isDelta = false;
    std::string firstUnreadable;  // name of the first extension of these that could not be read
    std::string firstUnknownCritical;  // name of the first critical extension, of the CRL or an entry, that is unknown

    bool operator==(const CrlScope&) const = default;
};

/// Subject alternative names by kind: the last one of each.
struct AltSubject {
    std::string ipAddress;  // raw bytes: 4 for IPv4
    std::string email;
    std::string dnsName;
    std::string upn;  // Microsoft user principal name, UTF-8
};

/// What a certificate's extensions say that every verification needs. An absent extension leaves its members as they are
/// here, also in the records below.
struct CertFacts {
    std::array<std::uint8_t, 2> keyUsageBits{};  // keyUsage BIT STRING; second byte bit 0: Decipher Only
    bool isCA = false;  // basicConstraints
    std::int32_t pathLen = -1;  // basicConstraints; -1: no constraint
    bool hasExtKeyUsage = false;  // at least one purpose is listed
    bool hasIpsecIkeEku = false;  // id-kp-ipsecIKE listed
    std::string authorityKeyIdHex;
    std::string subjectKeyIdHex;
    std::string firstUnknownCritical;
};

/// The names in a certificate's extensions that decisions are made by.
struct CertNames {
    AltSubject altSubject;
    std::vector<std::string> crlUris;  // URIs of the distribution points' full names, in order
    std::vector<std::string> crlOtherNames;  // what else these full names hold: GeneralNames, DER
};

/// Of a certificate's whole DER, lower-case hexadecimal.
struct CertFingerprints {
    std::string md5;
    std::string sha1;
};

/// Fingerprints and X.509v3 extensions of a certificate, whole. Text members are for display; empty when the extension
/// is absent.
///
/// On the management bridge travel, in this order: `md5`, `sha1`, `subjectAltName`, `issuerAltName`, `keyUsage`,
/// `authorityKeyId`, `subjectKeyIdHex`, the strings from `privateKeyUsagePeriod` to `crlDistributionPoints` but for
/// `extKeyUsageOids`, `unknownExtensions`, `privateKeyUsageEnd` (8 bytes) and `firstUnknownCritical`. The rest stays
/// local.
struct CertExtentions : CertFacts, CertNames, CertFingerprints {
    std::string subjectAltName;
    std::string issuerAltName;
    std::string keyUsage;
    std::string authorityKeyId;
    std::string privateKeyUsagePeriod;
    std::string certificatePolicies;
    std::string policyMappings;
    std::string nameConstraints;
    std::string policyConstraints;
    std::string extKeyUsageNames;
    std::string extKeyUsageOids;  // local
    std::string basicConstraints;
    std::string authorityInfoAccess;
    std::string crlDistributionPoints;
    std::vector<std::pair<std::string, std::string>> unknownExtensions;
    cert_time64_t privateKeyUsageEnd = CERT_TIME_UNKNOWN;
};

/// Bits of CertFacts::keyUsageBits[0].
enum KeyUsageBit : std::uint8_t {
    kKeyUsageDigitalSignature = 0x80,
    kKeyUsageNonRepudiation = 0x40,
    kKeyUsageKeyEncipherment = 0x20,
    kKeyUsageDataEncipherment = 0x10,
    kKeyUsageKeyAgreement = 0x08,
    kKeyUsageCertSign = 0x04,
    kKeyUsageCrlSign = 0x02,
    kKeyUsageEncipherOnly = 0x01,
};

/// Names a preshared key.
struct PresharedKeyInfo {
    std::string name;
};

/// What a certificate request asks for, or what an existing one says. Empty strings: none.
///
/// On the management bridge `keyGenFlag` travels after the six strings that follow it.
struct CertRequestInfo {
    pki_alg_t keyAlg = 0;  // of the key pair
    std::uint32_t keyBits = 0;
    pki_alg_t hashAlg = 0;  // of the request's signature
    bool keyGenFlag = false;  // the private key may leave the token
    std::string subject;  // printable name; required
    std::string ipAddress;  // alternative names, as text
    std::string email;
    std::string dnsName;
    std::string upn;
    std::string extKeyUsage;  // names or dotted identifiers, separated by commas; dotted when read
    std::string randomSeed;  // for the token's random generator
};

/// A kind of key pair that a token makes, and what may sign the request for it.
struct CertRequestKeyInfo {
    pki_alg_t keyAlg = 0;
    std::vector<std::uint32_t> keySizes;  // bits
    std::vector<pki_alg_t> hashAlgs;
};

/// As what a certificate is imported. Any other value is kImportOther, too.
enum CertImportMode : std::uint32_t {
    kImportTrusted = 1,
    kImportPersonal = 2,
    kImportOther = 3,
};

enum CertExportFormat : std::uint32_t {
    kExportDer = 0,
    kExportPem = 1,
    kExportPkcs7 = 2,
    kExportPkcs12 = 3,
};

/// Where a certificate of a file may be imported to.
struct CertImportOption {
    CertInfo info;
    std::uint32_t mode = kImportOther;  // CertImportMode that goes with the proposed tokens
    std::vector<std::uint32_t> tokens;  // positions in the list of tokens that was asked about
};
