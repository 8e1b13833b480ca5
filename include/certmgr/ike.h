// IKE services: what an IKE engine calls during an exchange.
//
// Standards: RFC 2409 (IKEv1), RFC 7296 (IKEv2), RFC 7427 (signature authentication). No function holds a lock while
// a person is asked or a CRL is transferred. Every failure is a result and a log line under the caller's TLogIdent.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "certmgr/api.h"
#include "certmgr/chain.h"
#include "certmgr/x509cert.h"
#include "platform/eventlog.h"
#include "platform/policy.h"

namespace CM {

// --- Choosing the local certificate ---

/// What happens with a certificate bound to the rule, and whether the first accepted certificate ends the search.
enum UseHandleFromAuthType : std::uint32_t {
    kIgnoreBoundFirst = 0,
    kUseBoundFirst = 1,
    kUseBoundCollect = 2,
    kIgnoreBoundCollect = 3,
    /// On top of a value: if nothing usable is found, wait for a pending reload and search once more.
    kWaitForReload = 0x8000,
};

enum SelectLocalStatus : std::uint32_t {
    kLocalBoundMissing = 0,  // the bound certificate is not in the store
    kLocalAccepted = 1,
    kLocalNotYetValid = 2,
    kLocalExpired = 3,
    kLocalPrivateKeyExpired = 4,
    kLocalIdMismatch = 5,
    kLocalAskFailed = 6,
    kLocalAskCancelled = 7,
    kLocalOtherChosen = 8,
    kLocalMissingIkeEku = 9,
    kLocalNotRequested = 10,  // its chain answers none of the peer's certificate requests
    kLocalNotFound = 11,
};

struct CM_API SelectLocalResult {
    std::uint32_t status = kLocalNotFound;
    const X509Cert* cert = nullptr;  // carries one reference; usable only when the status is 1

