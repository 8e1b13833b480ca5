// Packed times and hexadecimal text.
#include <array>
#include <charconv>
#include <limits>
#include <utility>

#include "platform/asn1.h"
#include "platform/asn1/ascii.h"
#include "platform/base.h"

namespace {

constexpr std::int64_t kMaxYear = 0xFFFFFF;
constexpr int kTmYearOrigin = 1900;

std::tm TmOf(cert_time64_t t) {
    const auto field = [t](unsigned shift) { return static_cast<int>(t >> shift & 0xFF); };
    std::tm tm{};
    tm.tm_year = static_cast<int>(t >> 40) - kTmYearOrigin;
    tm.tm_mon = field(32);
    tm.tm_mday = field(24);
    tm.tm_hour = field(16);
    tm.tm_min = field(8);
    tm.tm_sec = field(0);
    return tm;
}

// Every report has a few times: snprintf takes ten times as long.
void AppendPadded(int value, std::size_t width, std::string& appended) {
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), value).ptr;
    const auto length = static_cast<std::size_t>(end - digits.begin());
    if (length < width) appended.append(width - length, '0');
    appended.append(digits.data(), length);
}

}  // namespace

cert_time64_t CertTimeFromTm(const std::tm& tm) noexcept {
    const std::int64_t year = std::int64_t{tm.tm_year} + kTmYearOrigin;
    if (year < 0 || year > kMaxYear) {
        return CERT_TIME_UNKNOWN;
    }
    const auto byte = [](int field) { return static_cast<cert_time64_t>(field & 0xFF); };
    return static_cast<cert_time64_t>(year) << 40 | byte(tm.tm_mon) << 32 | byte(tm.tm_mday) << 24 |
           byte(tm.tm_hour) << 16 | byte(tm.tm_min) << 8 | byte(tm.tm_sec);
}

cert_time64_t CertTimeFrom_time_t(std::time_t t) noexcept {
    std::tm tm{};
    return gmtime_r(&t, &tm) == nullptr ? CERT_TIME_UNKNOWN : CertTimeFromTm(tm);
}

cert_time64_t CertTimeNow() noexcept {
    return CertTimeFrom_time_t(vpnfc::CurrentTime());
}

std::time_t CertTimeTo_time_t(cert_time64_t t) noexcept {
    if (t == CERT_TIME_UNKNOWN) {
        return std::numeric_limits<std::time_t>::max();
    }
    std::tm tm = TmOf(t);
    return timegm(&tm);
}

std::string CertTimeToString(cert_time64_t t) {
    if (t == CERT_TIME_UNKNOWN) {
        return "unknown";
    }
    const std::tm tm = TmOf(t);
    const std::array<std::pair<char, int>, 5> fields{
        {{'-', tm.tm_mon + 1}, {'-', tm.tm_mday}, {' ', tm.tm_hour}, {':', tm.tm_min}, {':', tm.tm_sec}}};
    std::string text;
    AppendPadded(tm.tm_year + kTmYearOrigin, 4, text);
    for (const auto& [separator, value] : fields) {
        text += separator;
        AppendPadded(value, 2, text);
    }
    return text.append(" UTC");
}

std::string TO_HEX_STD_STRING(std::string_view bytes, char format) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * (format == 0 ? 2 : 3));
    for (const char c : bytes) {
        if (format != 0 && !text.empty()) {
            text.push_back(format);
        }
        const auto byte = static_cast<unsigned char>(c);
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0xF]);
    }
    return text;
}

void asn_bytes_to_upper_hex(std::string_view bytes, std::string& appended) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    for (const unsigned char byte : bytes) {
        appended += kDigits[byte >> 4];
        appended += kDigits[byte & 0xF];
    }
}

// CRLs have a million numbers: no stream.
std::string asn_serial_to_text(bool negative, std::string_view magnitude) {
    constexpr std::size_t kBytesInLine = 35;
    std::string text;
    text.reserve(2 * magnitude.size() + 2);
    if (negative) text += '-';
    if (magnitude.empty()) text += "00";
    while (magnitude.size() > kBytesInLine) {
        asn_bytes_to_upper_hex(magnitude.substr(0, kBytesInLine), text);
        text += "\\\n";
        magnitude.remove_prefix(kBytesInLine);
    }
    asn_bytes_to_upper_hex(magnitude, text);
    return text;
}

bool FROM_HEX_STD_STRING(std::string_view text, std::string& bytes) {
    const auto is_separator = [](char c) { return c == ' ' || c == ':'; };
    std::string result;
    result.reserve(text.size() / 2);
    for (std::size_t at = 0; at < text.size();) {
        if (is_separator(text[at])) {
            ++at;
            continue;
        }
        const int high = asn1::HexDigit(text[at]);
        const int low = at + 1 < text.size() ? asn1::HexDigit(text[at + 1]) : -1;
        if (high < 0 || low < 0) {
            return false;
        }
        result.push_back(static_cast<char>(high << 4 | low));
        at += 2;
    }
    bytes = std::move(result);
    return true;
}
