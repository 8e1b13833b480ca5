#include "platform/asn1/oid.h"

#include <algorithm>
#include <charconv>

#include "platform/asn1.h"

namespace asn1 {
namespace {

constexpr std::size_t kSmallArcSeptets = 9;  // 63 bits: handled in a machine word
constexpr unsigned kFirstArcs = 40;  // arcs below 0 and 1; everything from 80 up is below 2
constexpr std::size_t kMaxDottedChars = 4 * kMaxOidBytes + 2;

/// A non-negative number of any size: decimal digits, the lowest first.
using Decimal = std::string;

void MultiplyAdd(Decimal& number, unsigned factor, unsigned summand) {
    unsigned carry = summand;
    for (char& digit : number) {
        carry += static_cast<unsigned>(digit) * factor;
        digit = static_cast<char>(carry % 10);
        carry /= 10;
    }
    for (; carry != 0; carry /= 10) {
        number.push_back(static_cast<char>(carry % 10));
    }
}

/// The number must not be smaller than `amount`.
void Subtract(Decimal& number, unsigned amount) {
    for (char& digit : number) {
        int value = digit - static_cast<int>(amount % 10);
        amount /= 10;
        if (value < 0) {
            value += 10;
            ++amount;
        }
        digit = static_cast<char>(value);
    }
}

unsigned DivideBy128(Decimal& number) {
    unsigned remainder = 0;
    for (auto digit = number.rbegin(); digit != number.rend(); ++digit) {
        remainder = remainder * 10 + static_cast<unsigned>(*digit);
        *digit = static_cast<char>(remainder / 128);
        remainder %= 128;
    }
    while (!number.empty() && number.back() == 0) {
        number.pop_back();
    }
    return remainder;
}

void AppendNumber(std::string& text, std::uint64_t number) {
    std::array<char, 20> digits{};
    text.append(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr);
}

void AppendSmallArc(std::string_view septets, bool first, std::string& text) {
    std::uint64_t arc = 0;
    for (const char c : septets) {
        arc = arc << 7 | (static_cast<unsigned char>(c) & 0x7F);
    }
    if (first) {
        const std::uint64_t root = std::min<std::uint64_t>(arc / kFirstArcs, 2);
        AppendNumber(text, root);
        arc -= root * kFirstArcs;
    }
    if (!text.empty()) {
        text.push_back('.');
    }
    AppendNumber(text, arc);
}

void AppendBigArc(std::string_view septets, bool first, std::string& text) {
    Decimal arc;
    for (const char c : septets) {
        MultiplyAdd(arc, 128, static_cast<unsigned char>(c) & 0x7F);
    }
    if (first) {
        text.push_back('2');
        Subtract(arc, 2 * kFirstArcs);
    }
    while (arc.size() > 1 && arc.back() == 0) {
        arc.pop_back();
    }
    text.push_back('.');
    for (auto digit = arc.rbegin(); digit != arc.rend(); ++digit) {
        text.push_back(static_cast<char>('0' + *digit));
    }
}

void AppendSeptets(std::string& content, Decimal arc) {
    std::string septets(1, static_cast<char>(DivideBy128(arc)));
    while (!arc.empty()) {
        septets.push_back(static_cast<char>(0x80 | DivideBy128(arc)));
    }
    content.append(septets.rbegin(), septets.rend());
}

/// Takes the arc in front of the next dot off `rest`. False when it is no decimal number in its shortest form.
bool TakeArc(std::string_view& rest, Decimal& arc) {
    const std::size_t length = std::min(rest.find('.'), rest.size());
    const std::string_view digits = rest.substr(0, length);
    if (digits.empty() || (digits.size() > 1 && digits[0] == '0')) {
        return false;
    }
    arc.clear();
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
        if (*digit < '0' || *digit > '9') {
            return false;
        }
        arc.push_back(static_cast<char>(*digit - '0'));
    }
    rest.remove_prefix(length);
    return true;
}

}  // namespace

bool OidFromDotted(std::string_view dotted, std::string& content) {
    if (dotted.size() > kMaxDottedChars || dotted.size() < 3 || dotted[0] < '0' || dotted[0] > '2' ||
        dotted[1] != '.') {
        return false;
    }
    const auto root = static_cast<unsigned>(dotted[0] - '0');
    std::string_view rest = dotted.substr(1);
    std::string result;
    Decimal arc;
    while (!rest.empty()) {
        rest.remove_prefix(1);  // the dot
        if (!TakeArc(rest, arc)) {
            return false;
        }
        if (result.empty()) {
            if (root < 2 && (arc.size() > 2 || (arc.size() == 2 && arc[1] >= 4))) {
                return false;
            }
            MultiplyAdd(arc, 1, root * kFirstArcs);
        }
        AppendSeptets(result, arc);
    }
    if (result.size() > kMaxOidBytes) {
        return false;
    }
    content = std::move(result);
    return true;
}

}  // namespace asn1

bool oid_asn_to_str_(std::string_view oid, std::string* appended) {
    if (oid.empty() || oid.size() > asn1::kMaxOidBytes || static_cast<unsigned char>(oid.back()) >= 0x80) {
        return false;
    }
    std::string text;
    for (std::size_t at = 0; at < oid.size();) {
        if (static_cast<unsigned char>(oid[at]) == 0x80) {
            return false;  // not the shortest form
        }
        std::size_t end = at;
        while (static_cast<unsigned char>(oid[end]) >= 0x80) {
            ++end;
        }
        const std::string_view septets = oid.substr(at, ++end - at);
        if (septets.size() <= asn1::kSmallArcSeptets) {
            asn1::AppendSmallArc(septets, at == 0, text);
        } else {
            asn1::AppendBigArc(septets, at == 0, text);
        }
        at = end;
    }
    appended->append(text);
    return true;
}
