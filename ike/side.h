// One side of an exchange: initiator or responder, with the module and its own tokens and rules.
#pragma once

#include <optional>
#include <string>

#include "ike/channel.h"
#include "ike/messages.h"
#include "platform/eventlog.h"
#include "platform/policy.h"

namespace ikeauth {

struct SideOptions {
    bool initiator = true;
    IkeVersion version = IkeVersion::kIke2;
    PayloadForm form = PayloadForm::kX509;

    // What a faulty peer would do, to show how the other side refuses it.
    bool careless = false;  // take the first personal certificate without judging it
    bool leaf_only = false;  // send no intermediate certificates
    bool damage_signature = false;  // turn a bit of the authentication data
    std::string announce_fqdn;  // announce this identity instead of the certificate's
    std::string before_signing;  // shell command that runs just before the signature is made
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

    bool ChooseCertificate(std::string& verdict);
    bool EncodePayloads(Authentication& message);
    bool Sign(Authentication& message);
    void CollectRequests();
    std::uint32_t CertificatesToSend(const std::vector<const CM::X509Cert*>& chain) const;

    const LPCFG::auth_ike_t& rule_;
    const SideOptions& options_;
    Channel& channel_;
    TLogIdent ident_;

    Hello own_hello_;
    Hello peer_hello_;
    std::string own_hello_bytes_;
    std::string peer_hello_bytes_;

    CM::CertRef cert_;
    LPCFG::ipsecid_t id_;
    std::string peer_name_;
};

}  // namespace ikeauth
