#include "ike/side.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstdlib>

#include "certmgr/cert_storage.h"
#include "certmgr/chain.h"

namespace ikeauth {
namespace {

constexpr std::size_t kNonceBytes = 32;

std::string RandomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count));
    return bytes;
}

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

void AddRequest(const std::string& datum, void* hello) {
    static_cast<Hello*>(hello)->requests.push_back(datum);
}

bool IsRequested(const std::string& value, void* hello) {
    const std::vector<std::string>& requests = static_cast<const Hello*>(hello)->requests;
    return std::find(requests.begin(), requests.end(), value) != requests.end();
}

TLogIdent MakeIdent(bool initiator) {
    TLogIdent ident;
    ident.kind = TLogIdent::kExchange;
    ident.role = initiator ? TLogIdent::kInitiator : TLogIdent::kResponder;
    ident.sub_id = 1;
    for (const char byte : RandomBytes(sizeof ident.id)) ident.id = ident.id << 8U | static_cast<unsigned char>(byte);
    return ident;
}

/// All that the store has above the certificate, trusted or not, as a careless sender would send it.
void BuildCarelessChain(HandleList& chain, const CM::X509Cert* cert) {
    std::vector<CM::X509Cert*> members{const_cast<CM::X509Cert*>(CM::CertRef(cert).Detach())};
    CMT_BuildCertChain(members, {}, SearchTrusted | SearchOther | SearchPersonal);
    chain.handles.assign(members.begin(), members.end());
}

/// Whether the rule lets a peer announce that identity. An empty list lets any.
bool IsAllowedIdentity(const std::list<LPCFG::ipsecid_t>& allowed, const LPCFG::ipsecid_t& announced) {
    return allowed.empty() || std::any_of(allowed.begin(), allowed.end(), [&](const LPCFG::ipsecid_t& entry) {
               if (entry.type != announced.type || announced.value.empty()) return false;
               if (entry.any != 0) return true;
               return entry.type == LPCFG::ipsecid_t::kDn ? entry.dn == announced.dn : entry.value == announced.value;
           });
}

}  // namespace

Side::Side(const LPCFG::auth_ike_t& rule, const SideOptions& options, Channel& channel)
    : rule_(rule), options_(options), channel_(channel), ident_(MakeIdent(options.initiator)) {}

bool Side::Run(std::string& verdict) {
    if (!ExchangeHellos(verdict)) return false;
    if (options_.initiator) return Authenticate(verdict) && VerifyPeer(verdict);
    return VerifyPeer(verdict) && Authenticate(verdict);
}

void Side::CollectRequests() {
    // IKEv2 names authorities by key hash, IKEv1 by name.
    own_hello_.request_format = options_.version == IkeVersion::kIke2 ? CM::kPublicKeySha1 : CM::kSubjectNameDer;
    CM::IkeBuildCertRequestList(AddRequest, &own_hello_, own_hello_.request_format, &rule_, ident_);
}

bool Side::ExchangeHellos(std::string& verdict) {
    own_hello_.nonce = RandomBytes(kNonceBytes);
    CollectRequests();
    own_hello_bytes_ = own_hello_.Encode();
    if (channel_.Send(own_hello_bytes_) && channel_.Receive(peer_hello_bytes_) &&
        peer_hello_.Decode(peer_hello_bytes_)) {
        return true;
    }
    verdict = "the peer's first message did not come";
    return false;
}

bool Side::ChooseCertificate(std::string& verdict) {
    if (options_.careless) {
        CM::CertStorage& store = CM::CertStorage::Instance();
        const vpnfc::ReadLock lock(store);
        if (!store.personalCerts.empty()) cert_ = CM::CertRef(store.personalCerts[0]);
        if (!rule_.id_local.empty()) id_ = rule_.id_local.front();
    } else {
        CM::IkeCertRequestIter requests{static_cast<std::int32_t>(peer_hello_.request_format), IsRequested,
                                        &peer_hello_};
        const CM::SelectLocalResult result = CM::IkeSelectLocalCertificate(
            &id_, rule_, CM::kIgnoreBoundFirst, nullptr, peer_hello_.requests.empty() ? nullptr : &requests, ident_);
        CM::CertRef selected = CM::CertRef::Adopt(result.cert);
        if (result.status == CM::kLocalAccepted) cert_ = std::move(selected);
    }
    if (!cert_) {
        verdict = "no local certificate for rule '" + rule_.name + "'";
        return false;
    }
    if (!options_.announce_fqdn.empty()) {
        id_.type = LPCFG::ipsecid_t::kFqdn;
        id_.value = options_.announce_fqdn;
    } else if (id_.value.empty()) {
        id_.type = LPCFG::ipsecid_t::kDn;
        id_.value = cert_->rawSubject;
    }
    return true;
}

