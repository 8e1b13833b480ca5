// Searching: the issuer of a certificate, and chains from the leaf upwards. Judging a chain is cert_verifychain.h's.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "certmgr/cert_index.h"
#include "certmgr/cert_storage.h"
#include "certmgr/chain.h"

namespace CM {

/// The candidate's subject key identifier is the certificate's authority key identifier.
bool subject_keyid_equal_(const X509Cert* cert, const X509Cert* candidate);
/// The candidate's subject is the certificate's issuer.
bool subject_name_equal_(const X509Cert* cert, const X509Cert* candidate);

/// How an issuer is recognised: the test, and the positions in an indexed list that pass it. Key identifiers are looked
/// for only where the certificate names one.
struct SubjectKeyIdMatch {
    static constexpr std::size_t kNumber = 0;
    bool operator()(const X509Cert* cert, const X509Cert* candidate) const {
        return subject_keyid_equal_(cert, candidate);
    }
    template <typename IndexedList>
    static std::span<const std::uint32_t> Positions(const IndexedList& list, const X509Cert* cert) {
        return list.WithSubjectKeyId(cert->facts().authorityKeyIdHex);
    }
};
struct SubjectNameMatch {
    static constexpr std::size_t kNumber = 1;
    bool operator()(const X509Cert* cert, const X509Cert* candidate) const {
        return subject_name_equal_(cert, candidate);
    }
    template <typename IndexedList>
    static std::span<const std::uint32_t> Positions(const IndexedList& list, const X509Cert* cert) {
        return list.WithSubject(cert->info.issuer);
    }
};

/// The best issuer among matching candidates, which come in the order of their list: of those that were valid when the
/// certificate began to be valid, the one that began latest (the first met on a tie); if there is none, the first met
/// of all.
class BestIssuer {
  public:
    explicit BestIssuer(const X509Cert* cert) : cert_(cert) {}
    /// Passes over a candidate whose key cannot have made the certificate's signature.
    void Consider(const X509Cert* candidate);
    const X509Cert* get() const { return current_ != nullptr ? current_ : fallback_; }

  private:
    const X509Cert* cert_;
    const X509Cert* fallback_ = nullptr;
    const X509Cert* current_ = nullptr;
};

/// The caller's list of one chain building, or of one verification that builds several chains from it: a longer list
/// is indexed once, and answers are remembered, so that a thousand certificates of one name do not cost their square
/// for every chain. The list and its certificates outlive this object. Used by one thread.
class CallersList {
  public:
    explicit CallersList(std::span<const X509Cert* const> certs = {});

    /// The best issuer in the list, or null.
    template <typename Match>
    const X509Cert* Find(const X509Cert* cert, Match match);

    std::span<const std::uint32_t> WithSubject(std::string_view subject) const { return by_subject_.At(subject); }
    std::span<const std::uint32_t> WithSubjectKeyId(std::string_view hex) const { return by_key_id_.At(hex); }
    const X509Cert* operator[](std::size_t i) const { return certs_[i]; }

    /// Lists up to this size are walked: that costs less than an index.
    static constexpr std::size_t kWalkedSize = 16;

  private:
    struct Answer {
        CertRef asked;  // kept, so that no other certificate takes its address
        const X509Cert* issuer;
    };
    const std::span<const X509Cert* const> certs_;
    PositionMap<std::string_view, std::map> by_subject_;
    PositionMap<std::string_view, std::map> by_key_id_;
    std::array<std::unordered_map<const X509Cert*, Answer>, 2> answers_;  // by Match::kNumber
};

/// Best issuer of the certificate in one list. The forms for indexed lists return exactly what the ordered walk does.
struct MoreActualIssuerFinder {
    template <typename List, typename Match>
    CertRef operator()(const List& list, const X509Cert* cert, Match match) const {
        return CertRef(Walk(list, cert, match));
    }
    template <typename Match>
    CertRef operator()(const CertStorage::X509CertsDB& list, const X509Cert* cert, Match /*match*/) const {
        return CertRef(LookUp<Match>(list, cert));
    }
    template <typename Match>
    CertRef operator()(CallersList& list, const X509Cert* cert, Match match) const {
        return CertRef(list.Find(cert, match));
    }

