#include "ike/sa/identity.h"

#include <algorithm>
#include <array>
#include <utility>

#include "ike/wire/bytes.h"
#include "iputils/iputils.h"
#include "platform/asn1.h"

namespace ikeauth {
namespace {

constexpr std::size_t kIp4Bytes = 4;

constexpr std::array<std::pair<LPCFG::ipsecid_t::Type, IdentityType>, 4> kTypes{{{LPCFG::ipsecid_t::kIp4, kIdIp4},
                                                                                 {LPCFG::ipsecid_t::kFqdn, kIdFqdn},
                                                                                 {LPCFG::ipsecid_t::kEmail, kIdEmail},
                                                                                 {LPCFG::ipsecid_t::kDn, kIdDn}}};

std::string Value(const Identification& id) {
    std::string text;
    if (id.type == kIdDn && asn_dn_to_printable(id.value, text)) return text;
    if (id.type == kIdFqdn || id.type == kIdEmail) return asn_text_to_printable(id.value);
    if (id.type != kIdIp4 || id.value.size() != kIp4Bytes) return TO_HEX_STD_STRING(id.value);
    std::uint32_t address = 0;
    ByteReader(id.value).Read(address);
    std::array<char, IPUtils::kAddressTextSize> dotted{};
    return IPUtils::ip2str(address, dotted.data());
}

}  // namespace

Identification ToWire(const LPCFG::ipsecid_t& id) {
    return {.type = kTypes.at(id.type).second, .value = id.value};
}

bool FromWire(const Identification& wire, LPCFG::ipsecid_t& id) {
    const auto* found =
        std::find_if(kTypes.begin(), kTypes.end(), [&](const auto& pair) { return pair.second == wire.type; });
    if (found == kTypes.end()) return false;
    id.type = found->first;
    id.value = wire.value;
    return id.type != LPCFG::ipsecid_t::kDn || asn_dn_to_printable(wire.value, id.dn);
}

std::string Describe(const Identification& id) {
    return IdentityTypeName(id.type) + " " + Value(id);
}

}  // namespace ikeauth
