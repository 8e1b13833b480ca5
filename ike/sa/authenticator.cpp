#include "ike/sa/authenticator.h"

#include <algorithm>

#include "ike/sa/identity.h"

namespace ikeauth {
namespace {

constexpr std::size_t kSha1Bytes = 20;
constexpr std::string_view kOtherCertAdvice =
    "see the log lines above for why the peer's first certificate, which its key belongs to, was not chosen";
constexpr std::size_t kMaxAuthorities = 4096;
constexpr std::size_t kMaxRequested = 1024;  // a responder names them in one datagram
constexpr std::size_t kMaxCertificates = 64;  // of one peer: each costs a decoding

std::uint8_t IdPayload(bool initiator) {
    return initiator ? kPayloadIdi : kPayloadIdr;
}

}  // namespace

Authenticator::Authenticator(const ExchangeSettings& settings, bool initiator, std::uint64_t spi, Report& report)
    : settings_(settings),
      initiator_(initiator),
      report_(report),
      credentials_(*settings.rule, settings.faults, ExchangeIdent(initiator, spi)) {}

bool Authenticator::Fail(Outcome& outcome, Ending ending, std::string reason, std::string_view advice) {
    outcome = {.ending = ending, .reason = std::move(reason), .advice = advice};
    return false;
}

void Authenticator::AddRequests(Payloads& out) {
    if (!settings_.preshared_key.empty()) return;
    const CertRequests requests = credentials_.AuthoritiesToRequest(CM::kPublicKeySha1);
    if (requests.authorities.empty()) return;
    if (requests.authorities.size() > kMaxRequested) {
        return report_.Add("requested", "any certificate: " + std::to_string(requests.authorities.size()) +
                                            " authorities are too many to name");
    }
    std::string hashes;
    for (const std::string& authority : requests.authorities) hashes += authority;
    out.push_back(MakePayload(kPayloadCertReq, CertData{.encoding = kCertX509, .data = hashes}));
    if (settings_.form == PayloadForm::kPkcs7) {
        out.push_back(MakePayload(kPayloadCertReq, CertData{.encoding = kCertPkcs7, .data = hashes}));
    }
    report_.Add("requested", "certificates under " + std::to_string(requests.authorities.size()) + " authorities");
}

void Authenticator::ReadRequests(const Payloads& in) {
    Notify notify;
    if (FindNotify(in, kSignatureHashes, notify) && !settings_.classic) {
        peer_hashes_ = DecodeHashes(notify.data);
        report_.Add("announced", "hashes of the peer's: " + Describe(peer_hashes_));
    }
    const std::size_t before = peer_requests_.authorities.size();
    for (const Payload& payload : in) {
        CertData request;
        if (payload.type != kPayloadCertReq || !Decode(payload.body, request)) continue;
        for (std::size_t at = 0; at + kSha1Bytes <= request.data.size(); at += kSha1Bytes) {
            if (peer_requests_.authorities.size() < kMaxAuthorities) {
                peer_requests_.authorities.push_back(request.data.substr(at, kSha1Bytes));
            }
        }
    }
    if (const std::size_t count = peer_requests_.authorities.size() - before; count != 0) {
        report_.Add("requested", "by the peer: certificates under " + std::to_string(count) + " authorities");
    }
}

AuthInput Authenticator::InputOf(const AuthContext& context, bool of_initiator, const std::string& identity) const {
    if (of_initiator) return {context.initiator_message, context.responder_nonce, identity};
    return {context.responder_message, context.initiator_nonce, identity};
}

std::string Authenticator::Octets(const AuthContext& context, bool of_initiator, const std::string& identity) const {
    const vpnfc::SecretString& key = of_initiator ? context.keys->initiator_identity : context.keys->responder_identity;
    return AuthOctets(InputOf(context, of_initiator, identity), *context.suite->prf, key.get());
}

bool Authenticator::AddIdentity(const LPCFG::ipsecid_t& id, Payloads& out, std::string& body) {
    const Identification wire = ToWire(id);
    out.push_back(MakePayload(IdPayload(initiator_), wire));
    body = out.back().body;
    report_.Add("chosen", "own identity " + Describe(wire));
    return true;
}

bool Authenticator::AddCertificates(Payloads& out, Outcome& outcome) {
    const PayloadForm form = settings_.form;
    std::vector<CertPayload> payloads;
    if (!credentials_.MakePayloads(form, peer_requests_, payloads)) {
        return Fail(outcome, Ending::kCannotSign, "the certificate payloads could not be encoded");
    }
    for (const CertPayload& payload : payloads) {
        out.push_back(
            MakePayload(kPayloadCert, CertData{.encoding = static_cast<std::uint8_t>(form), .data = payload.data}));
    }
    report_.Add("chosen", credentials_.cert()->info.subject + ", sent in " + std::to_string(payloads.size()) +
                              (form == PayloadForm::kPkcs7 ? " PKCS #7 payloads" : " X.509 payloads"));
    return true;
}

bool Authenticator::ProveByCertificate(const AuthContext& context, Payloads& out, Outcome& outcome) {
    if (!credentials_.Choose(peer_requests_)) {
        return Fail(outcome, Ending::kNoCertificate, "no local certificate for rule \"" + settings_.rule->name + "\"");
    }
    own_name_ = credentials_.cert()->info.subject;
    SignatureChoice choice;
    std::string why;
    std::string identity;
    if (!AddIdentity(credentials_.id(), out, identity) || !AddCertificates(out, outcome)) return false;
    if (!ChooseSignature(*credentials_.cert(), peer_hashes_, settings_.pss, choice, why)) {
        return Fail(outcome, Ending::kCannotSign, why);
    }
    report_.Add("chosen", "authentication by " + Describe(choice));
    std::string signature;
    AuthData auth{.method = choice.method};
    if (!credentials_.SignOctets(choice.alg, Octets(context, initiator_, identity), signature) ||
        !EncodeSignature(choice, signature, auth.data)) {
        return Fail(outcome, Ending::kCannotSign, "the token of " + own_name_ + " does not sign");
    }
    out.push_back(MakePayload(kPayloadAuth, auth));
    return true;
}

bool Authenticator::ProveByPresharedKey(const AuthContext& context, Payloads& out, Outcome& outcome) {
    const std::list<LPCFG::ipsecid_t>& ids = settings_.rule->id_local;
    if (ids.empty() || ids.front().any != 0) {
        return Fail(outcome, Ending::kNoPresharedKey, "id_local of the rule names no identity to announce",
                    "put the identity that belongs to the preshared key into id_local of the rule");
    }
    vpnfc::SecretString key;
    if (!credentials_.PresharedKey(settings_.preshared_key, key)) {
        return Fail(outcome, Ending::kNoPresharedKey,
                    "no preshared key \"" + settings_.preshared_key + "\" on any token");
    }
    std::string identity;
    AddIdentity(ids.front(), out, identity);
    own_name_ = Describe(ToWire(ids.front()));
    AuthData auth{.method = kMethodPresharedKey};
    auth.data = PresharedKeyAuth(*context.suite->prf, key.get(), Octets(context, initiator_, identity));
    out.push_back(MakePayload(kPayloadAuth, auth));
    report_.Add("chosen", "authentication by preshared key \"" + settings_.preshared_key + "\"");
    return true;
}

bool Authenticator::Prove(const AuthContext& context, Payloads& out, Outcome& outcome) {
    return settings_.preshared_key.empty() ? ProveByCertificate(context, out, outcome)
                                           : ProveByPresharedKey(context, out, outcome);
}

bool Authenticator::ReadIdentity(const Payload* payload, Identification& wire, LPCFG::ipsecid_t& id, Outcome& outcome) {
    if (payload == nullptr || !Decode(payload->body, wire)) {
        return Fail(outcome, Ending::kIdentityRefused, "the peer announces no identity",
                    "the peer breaks the protocol: report the exchange to its maker with --pcap");
    }
    report_.Add("received", "peer's identity " + Describe(wire));
    peer_name_ = Describe(wire);
    if (!FromWire(wire, id)) {
        return Fail(outcome, Ending::kIdentityRefused, "identities of this type are not supported: " + Describe(wire),
                    "give the peer a name, an e-mail address, an IPv4 address or a DN as its identity");
    }
    if (IsAllowedIdentity(settings_.rule->id_remote, id)) return true;
    return Fail(outcome, Ending::kIdentityRefused, "id_remote of the rule does not allow " + Describe(wire));
}

std::vector<CertPayload> Authenticator::ReadCertificates(const Payloads& in) {
    std::vector<CertPayload> certificates;
    for (const Payload& payload : in) {
        CertData cert;
        if (payload.type != kPayloadCert || !Decode(payload.body, cert)) continue;
        const bool known = cert.encoding == kCertX509 || cert.encoding == kCertPkcs7;
        if (!known || certificates.size() >= kMaxCertificates) {
            report_.Add("ignored", "a certificate payload of encoding " + std::to_string(cert.encoding));
            continue;
        }
        certificates.push_back({.form = static_cast<PayloadForm>(cert.encoding), .data = std::move(cert.data)});
    }
    report_.Add("received", std::to_string(certificates.size()) + " certificate payloads");
    return certificates;
}

bool Authenticator::JudgeByCertificate(const std::string& octets, const LPCFG::ipsecid_t& id, const AuthData& auth,
                                       const Payloads& in, Outcome& outcome) {
    const std::vector<CertPayload> certificates = ReadCertificates(in);
    const CM::CertRef peer = credentials_.JudgePeer(id, certificates);
    if (!peer) return Fail(outcome, Ending::kCertificateRefused, "the certificate of " + peer_name_ + " is refused");
    peer_name_ = peer->info.subject;
    report_.Add("judged", "certificate accepted: " + peer_name_);
    pki_alg_t alg = 0;
    std::string signature;
    std::string why;
    const SignaturePolicy policy{
        .public_key = peer->rawPubKey, .announced = hashes(), .newer_agreed = !peer_hashes_.empty()};
    if (!DecodeSignature(auth, policy, alg, signature, why)) {
        return Fail(outcome, Ending::kMethodRefused, why,
                    "make the peer sign with SHA-256, SHA-384 or SHA-512, by digital signature (RFC 7427)");
    }
    const std::string method = Describe(SignatureChoice{auth.method, alg});
    if (!credentials_.VerifyOctets(*peer, alg, octets, signature)) {
        const std::string reason = "the signature of " + peer_name_ + " is wrong (" + method + ")";
        // The signature is by the key of the first one sent (RFC 7296, 3.6), which may be another of the same identity.
        const bool sent_other = !certificates.empty() && certificates.front().form == PayloadForm::kX509 &&
                                certificates.front().data != peer->rawCert;
        if (!sent_other) return Fail(outcome, Ending::kSignatureWrong, reason);
        return Fail(outcome, Ending::kSignatureWrong, reason + "; the peer sent another certificate first",
                    kOtherCertAdvice);
    }
    report_.Add("judged", "signature right: " + method);
    return true;
}

bool Authenticator::JudgeByPresharedKey(const std::string& octets, const Algorithm& prf, const AuthData& auth,
                                        Outcome& outcome) {
    vpnfc::SecretString key;
    if (!credentials_.PresharedKey(settings_.preshared_key, key)) {
        return Fail(outcome, Ending::kNoPresharedKey,
                    "no preshared key \"" + settings_.preshared_key + "\" on any token");
    }
    if (!EqualSecret(auth.data, PresharedKeyAuth(prf, key.get(), octets))) {
        return Fail(outcome, Ending::kPresharedKeyWrong, "the preshared key of " + peer_name_ + " is another one");
    }
    report_.Add("judged", "preshared key right");
    return true;
}

bool Authenticator::Judge(const AuthContext& context, const Payloads& in, Outcome& outcome) {
    Identification wire;
    LPCFG::ipsecid_t id;
    const Payload* identity = FindPayload(in, IdPayload(!initiator_));
    if (!ReadIdentity(identity, wire, id, outcome)) return false;
    const Payload* payload = FindPayload(in, kPayloadAuth);
    AuthData auth;
    if (payload == nullptr || !Decode(payload->body, auth)) {
        return Fail(outcome, Ending::kMethodRefused, "the peer sends no authentication data: it may want EAP");
    }
    report_.Add("received", "authentication by " + AuthMethodName(auth.method));
    if ((auth.method == kMethodPresharedKey) == settings_.preshared_key.empty()) {
        return Fail(outcome, Ending::kMethodRefused,
                    "the peer authenticates by " + AuthMethodName(auth.method) +
                        (settings_.preshared_key.empty() ? ", the rule by certificate" : ", not by preshared key"));
    }
    const std::string octets = Octets(context, !initiator_, identity->body);
    return settings_.preshared_key.empty() ? JudgeByCertificate(octets, id, auth, in, outcome)
                                           : JudgeByPresharedKey(octets, *context.suite->prf, auth, outcome);
}

}  // namespace ikeauth
