#include "cli/store/records.h"

#include <array>

#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

constexpr std::size_t kDateLength = 10;
/// Digits of a serial number in a table: mostly enough to tell certificates apart, and to name one.
constexpr std::size_t kShortNumber = 8;

std::string Hex(const std::string& bytes) {
    return TO_HEX_STD_STRING(bytes);
}

std::string InDays(std::time_t seconds) {
    const auto days = static_cast<std::size_t>(seconds / kSecondsPerDay);
    return days == 0 ? "today" : Counted(days, "day");
}

}  // namespace

const char* ListName(CertSelector list) {
    static constexpr std::array kNames = {"personal", "trusted", "intermediate", "other"};
    return kNames.at(static_cast<std::size_t>(list));
}

const char* KindName(std::uint32_t kind) {
    static constexpr std::array kNames = {"none", "other", "trusted", "personal", "peer", "key pair", "malformed"};
    return kind < kNames.size() ? kNames[kind] : "unknown";
}

bool IsKeyPair(const CertInfo& info) {
    return info.kind == kCertKindKeyPair;
}

std::string NameOf(const CertInfo& info) {
    if (IsKeyPair(info) && info.subject.empty()) return "(key pair without certificate)";
    return info.subject.empty() ? "(empty subject)" : info.subject;
}

std::string ShortNameOf(const CertInfo& info) {
    std::string name = NameOf(info);
    const std::size_t begin = name.starts_with("CN=") ? 0 : name.find(", CN=");
    if (begin == std::string::npos) return name;
    const std::size_t value = name.find('=', begin) + 1;
    std::size_t end = name.find_first_of(",+", value);
    while (end != std::string::npos && name[end - 1] == '\\') end = name.find_first_of(",+", end + 1);
    return name.substr(value, end - value);
}

std::string AlgorithmName(pki_alg_t algorithm) {
    return I2S_PKI_ALG_T.getString(algorithm);
}

std::string KeyText(const CertInfo& info) {
    const std::string name = AlgorithmName(info.keyAlg);
    return info.keyBits == 0 ? name : name + " " + std::to_string(info.keyBits);
}

std::string NumberOf(const CertInfo& info) {
    return IsKeyPair(info) || info.serialNumber.empty() ? Hex(info.id) : info.serialNumber;
}

std::string ShortNumberOf(const CertInfo& info) {
    return NumberOf(info).substr(0, kShortNumber);
}

std::string Described(const TokenInfo& token, const CertInfo& info) {
    const char* const what = IsKeyPair(info) || info.serialNumber.empty() ? ", id " : ", serial ";
    return NameOf(info) + what + NumberOf(info) + ", on \"" + token.label + "\"";
}

std::string Described(const TokenInfo& token, const CRLInfo& info) {
    const std::string number = info.crlNumber.empty() ? "" : ", number " + info.crlNumber;
    const std::string where = token.label.empty() ? ", downloaded" : ", on \"" + token.label + "\"";
    return "CRL of " + info.issuer + number + where;
}

bool IsInitialised(const PKCS11::TokenStatus& token) {
    return (token.flags & PKCS11::kTokenInitialised) != 0;
}

Validity ValidityOf(const CertInfo& info, std::time_t now) {
    if (info.validFrom != CERT_TIME_UNKNOWN && CertTimeTo_time_t(info.validFrom) > now) return Validity::kNotYet;
    const std::time_t end = CertTimeTo_time_t(info.validTo);
    if (end < now) return Validity::kExpired;
    return end - now <= kSoonDays * kSecondsPerDay ? Validity::kEndsSoon : Validity::kValid;
}

Cell ExpiryCell(const CertInfo& info, std::time_t now) {
    if (info.validTo == CERT_TIME_UNKNOWN && info.validFrom == CERT_TIME_UNKNOWN) return {"-"};
    const std::string end = Date(info.validTo);
    switch (ValidityOf(info, now)) {
        case Validity::kNotYet:
            return {"not before " + Date(info.validFrom), Style::kWarning};
        case Validity::kExpired:
            return {"expired " + end, Style::kBad};
        case Validity::kEndsSoon:
            return {end + " (" + InDays(CertTimeTo_time_t(info.validTo) - now) + ")", Style::kWarning};
        case Validity::kValid:
            break;
    }
    return {end};
}

std::string Date(cert_time64_t time) {
    return CertTimeToString(time).substr(0, kDateLength);
}

Json TimeJson(cert_time64_t time) {
    if (time == CERT_TIME_UNKNOWN) return nullptr;
    std::string text = CertTimeToString(time);  // "2031-02-28 23:59:59 UTC"
    text.replace(text.find(' '), 1, "T");
    text.replace(text.find(' '), std::string::npos, "Z");
    return text;
}

Json ToJson(const TokenInfo& token) {
    return {{"label", token.label}, {"serial", token.serialNumber}, {"provider", token.providerName}};
}

Json ToJson(const TokenInfo& token, const CertInfo& info) {
    return {{"subject", info.subject},
            {"issuer", info.issuer},
            {"serial", info.serialNumber},
            {"id", Hex(info.id)},
            {"kind", KindName(info.kind)},
            {"valid_from", TimeJson(info.validFrom)},
            {"valid_to", TimeJson(info.validTo)},
            {"key", {{"algorithm", AlgorithmName(info.keyAlg)}, {"bits", info.keyBits}}},
            {"signature", AlgorithmName(info.signAlg)},
            {"ca", info.isCA},
            {"version", info.version},
            {"token", ToJson(token)}};
}

Json ToJson(const StoredCert& cert) {
    Json json = {{"list", ListName(cert.list)}};
    json.update(ToJson(cert.token, cert.info));
    return json;
}

Json ToJson(const CRLInfo& info) {
    return {{"issuer", info.issuer},
            {"number", info.crlNumber},
            {"delta", !info.deltaCrlIndicator.empty()},
            {"this_update", TimeJson(info.thisUpdate)},
            {"next_update", TimeJson(info.nextUpdate)},
            {"signature", AlgorithmName(info.signAlg)}};
}

}  // namespace certmgrctl
