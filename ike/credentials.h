// What a side needs of the module to authenticate: its own certificate, the peer's, signatures.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "certmgr/ike.h"
#include "platform/base.h"
#include "platform/eventlog.h"
#include "platform/policy.h"

namespace ikeauth {

/// Form of the certificate payloads; the values are those of the payloads.
enum class PayloadForm : std::uint32_t { kX509 = 4, kPkcs7 = 1 };

/// What a faulty peer would do, to show how the other side refuses it.
struct Faults {
    bool careless = false;  // take the first personal certificate without judging it
    bool leaf_only = false;  // send no intermediate certificates
    bool damage_signature = false;  // turn a bit of the authentication data
    std::string announce_fqdn{};  // announce this identity instead of the certificate's
    std::string before_signing{};  // shell command that runs just before the signature is made
};

/// The peer's certificate requests.
struct CertRequests {
    CM::CertDataFormat format = CM::kSubjectNameDer;
    std::vector<std::string> authorities{};
};

struct CertPayload {
    PayloadForm form = PayloadForm::kX509;
    std::string data{};
};

/// Whether the rule lets a peer announce that identity. An empty list lets any.
bool IsAllowedIdentity(const std::list<LPCFG::ipsecid_t>& allowed, const LPCFG::ipsecid_t& announced);

/// An exchange in the log.
TLogIdent ExchangeIdent(bool initiator, std::uint64_t id);

/// One exchange's calls of the module. The module is started and loaded. Used by one thread.
class Credentials {
  public:
    /// The rule and the faults are borrowed.
    Credentials(const LPCFG::auth_ike_t& rule, const Faults& faults, const TLogIdent& ident)
        : rule_(rule), faults_(faults), ident_(ident) {}

    const LPCFG::auth_ike_t& rule() const { return rule_; }
    const TLogIdent& ident() const { return ident_; }

    /// The authorities to request from the peer.
    CertRequests AuthoritiesToRequest(CM::CertDataFormat format);
    /// Has the clients of the management bridge choose when several certificates fit; otherwise the first is taken.
    void LetUserChoose() { search_ = CM::kIgnoreBoundCollect; }
    /// Chooses certificate and identity. False when there is none to be used; the log says why.
    bool Choose(const CertRequests& requests);
    /// Of the chosen certificate.
    const CM::X509Cert* cert() const { return cert_.get(); }
    const LPCFG::ipsecid_t& id() const { return id_; }
    /// The certificate and what is above it, as far as the peer's requests go.
    bool MakePayloads(PayloadForm form, const CertRequests& requests, std::vector<CertPayload>& payloads);
    /// IKEv2: octets; IKEv1: a hash.
    bool SignOctets(pki_alg_t alg, const std::string& octets, std::string& signature);
    bool SignHash(const std::string& hash, std::string& signature);

    /// The peer's certificate, or null; the log says why.
    CM::CertRef JudgePeer(const LPCFG::ipsecid_t& id, const std::vector<CertPayload>& payloads);
    bool VerifyOctets(const CM::X509Cert& peer, pki_alg_t alg, const std::string& octets, const std::string& signature);
    bool VerifyHash(const CM::X509Cert& peer, const std::string& hash, std::string signature);
    bool PresharedKey(const std::string& name, vpnfc::SecretString& key);

    /// Spent in the module so far.
    std::chrono::nanoseconds module_time() const { return module_time_; }

  private:
    void ChooseCarelessly();
    void ChooseByRule(const CertRequests& requests);
    void ChooseIdentity();
    bool RunBeforeSigning() const;
    bool Damage(bool signed_ok, std::string& signature) const;

    const LPCFG::auth_ike_t& rule_;
    const Faults& faults_;
    TLogIdent ident_;
    CM::UseHandleFromAuthType search_ = CM::kIgnoreBoundFirst;
    CM::CertRef cert_;
    LPCFG::ipsecid_t id_;
    std::chrono::nanoseconds module_time_{0};
};

}  // namespace ikeauth
