#include "platform/tokens/objects.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <unordered_set>

#include "platform/tokens/attributes.h"
#include "platform/tokens/key_codec.h"
#include "platform/tokens/object_layout.h"

namespace tokens {
namespace {

// Sizes that nearly all values fit, so that one call reads an object.
constexpr CK_ULONG kIdBytes = 256;
constexpr CK_ULONG kCertificateBytes = 8192;
constexpr CK_ULONG kCrlBytes = 65536;
constexpr CK_ULONG kLabelBytes = 1024;
constexpr CK_ULONG kComponentBytes = 1024;

void Sort(CK_OBJECT_HANDLE object, CK_OBJECT_CLASS object_class, ObjectListing& listing) {
    switch (object_class) {
        case CKO_CERTIFICATE:
            return listing.certificates.push_back(object);
        case CKO_PUBLIC_KEY:
            return listing.public_keys.push_back(object);
        case CKO_PRIVATE_KEY:
            return listing.private_keys.push_back(object);
        case CKO_SECRET_KEY:
            return listing.secret_keys.push_back(object);
        case CKO_DATA:
            return listing.data.push_back(object);
        default:
            return;
    }
}

/// Reads the objects one after the other into `take`, which sees only those that are still there and of that class:
/// the first attribute of the reader is CKA_CLASS. `stale` is set when one is of another class.
template <typename Take>
Result ReadEach(Session& session, const std::vector<CK_OBJECT_HANDLE>& objects, CK_OBJECT_CLASS object_class,
                AttributeReader& reader, bool& stale, const Take& take) {
    for (const CK_OBJECT_HANDLE object : objects) {
        const Result result = reader.Read(session.api(), session.handle(), object);
        if (IsLostObject(result.rv)) continue;
        if (!result.ok()) return result;
        if (reader.Number(0, object_class) == object_class) {
            take(object);
        } else {
            stale = true;
        }
    }
    return {};
}

/// CK_DATE, end of that day; unknown when empty or no date.
cert_time64_t EndOfDay(std::string_view date) {
    if (date.size() != 8 || date.find_first_not_of("0123456789") != std::string_view::npos) return CERT_TIME_UNKNOWN;
    const auto number = [&](std::size_t at, std::size_t count) {
        int value = 0;
        for (const char digit : date.substr(at, count)) value = value * 10 + (digit - '0');
        return value;
    };
    std::tm tm{};
    tm.tm_year = number(0, 4) - 1900;
    tm.tm_mon = number(4, 2) - 1;
    tm.tm_mday = number(6, 2);
    if (tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31) return CERT_TIME_UNKNOWN;
    tm.tm_hour = 23;
    tm.tm_min = 59;
    tm.tm_sec = 59;
    return CertTimeFromTm(tm);
}

struct KeyObject {
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    CK_KEY_TYPE type = CK_UNAVAILABLE_INFORMATION;
    pki_alg_t alg = 0;
    std::string id{};
    cert_time64_t not_after = CERT_TIME_UNKNOWN;
    bool date_hidden = false;  // the token failed to show the date
};

/// Some modules fail to show the date of a private key that they hold encrypted; the rest is then read without it.
Result ReadKeys(Session& session, const std::vector<CK_OBJECT_HANDLE>& objects, CK_OBJECT_CLASS object_class,
                ByteBudget& budget, std::vector<KeyObject>& keys, bool& stale) {
    const std::vector<AttributeReader::Wanted> undated = {{CKA_CLASS, sizeof(CK_ULONG)},
                                                          {CKA_KEY_TYPE, sizeof(CK_ULONG)},
                                                          {CKA_ID, kIdBytes},
                                                          {CKA_GOSTR3411_PARAMS, kIdBytes}};
    std::vector<AttributeReader::Wanted> dated = undated;
    dated.push_back({CKA_END_DATE, sizeof(CK_DATE)});
    AttributeReader whole(dated, budget);
    AttributeReader part(undated, budget);
    for (const CK_OBJECT_HANDLE object : objects) {
        Result result = whole.Read(session.api(), session.handle(), object);
        const bool hidden = result.rv == CKR_GENERAL_ERROR || result.rv == CKR_FUNCTION_FAILED;
        if (hidden) result = part.Read(session.api(), session.handle(), object);
        if (IsLostObject(result.rv)) continue;
        if (!result.ok()) return result;
        const AttributeReader& reader = hidden ? part : whole;
        stale |= reader.Number(0, object_class) != object_class;
        const CK_KEY_TYPE type = reader.Number(1, CK_UNAVAILABLE_INFORMATION);
        keys.push_back({object, type, KeyAlgOfObject(type, reader.Bytes(3)), std::string(reader.Bytes(2)),
                        hidden ? CERT_TIME_UNKNOWN : EndOfDay(whole.Bytes(4)), hidden});
    }
    return {};
}

/// Reads the components of a key into strings of some kind; one that is not shown is empty.
template <typename Component>
Result ReadComponents(Session& session, CK_OBJECT_HANDLE key, std::span<const CK_ATTRIBUTE_TYPE> types,
                      ByteBudget& budget, std::vector<Component>& components) {
    std::vector<AttributeReader::Wanted> wanted;
    for (const CK_ATTRIBUTE_TYPE type : types) wanted.push_back({type, kComponentBytes});
    AttributeReader reader(wanted, budget);
    const Result result = reader.Read(session.api(), session.handle(), key);
    for (std::size_t i = 0; i < types.size(); ++i) components.emplace_back(reader.Bytes(i));
    return result;
}

/// The key pairs, and the end of usage by identifier.
struct KeyPairs {
    std::vector<KeyObject> keys{};
    std::unordered_map<std::string, cert_time64_t> not_after{};

