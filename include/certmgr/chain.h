// Chains: building, judging, and what the peer asked for.
//
// Standard: RFC 5280 (path building is local policy; see docs/architecture.md for the order of candidates).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "certmgr/api.h"
#include "certmgr/x509cert.h"
#include "platform/eventlog.h"
#include "platform/params.h"

/// Sources of the issuer search, tried in this order: trusted, the caller's list (always), other, personal.
enum IssuerSearchFlags : unsigned {
    SearchTrusted = 1,
    SearchOther = 2,
    SearchPersonal = 4,
    StopAtTrusted = 16,  // chain building stops at the first trusted certificate
};

enum ChainBuildResult : unsigned {
    ChainIncomplete = 0,  // an issuer was not found and the last certificate is not trusted
    ChainCycle = 1,  // a found issuer is already in the chain
    ChainNotTrusted = 2,  // a root was reached, but trust does not hold from the first trusted one to the end
    ChainTrusted = 3,  // success
    ChainEndsAtTrusted = 4,  // success: an issuer was not found, the last certificate is trusted
};

/// Extends a chain, which holds the leaf with its reference. Every appended certificate carries a reference; the
/// caller releases them. Takes the store's read lock around each search; the caller must not hold it.
CM_API ChainBuildResult CMT_BuildCertChain(std::vector<CM::X509Cert*>& chain,
                                           const std::vector<const CM::X509Cert*>& callers_list, unsigned flags);

/// The text that reports a build result as the reason of a refusal.
CM_API const char* CMT_ChainBuildResultText(ChainBuildResult result);

/// Verifies one certificate: validity, chain from the store, trust, signatures, revocation under `crl_mode`. `reason`
/// receives why not.
CM_API bool CMT_VerifyCertChain(CM::X509Cert* cert, int crl_mode, std::string* reason);

namespace CM {

/// The peer's certificate requests, as the caller presents them.
struct IkeCertRequestIter {
    /// 1: authorities are named by the SHA-1 of their SubjectPublicKeyInfo; any other value: by DER subject name.
    std::int32_t kind = 0;
    /// Whether the value is among the requested ones. Called with the store's read lock held: it calls nothing that takes
    /// that lock, not even for reading.
    bool (*requested)(const std::string& value, void* context) = nullptr;
    void* context = nullptr;
};

/// Chain of a local certificate from the store alone, into an empty vector. False, with nothing appended, when it
/// is not anchored in a trusted certificate.
CM_API bool BuildLocalCertChain(std::vector<const X509Cert*>& chain, const X509Cert* cert, const TLogIdent& ident);

/// Whether the certificate or one of its issuers is an authority that the peer requested. The caller holds the store's
/// read lock.
CM_API bool CheckLocalChainUnlocked(const X509Cert* cert, const IkeCertRequestIter* requests);

/// Whether a certificate is not revoked under the mode, by a CRL that the cache has, a distribution point offers or a
/// token holds. An address of the certificate that has no host is completed with the default server. Waits for transfers,
/// at most the time-out for each address, with no lock held.
CM_API bool CertVerifyRevocation(const X509Cert* cert, const X509Cert* issuer, LPARAMS::CRL_PROC_t mode,
                                 const std::string& default_crl_server, const TLogIdent& ident);

/// Whether no certificate of the chain, leaf first, is revoked under the mode. `reason` receives why not.
CM_API bool CertChainVerifyRevocation(const std::vector<X509Cert*>& chain, LPARAMS::CRL_PROC_t mode,
                                      const std::string& default_crl_server, std::string* reason,
                                      const TLogIdent& ident);

}  // namespace CM
