#include "certmgr/cert_chain.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>

namespace CM {

namespace {

/// All sources of the store.
constexpr unsigned kWholeStore = SearchTrusted | SearchOther | SearchPersonal;

/// Key algorithm that the issuer's key must have.
pki_alg_t IssuerKeyAlg(const X509Cert* cert) {
    const pki_alg_t key_alg = cert->info.signAlg & PKI_KEY_MASK;
    return key_alg == PKI_KEY_RSA_PSS ? PKI_KEY_RSA : key_alg;
}

/// By key identifier where the certificate names its issuer's, else, or if that finds none, by name.
CertRef FindIssuerUnlocked(const X509Cert* cert, CallersList& callers, unsigned flags) {
    const MoreActualIssuerFinder finder;
    CertRef issuer;
    if (!cert->facts().authorityKeyIdHex.empty()) {
        issuer = FindIssuer_(finder, SubjectKeyIdMatch{}, cert, callers, flags);
    }
    if (!issuer) issuer = FindIssuer_(finder, SubjectNameMatch{}, cert, callers, flags);
    return issuer;
}

/// Trust must hold from the first trusted certificate to the end.
ChainBuildResult JudgeTrust(const CertList& chain) {
    const auto first = std::find_if(chain.begin(), chain.end(), IsTrusted);
    if (first == chain.end() || !std::all_of(first, chain.end(), IsTrusted)) return ChainNotTrusted;
    return ChainTrusted;
}

bool IsRequested(const X509Cert* cert, const IkeCertRequestIter& requests) {
    constexpr std::int32_t kByPublicKeySha1 = 1;
    return requests.requested(requests.kind == kByPublicKeySha1 ? cert->pubKeyHash : cert->rawSubject,
                              requests.context);
}

}  // namespace

bool subject_keyid_equal_(const X509Cert* cert, const X509Cert* candidate) {
    return candidate->facts().subjectKeyIdHex == cert->facts().authorityKeyIdHex;
}

bool subject_name_equal_(const X509Cert* cert, const X509Cert* candidate) {
    return candidate->info.subject == cert->info.issuer;
}

void BestIssuer::Consider(const X509Cert* candidate) {
    const CertInfo& issuer = candidate->info;
    if ((issuer.keyAlg & PKI_ALG_MASK) != IssuerKeyAlg(cert_)) return;
    if (fallback_ == nullptr) fallback_ = candidate;
    const cert_time64_t start = cert_->info.validFrom;
    if (issuer.validFrom > start || start > issuer.validTo) return;
    if (current_ == nullptr || issuer.validFrom > current_->info.validFrom) current_ = candidate;
}

CallersList::CallersList(std::span<const X509Cert* const> certs) : certs_(certs) {
    if (certs.size() <= kWalkedSize) return;
    using Text = std::optional<std::string_view>;
    by_subject_.Build(certs.size(), [&](std::size_t i) { return Text(certs[i]->info.subject); });
    by_key_id_.Build(certs.size(), [&](std::size_t i) {
        const std::string& key_id = certs[i]->facts().subjectKeyIdHex;
        return key_id.empty() ? Text() : Text(key_id);
    });
}

bool ChainMembers::Add(const X509Cert* cert) {
    const auto [entry, is_new] = known_.try_emplace(cert);
    Known& known = entry->second;
    if (is_new) {
        known.cert = CertRef(cert);
        known.first_equal = by_encoding_.try_emplace(cert, &known).first->second;
    }
    return std::exchange(known.first_equal->last_chain, chain_) != chain_;
}

CertRef ChainBuilder::FindIssuer(const X509Cert* cert) {
    const vpnfc::ReadLock lock(CertStorage::Instance());
    return FindIssuerUnlocked(cert, callers_, flags_);
}

ChainBuildResult ChainBuilder::Build(CertList& chain) {
    if (chain.empty()) return ChainNotTrusted;
    members_.StartChain();
    for (const X509Cert* member : chain) members_.Add(member);
    const X509Cert* current = chain[0];
    for (;;) {
        // The chain ends here, trusted or not.
        const bool stop = (flags_ & StopAtTrusted) != 0 && IsTrusted(current);
        if (stop || current->selfSigned) break;
        CertRef issuer = FindIssuer(current);
        if (!issuer) return IsTrusted(current) ? ChainEndsAtTrusted : ChainIncomplete;
        // The issuer stays in the chain even when it closes a cycle.
        current = issuer.get();
        AppendToChain(chain, std::move(issuer));
        if (!members_.Add(current)) return ChainCycle;
    }
    return JudgeTrust(chain);
}

ChainBuildResult BuildCertChainFromStore(CertList& chain) {
    return ChainBuilder({}, kWholeStore).Build(chain);
}

bool BuildLocalCertChain(std::vector<const X509Cert*>& chain, const X509Cert* cert, const TLogIdent& /*ident*/) {
    CertList found;
    AppendToChain(found, CertRef(cert));
    const ChainBuildResult result = BuildCertChainFromStore(found);
    if (result != ChainTrusted && result != ChainEndsAtTrusted) return false;
    for (const X509Cert* member : found) chain.push_back(CertRef(member).Detach());
    return true;
}

bool CheckLocalChainUnlocked(const X509Cert* cert, const IkeCertRequestIter* requests) {
    CallersList nobodys;
    // Only a match, a self-signed certificate or a missing issuer ends the walk. One that comes round to a certificate
    // again would never end, so giving up there changes no answer: Brent's method, the mark moves up to the walker at
    // every power of two.
    const X509Cert* mark = nullptr;
    std::size_t steps = 0;
    std::size_t next_mark = 1;
    CertRef current(cert);
    for (;;) {
        if (IsRequested(current.get(), *requests)) return true;
        if (current->selfSigned || current.get() == mark) return false;
        if (++steps == next_mark) {
            mark = current.get();
            next_mark *= 2;
        }
        CertRef issuer = FindIssuerUnlocked(current.get(), nobodys, kWholeStore);
        if (!issuer) return false;
        current = std::move(issuer);
    }
}

}  // namespace CM

ChainBuildResult CMT_BuildCertChain(std::vector<CM::X509Cert*>& chain,
                                    const std::vector<const CM::X509Cert*>& callers_list, unsigned flags) {
    CM::CertList found;
    for (CM::X509Cert* member : chain) found.Append(member);
    const ChainBuildResult result = CM::ChainBuilder(callers_list, flags).Build(found);
    for (std::size_t i = chain.size(); i < found.size(); ++i) chain.push_back(CM::MutableCertRef(found[i]).Detach());
    return result;
}

const char* CMT_ChainBuildResultText(ChainBuildResult result) {
    static constexpr std::array kTexts = {
        "Certificates chain is not complete",  // ChainIncomplete
        "Certificates chain has cycle",  // ChainCycle
        "Certificates chain is not trusted",  // ChainNotTrusted
        "",  // ChainTrusted
        "",  // ChainEndsAtTrusted
    };
    return result < kTexts.size() ? kTexts[result] : "Build certs chain error";
}
