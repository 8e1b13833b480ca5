#include "certmgr/cert_verifychain.h"

#include <algorithm>
#include <array>

#include "certmgr/cert_chain.h"
#include "certmgr/cert_log.h"
#include "certmgr/key_usage.h"
#include "platform/params.h"

namespace CM {

// --- Reasons ---

namespace {

/// What follows or fills the text of a reason.
enum class Parameter : std::uint8_t {
    kNone,
    kTime,
    kDetail,
    kIndex,
    kIndexIfSet,  // " (index)"
};

struct RefusalForm {
    RefusalId id;
    const char* text;
    Parameter parameter = Parameter::kNone;
    const char* after = "";
};

constexpr std::array kRefusalForms = {
    RefusalForm{RefusalId::kNone, ""},
    RefusalForm{RefusalId::kNoDigitalSignature, "Does not contain required key usage: Digital Signature"},
    RefusalForm{RefusalId::kNotYetValid, kNotYetValidText, Parameter::kTime},
    RefusalForm{RefusalId::kExpired, kExpiredText, Parameter::kTime},
    RefusalForm{RefusalId::kCertificateNotYetValid, "Certificate will be valid from: ", Parameter::kTime},
    RefusalForm{RefusalId::kCertificateExpired, "Certificate is not valid after: ", Parameter::kTime},
    RefusalForm{RefusalId::kPrivateKeyExpired, "Private key of the certificate is not valid after: ", Parameter::kTime},
    RefusalForm{RefusalId::kChainNotBuilt, "", Parameter::kDetail},
    RefusalForm{RefusalId::kNoSelfSignedRoot, "Selfsigned certificate not present in chain"},
    RefusalForm{RefusalId::kRootNotTrusted, "Selfsigned certificate is not trusted"},
    RefusalForm{RefusalId::kNotCa, "Not CA certificate present in chain: ", Parameter::kDetail},
    RefusalForm{RefusalId::kPathLengthExceeded,
                "The number of sub-CAs exceeds Path Length Constraint of the CA certificate: ", Parameter::kDetail},
    RefusalForm{RefusalId::kNotCurrent, "Not currently valid certificate(s) present in chain"},
    RefusalForm{RefusalId::kTrustNotMatched,
                "No one of the trusted certificates in chain don't matched to the field 'cert_trust' from LSP rule"},
    RefusalForm{RefusalId::kNoCertificateSigning, "Signature cannot be checked. Issuer[", Parameter::kIndex,
                "] does not contain required key usage: Certificate Signing"},
    RefusalForm{RefusalId::kDigestError, "Digest error", Parameter::kIndexIfSet},
    RefusalForm{RefusalId::kWrongSignature, "Invalid signature", Parameter::kIndexIfSet},
    RefusalForm{RefusalId::kNoToken, "No token to verify signature", Parameter::kIndexIfSet},
    RefusalForm{RefusalId::kNoSession, "Can't open token to verify signature", Parameter::kIndexIfSet},
    RefusalForm{RefusalId::kSignatureNotVerified, "Can't verify signature", Parameter::kIndexIfSet},
    RefusalForm{RefusalId::kRevocation, "", Parameter::kDetail},
};

constexpr bool FormsStandInOrder() {
    for (std::size_t i = 0; i < kRefusalForms.size(); ++i) {
        if (static_cast<std::size_t>(kRefusalForms[i].id) != i) return false;
    }
    return true;
}
static_assert(FormsStandInOrder(), "the table is indexed by the identifier");
static_assert(kRefusalForms.size() == static_cast<std::size_t>(RefusalId::kRevocation) + 1,
              "every identifier has a form");

RefusalId RefusalOfSignature(SignatureCheck check) {
    switch (check) {
        case kSignatureRight:
            return RefusalId::kNone;
        case kSignatureDigestError:
            return RefusalId::kDigestError;
        case kSignatureWrong:
            return RefusalId::kWrongSignature;
        case kSignatureNoToken:
            return RefusalId::kNoToken;
        case kSignatureNoSession:
            return RefusalId::kNoSession;
    }
    return RefusalId::kSignatureNotVerified;
}

}  // namespace

std::string RefusalText(const Refusal& refusal) {
    const RefusalForm& form = kRefusalForms[static_cast<std::size_t>(refusal.id)];
    std::string text = form.text;
    switch (form.parameter) {
        case Parameter::kNone:
            break;
        case Parameter::kTime:
            text.append(CertTimeToString(refusal.time));
            break;
        case Parameter::kDetail:
            text.append(refusal.detail);
            break;
        case Parameter::kIndex:
            text.append(std::to_string(refusal.index.value_or(0)));
            break;
        case Parameter::kIndexIfSet:
            if (refusal.index) text.append(" (").append(std::to_string(*refusal.index)).append(")");
            break;
    }
    return text.append(form.after);
}

std::string RefusalKind(const Refusal& refusal) {
    switch (refusal.id) {
        case RefusalId::kChainNotBuilt:
            return refusal.detail;  // one of a few
        case RefusalId::kRevocation:
            return "Revocation check";
        default:
            break;
    }
    const RefusalForm& form = kRefusalForms[static_cast<std::size_t>(refusal.id)];
    return std::string(form.text).append(form.after);
}

std::string SignatureCheckText(SignatureCheck check) {
    return RefusalText({.id = RefusalOfSignature(check)});
}

Refusal RefusalOfBuild(ChainBuildResult result) {
    if (result == ChainTrusted || result == ChainEndsAtTrusted) return {};
    return {.id = RefusalId::kChainNotBuilt, .detail = CMT_ChainBuildResultText(result)};
}

// --- Chain checks ---

bool cm_FindInTrustList(const X509Cert* cert, const std::list<LPCFG::cert_t>& trust) {
    return trust.empty() || std::any_of(trust.begin(), trust.end(), [cert](const LPCFG::cert_t& pattern) {
               return cert->MatchToPattern(pattern, 0);
           });
}

namespace {

bool SelfSignedRootRequired() {
    const vpnfc::ObjectLock lock(LPARAMS::server.cert);
    return LPARAMS::server.cert.require_self_signed_root.on;
}

Refusal CheckRoot(const std::vector<X509Cert*>& chain) {
    const X509Cert* root = chain.back();
    if (!root->selfSigned) return {.id = RefusalId::kNoSelfSignedRoot, .position = chain.size()};
    if (!IsTrusted(root)) return {.id = RefusalId::kRootNotTrusted, .position = chain.size()};
    return {};
}

}  // namespace

Refusal cm_VerifyCertChainTask::Run(const std::vector<X509Cert*>& chain) {
    const bool up_to_root = SelfSignedRootRequired();
    Refusal refusal;
    if (up_to_root) refusal = CheckRoot(chain);
    if (!refusal && check_trust_) refusal = CheckTrust(chain);
    if (!refusal) refusal = CheckSignatures(chain, up_to_root);
    return refusal;
}

Refusal cm_VerifyCertChainTask::CheckTrust(const std::vector<X509Cert*>& chain) const {
    // A trusted leaf is matched itself; under any other only an empty list is satisfied from the start.
    bool matched = IsTrusted(chain[0]) ? cm_FindInTrustList(chain[0], trust_) : trust_.empty();
    for (std::size_t i = 1; i < chain.size(); ++i) {
        if (Refusal refusal = CheckAuthority(chain[i], i)) return refusal;
        if (!matched && IsTrusted(chain[i])) matched = cm_FindInTrustList(chain[i], trust_);
    }
    if (!matched) return {.id = RefusalId::kTrustNotMatched, .position = chain.size()};
    return {};
}

Refusal cm_VerifyCertChainTask::CheckAuthority(const X509Cert* authority, std::size_t i) const {
    const std::uint64_t position = i + 1;
    const CertInfo& info = authority->info;
    if (!authority->facts().isCA) return {.id = RefusalId::kNotCa, .position = position, .detail = info.subject};
    const std::int32_t path_len = authority->facts().pathLen;
    const std::size_t authorities_below = i - 1;
    if (path_len >= 0 && static_cast<std::size_t>(path_len) < authorities_below) {
        return {.id = RefusalId::kPathLengthExceeded, .position = position, .detail = info.subject};
    }
    if (CheckValidity(info, now_) != kValid) return {.id = RefusalId::kNotCurrent, .position = position};
    return {};
}

Refusal cm_VerifyCertChainTask::CheckSignatures(const std::vector<X509Cert*>& chain, bool up_to_root) {
    for (std::size_t i = 0; i < chain.size(); ++i) {
        // What is trusted, and what stands above it, is not checked.
        if (!up_to_root && IsTrusted(chain[i])) break;
        const bool last = i + 1 == chain.size();
        if (last && !chain[i]->selfSigned) break;
        const X509Cert* issuer = last ? chain[i] : chain[i + 1];
        if (Refusal refusal = CheckSignature(chain[i], issuer, i, chain.size())) return refusal;
    }
    return {};
}

Refusal cm_VerifyCertChainTask::CheckSignature(const X509Cert* cert, const X509Cert* issuer, std::size_t i,
                                               std::size_t chain_length) {
    const auto index = static_cast<std::uint32_t>(i);
    // The index is that of the certificate being checked, not the issuer's.
    if (!HasKeyUsage(issuer, kKeyUsageCertSign, ident_)) {
        return {.id = RefusalId::kNoCertificateSigning, .position = i + 1, .index = index};
    }
    const std::pair key(cert, issuer);
    RefusalId found = RefusalId::kNone;
    if (const auto checked = checked_.find(key); checked != checked_.end()) {
        found = checked->second;
    } else {
        bool definite = false;
        found = RefusalOfSignature(cert->CheckSignature(issuer, &definite));
        if (definite) checked_.emplace(key, found);
    }
    if (found == RefusalId::kNone) return {};
    Refusal refusal{.id = found, .position = i + 1};
    if (chain_length > 2) refusal.index = index;
    return refusal;
}

// --- A single certificate ---

namespace {

/// Validity of the certificate and of its private key.
Refusal RefusalOfValidity(const X509Cert* cert, cert_time64_t now) {
    switch (cert->PrivKeyCheckValidFromTo(now)) {
        case kNotYetValid:
            return {.id = RefusalId::kCertificateNotYetValid, .time = cert->info.validFrom};
        case kExpired:
            return {.id = RefusalId::kCertificateExpired, .time = cert->info.validTo};
        case kPrivateKeyExpired:
            return {.id = RefusalId::kPrivateKeyExpired, .time = cert->privKeyNotAfter};
        default:
            return {};
    }
}

/// Validity, chain, trust and signatures.
Refusal CheckSingle(CertList& chain, const TLogIdent& ident) {
    const cert_time64_t now = CertTimeNow();
    if (Refusal refusal = RefusalOfValidity(chain[0], now)) return refusal;
    if (Refusal refusal = RefusalOfBuild(BuildCertChainFromStore(chain))) return refusal;
    const std::list<LPCFG::cert_t> any_trusted;
    return cm_VerifyCertChainTask(any_trusted, true, now, ident).Run(chain.certs());
}

}  // namespace

}  // namespace CM

bool CMT_VerifyCertChain(CM::X509Cert* cert, int crl_mode, std::string* reason) {
    const TLogIdent ident;
    CM::CertList chain;
    chain.Append(cert);
    if (const CM::Refusal refusal = CM::CheckSingle(chain, ident)) {
        *reason = CM::RefusalText(refusal);
        return false;
    }
    return CM::CertChainVerifyRevocation(chain.certs(), static_cast<LPARAMS::CRL_PROC_t>(crl_mode), {}, reason, ident);
}
