// Judging: whether a chain that was built holds. Why not is data; RefusalText makes the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "certmgr/chain.h"
#include "certmgr/x509cert.h"
#include "platform/eventlog.h"
#include "platform/policy.h"

namespace CM {

enum class RefusalId : std::uint8_t {
    kNone,
    // A candidate by itself.
    kNoDigitalSignature,
    kNotYetValid,
    kExpired,
    // A single certificate that somebody asks about.
    kCertificateNotYetValid,
    kCertificateExpired,
    kPrivateKeyExpired,
    // Its chain.
    kChainNotBuilt,
    kNoSelfSignedRoot,
    kRootNotTrusted,
    kNotCa,
    kPathLengthExceeded,
    kNotCurrent,
    kTrustNotMatched,
    kNoCertificateSigning,
    kDigestError,
    kWrongSignature,
    kNoToken,
    kNoSession,
    kSignatureNotVerified,
    // Told by the revocation check.
    kRevocation,
};

/// Why a certificate was refused. Of the parameters those are set that the identifier's text shows.
struct Refusal {
    RefusalId id = RefusalId::kNone;
    std::uint64_t position = 0;  // in the chain, from 1, of the offending certificate; 0 outside of chain checks
    cert_time64_t time = CERT_TIME_UNKNOWN;
    std::optional<std::uint32_t> index{};  // in the chain, from 0, of the certificate that was being checked
    std::string detail{};

    explicit operator bool() const { return id != RefusalId::kNone; }
};

/// The reason as people read it; empty for no refusal.
std::string RefusalText(const Refusal& refusal);

/// The same without what is the certificate's own: many certificates are refused for few kinds of reasons.
std::string RefusalKind(const Refusal& refusal);

/// The refusal of a chain that was not built to its end, nothing for the results that make a usable chain.
Refusal RefusalOfBuild(ChainBuildResult result);

/// What a signature check found, as reasons and logs say it; empty for a signature that is right.
std::string SignatureCheckText(SignatureCheck check);

/// Whether the certificate matches one of the patterns. An empty list accepts every certificate.
bool cm_FindInTrustList(const X509Cert* cert, const std::list<LPCFG::cert_t>& trust);

/// Judges chains: root, basic constraints, validity, the trust that the rule asks for, signatures. Not the leaf's own
/// validity, and not revocation.
///
/// One object serves one decision, at one moment and on one thread, with any number of chains: what a token decided about a
/// signature is not asked again, so that chains that share their upper part pay for it once. The patterns and all
/// certificates of the chains outlive the object.
class cm_VerifyCertChainTask {
  public:
    /// Without `check_trust` only the root and the signatures are checked.
    cm_VerifyCertChainTask(const std::list<LPCFG::cert_t>& trust, bool check_trust, cert_time64_t now,
                           const TLogIdent& ident)
        : trust_(trust), check_trust_(check_trust), now_(now), ident_(ident) {}

    /// The chain holds at least the leaf.
    Refusal Run(const std::vector<X509Cert*>& chain);

  private:
    Refusal CheckTrust(const std::vector<X509Cert*>& chain) const;
    Refusal CheckAuthority(const X509Cert* authority, std::size_t i) const;
    Refusal CheckSignatures(const std::vector<X509Cert*>& chain, bool up_to_root);
    Refusal CheckSignature(const X509Cert* cert, const X509Cert* issuer, std::size_t i, std::size_t chain_length);

    const std::list<LPCFG::cert_t>& trust_;
    const bool check_trust_;
    const cert_time64_t now_;
    TLogIdent ident_;
    std::map<std::pair<const X509Cert*, const X509Cert*>, RefusalId> checked_;  // by certificate and issuer
};

}  // namespace CM
