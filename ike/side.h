// One side of an exchange: initiator or responder, with the module and its own tokens and rules.
#pragma once

#include <string>

#include "ike/channel.h"
#include "ike/credentials.h"
#include "ike/messages.h"
#include "platform/policy.h"

namespace ikeauth {

struct SideOptions {
    bool initiator = true;
    IkeVersion version = IkeVersion::kIke2;
    PayloadForm form = PayloadForm::kX509;
    bool asks = false;  // clients of the bridge choose among several certificates
    Faults faults;
};

/// Runs one exchange over the channel. The module is started and loaded. Used once, by one thread.
class Side {
  public:
    Side(const LPCFG::auth_ike_t& rule, const SideOptions& options, Channel& channel);

    /// Authenticates to the peer and the peer to us. On failure `verdict` says at which step.
    bool Run(std::string& verdict);

  private:
    bool ExchangeHellos(std::string& verdict);
    bool Authenticate(std::string& verdict);
    bool VerifyPeer(std::string& verdict);
    bool EncodePayloads(Authentication& message);
    bool Sign(Authentication& message);
    bool VerifySignature(const CM::X509Cert& peer, const Authentication& message);

    const SideOptions& options_;
    Channel& channel_;
    Credentials credentials_;

    Hello own_hello_;
    Hello peer_hello_;
    std::string own_hello_bytes_;
    std::string peer_hello_bytes_;
    std::string peer_name_;
};

}  // namespace ikeauth
