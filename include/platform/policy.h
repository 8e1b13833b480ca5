// Policy records: what a security-policy rule says about IKE authentication with certificates.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "platform/asn1.h"
#include "platform/params.h"

namespace CM {
class X509Cert;
}

namespace LPCFG {

/// A certificate pattern. An empty string (or key algorithm 0) is not tested; all tested fields must match.
struct cert_t {
    pki_alg_t keyAlg = 0;
    std::string serialNumber;  // hexadecimal, upper case, as in CertInfo
    std::string md5;  // fingerprint of the DER, hexadecimal, lower case
    std::string sha1;
    std::string subject;  // printable name
    bool subjectExact = true;  // byte equality; else: contains every attribute of the pattern
    std::string issuer;
    bool issuerExact = true;
};

/// An IKE identity.
struct ipsecid_t {
    enum Type : std::uint32_t { kIp4 = 0, kFqdn = 1, kEmail = 2, kDn = 3 };
    std::uint32_t type = kIp4;
    std::uint32_t any = 0;  // non-zero: matches any non-empty value of its type
    std::string value;  // IP4: 4 bytes, network order; FQDN and e-mail: text; DN: DER (when written by a mapping)
    std::string dn;  // DN: printable subject to match
};

/// The IKE authentication section of a rule. Owned by the caller, read only.
struct auth_ike_t {
    std::string name;  // the rule's name, for log lines
    pki_alg_t authAlg = 0;  // key algorithm; restricts a match only where the pattern list is empty
    std::list<ipsecid_t> id_local;
    std::list<ipsecid_t> id_remote;
    std::list<cert_t> cert_local;
    std::list<cert_t> cert_remote;
    std::list<cert_t> cert_trust;
    bool no_map_id_local = false;
    bool no_map_id_remote = false;
    LPARAMS::CRL_PROC_t crlProcessing = LPARAMS::CRL_PROC_DISABLED;
    std::string crlServer;  // "scheme://host[:port]" for distribution points without a host; may be empty
    const CM::X509Cert* boundCert = nullptr;  // certificate already attached to the rule; borrowed
};

}  // namespace LPCFG