    /// The time behind statuses 2 to 4, as text; other statuses write nothing.
    void GetInfo(std::string* out) const;
};

/// Chooses the local certificate that the rule asks for. `id` receives the identity to announce (untouched when the
/// rule has no id_local). A certificate whose subject equals `excluded_subject` is never offered. Where several remain
/// the user is asked, without a time limit; a malformed answer throws the text "CommandStreamError".
CM_API SelectLocalResult IkeSelectLocalCertificate(LPCFG::ipsecid_t* id, const LPCFG::auth_ike_t& rule,
                                                   UseHandleFromAuthType mode, const std::string* excluded_subject,
                                                   IkeCertRequestIter* requests, const TLogIdent& ident);
/// The distinct key algorithms of all certificates that the rule can use, in order of first appearance.
CM_API void IkeSelectLocalCertificateAlgs(std::vector<pki_alg_t>& algs, const LPCFG::auth_ike_t& rule,
                                          const TLogIdent& ident);
/// Appends every personal certificate of that subject, each with a reference, in store order.
CM_API void GetLocalCertificatesBySubject(std::vector<const X509Cert*>& certs, const std::string& subject);
/// Whether the handle is a personal certificate of the store and valid now, its private key too.
CM_API bool IsValidLocalCertificateHandle(const X509Cert* cert);

// --- Signing ---

/// IKEv1: signs a ready hash. DSA comes out as r and s, GOST R 34.10-2001 byte-reversed.
CM_API bool IkeSign(const X509Cert* cert, const std::string& hash, std::string& signature, const TLogIdent& ident);
/// IKEv2: digests and signs the octets. The token's signature is returned as it is.
CM_API bool Ike2Sign(const X509Cert* cert, pki_alg_t sign_alg, const std::string& data, std::string& signature,
                     const TLogIdent& ident);
/// The signature algorithm this host uses in IKEv2 with the certificate.
CM_API pki_alg_t Ike2GetSignAlg(const X509Cert* cert);
/// Whether the certificate's token offers the algorithm.
CM_API bool Ike2CheckHashAlg(const X509Cert* cert, pki_alg_t alg);

// --- Verifying ---

/// IKEv1: verifies the signature of a ready hash. Changes the caller's DSA or GOST R 34.10-2001 signature in place
/// into the form that tokens take (the odd last byte of a DSA signature is dropped; a GOST signature of less than 64
/// bytes stays as it is).
CM_API bool IkeVerify(const X509Cert* peer, const std::string& hash, std::string& signature, const TLogIdent& ident);
/// IKEv2: verifies the signature of the octets. `auth_alg` is a bare key algorithm or a full signature algorithm.
CM_API bool Ike2Verify(const X509Cert* peer, pki_alg_t auth_alg, const std::string& data, const std::string& signature,
                       const TLogIdent& ident);

// --- Certificate payloads ---

/// How a certificate request names an authority.
enum CertDataFormat : std::uint32_t {
    kSubjectNameDer = 0,
    kPublicKeySha1 = 1,  // SHA-1 of the DER SubjectPublicKeyInfo
};

/// DER of the certificate. False, output untouched, for a null handle.
CM_API bool VCertHandleToRawX509(const X509Cert* cert, std::string& out, const TLogIdent& ident);
/// The first `count` certificates of the chain as one PKCS #7 bundle.
CM_API bool VCertsListToRawPKCS7(const std::vector<const X509Cert*>& chain, std::uint32_t count, std::string& out,
                                 const TLogIdent& ident);
/// How many certificates of the chain to send: up to and including the requested authority nearest the root; 0 when
/// it is not in the chain.
CM_API std::uint32_t CutCertChainLength(const std::vector<const X509Cert*>& chain, CertDataFormat format,
                                        const void* authority, std::uint32_t length);
/// Every personal certificate as one PKCS #7 bundle.
CM_API bool LocalCertsExportToRawPKCS7(std::string& out, const TLogIdent& ident);
/// Releases one reference. Null is allowed.
CM_API void VCertHandleClose(const X509Cert* cert);

CM_API pki_alg_t GetCertKeyAlg(const X509Cert* cert);
CM_API std::time_t GetCertExpireTime(const X509Cert* cert);
/// The earlier of the certificate's end and its private key's.
CM_API std::time_t GetCertPrivKeyExpireTime(const X509Cert* cert);
CM_API const PKCS11::TokenInfo& GetCertToken(const X509Cert* cert);
CM_API const CertInfo& GetCertInfo(const X509Cert* cert);

// A list holds at most 1024 certificates and 2 MiB: a payload that would make it longer counts as unreadable.

/// Decodes one DER certificate of a payload and appends it. False when it is unreadable (logged) or unusable.
CM_API bool VCertsListAddRawX509(std::vector<const X509Cert*>& list, const void* data, unsigned length,
                                 const TLogIdent& ident);
/// Decodes a PKCS #7 bundle and appends its usable certificates. False when it is unreadable.
CM_API bool VCertsListAddRawPKCS7(std::vector<const X509Cert*>& list, const void* data, unsigned length,
                                  const TLogIdent& ident);

// --- The peer's certificate and the authorities to request ---

/// Picks the peer's certificate: pattern, identity, validity, chain, trust, signatures, revocation. Null, with every
/// candidate's reason in the log, when none passes.
CM_API const X509Cert* IkeVerifyPeerCertificate(const LPCFG::auth_ike_t& rule, const LPCFG::ipsecid_t& peer_id,
                                                const std::vector<const X509Cert*>& received,
                                                LPARAMS::CRL_PROC_t crl_mode, const std::string& default_crl_server,
                                                const TLogIdent& ident);

/// Calls `add` with the datum of every trusted certificate that the rule (null: any) allows and that is valid now, in
/// the store's order. True when there was one. `add` runs with the store's read lock held: it calls nothing of the
/// module, where a reload that waits for the lock would block it for ever, and does not throw.
CM_API bool IkeBuildCertRequestList(void (*add)(const std::string& datum, void* argument), void* argument,
                                    CertDataFormat format, const LPCFG::auth_ike_t* rule, const TLogIdent& ident);

}  // namespace CM
