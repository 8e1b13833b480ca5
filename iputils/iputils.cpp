#include "iputils/iputils.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>

namespace IPUtils {
namespace {

constexpr unsigned kMaxTriada = 255;
constexpr int kTriadaDigits = 4;
constexpr unsigned kMaxPort = 65535;
constexpr int kPortDigits = 7;
constexpr unsigned kAddressBits = 32;
constexpr std::size_t kDatabaseBytes = 4096;  // a line of /etc/services or /etc/protocols with its aliases

/// Names that log lines and policies show, whatever the system's database says.
struct ProtocolName {
    unsigned char number;
    const char* name;
};
constexpr std::array kProtocolNames = {
    ProtocolName{50, "esp"},   ProtocolName{51, "ah"},    ProtocolName{108, "ipcomp"},
    ProtocolName{141, "wesp"}, ProtocolName{142, "rohc"},
};

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

unsigned PrefixLength(unsigned mask) {
    return mask == 0 ? 0 : kAddressBits - static_cast<unsigned>(std::countr_zero(mask));
}

unsigned MaskOfPrefix(unsigned length) {
    return length == 0 ? 0 : ~0U << (kAddressBits - length);
}

bool IsContiguous(unsigned mask) {
    return (~mask & (~mask + 1)) == 0;
}

/// Writes "number(name)", or the number alone without a name, cut off at kNamedNumberTextSize.
void PrintNamedNumber(unsigned number, const char* name, char* out) {
    if (name == nullptr) {
        std::snprintf(out, kNamedNumberTextSize, "%u", number);
    } else {
        std::snprintf(out, kNamedNumberTextSize, "%u(%s)", number, name);
    }
}

bool TakeTriada(const char*& text, unsigned& value) {
    const char* const start = text;
    parseTriada(text, value);
    return text != start && !IsDigit(*text);
}

bool TakePort(const char*& text, unsigned& value) {
    value = 0;
    int digits = 0;
    for (; IsDigit(*text); ++text) {
        value = value * 10 + static_cast<unsigned>(*text - '0');
        if (++digits > kPortDigits) {
            return false;
        }
    }
    return digits > 0 && value <= kMaxPort;
}

bool TakeDots(const char*& text) {
    if (text[0] != '.' || text[1] != '.') {
        return false;
    }
    text += 2;
    return true;
}

bool TakeAddress(const char*& text, unsigned& ip) {
    ip = 0;
    for (int i = 0; i < 4; ++i) {
        unsigned value = 0;
        if ((i > 0 && *text++ != '.') || !TakeTriada(text, value)) {
            return false;
        }
        ip = ip << 8 | value;
    }
    return true;
}

/// A prefix length or a dotted mask up to the end of the text.
bool TakeMask(const char* text, unsigned& mask) {
    const char* after = text;
    unsigned value = 0;
    if (!TakeTriada(after, value)) {
        return false;
    }
    if (*after != '\0') {
        return TakeAddress(text, mask) && *text == '\0' && IsContiguous(mask);
    }
    mask = value <= kAddressBits ? MaskOfPrefix(value) : 0;
    return value <= kAddressBits;
}

/// "n" or "n..m" up to the end of the text.
template <typename Take>
bool ReadNumberRange(const char* text, Take take, unsigned& lo, unsigned& hi) {
    if (text == nullptr || !take(text, lo)) {
        return false;
    }
    if (*text == '\0') {
        hi = lo;
        return true;
    }
    return TakeDots(text) && take(text, hi) && *text == '\0' && lo <= hi;
}

}  // namespace

char* ip2str(unsigned int ip, char* out) {
    std::snprintf(out, kAddressTextSize, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
    return out;
}

char* mask2str(unsigned int mask, char* out, bool prefix) {
    if (!prefix) {
        return ip2str(mask, out);
    }
    std::snprintf(out, kMaskTextSize, "/%u", PrefixLength(mask));
    return out;
}

char* subnet2str(unsigned int ip, unsigned int mask, char* out, bool prefix) {
    char address[kAddressTextSize];
    char mask_text[kMaskTextSize];
    std::snprintf(out, kSubnetTextSize, prefix ? "%s%s" : "%s/%s", ip2str(ip, address),
                  mask2str(mask, mask_text, prefix));
    return out;
}

char* iprange2str(unsigned int from, unsigned int to, char* out, bool prefix) {
    unsigned mask = 0;
    if (to == 0 || to == from) {
        return ip2str(from, out);
    }
    if (iprange2subnet(from, to, mask)) {
        return subnet2str(from, mask, out, prefix);
    }
    char first[kAddressTextSize];
    char last[kAddressTextSize];
    std::snprintf(out, kRangeTextSize, "%s..%s", ip2str(from, first), ip2str(to, last));
    return out;
}

void protocol2str(unsigned char protocol, char* out) {
    if (protocol == 0) {
        std::snprintf(out, kNamedNumberTextSize, "*");
        return;
    }
    const auto* const known = std::find_if(kProtocolNames.begin(), kProtocolNames.end(),
                                           [&](const ProtocolName& entry) { return entry.number == protocol; });
    if (known != kProtocolNames.end()) {
        PrintNamedNumber(protocol, known->name, out);
        return;
    }
    protoent entry{};
    protoent* found = nullptr;
    char buffer[kDatabaseBytes];
    const bool named = getprotobynumber_r(protocol, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr;
    PrintNamedNumber(protocol, named ? found->p_name : nullptr, out);
}

void port2str(unsigned short port, char* out, unsigned char protocol) {
    if (port == 0) {
        std::snprintf(out, kNamedNumberTextSize, "*");
        return;
    }
    const char* const transport = protocol == IPPROTO_TCP ? "tcp" : protocol == IPPROTO_UDP ? "udp" : nullptr;
    servent entry{};
    servent* found = nullptr;
    char buffer[kDatabaseBytes];
    const bool named = getservbyport_r(port, transport, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr;
    PrintNamedNumber(ntohs(port), named ? found->s_name : nullptr, out);
}

bool range_is_subnet(unsigned int from, unsigned int to) {
    unsigned mask = 0;
    return iprange2subnet(from, to, mask);
}

bool iprange2subnet(unsigned int from, unsigned int to, unsigned int& mask) {
    const unsigned differing = from ^ to;
    if ((from & differing) != 0 || (to & (differing + 1)) != (from & (differing + 1))) {
        return false;
    }
    mask = ~differing;
    return true;
}

void expand_to_subnet(unsigned int a, unsigned int b, unsigned int& net, unsigned int& mask) {
    mask = MaskOfPrefix(static_cast<unsigned>(std::countl_zero(a ^ b)));
    net = b & mask;
}

bool is_dot_notation(const char* text) {
    bool dot = false;
    for (; text != nullptr && *text != '\0'; ++text) {
        if (*text != '.' && !IsDigit(*text)) {
            return false;
        }
        dot = dot || *text == '.';
    }
    return dot;
}

char parseTriada(const char*& text, unsigned int& value) {
    value = 0;
    for (int taken = 0; taken < kTriadaDigits && IsDigit(*text); ++taken, ++text) {
        const unsigned next = value * 10 + static_cast<unsigned>(*text - '0');
        if (next > kMaxTriada) {
            break;
        }
        value = next;
    }
    return *text;
}

unsigned int str2ip(const char* text) {
    unsigned ip = 0;
    return text != nullptr && TakeAddress(text, ip) && *text == '\0' ? ip : 0;
}

bool str2ip_range(const char* text, unsigned int* from, unsigned int* to) {
    unsigned first = 0;
    if (text == nullptr || !TakeAddress(text, first)) {
        return false;
    }
    unsigned last = first;
    if (*text == '/') {
        unsigned mask = 0;
        if (!TakeMask(text + 1, mask) || (first & ~mask) != 0) {
            return false;
        }
        last = first | ~mask;
    } else if (*text != '\0' && (!TakeDots(text) || !TakeAddress(text, last) || *text != '\0' || first > last)) {
        return false;
    }
    *from = first;
    *to = last;
    return true;
}

bool str2protocol(const char* text, unsigned char* protocol) {
    unsigned value = 0;
    if (text == nullptr || !TakeTriada(text, value) || *text != '\0') {
        return false;
    }
    *protocol = static_cast<unsigned char>(value);
    return true;
}

bool str2protocol_range(const char* text, unsigned char* lo, unsigned char* hi) {
    unsigned first = 0;
    unsigned last = 0;
    if (!ReadNumberRange(text, TakeTriada, first, last)) {
        return false;
    }
    *lo = static_cast<unsigned char>(first);
    *hi = static_cast<unsigned char>(last);
    return true;
}

bool str2port(const char* text, unsigned short* port) {
    unsigned value = 0;
    if (text == nullptr || !TakePort(text, value) || *text != '\0') {
        return false;
    }
    *port = static_cast<unsigned short>(value);
    return true;
}

bool str2port_range(const char* text, unsigned short* lo, unsigned short* hi) {
    unsigned first = 0;
    unsigned last = 0;
    if (!ReadNumberRange(text, TakePort, first, last)) {
        return false;
    }
    *lo = static_cast<unsigned short>(first);
    *hi = static_cast<unsigned short>(last);
    return true;
}

bool get_address(int socket, unsigned int& ip, unsigned short& port) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 || address.sin_family != AF_INET) {
        return false;
    }
    ip = ntohl(address.sin_addr.s_addr);
    port = ntohs(address.sin_port);
    return true;
}

}  // namespace IPUtils
