// A root in the store, a peer below it, and the verification of what the peer sends.
#pragma once

#include <functional>

#include "tests/chain/chain_fixture.h"

namespace chain_test {

/// Entries of a report: "Certificate N: cert_remote[P]: reason" becomes "P: reason".
inline Strings Refusals(const std::string& report) {
    static const std::string kTag = ": cert_remote[";
    Strings refusals;
    for (std::size_t at = report.find(kTag); at != std::string::npos; at = report.find(kTag, at + 1)) {
        const std::size_t begin = at + kTag.size();
        std::string entry = report.substr(begin, report.find(" \\\n", begin) - begin);
        entry.erase(entry.find(']'), 1);
        refusals.push_back(entry);
    }
    return refusals;
}

class PeerTest : public ChainTest {
  protected:
    static inline const std::string kPeerName = "peer.example";

    PeerTest() {
        id_.type = LPCFG::ipsecid_t::kFqdn;
        id_.value = kPeerName;
        rule_.name = "branch";
    }

    static CertSpec PeerSpec(const std::string& subject = "CN=peer") {
        return {.key_index = 3, .subject = subject, .key_usage = "digitalSignature", .san = {"DNS:" + kPeerName}};
    }
    /// A peer below the issuing authority, some of its fields changed.
    Cert Changed(const std::function<void(CertSpec&)>& change, const std::string& subject = "CN=peer") const {
        CertSpec spec = PeerSpec(subject);
        change(spec);
        return MakeCert(spec, &issuing_);
    }
    Cert Peer(const std::string& subject, const Cert& issuer) const { return MakeCert(PeerSpec(subject), &issuer); }

    /// The subject of the certificate that was selected, or the refusals: "pattern: reason", in the report's order.
    Strings Verify(const Payload& payload, LPARAMS::CRL_PROC_t crl_mode = LPARAMS::CRL_PROC_DISABLED) const {
        vendor_host::ClearMessages();
        const Handle cert(CM::IkeVerifyPeerCertificate(rule_, id_, payload.certs, crl_mode, {}, ident_));
        EXPECT_EQ(OnlyMessage(kMsgPeerCertNotSelected).empty(), cert.get() != nullptr);
        EXPECT_EQ(OnlyMessage(kMsgPeerCertSelected).empty(), cert.get() == nullptr);
        return cert.get() != nullptr ? Strings{cert.Subject()} : Refusals(OnlyMessage(kMsgPeerCertNotSelected));
    }
    Strings Verify(const std::vector<const Cert*>& received) const { return Verify(Payload(received)); }

    const Cert root_ = MakeCa("CN=root");
    const Cert issuing_ = MakeCa("CN=issuing", &root_, KeyType::kEcP256, 1);
    const Cert peer_ = Peer("CN=peer", issuing_);
    LPCFG::auth_ike_t rule_;
    LPCFG::ipsecid_t id_;
};

}  // namespace chain_test
