#include "ike/side.h"

#include "ike/crypto/keys.h"
#include "ike/sa/association.h"

namespace ikeauth {

Side::Side(const LPCFG::auth_ike_t& rule, const SideOptions& options, Channel& channel)
    : options_(options),
      channel_(channel),
      credentials_(rule, options.faults, ExchangeIdent(options.initiator, MakeSpi())) {
    if (options.asks) credentials_.LetUserChoose();
}

bool Side::Run(std::string& verdict) {
    if (!ExchangeHellos(verdict)) return false;
    if (options_.initiator) return Authenticate(verdict) && VerifyPeer(verdict);
    return VerifyPeer(verdict) && Authenticate(verdict);
}

bool Side::ExchangeHellos(std::string& verdict) {
    own_hello_.nonce = RandomBytes(kNonceBytes);
    // IKEv2 names authorities by key hash, IKEv1 by name.
    own_hello_.requests = credentials_.AuthoritiesToRequest(
        options_.version == IkeVersion::kIke2 ? CM::kPublicKeySha1 : CM::kSubjectNameDer);
    own_hello_bytes_ = own_hello_.Encode();
    if (channel_.Send(own_hello_bytes_) && channel_.Receive(peer_hello_bytes_) &&
        peer_hello_.Decode(peer_hello_bytes_)) {
        return true;
    }
    verdict = "the peer's first message did not come";
    return false;
}

bool Side::EncodePayloads(Authentication& message) {
    std::vector<CertPayload> payloads;
    message.form = options_.form;
    if (!credentials_.MakePayloads(options_.form, peer_hello_.requests, payloads)) return false;
    for (CertPayload& payload : payloads) message.payloads.push_back(std::move(payload.data));
    return true;
}

bool Side::Sign(Authentication& message) {
    const SignedInput input{own_hello_bytes_, peer_hello_bytes_, peer_hello_.nonce, message.id_type, message.id_value};
    const CM::X509Cert* cert = credentials_.cert();
    if (options_.version == IkeVersion::kIke2) {
        message.sign_alg = CM::Ike2GetSignAlg(cert);
        return credentials_.SignOctets(message.sign_alg, SignedOctets(input), message.signature);
    }
    message.sign_alg = CM::GetCertKeyAlg(cert);
    return credentials_.SignHash(ExchangeHash(input, message.sign_alg), message.signature);
}

bool Side::Authenticate(std::string& verdict) {
    if (!credentials_.Choose(peer_hello_.requests)) {
        verdict = "no local certificate for rule '" + credentials_.rule().name + "'";
        return false;
    }
    Authentication message;
    message.id_type = credentials_.id().type;
    message.id_value = credentials_.id().value;
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
    verdict =
        "authenticated as " + credentials_.cert()->info.subject + (peer_name_.empty() ? "" : ", peer " + peer_name_);
    return true;
}

bool Side::VerifySignature(const CM::X509Cert& peer, const Authentication& message) {
    const SignedInput input{peer_hello_bytes_, own_hello_bytes_, own_hello_.nonce, message.id_type, message.id_value};
    if (options_.version == IkeVersion::kIke2) {
        return credentials_.VerifyOctets(peer, message.sign_alg, SignedOctets(input), message.signature);
    }
    return credentials_.VerifyHash(peer, ExchangeHash(input, CM::GetCertKeyAlg(&peer)), message.signature);
}

bool Side::VerifyPeer(std::string& verdict) {
    std::string bytes;
    Authentication message;
    if (!channel_.Receive(bytes) || !message.Decode(bytes)) {
        verdict = "the peer sent no authentication";
        return false;
    }
    std::vector<CertPayload> payloads;
    for (std::string& payload : message.payloads) payloads.push_back({message.form, std::move(payload)});

    LPCFG::ipsecid_t peer_id;
    peer_id.type = message.id_type;
    peer_id.value = message.id_value;
    if (peer_id.type == LPCFG::ipsecid_t::kDn) asn_dn_to_printable(message.id_value, peer_id.dn);
    if (!IsAllowedIdentity(credentials_.rule().id_remote, peer_id)) {
        verdict = "the peer announces an identity that id_remote does not allow";
        return false;
    }
    const CM::CertRef peer = credentials_.JudgePeer(peer_id, payloads);
    if (!peer) {
        verdict = "the peer's certificate is refused";
        return false;
    }
    if (!VerifySignature(*peer, message)) {
        verdict = "the peer's authentication data is wrong";
        return false;
    }
    peer_name_ = peer->info.subject;
    const CM::X509Cert* own = credentials_.cert();
    verdict = (own != nullptr ? "authenticated as " + own->info.subject + ", " : std::string()) + "peer " + peer_name_;
    return true;
}

}  // namespace ikeauth
