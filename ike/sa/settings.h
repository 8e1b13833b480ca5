// What one side of an exchange is told to do.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "ike/credentials.h"
#include "ike/crypto/suites.h"
#include "ike/sa/report.h"

namespace ikeauth {

/// Smallest and largest IP datagram that a fragment may fill.
inline constexpr std::size_t kMinFragmentBytes = 256;
inline constexpr std::size_t kMaxFragmentBytes = 65000;

struct ExchangeSettings {
    const LPCFG::auth_ike_t* rule = nullptr;  // borrowed
    Faults faults{};
    SaOffer offer = DefaultOffer();
    PayloadForm form = PayloadForm::kX509;
    std::string preshared_key{};  // name in the store; empty: certificates
    bool classic = false;  // announce no hashes: RFC 7427 is not used
    bool pss = false;  // sign with RSASSA-PSS where the key is RSA
    bool want_child = false;  // even if the peer offers to do without
    std::size_t fragment_bytes = 1280;  // IP datagram
    std::chrono::milliseconds time_limit{10000};  // for each answer of the peer
    Clock clock = std::chrono::steady_clock::now;
};

/// Both ends of the path, for the detection of address translation: address bytes and port, in network order.
struct Endpoints {
    std::string local{};
    std::string remote{};

    bool is_ip6() const { return local.size() == kIp6Bytes; }
    /// The remote address, or its network of 64 bits: there whoever has one address has all.
    std::string Origin() const { return remote.substr(0, remote.size() == kIp6Bytes ? kIp6NetworkBytes : kIp4Bytes); }

  private:
    static constexpr std::size_t kIp4Bytes = 4;
    static constexpr std::size_t kIp6Bytes = 18;  // with the port
    static constexpr std::size_t kIp6NetworkBytes = 8;
};

}  // namespace ikeauth
