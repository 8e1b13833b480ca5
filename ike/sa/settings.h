// What one side of an exchange is told to do.
#pragma once

#include <algorithm>
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

    std::string RemoteAddress() const { return remote.substr(0, remote.size() - std::min(remote.size(), kPortBytes)); }

  private:
    static constexpr std::size_t kPortBytes = 2;
};

}  // namespace ikeauth