std::uint32_t Side::CertificatesToSend(const std::vector<const CM::X509Cert*>& chain) const {
    if (options_.leaf_only) return 1;
    for (const std::string& authority : peer_hello_.requests) {
        const std::uint32_t count = CM::CutCertChainLength(chain, peer_hello_.request_format, authority.data(),
                                                           static_cast<std::uint32_t>(authority.size()));
        if (count != 0) return count;
    }
    return static_cast<std::uint32_t>(chain.size());
}

bool Side::EncodePayloads(Authentication& message) {
    HandleList chain;
    if (options_.careless) {
        BuildCarelessChain(chain, cert_.get());
    } else if (!CM::BuildLocalCertChain(chain.handles, cert_.get(), ident_)) {
        chain.handles.push_back(CM::CertRef(cert_.get()).Detach());
    }
    const std::uint32_t count = CertificatesToSend(chain.handles);
    message.form = options_.form;
    if (message.form == PayloadForm::kPkcs7) {
        return CM::VCertsListToRawPKCS7(chain.handles, count, message.payloads.emplace_back(), ident_);
    }
    return std::all_of(chain.handles.begin(), chain.handles.begin() + count, [&](const CM::X509Cert* cert) {
        return CM::VCertHandleToRawX509(cert, message.payloads.emplace_back(), ident_);
    });
}

bool Side::Sign(Authentication& message) {
    if (!options_.before_signing.empty()) {
        if (std::system(options_.before_signing.c_str()) != 0) return false;  // NOLINT(cert-env33-c): the caller's own
        PKCS11::Manager::Instance().ReloadTokensContent(1);  // what it did to the tokens is seen before they sign
    }
    const SignedInput input{own_hello_bytes_, peer_hello_bytes_, peer_hello_.nonce, message.id_type, message.id_value};
    bool signed_ok = false;
    if (options_.version == IkeVersion::kIke2) {
        message.sign_alg = CM::Ike2GetSignAlg(cert_.get());
        signed_ok = CM::Ike2Sign(cert_.get(), message.sign_alg, SignedOctets(input), message.signature, ident_);
    } else {
        message.sign_alg = CM::GetCertKeyAlg(cert_.get());
        signed_ok = CM::IkeSign(cert_.get(), ExchangeHash(input, message.sign_alg), message.signature, ident_);
    }
    if (signed_ok && options_.damage_signature)
        message.signature.back() = static_cast<char>(message.signature.back() ^ 1);
    return signed_ok;
}

bool Side::Authenticate(std::string& verdict) {
    if (!ChooseCertificate(verdict)) return false;
    Authentication message;
    message.id_type = id_.type;
    message.id_value = id_.value;
    if (!EncodePayloads(message)) {
        verdict = "the certificate payloads could not be encoded";
        return false;
    }
    if (!Sign(message)) {
        verdict = "the authentication data could not be signed";
        return false;
    }
    if (!channel_.Send(message.Encode())) {
        verdict = "the peer has gone";
        return false;
    }
    verdict = "authenticated as " + cert_->info.subject + (peer_name_.empty() ? "" : ", peer " + peer_name_);
    return true;
}

bool Side::VerifyPeer(std::string& verdict) {
    std::string bytes;
    Authentication message;
    if (!channel_.Receive(bytes) || !message.Decode(bytes)) {
        verdict = "the peer sent no authentication";
        return false;
    }
    HandleList received;
    for (const std::string& payload : message.payloads) {
        const auto decode = message.form == PayloadForm::kPkcs7 ? CM::VCertsListAddRawPKCS7 : CM::VCertsListAddRawX509;
        decode(received.handles, payload.data(), static_cast<unsigned>(payload.size()), ident_);
    }

    LPCFG::ipsecid_t peer_id;
    peer_id.type = message.id_type;
    peer_id.value = message.id_value;
    if (peer_id.type == LPCFG::ipsecid_t::kDn) asn_dn_to_printable(message.id_value, peer_id.dn);
    if (!IsAllowedIdentity(rule_.id_remote, peer_id)) {
        verdict = "the peer announces an identity that id_remote does not allow";
        return false;
    }

    const CM::CertRef peer = CM::CertRef::Adopt(
        CM::IkeVerifyPeerCertificate(rule_, peer_id, received.handles, rule_.crlProcessing, rule_.crlServer, ident_));
    if (!peer) {
        verdict = "the peer's certificate is refused";
        return false;
    }
    const SignedInput input{peer_hello_bytes_, own_hello_bytes_, own_hello_.nonce, message.id_type, message.id_value};
    const bool verified =
        options_.version == IkeVersion::kIke2
            ? CM::Ike2Verify(peer.get(), message.sign_alg, SignedOctets(input), message.signature, ident_)
            : CM::IkeVerify(peer.get(), ExchangeHash(input, CM::GetCertKeyAlg(peer.get())), message.signature, ident_);
    if (!verified) {
        verdict = "the peer's authentication data is wrong";
        return false;
    }
    peer_name_ = peer->info.subject;
    verdict = (cert_ ? "authenticated as " + cert_->info.subject + ", " : std::string()) + "peer " + peer_name_;
    return true;
}

}  // namespace ikeauth
