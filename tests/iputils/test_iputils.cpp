#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>

#include "iputils/iputils.h"

namespace {

using namespace IPUtils;

/// Text written into a buffer of exactly the documented size, so that the address sanitizer sees one byte too many.
std::string Written(std::size_t size, const std::function<void(char*)>& write) {
    const auto exact = std::make_unique<char[]>(size);
    write(exact.get());
    return exact.get();
}

std::string IpText(unsigned ip) {
    return Written(kAddressTextSize, [&](char* out) { EXPECT_EQ(ip2str(ip, out), out); });
}
std::string MaskText(unsigned mask, bool prefix) {
    return Written(kMaskTextSize, [&](char* out) { mask2str(mask, out, prefix); });
}
std::string SubnetText(unsigned ip, unsigned mask, bool prefix) {
    return Written(kSubnetTextSize, [&](char* out) { subnet2str(ip, mask, out, prefix); });
}
std::string RangeText(unsigned from, unsigned to, bool prefix) {
    return Written(kRangeTextSize, [&](char* out) { iprange2str(from, to, out, prefix); });
}
std::string ProtocolText(unsigned char protocol) {
    return Written(kNamedNumberTextSize, [&](char* out) { protocol2str(protocol, out); });
}
std::string PortText(unsigned short port, unsigned char protocol) {
    return Written(kNamedNumberTextSize, [&](char* out) { port2str(htons(port), out, protocol); });
}

TEST(IpText, AddressesMasksAndSubnets) {
    EXPECT_EQ(IpText(0), "0.0.0.0");
    EXPECT_EQ(IpText(0x0A000102), "10.0.1.2");
    EXPECT_EQ(MaskText(0xFFFFFF00, false), "255.255.255.0");
    EXPECT_EQ(SubnetText(0xFFFFFFFF, 0xFFFFFFFF, false), "255.255.255.255/255.255.255.255");
    const std::pair<unsigned, const char*> cases[] = {{0, "/0"},
                                                      {0x80000000, "/1"},
                                                      {0xFFFFFFFF, "/32"},
                                                      {0x00000001, "/32"},
                                                      {0xFF00FF00, "/24"}};  // not contiguous: by its last bit
    for (const auto& [mask, prefix] : cases) {
        EXPECT_EQ(MaskText(mask, true), prefix);
        EXPECT_EQ(SubnetText(0x0A000000, mask, true), std::string("10.0.0.0") + prefix);
    }
}

TEST(IpText, Ranges) {
    const std::tuple<unsigned, unsigned, const char*, const char*> cases[] = {
        {0x0A000000, 0x0A0000FF, "10.0.0.0/24", "10.0.0.0/255.255.255.0"},
        {0x0A000001, 0, "10.0.0.1", "10.0.0.1"},
        {0, 0xFFFFFFFF, "0.0.0.0/0", "0.0.0.0/0.0.0.0"},
        {0x0A000000, 0x0A000005, "10.0.0.0..10.0.0.5", "10.0.0.0..10.0.0.5"},  // differing bits with a hole
        {0x0A000005, 0x0A000002, "10.0.0.5..10.0.0.2", "10.0.0.5..10.0.0.2"},
        {0xC8C8C8C9, 0xFFFFFFFE, "200.200.200.201..255.255.255.254", "200.200.200.201..255.255.255.254"},
    };
    for (const auto& [from, to, prefixed, dotted] : cases) {
        EXPECT_EQ(RangeText(from, to, true), prefixed);
        EXPECT_EQ(RangeText(from, to, false), dotted);
    }
}

TEST(IpText, ProtocolsAndPorts) {
    const std::pair<unsigned char, const char*> fixed[] = {
        {0, "*"},           {50, "50(esp)"}, {51, "51(ah)"},  {108, "108(ipcomp)"}, {141, "141(wesp)"},
        {142, "142(rohc)"}, {6, "6(tcp)"},   {17, "17(udp)"}, {253, "253"}};
    for (const auto& [number, text] : fixed) EXPECT_EQ(ProtocolText(number), text);
    for (const unsigned short port : {22, 500, 54321}) {
        for (const auto& [number, name] : {std::pair(6, "tcp"), {17, "udp"}, {0, nullptr}}) {
            const servent* const entry = getservbyport(htons(port), name);
            const std::string known = entry == nullptr ? "" : std::string("(") + entry->s_name + ")";
            EXPECT_EQ(PortText(port, static_cast<unsigned char>(number)), std::to_string(port) + known);
        }
    }
    EXPECT_EQ(PortText(0, 6), "*");
}

TEST(IpText, SubnetArithmetic) {
    unsigned mask = 1;
    EXPECT_TRUE(iprange2subnet(0x0A000000, 0x0A00FFFF, mask));
    EXPECT_EQ(mask, 0xFFFF0000);
    EXPECT_FALSE(iprange2subnet(0x0A000001, 0x0A00FFFF, mask));
    EXPECT_EQ(mask, 0xFFFF0000) << "unchanged on failure";
    EXPECT_TRUE(range_is_subnet(7, 7));
    using Case = std::array<unsigned, 4>;
    for (const auto& [a, b, net, mask_of_both] :
         {Case{0x0A000001, 0x0A000001, 0x0A000001, 0xFFFFFFFF}, Case{0x0A000001, 0x0A000002, 0x0A000000, 0xFFFFFFFC},
          Case{0, 0x80000000, 0, 0}, Case{0x0A000200, 0x0A0003FF, 0x0A000200, 0xFFFFFE00},
          Case{0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFE, 0xFFFFFFFE}}) {
        for (const auto& [one, other] : {std::pair(a, b), std::pair(b, a)}) {
            unsigned out = 1;
            expand_to_subnet(one, other, out, mask);
            EXPECT_EQ(std::pair(out, mask), std::pair(net, mask_of_both));
        }
    }
}

TEST(IpRead, Numbers) {
    EXPECT_TRUE(is_dot_notation("1.2.3.4") && is_dot_notation("."));
    EXPECT_FALSE(is_dot_notation("") || is_dot_notation("123") || is_dot_notation("1.2/24") ||
                 is_dot_notation(nullptr));
    const std::tuple<const char*, unsigned, char> cases[] = {{"7.", 7, '.'},     {"0255x", 255, 'x'}, {"256", 25, '6'},
                                                             {"00255", 25, '5'}, {"", 0, '\0'},       {"-1", 0, '-'}};
    for (const auto& [text, number, stop] : cases) {
        const char* at = text;
        unsigned value = 77;
        const char stopped = parseTriada(at, value);
        EXPECT_EQ(std::tuple(value, stopped, *at), std::tuple(number, stop, stop)) << text;
    }
}

/// A range; nothing, and nothing changed, when it is none.
std::optional<std::pair<unsigned, unsigned>> Read(const char* text) {
    unsigned from = 1;
    unsigned to = 2;
    const bool good = str2ip_range(text, &from, &to);
    EXPECT_TRUE(good || (from == 1 && to == 2)) << text;
    return good ? std::optional(std::pair(from, to)) : std::nullopt;
}

TEST(IpRead, AddressesAndRanges) {
    EXPECT_EQ(str2ip("1.2.3.4"), 0x01020304U);
    EXPECT_EQ(str2ip("001.002.003.255"), 0x010203FFU);
    for (const char* text : {"256.1.1.1", "1.2.3.4x", "1.2.3.", "1.2.3.4.", "1..2.3", " 1.2.3.4", "", "1.2.3.00004"}) {
        EXPECT_EQ(str2ip(text), 0U) << text;
    }
    EXPECT_EQ(str2ip(nullptr), 0U);

    const std::tuple<const char*, unsigned, unsigned> good[] = {
        {"10.0.0.1", 0x0A000001, 0x0A000001},    {"10.0.0.1..10.0.0.5", 0x0A000001, 0x0A000005},
        {"10.0.0.0/24", 0x0A000000, 0x0A0000FF}, {"0.0.0.0/0", 0, 0xFFFFFFFF},
        {"0.0.0.0/0.0.0.0", 0, 0xFFFFFFFF},      {"10.0.0.1/255.255.255.255", 0x0A000001, 0x0A000001}};
    for (const auto& [text, from, to] : good) EXPECT_EQ(Read(text), std::pair(from, to)) << text;
    for (const char* text :
         {"", "10.0.0.1/24", "10.0.0.0/33", "0.0.0.0/", "10.0.0.0/24x", "10.0.0.0/255.0.255.0",
          "10.0.0.0/255.255.255.0.", "10.0.0.5..10.0.0.1", "10.0.0.1.10.0.0.5", "10.0.0.1...10.0.0.5", "10.0.0.1..",
          "10.0.0.1-10.0.0.5", "256.0.0.0/8", "10.0.0.0/24/24"}) {
        EXPECT_EQ(Read(text), std::nullopt) << text;
    }
}

TEST(IpRead, EveryPrintedRangeReadsBack) {
    std::mt19937 random(20);
    for (int i = 0; i < 20000; ++i) {
        unsigned from = static_cast<unsigned>(random());
        unsigned to = static_cast<unsigned>(random());
        if (i % 2 == 0) {
            const unsigned mask = random() % 33 == 0 ? 0 : ~0U << random() % 32;
            from &= mask;
            to = from | ~mask;
        }
        if (from > to || to == 0) continue;
        const std::string text = RangeText(from, to, i % 4 < 2);
        EXPECT_EQ(Read(text.c_str()), std::pair(from, to)) << text;
    }
}

TEST(IpRead, ProtocolsAndPorts) {
    unsigned char lo = 9;
    unsigned char hi = 9;
    const auto protocols = [&](const char* text) { return str2protocol_range(text, &lo, &hi); };
    EXPECT_TRUE(str2protocol("255", &lo) && lo == 255);
    for (const char* text : {"", "256", "-1", "6 ", "6..7"}) EXPECT_FALSE(str2protocol(text, &lo)) << text;
    EXPECT_EQ(lo, 255);
    EXPECT_TRUE(protocols("17") && lo == 17 && hi == 17);
    EXPECT_TRUE(protocols("6..17") && lo == 6 && hi == 17);
    for (const char* text : {"", "17..6", "6..", "6.17", "6..17x", "6..256"}) EXPECT_FALSE(protocols(text)) << text;
    unsigned short from = 9;
    unsigned short to = 9;
    const auto ports = [&](const char* text) { return str2port_range(text, &from, &to); };
    EXPECT_TRUE(str2port("65535", &from) && from == 65535);
    for (const char* text : {"", "65536", "00000500", "+1", "80x"}) EXPECT_FALSE(str2port(text, &from)) << text;
    EXPECT_EQ(from, 65535);
    EXPECT_TRUE(ports("80") && from == 80 && to == 80);
    EXPECT_TRUE(ports("1..65535") && from == 1 && to == 65535);
    for (const char* text : {"", "80..79", "80..", "80.81", "80..81..82", "80..65536"})
        EXPECT_FALSE(ports(text)) << text;
    EXPECT_FALSE(str2port(nullptr, &from) || ports(nullptr) || str2protocol(nullptr, &lo));
}

TEST(IpRead, PeerOfASocket) {
    unsigned ip = 1;
    unsigned short port = 1;
    const int client = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_FALSE(get_address(client, ip, port)) << "not connected";
    const sockaddr_in address{AF_INET, htons(9), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_TRUE(get_address(client, ip, port));
    close(client);
    EXPECT_EQ(ip, INADDR_LOOPBACK);
    EXPECT_EQ(port, 9);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    EXPECT_FALSE(get_address(pair[0], ip, port)) << "no IPv4 peer";
    EXPECT_EQ(port, 9);
    for (const int fd : pair) close(fd);
    EXPECT_FALSE(get_address(-1, ip, port));
}

}  // namespace