    cert_time64_t NotAfter(const std::string& id) const {
        const auto found = not_after.find(id);
        return found == not_after.end() ? CERT_TIME_UNKNOWN : found->second;
    }
    /// Algorithms by identifier, of keys that have one.
    std::unordered_map<std::string_view, pki_alg_t> Algorithms() const {
        std::unordered_map<std::string_view, pki_alg_t> algs;
        for (const KeyObject& key : keys) {
            if (!key.id.empty()) algs.emplace(key.id, key.alg);
        }
        return algs;
    }
};

/// Public keys are read only where private ones cannot be seen, or do not show their date.
Result ReadKeyPairs(Session& session, const ObjectListing& listing, bool private_keys_visible, ByteBudget& budget,
                    KeyPairs& pairs, bool& stale) {
    const Result result = ReadKeys(session, listing.private_keys, CKO_PRIVATE_KEY, budget, pairs.keys, stale);
    if (!result.ok()) return result;
    const bool dates_hidden =
        std::any_of(pairs.keys.begin(), pairs.keys.end(), [](const KeyObject& key) { return key.date_hidden; });
    for (const KeyObject& key : pairs.keys) {
        if (!key.date_hidden) pairs.not_after.emplace(key.id, key.not_after);
    }
    if (private_keys_visible && !dates_hidden) return result;

    std::vector<KeyObject> public_keys;
    const Result more = ReadKeys(session, listing.public_keys, CKO_PUBLIC_KEY, budget, public_keys, stale);
    std::unordered_set<std::string> paired;
    for (const KeyObject& key : pairs.keys) paired.insert(key.id);
    for (KeyObject& key : public_keys) {
        pairs.not_after.emplace(key.id, key.not_after);
        if (!private_keys_visible && paired.insert(key.id).second) pairs.keys.push_back(std::move(key));
    }
    return more;
}

FoundOutcome Find(Session& session, AttributeTemplate& wanted) {
    FoundOutcome found;
    found.result = FindObjects(session.api(), session.handle(), wanted, found.objects);
    return found;
}

}  // namespace

ListingOutcome ListObjects(Session& session, const std::shared_ptr<const ObjectClasses>& known) {
    AttributeTemplate everything;
    everything.Flag(CKA_TOKEN, true);  // not the keys of others, which sessions bring to verify with
    const FoundOutcome found = Find(session, everything);
    if (!found.result.ok()) return {found.result};

    const auto listing = std::make_shared<ObjectListing>();
    const auto classes = std::make_shared<ObjectClasses>();
    classes->reserve(found.objects.size());
    ByteBudget budget;
    AttributeReader reader({{CKA_CLASS, sizeof(CK_ULONG)}}, budget);
    for (const CK_OBJECT_HANDLE object : found.objects) {
        CK_OBJECT_CLASS object_class = CK_UNAVAILABLE_INFORMATION;
        if (const auto it = known ? known->find(object) : ObjectClasses::const_iterator();
            known && it != known->end()) {
            object_class = it->second;
        } else {
            const Result result = reader.Read(session.api(), session.handle(), object);
            if (IsLostObject(result.rv)) continue;
            if (!result.ok()) return {result};
            object_class = reader.Number(0, CK_UNAVAILABLE_INFORMATION);
        }
        classes->emplace(object, object_class);
        Sort(object, object_class, *listing);
    }
    listing->classes = classes;
    return {{}, listing};
}

ObjectsOutcome<PKCS11::CertObject> ReadCertificates(Session& session, const ObjectListing& listing,
                                                    bool private_keys_visible) {
    ObjectsOutcome<PKCS11::CertObject> outcome;
    KeyPairs pairs;
    ByteBudget budget;
    outcome.result = ReadKeyPairs(session, listing, private_keys_visible, budget, pairs, outcome.stale);
    if (!outcome.result.ok()) return outcome;

    AttributeReader reader({{CKA_CLASS, sizeof(CK_ULONG)},
                            {CKA_ID, kIdBytes},
                            {CKA_CERTIFICATE_CATEGORY, sizeof(CK_ULONG)},
                            {CKA_TRUSTED, sizeof(CK_BBOOL)},
                            {CKA_VALUE, kCertificateBytes}},
                           budget);
    const auto key_algs = pairs.Algorithms();
    std::unordered_set<std::string_view> certified;
    outcome.result =
        ReadEach(session, listing.certificates, CKO_CERTIFICATE, reader, outcome.stale, [&](CK_OBJECT_HANDLE) {
            PKCS11::CertObject& object = outcome.objects.emplace_back();
            object.id = reader.Bytes(1);
            object.category = static_cast<std::uint32_t>(reader.Number(2, 0));
            object.trusted = reader.Flag(3);
            object.value = reader.Bytes(4);
            // The marker is ours: a token that uses the number says nothing that is known.
            if (object.category == PKCS11::kKeyPairCategory) object.category = 0;
            certified.insert(object.id);
            if (const auto key = key_algs.find(object.id); key != key_algs.end()) object.keyAlg = key->second;
            if (!object.id.empty()) object.keyNotAfter = pairs.NotAfter(object.id);
        });
    if (!outcome.result.ok()) return outcome;
    for (const KeyObject& key : pairs.keys) {
        if (certified.count(key.id) > 0) continue;
        PKCS11::CertObject& object = outcome.objects.emplace_back();
        object.id = key.id;
        object.category = PKCS11::kKeyPairCategory;
        object.keyAlg = key.alg;
        object.keyNotAfter = pairs.NotAfter(key.id);
    }
    return outcome;
}

ObjectsOutcome<PKCS11::CRLObject> ReadCrls(Session& session, const ObjectListing& listing) {
    ObjectsOutcome<PKCS11::CRLObject> outcome;
    if (listing.data.empty()) return outcome;
    ByteBudget budget;
    AttributeReader reader({{CKA_CLASS, sizeof(CK_ULONG)},
                            {CKA_APPLICATION, kLabelBytes},
                            {CKA_OBJECT_ID, kIdBytes},
                            {CKA_VALUE, kCrlBytes}},
                           budget);
    outcome.result = ReadEach(session, listing.data, CKO_DATA, reader, outcome.stale, [&](CK_OBJECT_HANDLE) {
        if (reader.Bytes(1) != kCrlApplication) return;
        outcome.objects.push_back({std::string(reader.Bytes(2)), std::string(reader.Bytes(3))});
    });
    return outcome;
}

ObjectsOutcome<PKCS11::PresharedKeyObject> ReadPresharedKeys(Session& session, const ObjectListing& listing) {
    ObjectsOutcome<PKCS11::PresharedKeyObject> outcome;
    ByteBudget budget;
    AttributeReader reader({{CKA_CLASS, sizeof(CK_ULONG)}, {CKA_KEY_TYPE, sizeof(CK_ULONG)}, {CKA_LABEL, kLabelBytes}},
                           budget);
    outcome.result =
        ReadEach(session, listing.secret_keys, CKO_SECRET_KEY, reader, outcome.stale, [&](CK_OBJECT_HANDLE) {
            if (reader.Number(1, CK_UNAVAILABLE_INFORMATION) != CKK_GENERIC_SECRET || reader.Bytes(2).empty()) return;
            outcome.objects.push_back({std::string(reader.Bytes(2))});
        });
    return outcome;
}

void PublicKeyIndex::Add(Key key) {
    const Key& added = keys_.emplace_back(std::move(key));
    by_spki_.emplace(added.spki, &added);
    by_id_.emplace(added.id, &added);
}

const PublicKeyIndex::Key* PublicKeyIndex::FindBySpki(const std::string& spki) const {
    const auto found = by_spki_.find(spki);
    return found == by_spki_.end() ? nullptr : found->second;
}

const PublicKeyIndex::Key* PublicKeyIndex::FindById(pki_alg_t alg, const std::string& id) const {
    const auto [begin, end] = by_id_.equal_range(id);
    for (auto it = begin; it != end; ++it) {
        if (it->second->alg == (alg & PKI_ALG_MASK)) return it->second;
    }
    return nullptr;
}

IndexOutcome IndexPublicKeys(Session& session, const ObjectListing& listing) {
    std::vector<KeyObject> keys;
    bool stale = false;
    ByteBudget budget;
    Result result = ReadKeys(session, listing.public_keys, CKO_PUBLIC_KEY, budget, keys, stale);
    std::vector<KeyObject> private_keys;
    if (result.ok()) result = ReadKeys(session, listing.private_keys, CKO_PRIVATE_KEY, budget, private_keys, stale);
    if (!result.ok()) return {result};
    // Only RSA private keys carry their public half under the same attributes.
    for (KeyObject& key : private_keys) {
        if (key.type == CKK_RSA) keys.push_back(std::move(key));
    }
    auto index = std::make_shared<PublicKeyIndex>();
    for (KeyObject& key : keys) {
        std::vector<std::string> components;
        result = ReadComponents(session, key.handle, PublicComponents(key.type), budget, components);
        if (IsLostObject(result.rv)) continue;
        if (!result.ok()) return {result};
        std::string spki = SpkiFromComponents(key.alg, components);
        if (!spki.empty()) index->Add({std::move(key.id), key.alg, std::move(spki)});
    }
    return {{}, std::move(index), stale};
}

FoundOutcome FindById(Session& session, CK_OBJECT_CLASS object_class, const std::string& id) {
    AttributeTemplate wanted;
    wanted.Number(CKA_CLASS, object_class).Bytes(CKA_ID, id);
    return Find(session, wanted);
}

FoundOutcome FindPrivateKeys(Session& session, pki_alg_t alg, const std::string& id) {
    AttributeTemplate wanted;
    wanted.Number(CKA_CLASS, CKO_PRIVATE_KEY).Bytes(CKA_ID, id).Number(CKA_KEY_TYPE, KeyTypeOf(alg));
    return Find(session, wanted);
}

FoundOutcome FindEmptyCertificates(Session& session) {
    AttributeTemplate wanted;
    wanted.Number(CKA_CLASS, CKO_CERTIFICATE).Bytes(CKA_ID, {}).Bytes(CKA_SUBJECT, {}).Bytes(CKA_VALUE, {});
    wanted.Bytes(CKA_URL, {});
    return Find(session, wanted);
}

FoundOutcome FindCrls(Session& session, const std::string& id) {
    AttributeTemplate wanted;
    wanted.Number(CKA_CLASS, CKO_DATA).Bytes(CKA_APPLICATION, kCrlApplication).Bytes(CKA_OBJECT_ID, id);
    return Find(session, wanted);
}

FoundOutcome FindPresharedKeys(Session& session, const std::string& name) {
    AttributeTemplate wanted;
    wanted.Number(CKA_CLASS, CKO_SECRET_KEY).Number(CKA_KEY_TYPE, CKK_GENERIC_SECRET).Bytes(CKA_LABEL, name);
    return Find(session, wanted);
}

CertificatesOutcome FindCertificates(Session& session, const std::string& id) {
    AttributeTemplate wanted;
    wanted.Number(CKA_CLASS, CKO_CERTIFICATE);
    if (!id.empty()) wanted.Bytes(CKA_ID, id);
    const FoundOutcome found = Find(session, wanted);
    CertificatesOutcome outcome{found.result};
    bool stale = false;
    if (!found.result.ok()) return outcome;
    ByteBudget budget;
    AttributeReader reader({{CKA_CLASS, sizeof(CK_ULONG)}, {CKA_VALUE, kCertificateBytes}}, budget);
    outcome.result = ReadEach(session, found.objects, CKO_CERTIFICATE, reader, stale, [&](CK_OBJECT_HANDLE object) {
        outcome.certificates.push_back({object, std::string(reader.Bytes(1))});
    });
    return outcome;
}

DeleteOutcome Delete(Session& session, const FoundOutcome& found) {
    DeleteOutcome outcome{found.result};
    for (const CK_OBJECT_HANDLE object : found.objects) {
        const Result result = session.api().DestroyObject(session.handle(), object);
        if (result.ok()) {
            outcome.deleted = true;
        } else if (!IsLostObject(result.rv)) {
            outcome.result = result;
        }
    }
    return outcome;
}

SecretOutcome ReadPresharedKey(Session& session, const std::string& name) {
    const FoundOutcome found = FindPresharedKeys(session, name);
    if (!found.result.ok()) return {found.result};
    ByteBudget budget;
    AttributeReader reader({{CKA_VALUE, kLabelBytes}}, budget);
    for (const CK_OBJECT_HANDLE object : found.objects) {
        const Result result = reader.Read(session.api(), session.handle(), object);
        if (IsLostObject(result.rv)) continue;
        if (!result.ok()) return {result};
        if (reader.Has(0)) return {result, vpnfc::SecretString(reader.Bytes(0))};
    }
    return {};
}

SecretOutcome ReadPrivateKey(Session& session, const std::string& id) {
    const FoundOutcome found = FindById(session, CKO_PRIVATE_KEY, id);
    if (!found.result.ok()) return {found.result};
    std::vector<KeyObject> keys;
    bool stale = false;
    ByteBudget budget;
    Result result = ReadKeys(session, found.objects, CKO_PRIVATE_KEY, budget, keys, stale);
    if (!result.ok() || keys.empty()) return {result};
    const KeyObject& key = keys.front();
    std::vector<vpnfc::SecretString> components;
    result = ReadComponents(session, key.handle, PrivateComponents(key.type), budget, components);
    if (!result.ok()) return {result};
    vpnfc::SecretString pkcs8 = Pkcs8FromComponents(key.alg, components);
    if (pkcs8.empty()) return {};
    return {result, std::move(pkcs8)};
}

}  // namespace tokens
