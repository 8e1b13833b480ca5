#include "platform/tokens/mechanisms.h"

#include <algorithm>

#include "platform/asn1/alg_table.h"
#include "platform/tokens/host_digest.h"

namespace tokens {
namespace {

static_assert(asn1::kNoMechanism == CK_UNAVAILABLE_INFORMATION);

/// Curves that key pairs are made on.
constexpr CK_ULONG kMinCurveBits = 256;
constexpr CK_ULONG kMaxCurveBits = 521;
constexpr CK_ULONG kEd25519Bits = 256;

/// The hash whose presence tells that keys of this code can be made: the two GOST codes of one size share a mechanism.
pki_alg_t HashOfGostKey(pki_alg_t key_alg) {
    switch (key_alg) {
        case PKI_KEY_GOST2001:
            return PKI_HASH_GOST94;
        case PKI_KEY_GOST2012_256:
            return PKI_HASH_GOST2012_256;
        default:
            return 0;
    }
}

PKCS11::KeyPairGenMechanism Sizes(pki_alg_t alg, const CK_MECHANISM_INFO& info) {
    CK_ULONG least = info.ulMinKeySize;
    CK_ULONG most = info.ulMaxKeySize;
    if (alg == PKI_KEY_EC) {
        least = std::max(least, kMinCurveBits);
        most = std::min(most, kMaxCurveBits);
    } else if (alg == PKI_KEY_ED25519) {
        least = most = kEd25519Bits;
    }
    return {alg, static_cast<std::uint32_t>(least), static_cast<std::uint32_t>(most)};
}

}  // namespace

Result MechanismList::Read(const Api& api, CK_SLOT_ID slot, MechanismList& list) {
    CK_ULONG count = 0;
    Result result = api.GetMechanismList(slot, nullptr, count);
    if (!result.ok()) return result;
    std::vector<CK_MECHANISM_TYPE> types(std::min(count, kMaxMechanisms));
    count = types.size();
    if (count > 0) result = api.GetMechanismList(slot, types.data(), count);
    if (!result.ok()) return result;
    types.resize(std::min<std::size_t>(count, types.size()));
    for (const CK_MECHANISM_TYPE type : types) {
        CK_MECHANISM_INFO info{};
        if (api.GetMechanismInfo(slot, type, info).ok()) list.entries_.push_back({type, info});
    }
    return result;
}

const MechanismList::Entry* MechanismList::Find(CK_MECHANISM_TYPE type) const {
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.type == type; });
    return found == entries_.end() ? nullptr : &*found;
}

bool MechanismList::Has(CK_MECHANISM_TYPE type, CK_FLAGS flags) const {
    const Entry* const entry = Find(type);
    return entry != nullptr && (entry->info.flags & flags) != 0;
}

bool MechanismList::Offers(pki_alg_t alg) const {
    const asn1::AlgRow* const key = asn1::FindKeyAlg(alg);
    const asn1::AlgRow* const hash = asn1::FindHashAlg(alg);
    const bool has_key = (alg & PKI_KEY_MASK) != 0;
    const bool has_hash = (alg & PKI_HASH_MASK) != 0;
    if (has_key && (key == nullptr || !Has(key->key.sign, CKF_SIGN | CKF_VERIFY))) return false;
    if (!has_hash) return has_key;
    if (hash == nullptr) return false;
    return Has(hash->hash.digest, CKF_DIGEST) || (has_key && (hash->code == PKI_HASH_NONE || HostKnowsDigest(alg)));
}

bool MechanismList::VerifiesInSoftware(pki_alg_t alg) const {
    const asn1::AlgRow* const key = asn1::FindKeyAlg(alg);
    return key != nullptr && !Has(key->key.sign, CKF_HW);
}

void MechanismList::KeyPairGeneration(std::vector<PKCS11::KeyPairGenMechanism>& mechanisms) const {
    for (const Entry& entry : entries_) {
        if ((entry.info.flags & CKF_GENERATE_KEY_PAIR) == 0) continue;
        for (const asn1::AlgRow& row : asn1::AlgTable()) {
            if (row.key.generate != entry.type) continue;
            const pki_alg_t hash = HashOfGostKey(row.code);
            if (hash == 0 || Offers(hash)) mechanisms.push_back(Sizes(row.code, entry.info));
        }
    }
}

void MechanismList::Digests(std::vector<pki_alg_t>& digests) const {
    for (const Entry& entry : entries_) {
        if ((entry.info.flags & CKF_DIGEST) == 0) continue;
        for (const asn1::AlgRow& row : asn1::AlgTable()) {
            if (row.hash.digest == entry.type) digests.push_back(row.code);
        }
    }
}

SignatureMechanism::SignatureMechanism(pki_alg_t alg) {
    const asn1::AlgRow* const key = asn1::FindKeyAlg(alg);
    if (key == nullptr) return;
    if (key->code == PKI_KEY_RSA_PSS) {
        const asn1::AlgRow* const hash = asn1::FindHashAlg(alg);
        if (hash == nullptr || hash->hash.mgf == asn1::kNoMechanism) return;
        pss_.hashAlg = hash->hash.digest;
        pss_.mgf = hash->hash.mgf;
        pss_.sLen = hash->hash.length;
        mechanism_.pParameter = &pss_;
        mechanism_.ulParameterLen = sizeof pss_;
    }
    mechanism_.mechanism = key->key.sign;
}

}  // namespace tokens
