#include "platform/tokens/mechanisms.h"

#include <algorithm>

#include "platform/tokens/host_digest.h"

namespace tokens {
namespace {

static_assert(asn1::kNoMechanism == CK_UNAVAILABLE_INFORMATION);

/// Curves that key pairs are made on.
constexpr CK_ULONG kMinCurveBits = 256;
constexpr CK_ULONG kMaxCurveBits = 521;
constexpr CK_ULONG kEd25519Bits = 256;

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
    std::erase(types, CK_UNAVAILABLE_INFORMATION);  // which here stands for "no such mechanism"
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

CK_MECHANISM_TYPE MechanismList::MessageMechanism(pki_alg_t alg) const {
    const asn1::AlgRow* const hash = asn1::FindHashAlg(alg);
    if (hash == nullptr || hash->hash.key == 0 || Find(hash->hash.sign) == nullptr) return CK_UNAVAILABLE_INFORMATION;
    const bool digests = Has(hash->hash.digest, CKF_DIGEST) || HostKnowsDigest(alg);
    const bool ready = digests && Find(asn1::FindKeyAlg(hash->hash.key)->key.sign) != nullptr;
    return ready ? CK_UNAVAILABLE_INFORMATION : hash->hash.sign;
}

/// Keys of 34.10-2001 and of 34.10-2012 with 256 bits share a mechanism: the hashes tell which of them a token knows.
/// One that shows neither hash is taken to know both.
bool MechanismList::KnowsGostHash(const asn1::AlgRow& key) const {
    bool knows_other = false;
    for (const asn1::AlgRow& row : asn1::AlgTable()) {
        if (row.hash.key == 0 || asn1::FindKeyAlg(row.hash.key)->key.sign != key.key.sign) continue;
        const bool knows = Find(row.hash.digest) != nullptr || Find(row.hash.sign) != nullptr;
        if (knows && row.hash.key == key.code) return true;
        knows_other = knows_other || knows;
    }
    return !knows_other;
}

bool MechanismList::Offers(pki_alg_t alg, CK_FLAGS use) const {
    const asn1::AlgRow* const key = asn1::FindKeyAlg(alg);
    const asn1::AlgRow* const hash = asn1::FindHashAlg(alg);
    const bool has_key = (alg & PKI_KEY_MASK) != 0;
    const bool has_hash = (alg & PKI_HASH_MASK) != 0;
    const CK_MECHANISM_TYPE of_message = MessageMechanism(alg);
    if (of_message != CK_UNAVAILABLE_INFORMATION) return !has_key || Has(of_message, use);
    if (has_key && (key == nullptr || !Has(key->key.sign, use) || !KnowsGostHash(*key))) return false;
    if (!has_hash) return has_key;
    if (hash == nullptr) return false;
    return Has(hash->hash.digest, CKF_DIGEST) || (has_key && (hash->code == PKI_HASH_NONE || HostKnowsDigest(alg)));
}

bool MechanismList::VerifiesInSoftware(pki_alg_t alg) const {
    const asn1::AlgRow* const key = asn1::FindKeyAlg(alg);
    const CK_MECHANISM_TYPE of_message = MessageMechanism(alg);
    return key != nullptr && !Has(of_message != CK_UNAVAILABLE_INFORMATION ? of_message : key->key.sign, CKF_HW);
}

void MechanismList::KeyPairGeneration(std::vector<PKCS11::KeyPairGenMechanism>& mechanisms) const {
    for (const Entry& entry : entries_) {
        if ((entry.info.flags & CKF_GENERATE_KEY_PAIR) == 0) continue;
        for (const asn1::AlgRow& row : asn1::AlgTable()) {
            if (row.key.generate != entry.type) continue;
            const asn1::AlgRow* const hash = asn1::FindHashOfKey(row.code);
            if (hash == nullptr || Offers(hash->code)) mechanisms.push_back(Sizes(row.code, entry.info));
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
    for (const asn1::AlgRow& row : asn1::AlgTable()) {
        const bool within = row.hash.key != 0 && MessageMechanism(row.code) != CK_UNAVAILABLE_INFORMATION;
        if (within && !Has(row.hash.digest, CKF_DIGEST)) digests.push_back(row.code);
    }
}

SignatureMechanism::SignatureMechanism(pki_alg_t alg, CK_MECHANISM_TYPE of_message)
    : mechanism_{of_message, nullptr, 0} {
    if (known()) return;
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
