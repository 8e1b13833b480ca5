// Indexes of one list of the store. Every answer is what walking the list in order would give.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "certmgr/x509cert.h"

namespace CM {

/// A token object to look for, hashed once for the search of several lists. Borrows both records.
struct TokenObjectKey {
    TokenObjectKey(const PKCS11::TokenInfo& on_token, const PKCS11::CertObject& object);

    /// Same token, identifier and DER.
    bool Equals(const X509Cert& cert) const;

    std::uint64_t token;
    std::string_view id;
    std::string_view der;
    std::uint64_t hash;
};

/// Positions in a list by a key, ascending. `Map` is std::map where a peer chooses the keys: it could make all of them hash
/// alike.
template <typename Key, template <typename...> typename Map = std::unordered_map>
class PositionMap {
  public:
    /// `key_of(i)` is the key of entry i, or nullopt to leave the entry out.
    template <typename KeyOf>
    void Build(std::size_t size, KeyOf key_of) {
        std::vector<Range*> range_of(size);
        if constexpr (requires { ranges_.reserve(size); }) ranges_.reserve(size);
        for (std::size_t i = 0; i < size; ++i) {
            const std::optional<Key> key = key_of(i);
            if (!key) continue;
            range_of[i] = &ranges_[*key];
            ++range_of[i]->size;
        }
        positions_.resize(size);
        std::uint32_t used = 0;
        for (std::size_t i = 0; i < size; ++i) {
            Range* range = range_of[i];
            if (range == nullptr) continue;
            if (range->filled == 0) {
                range->begin = used;
                used += range->size;
            }
            positions_[range->begin + range->filled++] = static_cast<std::uint32_t>(i);
        }
    }

    std::span<const std::uint32_t> At(const Key& key) const {
        const auto found = ranges_.find(key);
        if (found == ranges_.end()) return {};
        return {positions_.data() + found->second.begin, found->second.size};
    }

  private:
    struct Range {
        std::uint32_t begin = 0;
        std::uint32_t size = 0;
        std::uint32_t filled = 0;
    };
    Map<Key, Range> ranges_;
    std::vector<std::uint32_t> positions_;
};

/// Indexes of a list as it was when they were built. Keys borrow from the certificates, which the list keeps alive.
class CertIndex {
  public:
    explicit CertIndex(const std::vector<X509Cert*>& certs);

    std::span<const std::uint32_t> WithSubject(std::string_view subject) const { return by_subject_.At(subject); }
    std::span<const std::uint32_t> WithSubjectKeyId(std::string_view hex) const { return by_key_id_.At(hex); }
    std::span<const std::uint32_t> WithAddress(const X509Cert* cert) const { return by_address_.At(cert); }
    /// Candidates only: entries whose token, identifier and DER hash alike.
    std::span<const std::uint32_t> WithObjectHash(std::uint64_t hash) const { return by_object_.At(hash); }

  private:
    PositionMap<std::string_view> by_subject_;
    PositionMap<std::string_view> by_key_id_;
    PositionMap<const X509Cert*> by_address_;
    PositionMap<std::uint64_t> by_object_;
};

/// A list of CRLs and its index.
class CrlIndex {
  public:
    explicit CrlIndex(std::vector<CrlRef> crls);

    const std::vector<CrlRef>& crls() const { return crls_; }
    std::span<const std::uint32_t> WithIssuer(std::string_view issuer) const { return by_issuer_.At(issuer); }

  private:
    std::vector<CrlRef> crls_;
    PositionMap<std::string_view> by_issuer_;
};

}  // namespace CM
