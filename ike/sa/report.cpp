#include "ike/sa/report.h"

namespace ikeauth {

const std::vector<EndingInfo>& Endings() {
    // Stages and their codes are in --help, made from this table.
    static const std::vector<EndingInfo> table = {
        {Ending::kAuthenticated, "authenticated", "done", 0, "nothing to do: both sides accept each other"},
        {Ending::kUnreachable, "unreachable", "reach", 10,
         "start the IKE daemon of the peer, or name its port with --port"},
        {Ending::kSilent, "silent", "reach", 10,
         "check the address, a firewall in between, and whether the peer has a configuration for this host"},
        {Ending::kGarbage, "not-ike", "reach", 11,
         "something that does not speak IKEv2 uses this port: check --port, and IKEv2 at the peer"},
        {Ending::kProposalsRefused, "proposals-refused", "negotiate", 12,
         "allow one of the proposed algorithms at the peer, or propose what it allows with --proposal"},
        {Ending::kInitRefused, "init-refused", "negotiate", 12,
         "look into the peer's log for the reason, at the time of this exchange"},
        {Ending::kInitInvalid, "init-invalid", "negotiate", 12,
         "the peer breaks the protocol: look for a newer version of it, and report the exchange with --pcap"},
        {Ending::kMalformed, "malformed", "negotiate", 12,
         "the peer speaks IKEv2 but its message cannot be read: report it to its maker with --pcap"},
        {Ending::kNoCertificate, "no-certificate", "choose", 13,
         "see the log lines above: each certificate of the rule is listed with what it lacks"},
        {Ending::kNoPresharedKey, "no-preshared-key", "choose", 13,
         "put a preshared key of that name on a token, or correct --psk"},
        {Ending::kCannotSign, "cannot-sign", "choose", 13,
         "see the log lines above: the token, its PIN, or an algorithm that the peer does not take"},
        {Ending::kAuthSilent, "auth-silent", "authenticate", 14,
         "large messages may be lost on the way: try a smaller --fragment-bytes; or the peer waits for somebody"},
        {Ending::kAuthInvalid, "auth-invalid", "authenticate", 14,
         "the peer breaks the protocol: look for a newer version of it, and report the exchange with --pcap and "
         "--keys"},
        {Ending::kPeerRefused, "peer-refused", "authenticate", 15,
         "look into the peer's log: it does not say why on the wire. Usual: identity, trust in our authority, key"},
        {Ending::kIdentityRefused, "identity-refused", "judge", 16,
         "add the peer's identity to id_remote of the rule, or correct it at the peer"},
        {Ending::kCertificateRefused, "certificate-refused", "judge", 16,
         "see the log lines above: each certificate of the peer is listed with what is wrong with it"},
        {Ending::kMethodRefused, "method-refused", "judge", 16,
         "make the peer authenticate with a certificate, or with the preshared key that --psk names"},
        {Ending::kSignatureWrong, "signature-wrong", "judge", 16,
         "the peer's private key does not belong to its certificate, or something changes messages on the way"},
        {Ending::kPresharedKeyWrong, "preshared-key-wrong", "judge", 16,
         "both sides hold different keys under this name: set them anew"},
    };
    return table;
}

const EndingInfo& Info(Ending ending) {
    return Endings()[static_cast<std::size_t>(ending)];
}

std::string_view Advice(const Outcome& outcome) {
    return outcome.advice.empty() ? Info(outcome.ending).advice : outcome.advice;
}

}  // namespace ikeauth
