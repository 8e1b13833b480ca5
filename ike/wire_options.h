// Options of `probe` and `respond`: what both do with them.
#pragma once

#include <string>

#include "ike/sa/settings.h"
#include "ike/udp/capture.h"

namespace ikeauth {

/// Options that both sides share.
struct WireOptions {
    std::string config;
    std::string rule;
    std::string proposals;  // as people write them; empty: all
    std::string pcap;
    std::string keys;
    bool json = false;
    ExchangeSettings settings;
};
/// Reads the proposals into the settings. False, said on stderr.
bool ReadProposals(WireOptions& options);
bool OpenCapture(const WireOptions& options, Capture& capture, std::string& error);

}  // namespace ikeauth
