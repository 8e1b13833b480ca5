#include "ike/wire/codes.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace ikeauth {
namespace {

struct Name {
    std::uint16_t code;
    std::string_view text;
};

constexpr Name kExchanges[] = {{kSaInit, "IKE_SA_INIT"},
                               {kAuth, "IKE_AUTH"},
                               {kCreateChild, "CREATE_CHILD_SA"},
                               {kInformational, "INFORMATIONAL"}};

constexpr Name kNotifies[] = {
    {kUnsupportedCriticalPayload, "UNSUPPORTED_CRITICAL_PAYLOAD"},
    {4, "INVALID_IKE_SPI"},
    {kInvalidMajorVersion, "INVALID_MAJOR_VERSION"},
    {kInvalidSyntax, "INVALID_SYNTAX"},
    {9, "INVALID_MESSAGE_ID"},
    {11, "INVALID_SPI"},
    {kNoProposalChosen, "NO_PROPOSAL_CHOSEN"},
    {kInvalidKePayload, "INVALID_KE_PAYLOAD"},
    {kAuthenticationFailed, "AUTHENTICATION_FAILED"},
    {34, "SINGLE_PAIR_REQUIRED"},
    {kNoAdditionalSas, "NO_ADDITIONAL_SAS"},
    {36, "INTERNAL_ADDRESS_FAILURE"},
    {37, "FAILED_CP_REQUIRED"},
    {kTsUnacceptable, "TS_UNACCEPTABLE"},
    {39, "INVALID_SELECTORS"},
    {43, "TEMPORARY_FAILURE"},
    {44, "CHILD_SA_NOT_FOUND"},
    {16384, "INITIAL_CONTACT"},
    {16385, "SET_WINDOW_SIZE"},
    {16386, "ADDITIONAL_TS_POSSIBLE"},
    {16387, "IPCOMP_SUPPORTED"},
    {kNatSourceIp, "NAT_DETECTION_SOURCE_IP"},
    {kNatDestinationIp, "NAT_DETECTION_DESTINATION_IP"},
    {kCookie, "COOKIE"},
    {16391, "USE_TRANSPORT_MODE"},
    {16392, "HTTP_CERT_LOOKUP_SUPPORTED"},
    {16394, "ESP_TFC_PADDING_NOT_SUPPORTED"},
    {16395, "NON_FIRST_FRAGMENTS_ALSO"},
    {16396, "MOBIKE_SUPPORTED"},
    {16397, "ADDITIONAL_IP4_ADDRESS"},
    {16398, "ADDITIONAL_IP6_ADDRESS"},
    {16403, "AUTH_LIFETIME"},
    {16404, "MULTIPLE_AUTH_SUPPORTED"},
    {16406, "REDIRECT_SUPPORTED"},
    {16407, "REDIRECT"},
    {16417, "EAP_ONLY_AUTHENTICATION"},
    {kChildlessSupported, "CHILDLESS_IKEV2_SUPPORTED"},
    {16420, "IKEV2_MESSAGE_ID_SYNC_SUPPORTED"},
    {kFragmentationSupported, "IKEV2_FRAGMENTATION_SUPPORTED"},
    {kSignatureHashes, "SIGNATURE_HASH_ALGORITHMS"},
    {16435, "USE_PPK"},
    {16438, "INTERMEDIATE_EXCHANGE_SUPPORTED"},
};

constexpr Name kIdentityTypes[] = {{kIdIp4, "IP address"},   {kIdFqdn, "FQDN"}, {kIdEmail, "e-mail"},
                                   {kIdIp6, "IPv6 address"}, {kIdDn, "DN"},     {kIdKey, "key identifier"}};

constexpr Name kMethods[] = {{kMethodRsa, "RSA signature"},
                             {kMethodPresharedKey, "preshared key"},
                             {kMethodDss, "DSS signature"},
                             {kMethodEcdsa256, "ECDSA with SHA-256 on P-256"},
                             {kMethodEcdsa384, "ECDSA with SHA-384 on P-384"},
                             {kMethodEcdsa521, "ECDSA with SHA-512 on P-521"},
                             {kMethodSignature, "digital signature"}};

template <std::size_t kCount>
std::string Find(const Name (&names)[kCount], std::uint16_t code, std::string_view kind) {
    const auto* found =
        std::find_if(std::begin(names), std::end(names), [code](const Name& name) { return name.code == code; });
    if (found != std::end(names)) return std::string(found->text);
    return std::string(kind) + " " + std::to_string(code);
}

}  // namespace

std::string ExchangeName(std::uint8_t exchange) {
    return Find(kExchanges, exchange, "exchange");
}

std::string NotifyName(std::uint16_t type) {
    return Find(kNotifies, type, type < kFirstStatus ? "error" : "notify");
}

std::string IdentityTypeName(std::uint8_t type) {
    return Find(kIdentityTypes, type, "identity type");
}

std::string AuthMethodName(std::uint8_t method) {
    return Find(kMethods, method, "method");
}

}  // namespace ikeauth
