// Proving who we are and judging who the peer is, once the keys are there: identities, certificates, AUTH.
#pragma once

#include <string>

#include "ike/crypto/keys.h"
#include "ike/sa/auth.h"
#include "ike/sa/report.h"
#include "ike/sa/settings.h"
#include "ike/wire/payloads.h"

namespace ikeauth {

/// What both sides know when IKE_SA_INIT is over.
struct AuthContext {
    const Suite* suite = nullptr;
    const SessionKeys* keys = nullptr;
    std::string initiator_message{};
    std::string responder_message{};
    std::string initiator_nonce{};
    std::string responder_nonce{};
};

/// One exchange's authentication, from the view of one side. Used by one thread.
class Authenticator {
  public:
    /// Settings and report are borrowed.
    Authenticator(const ExchangeSettings& settings, bool initiator, std::uint64_t spi, Report& report);

    /// Payloads that request certificates; none for a preshared key.
    void AddRequests(Payloads& out);
    /// Notes what the peer requests and announces, in whatever message it stands.
    void ReadRequests(const Payloads& in);

    /// Adds identity, certificates and AUTH. False with the outcome filled.
    bool Prove(const AuthContext& context, Payloads& out, Outcome& outcome);
    /// Judges the peer's. False with the outcome filled.
    bool Judge(const AuthContext& context, const Payloads& in, Outcome& outcome);

    /// What to announce in IKE_SA_INIT; empty: nothing.
    HashSet hashes() const { return settings_.classic ? HashSet() : AnnouncedHashes(); }
    const std::string& peer_name() const { return peer_name_; }
    const std::string& own_name() const { return own_name_; }
    std::chrono::nanoseconds module_time() const { return credentials_.module_time(); }

  private:
    AuthInput InputOf(const AuthContext& context, bool of_initiator, const std::string& identity) const;
    std::string Octets(const AuthContext& context, bool of_initiator, const std::string& identity) const;
    bool ProveByCertificate(const AuthContext& context, Payloads& out, Outcome& outcome);
    bool ProveByPresharedKey(const AuthContext& context, Payloads& out, Outcome& outcome);
    bool AddIdentity(const LPCFG::ipsecid_t& id, Payloads& out, std::string& body);
    bool AddCertificates(Payloads& out, Outcome& outcome);
    bool ReadIdentity(const Payload* payload, Identification& wire, LPCFG::ipsecid_t& id, Outcome& outcome);
    bool JudgeByCertificate(const std::string& octets, const LPCFG::ipsecid_t& id, const AuthData& auth,
                            const Payloads& in, Outcome& outcome);
    bool JudgeByPresharedKey(const std::string& octets, const Algorithm& prf, const AuthData& auth, Outcome& outcome);
    std::vector<CertPayload> ReadCertificates(const Payloads& in);
    static bool Fail(Outcome& outcome, Ending ending, std::string reason, std::string_view advice = {});

    const ExchangeSettings& settings_;
    const bool initiator_;
    Report& report_;
    Credentials credentials_;
    CertRequests peer_requests_{.format = CM::kPublicKeySha1};
    HashSet peer_hashes_;
    std::string peer_name_;
    std::string own_name_;
};

}  // namespace ikeauth
