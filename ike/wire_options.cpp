#include "ike/wire_options.h"

#include <iostream>

namespace ikeauth {

bool ReadProposals(WireOptions& options) {
    std::string error;
    if (options.proposals.empty() || ReadOffer(options.proposals, options.settings.offer, error)) return true;
    std::cerr << "ikeauth: " << error << "\n";
    return false;
}

bool OpenCapture(const WireOptions& options, Capture& capture, std::string& error) {
    return (options.pcap.empty() || capture.OpenDatagrams(options.pcap, error)) &&
           (options.keys.empty() || capture.OpenKeys(options.keys, error));
}

}  // namespace ikeauth