    template <typename List, typename Match>
    static const X509Cert* Walk(const List& list, const X509Cert* cert, Match match) {
        BestIssuer best(cert);
        for (const X509Cert* candidate : list) {
            if (match(cert, candidate)) best.Consider(candidate);
        }
        return best.get();
    }
    template <typename Match, typename IndexedList>
    static const X509Cert* LookUp(const IndexedList& list, const X509Cert* cert) {
        BestIssuer best(cert);
        for (const std::uint32_t position : Match::Positions(list, cert)) best.Consider(list[position]);
        return best.get();
    }
};

template <typename Match>
const X509Cert* CallersList::Find(const X509Cert* cert, Match match) {
    if (certs_.size() <= kWalkedSize) return MoreActualIssuerFinder::Walk(certs_, cert, match);
    auto& answers = answers_[Match::kNumber];
    auto known = answers.find(cert);
    if (known == answers.end()) {
        known = answers.emplace(cert, Answer{CertRef(cert), MoreActualIssuerFinder::LookUp<Match>(*this, cert)}).first;
    }
    return known->second.issuer;
}

/// The issuer of a certificate; null when no source has one. The caller holds the store's read lock.
///
/// The sources, in the order in which they are tried; the first that yields a certificate ends the search:
///   1. the store's trusted list (SearchTrusted): what is trusted goes before an equally matching certificate that the
///      peer sent;
///   2. the caller's list, always;
///   3. the store's other list (SearchOther);
///   4. the store's personal list (SearchPersonal).
template <typename Finder, typename Match, typename Callers>
CertRef FindIssuer_(const Finder& find, Match match, const X509Cert* cert, Callers& callers, unsigned flags) {
    const CertStorage& store = CertStorage::Instance();
    CertRef issuer;
    if ((flags & SearchTrusted) != 0) issuer = find(store.trustedCerts, cert, match);
    if (!issuer) issuer = find(callers, cert, match);
    if (!issuer && (flags & SearchOther) != 0) issuer = find(store.otherCerts, cert, match);
    if (!issuer && (flags & SearchPersonal) != 0) issuer = find(store.personalCerts, cert, match);
    return issuer;
}

/// The end of the signature: what tells certificates apart soonest.
inline std::string_view EndOfEncoding(const X509Cert* cert) {
    constexpr std::size_t kBytes = 32;
    const std::string_view der = cert->rawCert;
    return der.substr(der.size() - std::min(der.size(), kBytes));
}

/// Orders certificates by their encoding, from its end. Ordered, not hashed: a peer that chooses its certificates cannot
/// slow it down.
struct EncodingLess {
    bool operator()(const X509Cert* a, const X509Cert* b) const {
        const int order = EndOfEncoding(a).compare(EndOfEncoding(b));
        return order != 0 ? order < 0 : a->rawCert < b->rawCert;
    }
};

/// Members of the chains that are built one after the other. Equal encodings count as one certificate; they are
/// compared when a certificate is met first, not for every chain.
class ChainMembers {
  public:
    void StartChain() { ++chain_; }
    /// False when the chain has the certificate already.
    bool Add(const X509Cert* cert);

  private:
    struct Known {
        CertRef cert;  // kept, so that no other certificate takes its address
        Known* first_equal = nullptr;
        std::uint64_t last_chain = 0;  // of the first of those that are equal
    };
    std::unordered_map<const X509Cert*, Known> known_;
    std::map<const X509Cert*, Known*, EncodingLess> by_encoding_;
    std::uint64_t chain_ = 0;
};

/// Builds chains with one caller's list, which outlives this object. Used by one thread.
class ChainBuilder {
  public:
    explicit ChainBuilder(std::span<const X509Cert* const> callers_list, unsigned flags)
        : callers_(callers_list), flags_(flags) {}

    /// CMT_BuildCertChain.
    ChainBuildResult Build(CertList& chain);

  private:
    CertRef FindIssuer(const X509Cert* cert);

    CallersList callers_;
    ChainMembers members_;
    const unsigned flags_;
};

/// Builds a chain from all lists of the store and nothing else.
ChainBuildResult BuildCertChainFromStore(CertList& chain);

/// Appends a member. The interfaces hold chains by mutable pointers; nobody changes a published certificate.
inline void AppendToChain(CertList& chain, CertRef member) {
    chain.Adopt(const_cast<X509Cert*>(member.Detach()));
}

inline bool IsTrusted(const X509Cert* cert) {
    return cert->info.kind == kCertKindTrusted;
}

}  // namespace CM
