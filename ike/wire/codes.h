// Numbers of IKEv2 that this system knows, and their names (RFC 7296 and IANA's IKEv2 registry).
#pragma once

#include <cstdint>
#include <string>

namespace ikeauth {

inline constexpr std::uint8_t kVersion2 = 0x20;

enum ExchangeType : std::uint8_t { kSaInit = 34, kAuth = 35, kCreateChild = 36, kInformational = 37 };

enum HeaderFlag : std::uint8_t { kFromInitiator = 0x08, kIsResponse = 0x20 };

enum PayloadType : std::uint8_t {
    kNoPayload = 0,
    kPayloadSa = 33,
    kPayloadKe = 34,
    kPayloadIdi = 35,
    kPayloadIdr = 36,
    kPayloadCert = 37,
    kPayloadCertReq = 38,
    kPayloadAuth = 39,
    kPayloadNonce = 40,
    kPayloadNotify = 41,
    kPayloadDelete = 42,
    kPayloadVendor = 43,
    kPayloadTsi = 44,
    kPayloadTsr = 45,
    kPayloadSk = 46,
    kPayloadConfig = 47,
    kPayloadEap = 48,
    kPayloadSkf = 53,
};

enum ProtocolId : std::uint8_t { kProtocolNone = 0, kProtocolIke = 1, kProtocolEsp = 3 };

enum TransformType : std::uint8_t { kEncryption = 1, kPrf = 2, kIntegrity = 3, kGroup = 4, kSequence = 5 };

enum IdentityType : std::uint8_t { kIdIp4 = 1, kIdFqdn = 2, kIdEmail = 3, kIdIp6 = 5, kIdDn = 9, kIdKey = 11 };

enum CertEncoding : std::uint8_t { kCertPkcs7 = 1, kCertX509 = 4 };

enum AuthMethod : std::uint8_t {
    kMethodRsa = 1,
    kMethodPresharedKey = 2,
    kMethodDss = 3,
    kMethodEcdsa256 = 9,
    kMethodEcdsa384 = 10,
    kMethodEcdsa521 = 11,
    kMethodSignature = 14,  // RFC 7427
};

enum NotifyType : std::uint16_t {
    kUnsupportedCriticalPayload = 1,
    kInvalidMajorVersion = 5,
    kInvalidSyntax = 7,
    kNoProposalChosen = 14,
    kInvalidKePayload = 17,
    kAuthenticationFailed = 24,
    kNoAdditionalSas = 35,
    kTsUnacceptable = 38,
    kFirstStatus = 16384,  // below: errors
    kNatSourceIp = 16388,
    kNatDestinationIp = 16389,
    kCookie = 16390,
    kChildlessSupported = 16418,  // RFC 6023
    kFragmentationSupported = 16430,  // RFC 7383
    kSignatureHashes = 16431,  // RFC 7427
};

std::string ExchangeName(std::uint8_t exchange);
std::string NotifyName(std::uint16_t type);
std::string IdentityTypeName(std::uint8_t type);
std::string AuthMethodName(std::uint8_t method);

}  // namespace ikeauth
