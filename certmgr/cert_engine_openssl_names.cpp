// General names (RFC 5280, 4.2.1.6).
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"
#include "certmgr/cert_engine_openssl_ext.h"

namespace cert_engine {
namespace {

void AppendAddress(std::string_view address, std::string& text) {
    constexpr std::size_t kShownBytes = 4;
    if (address.size() < kShownBytes) return;
    for (std::size_t i = 0; i < kShownBytes; ++i) {
        if (i != 0) text += '.';
        text += std::to_string(static_cast<unsigned char>(address[i]));
    }
}

// UTF-8 of a Microsoft user principal name; empty for any other name, or one that is not of a string type.
std::string UserPrincipalName(const OTHERNAME& name) {
    if (OBJ_obj2nid(name.type_id) != NID_ms_upn || name.value == nullptr) return {};
    switch (ASN1_TYPE_get(name.value)) {
        case V_ASN1_BOOLEAN:
        case V_ASN1_NULL:
        case V_ASN1_OBJECT:
            return {};
        default:
            break;
    }
    const ErrorMark mark;
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, name.value->value.asn1_string);
    if (length < 0) return {};
    std::string text(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return text;
}

void AppendOtherName(const OTHERNAME& name, std::string& text) {
    const std::string upn = UserPrincipalName(name);
    if (upn.empty()) {
        ASN1_OBJECT_to_std_string(name.type_id, text, kOidName);
    } else {
        text += upn;
    }
}

}  // namespace

void AppendGeneralName(const GENERAL_NAME& name, std::string& text) {
    switch (name.type) {
        case GEN_OTHERNAME:
            AppendOtherName(*name.d.otherName, text.append("OTHERNAME="));
            break;
        case GEN_EMAIL:
            text.append("EMAIL=").append(BytesOf(name.d.rfc822Name));
            break;
        case GEN_DNS:
            text.append("DNS=").append(BytesOf(name.d.dNSName));
            break;
        case GEN_X400:
            text.append("X400=");
            break;
        case GEN_DIRNAME: {
            std::string directory_name;
            X509_NAME_to_utf8(name.d.directoryName, directory_name);
            text.append("DIRNAME=").append(directory_name);
            break;
        }
        case GEN_EDIPARTY:
            text.append("EDIPARTY=");
            break;
        case GEN_URI:
            text.append("URI=").append(BytesOf(name.d.uniformResourceIdentifier));
            break;
        case GEN_IPADD:
            AppendAddress(BytesOf(name.d.iPAddress), text.append("IP="));
            break;
        case GEN_RID:
            ASN1_OBJECT_to_std_string(name.d.registeredID, text.append("RID="), kOidName);
            break;
        default:
            break;
    }
}

std::string GeneralNamesText(const GENERAL_NAMES* names) {
    std::string text;
    ForEach<GENERAL_NAME>(names, [&text](const GENERAL_NAME& name) {
        if (!text.empty()) text += ',';
        AppendGeneralName(name, text);
    });
    return text;
}

void KeepAlternativeName(const GENERAL_NAME& name, AltSubject& names) {
    switch (name.type) {
        case GEN_EMAIL:
            names.email = BytesOf(name.d.rfc822Name);
            break;
        case GEN_DNS:
            names.dnsName = BytesOf(name.d.dNSName);
            break;
        case GEN_IPADD:
            names.ipAddress = BytesOf(name.d.iPAddress);
            break;
        case GEN_OTHERNAME:
            if (std::string upn = UserPrincipalName(*name.d.otherName); !upn.empty()) names.upn = std::move(upn);
            break;
        default:
            break;
    }
}

}  // namespace cert_engine
