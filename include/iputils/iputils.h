// IPv4 addresses, ranges, subnets, ports and protocols to and from text.
//
// Addresses and masks are 32-bit values in host order (the first dotted number in the top byte); a range is a pair of
// addresses, both ends belonging to it. Text buffers are the caller's and have at least the size named with the
// function, terminator included. Readers that fail leave their outputs unchanged; null text is read as empty.
// All functions are stateless and thread-safe.
#pragma once

#include <cstddef>

#include "certmgr/api.h"

namespace IPUtils {

inline constexpr std::size_t kAddressTextSize = 16;
inline constexpr std::size_t kMaskTextSize = kAddressTextSize;
inline constexpr std::size_t kSubnetTextSize = 32;
inline constexpr std::size_t kRangeTextSize = 33;
/// Protocols and ports are followed by a name from the system's databases, cut off at this size.
inline constexpr std::size_t kNamedNumberTextSize = 64;

/// "10.0.0.1". Returns `out`.
CM_API char* ip2str(unsigned int ip, char* out);
/// "255.255.255.0", or "/24" with the prefix flag. The prefix length is 32 minus the number of trailing zero bits, 0
/// for mask 0, also for a mask that is not contiguous. Returns `out`.
CM_API char* mask2str(unsigned int mask, char* out, bool prefix);
/// "10.0.0.0/255.255.255.0", or "10.0.0.0/24". Returns `out`.
CM_API char* subnet2str(unsigned int ip, unsigned int mask, char* out, bool prefix);
/// The address alone when `to` is 0 or equals `from`; as subnet2str when the range is a subnet; else
/// "10.0.0.1..10.0.0.5". Returns `out`.
CM_API char* iprange2str(unsigned int from, unsigned int to, char* out, bool prefix);
/// "*" for 0, else "50(esp)" with the protocol's name, or "253" when it has none.
CM_API void protocol2str(unsigned char protocol, char* out);
/// `port` is in network byte order. "*" for 0, else "500(isakmp)" with the name of the service under that protocol (6
/// TCP, 17 UDP, others: under any), or "4499" when it has none.
CM_API void port2str(unsigned short port, char* out, unsigned char protocol);

/// The range is exactly one subnet.
CM_API bool range_is_subnet(unsigned int from, unsigned int to);
/// The same, giving the subnet's mask.
CM_API bool iprange2subnet(unsigned int from, unsigned int to, unsigned int& mask);
/// The smallest subnet that holds both addresses.
CM_API void expand_to_subnet(unsigned int a, unsigned int b, unsigned int& net, unsigned int& mask);

/// The text consists of digits and dots and holds at least one dot.
CM_API bool is_dot_notation(const char* text);
/// Reads a number of 0 to 255 at `text`: a digit, then up to three more while the value stays in range (so 0255 is
/// 255). Without a digit nothing is read and the value is 0. Moves `text` to the first character not taken and returns
/// that character: a digit there means that the number was too large or too long.
CM_API char parseTriada(const char*& text, unsigned int& value);
/// Four numbers joined by dots; 0 for anything else.
CM_API unsigned int str2ip(const char* text);
/// "a", "a..b" with a not above b, "a/24" or "a/255.255.255.0" with a contiguous mask and no bit of a outside it.
CM_API bool str2ip_range(const char* text, unsigned int* from, unsigned int* to);
CM_API bool str2protocol(const char* text, unsigned char* protocol);
/// "n", or "n..m" with n not above m.
CM_API bool str2protocol_range(const char* text, unsigned char* lo, unsigned char* hi);
/// At most seven digits, the value at most 65535; host byte order.
CM_API bool str2port(const char* text, unsigned short* port);
/// "n", or "n..m" with n not above m.
CM_API bool str2port_range(const char* text, unsigned short* lo, unsigned short* hi);

/// Address and port of the peer of a connected IPv4 socket, both in host order. False when the call fails or the peer
/// is no IPv4 address.
CM_API bool get_address(int socket, unsigned int& ip, unsigned short& port);

}  // namespace IPUtils
