#include "ike/credentials.h"

#include <algorithm>
#include <cstdlib>

#include "certmgr/cert_storage.h"
#include "certmgr/chain.h"

namespace ikeauth {
namespace {

/// Adds the time that a scope takes.
class Timed {
  public:
    explicit Timed(std::chrono::nanoseconds& sum) : sum_(sum) {}
    ~Timed() { sum_ += std::chrono::steady_clock::now() - start_; }
    Timed(const Timed&) = delete;
    Timed& operator=(const Timed&) = delete;

  private:
    std::chrono::nanoseconds& sum_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Handles of the module in a vector, given back at the end.
struct HandleList {
    HandleList() = default;
    ~HandleList() {
        for (const CM::X509Cert* cert : handles) CM::VCertHandleClose(cert);
    }
    HandleList(const HandleList&) = delete;
    HandleList& operator=(const HandleList&) = delete;

    std::vector<const CM::X509Cert*> handles;
};

void AddRequest(const std::string& datum, void* requests) {
    static_cast<CertRequests*>(requests)->authorities.push_back(datum);
}

bool IsRequested(const std::string& value, void* requests) {
    const std::vector<std::string>& list = static_cast<const CertRequests*>(requests)->authorities;
    return std::find(list.begin(), list.end(), value) != list.end();
}

/// All that the store has above the certificate, trusted or not, as a careless sender would send it.
void BuildCarelessChain(HandleList& chain, const CM::X509Cert* cert) {
    std::vector<CM::X509Cert*> members{const_cast<CM::X509Cert*>(CM::CertRef(cert).Detach())};
    CMT_BuildCertChain(members, {}, SearchTrusted | SearchOther | SearchPersonal);
    chain.handles.assign(members.begin(), members.end());
}

std::uint32_t CertificatesToSend(const std::vector<const CM::X509Cert*>& chain, const CertRequests& requests) {
    for (const std::string& authority : requests.authorities) {
        const std::uint32_t count = CM::CutCertChainLength(chain, requests.format, authority.data(),
                                                           static_cast<std::uint32_t>(authority.size()));
        if (count != 0) return count;
    }
    return static_cast<std::uint32_t>(chain.size());
}

}  // namespace

TLogIdent ExchangeIdent(bool initiator, std::uint64_t id) {
    TLogIdent ident;
    ident.kind = TLogIdent::kExchange;
    ident.role = initiator ? TLogIdent::kInitiator : TLogIdent::kResponder;
    ident.id = id;
    ident.sub_id = 1;
    return ident;
}

bool IsAllowedIdentity(const std::list<LPCFG::ipsecid_t>& allowed, const LPCFG::ipsecid_t& announced) {
    return allowed.empty() || std::any_of(allowed.begin(), allowed.end(), [&](const LPCFG::ipsecid_t& entry) {
               if (entry.type != announced.type || announced.value.empty()) return false;
               if (entry.any != 0) return true;
               return entry.type == LPCFG::ipsecid_t::kDn ? entry.dn == announced.dn : entry.value == announced.value;
           });
}

CertRequests Credentials::AuthoritiesToRequest(CM::CertDataFormat format) {
    const Timed timed(module_time_);
    CertRequests requests{.format = format};
    CM::IkeBuildCertRequestList(AddRequest, &requests, format, &rule_, ident_);
    return requests;
}

void Credentials::ChooseCarelessly() {
    CM::CertStorage& store = CM::CertStorage::Instance();
    const vpnfc::ReadLock lock(store);
    if (!store.personalCerts.empty()) cert_ = CM::CertRef(store.personalCerts[0]);
    if (!rule_.id_local.empty()) id_ = rule_.id_local.front();
}

void Credentials::ChooseByRule(const CertRequests& requests) {
    CM::IkeCertRequestIter iterator{static_cast<std::int32_t>(requests.format), IsRequested,
                                    const_cast<CertRequests*>(&requests)};
    const CM::SelectLocalResult result = CM::IkeSelectLocalCertificate(
        &id_, rule_, search_, nullptr, requests.authorities.empty() ? nullptr : &iterator, ident_);
    CM::CertRef selected = CM::CertRef::Adopt(result.cert);
    if (result.status == CM::kLocalAccepted) cert_ = std::move(selected);
}

void Credentials::ChooseIdentity() {
    if (!faults_.announce_fqdn.empty()) {
        id_.type = LPCFG::ipsecid_t::kFqdn;
        id_.value = faults_.announce_fqdn;
    } else if (id_.value.empty()) {
        id_.type = LPCFG::ipsecid_t::kDn;
        id_.value = cert_->rawSubject;
    }
}

bool Credentials::Choose(const CertRequests& requests) {
    const Timed timed(module_time_);
    if (faults_.careless) {
        ChooseCarelessly();
    } else {
        ChooseByRule(requests);
    }
    if (!cert_) return false;
    ChooseIdentity();
    return true;
}

bool Credentials::MakePayloads(PayloadForm form, const CertRequests& requests, std::vector<CertPayload>& payloads) {
    const Timed timed(module_time_);
    HandleList chain;
    if (faults_.careless) {
        BuildCarelessChain(chain, cert_.get());
    } else if (!CM::BuildLocalCertChain(chain.handles, cert_.get(), ident_)) {
        chain.handles.push_back(CM::CertRef(cert_.get()).Detach());
    }
    const std::uint32_t count = faults_.leaf_only ? 1 : CertificatesToSend(chain.handles, requests);
    if (form == PayloadForm::kPkcs7) {
        payloads.push_back({.form = form});
        return CM::VCertsListToRawPKCS7(chain.handles, count, payloads.back().data, ident_);
    }
    return std::all_of(chain.handles.begin(), chain.handles.begin() + count, [&](const CM::X509Cert* cert) {
        payloads.push_back({.form = form});
        return CM::VCertHandleToRawX509(cert, payloads.back().data, ident_);
    });
}

bool Credentials::RunBeforeSigning() const {
    if (faults_.before_signing.empty()) return true;
    if (std::system(faults_.before_signing.c_str()) != 0) return false;  // NOLINT(cert-env33-c): the caller's own
    PKCS11::Manager::Instance().ReloadTokensContent(1);  // what it did to the tokens is seen before they sign
    return true;
}

bool Credentials::Damage(bool signed_ok, std::string& signature) const {
    if (signed_ok && faults_.damage_signature) signature.back() = static_cast<char>(signature.back() ^ 1);
    return signed_ok;
}

bool Credentials::SignOctets(pki_alg_t alg, const std::string& octets, std::string& signature) {
    if (!RunBeforeSigning()) return false;
    const Timed timed(module_time_);
    return Damage(CM::Ike2Sign(cert_.get(), alg, octets, signature, ident_), signature);
}

bool Credentials::SignHash(const std::string& hash, std::string& signature) {
    if (!RunBeforeSigning()) return false;
    const Timed timed(module_time_);
    return Damage(CM::IkeSign(cert_.get(), hash, signature, ident_), signature);
}

CM::CertRef Credentials::JudgePeer(const LPCFG::ipsecid_t& id, const std::vector<CertPayload>& payloads) {
    const Timed timed(module_time_);
    HandleList received;
    for (const CertPayload& payload : payloads) {
        const auto decode = payload.form == PayloadForm::kPkcs7 ? CM::VCertsListAddRawPKCS7 : CM::VCertsListAddRawX509;
        decode(received.handles, payload.data.data(), static_cast<unsigned>(payload.data.size()), ident_);
    }
    return CM::CertRef::Adopt(
        CM::IkeVerifyPeerCertificate(rule_, id, received.handles, rule_.crlProcessing, rule_.crlServer, ident_));
}

bool Credentials::VerifyOctets(const CM::X509Cert& peer, pki_alg_t alg, const std::string& octets,
                               const std::string& signature) {
    const Timed timed(module_time_);
    return CM::Ike2Verify(&peer, alg, octets, signature, ident_);
}

bool Credentials::VerifyHash(const CM::X509Cert& peer, const std::string& hash, std::string signature) {
    const Timed timed(module_time_);
    return CM::IkeVerify(&peer, hash, signature, ident_);
}

bool Credentials::PresharedKey(const std::string& name, vpnfc::SecretString& key) {
    const Timed timed(module_time_);
    return CM::GetPresharedKeyByName(name.c_str(), key.edit()) && !key.empty();
}

}  // namespace ikeauth
