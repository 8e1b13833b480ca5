#include "cert_log.h"

#include <array>

#include "certmgr/records.h"
#include "platform/asn1.h"

namespace {

constexpr std::string_view kItem = " \\\n\t\t";

void AppendItem(std::string& out, std::string_view label, std::string_view value) {
    out.append(kItem).append(label);
    CM::cmprint_Value(out, value);
}

std::string ValidityText(const CertInfo& info) {
    return "Valid from: " + CertTimeToString(info.validFrom) + " to: " + CertTimeToString(info.validTo);
}

void AppendCertInfo(const CertInfo& info, std::string& out) {
    AppendItem(out, "Subject: ", info.subject);
    AppendItem(out, "Issuer: ", info.issuer);
    AppendItem(out, "Sn: ", info.serialNumber);
    AppendItem(out, "KeyAlg: ", ttt_pki_alg_to_str(info.keyAlg));
    out.append(", \t").append(ValidityText(info));
}

void AppendName(std::string& out, std::string_view label, const std::string& name, bool exact) {
    if (name.empty()) return;
    AppendItem(out, std::string(label).append(exact ? ": " : " attrs: "), name);
}

void AppendIfSet(std::string& out, std::string_view label, const std::string& value) {
    if (!value.empty()) AppendItem(out, label, value);
}

}  // namespace

const char* ttt_pki_alg_to_str(pki_alg_t alg) {
    return I2S_PKI_ALG_T.getString(alg, "Unknown");
}

void ttt_X509CertToLogString(const CM::X509Cert* cert, std::string& appended) {
    AppendCertInfo(cert->info, appended);
}

void ttt_CertInfoToLogString(const CertInfo& info, std::string& out) {
    out.clear();
    AppendCertInfo(info, out);
}

void ttt_X509CRLToLogString(const CM::X509CRL* crl, std::string& out) {
    ttt_CRLInfoToLogString(crl->info, out);
}

void ttt_CRLInfoToLogString(const CRLInfo& info, std::string& out) {
    out.clear();
    AppendItem(out, "Issuer: ", info.issuer);
    AppendItem(out, "Number: ", info.crlNumber);
    AppendItem(out, "SignAlg: ", ttt_pki_alg_to_str(info.signAlg));
}

void ttt_TokenInfoToLogString(const PKCS11::TokenInfo* token, std::string& out) {
    out.clear();
    AppendItem(out, "label: ", {});
    CM::cmprint_Label(out, token->label);
    CM::cmprint_Label(out.append(",\t serial: "), token->serialNumber);
}

void ttt_CertPatternToLogString(const LPCFG::cert_t& pattern, std::string& appended) {
    const std::size_t before = appended.size();
    AppendName(appended, "Subject", pattern.subject, pattern.subjectExact);
    AppendName(appended, "Issuer", pattern.issuer, pattern.issuerExact);
    if (pattern.keyAlg != 0) AppendItem(appended, "KeyAlg: ", ttt_pki_alg_to_str(pattern.keyAlg));
    AppendIfSet(appended, "Sn: ", pattern.serialNumber);
    AppendIfSet(appended, "MD5: ", pattern.md5);
    AppendIfSet(appended, "SHA1: ", pattern.sha1);
    if (appended.size() == before) appended.append("<Any Certifiacate>");
}

namespace CM {

const char* CertKindText(std::uint32_t kind) {
    static constexpr std::array kNames = {"undefined", "other",     "trusted",  "personal",
                                          "income",    "underdone", "malformed"};
    return kNames[kind < kNames.size() ? kind : 0];
}

void cmprint_Value(std::string& out, std::string_view value) {
    if (value.size() <= kMaxValueBytes) {
        out.append(value);
        return;
    }
    std::size_t shown = kMaxValueBytes;
    while ((static_cast<unsigned char>(value[shown]) & 0xC0) == 0x80 && shown + 4 > kMaxValueBytes) --shown;
    out.append(value.substr(0, shown)).append("... (").append(std::to_string(value.size() - shown));
    out.append(" bytes cut)");
}

void cmprint_Text(std::string& out, std::string_view text) {
    cmprint_Value(out, asn_text_to_printable(text));
}

void cmprint_Label(std::string& out, std::string_view label) {
    cmprint_Value(out, asn_text_to_line(label));
}

void cmprint_Fact(std::string& out, std::string_view label, std::string_view value) {
    out.append(kReportLine).append(label);
    cmprint_Value(out, value);
}

void cmprint_Cert(std::string& out, const X509Cert* cert, bool with_details) {
    const CertInfo& info = cert->info;
    cmprint_Fact(out, "Subject: ", info.subject);
    cmprint_Fact(out, "Issuer: ", info.issuer);
    cmprint_Fact(out, "Sn: ", info.serialNumber);
    if (!with_details) return;
    cmprint_Fact(out, "Kind: ", CertKindText(info.kind));
    if (!cert->token.label.empty()) {
        cmprint_Fact(out, "Token: ", {});
        cmprint_Label(out, cert->token.label);
    }
    cmprint_Fact(out, "KeyAlg: ", ttt_pki_alg_to_str(info.keyAlg));
    if (info.keyBits != 0) out.append(", ").append(std::to_string(info.keyBits)).append(" bits");
    cmprint_Fact(out, "SignAlg: ", ttt_pki_alg_to_str(info.signAlg));
    cmprint_Fact(out, ValidityText(info), {});
    if (cert->privKeyNotAfter != CERT_TIME_UNKNOWN) {
        cmprint_Fact(out, "Private key valid to: ", CertTimeToString(cert->privKeyNotAfter));
    }
}

void cmprint_Validity(std::string& out, const CertInfo& info) {
    out.append(",\t ").append(ValidityText(info));
}

}  // namespace CM
