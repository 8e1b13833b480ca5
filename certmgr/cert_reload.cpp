#include "cert_reload.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <list>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "cert_index.h"
#include "certmgr/cert_log.h"
#include "certmgr/certmgr.h"
#include "certmgr/discarded_keys.h"
#include "certmgr/hooks.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"
#include "platform/params.h"

namespace CM {

namespace {

using PresharedKeys = std::vector<std::unique_ptr<PresharedKey>>;

/// Names of `keys` that find no partner of the same name in `others`; each partner serves once.
std::vector<std::string> NamesWithoutPartner(const PresharedKeys& keys, const PresharedKeys& others) {
    std::unordered_map<std::string_view, std::size_t> partners;
    for (const auto& other : others) ++partners[other->name];
    std::vector<std::string> names;
    for (const auto& key : keys) {
        const auto partner = partners.find(key->name);
        if (partner != partners.end() && partner->second > 0) {
            --partner->second;
        } else {
            names.push_back(key->name);
        }
    }
    return names;
}

std::unique_ptr<PresharedKey> MakeKey(const PKCS11::TokenInfo& token, std::string name) {
    return std::make_unique<PresharedKey>(PresharedKey{token, std::move(name)});
}

void LogChange(std::string text, std::string_view name) {
    {
        const vpnfc::ObjectLock lock(LPARAMS::server.log);
        if (!LPARAMS::server.log.certificate_changes) return;
    }
    cmprint_Value(text, name);
    TLogMessage(kMsgStoreChanged).Attr(text).Send();
}

}  // namespace

/// Looks public keys up on one token. After it failed to show them nothing is asked any more: the answers are empty.
class KeyLookUps {
  public:
    explicit KeyLookUps(PKCS11::TokenSession& session) : session_(session) {}

    bool failed() const { return failed_; }

    std::optional<bool> Contains(const std::string& spki) {
        if (failed_) return {};
        return Answer(session_.ContainPubKeyObject(spki));
    }
    std::optional<bool> Read(pki_alg_t alg, const std::string& id, std::string& spki) {
        if (failed_) return {};
        return Answer(session_.GetRawPubKeyObjectData(alg, id, spki));
    }

  private:
    std::optional<bool> Answer(bool found) {
        failed_ = !found && session_.keyLookUpFailed();
        return failed_ ? std::nullopt : std::optional(found);
    }

    PKCS11::TokenSession& session_;
    bool failed_ = false;
};

namespace {

/// An entry without a parsed certificate: its key is known from the token's public-key object, if there is one. False when
/// the token does not say.
bool CompleteKeyPair(X509Cert& cert, const PKCS11::CertObject& object, KeyLookUps& keys) {
    std::string spki;
    const std::optional<bool> found = keys.Read(object.keyAlg, object.id, spki);
    if (found.value_or(false) && !spki.empty()) cert.SetKeyPairPublicKey(object.keyAlg, std::move(spki));
    return found.has_value();
}

/// Nothing when the token does not say.
std::optional<bool> IsPersonal(const X509Cert& cert, const PKCS11::CertObject& object, KeyLookUps& keys) {
    if (cert.info.isCA) return false;
    if (object.category == PKCS11::kTokenUserCategory) return true;
    return keys.Contains(cert.rawPubKey);
}

}  // namespace

ReloadPass::ListChange::ListChange(CertStorage::X509CertsDB& stored) : list(stored), kept(stored.size()) {}

void ReloadPass::ListChange::Prepare() {
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (!kept[i]) disappeared.Append(list[i]);
    }
    if (!Any()) return;
    next.Reserve(list.size() - disappeared.size() + appeared.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (kept[i]) next.Append(list[i]);
    }
    for (X509Cert* cert : appeared) next.Append(cert);
    next.Reindex();
}

void ReloadPass::ListChange::KeepAllOf(const PKCS11::TokenInfo& token) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i]->token.id == token.id) kept[i] = true;
    }
}

ReloadPass::ReloadPass(CertStorage& storage, std::uint32_t what)
    : storage_(storage),
      what_(what),
      other_(storage.otherCerts),
      trusted_(storage.trustedCerts),
      personal_(storage.personalCerts),
      key_pair_(storage.keyPairCerts) {}

void ReloadPass::ReadTokens() {
    if ((what_ & kReloadCRLs) != 0) {
        const vpnfc::ReadLock lock(storage_);  // CRLs are added outside of reloads, too
        for (const CrlRef& crl : storage_.crls) old_crls_.emplace(std::pair(crl->token.id, crl->info.id), crl);
    }
    const auto tokens = PKCS11::Manager::Instance().EnumTokensShared();
    for (const PKCS11::TokenInfo& token : *tokens) {
        PKCS11::TokenSession session(token);
        if (!session) continue;
        if ((what_ & kReloadCertificates) != 0) ReadCertificates(session, token);
        if ((what_ & kReloadPresharedKeys) != 0) ReadPresharedKeys(session, token);
        if ((what_ & kReloadCRLs) != 0) ReadCRLs(session, token);
    }
}

void ReloadPass::ReadCertificates(PKCS11::TokenSession& session, const PKCS11::TokenInfo& token) {
    DeleteDiscarded(token, session);
    std::list<PKCS11::CertObject> objects;
    const bool complete = session.EnumCertificates(objects);
    KeyLookUps keys(session);
    for (const PKCS11::CertObject& object : objects) {
        if (Keep(token, object)) continue;
        MutableCertRef cert = MutableCertRef::Adopt(new X509Cert(token, object));
        if (ListChange* const list = Classify(*cert, object, keys)) list->appeared.Adopt(cert.Detach());
    }
    if (!complete || keys.failed()) failures_.emplace(token.id, kReloadCertificates);
    if (complete) return;
    for (ListChange* change : {&other_, &trusted_, &personal_, &key_pair_}) change->KeepAllOf(token);
}

/// Looks the object up in the old lists: personal, trusted, other (none of them for a key pair), key pair last. Each
/// old entry answers one object.
bool ReloadPass::Keep(const PKCS11::TokenInfo& token, const PKCS11::CertObject& object) {
    const TokenObjectKey key(token, object);
    const auto take = [&key](ListChange& change) {
        const std::size_t position = change.list.PositionOfObject(key, &change.kept);
        if (position == CertStorage::X509CertsDB::npos) return false;
        change.kept[position] = true;
        return true;
    };
    if (object.category != PKCS11::kKeyPairCategory && (take(personal_) || take(trusted_) || take(other_))) return true;
    return take(key_pair_);
}

/// Sets the kind of a new entry and says which list it belongs to. Null: it cannot be used, or it depends on a key that the
/// token did not show; a wrong kind would stay with it for good.
ReloadPass::ListChange* ReloadPass::Classify(X509Cert& cert, const PKCS11::CertObject& object, KeyLookUps& keys) {
    const auto as = [&cert](std::uint32_t kind, ListChange& list) {
        cert.info.kind = kind;
        return &list;
    };
    if (cert.certHandle == nullptr) {
        return CompleteKeyPair(cert, object, keys) ? as(kCertKindKeyPair, key_pair_) : nullptr;
    }
    if (cert.CanBeUsed() != ImportCertOk) return nullptr;
    const std::optional<bool> personal = IsPersonal(cert, object, keys);
    if (!personal) return nullptr;
    if (*personal) return as(kCertKindPersonal, personal_);
    return object.trusted ? as(kCertKindTrusted, trusted_) : as(kCertKindOther, other_);
}

void ReloadPass::ReadPresharedKeys(PKCS11::TokenSession& session, const PKCS11::TokenInfo& token) {
    std::list<PKCS11::PresharedKeyObject> objects;
    const bool complete = session.EnumPresharedKeys(objects);
    PresharedKeys read;
    for (PKCS11::PresharedKeyObject& object : objects) read.push_back(MakeKey(token, std::move(object.name)));
    if (!complete) {
        failures_.emplace(token.id, kReloadPresharedKeys);
        PresharedKeys old;
        for (const auto& key : storage_.presharedKeys) {
            if (key->token.id == token.id) old.push_back(MakeKey(token, key->name));
        }
        for (std::string& name : NamesWithoutPartner(old, read)) read.push_back(MakeKey(token, std::move(name)));
    }
    std::move(read.begin(), read.end(), std::back_inserter(preshared_keys_));
}

void ReloadPass::ReadCRLs(PKCS11::TokenSession& session, const PKCS11::TokenInfo& token) {
    std::list<PKCS11::CRLObject> objects;
    const bool complete = session.EnumCRLs(objects);
    for (PKCS11::CRLObject& object : objects) {
        const CrlRef old = TakeOld(token, object);
        crls_.push_back(old != nullptr ? std::make_shared<X509CRL>(token, *old)
                                       : std::make_shared<X509CRL>(token, std::move(object)));
    }
    if (complete) return;
    failures_.emplace(token.id, kReloadCRLs);
    for (const auto& [key, crl] : old_crls_) {
        if (key.first == token.id) crls_.push_back(crl);
    }
}

/// The store's object of a CRL that is still the same, once: a large one is not read anew.
CrlRef ReloadPass::TakeOld(const PKCS11::TokenInfo& token, const PKCS11::CRLObject& object) {
    const auto [first, last] = old_crls_.equal_range({token.id, object.id});
    const auto same = std::find_if(first, last, [&](const auto& old) { return old.second->rawCrl() == object.value; });
    return same != last ? old_crls_.extract(same).mapped() : nullptr;
}

void ReloadPass::Prepare() {
    if ((what_ & kReloadCertificates) != 0) {
        for (ListChange* change : {&other_, &trusted_, &personal_, &key_pair_}) change->Prepare();
    }
    if ((what_ & kReloadPresharedKeys) != 0) {
        keys_disappeared_ = NamesWithoutPartner(storage_.presharedKeys, preshared_keys_);
        keys_appeared_ = NamesWithoutPartner(preshared_keys_, storage_.presharedKeys);
    }
    next_crls_ = CrlList(std::move(crls_));
}

void ReloadPass::Swap() {
    for (ListChange* change : {&other_, &trusted_, &personal_, &key_pair_}) {
        if (change->Any()) change->list.Swap(change->next);
    }
    if ((what_ & kReloadPresharedKeys) != 0) storage_.presharedKeys.swap(preshared_keys_);
    if ((what_ & kReloadCRLs) != 0) storage_.crls.Swap(next_crls_);
}

bool ReloadPass::Report() {
    ReportCertificates();
    ReportPresharedKeys();
    return other_.Any() || trusted_.Any() || personal_.Any() || key_pair_.Any() || !keys_disappeared_.empty() ||
           !keys_appeared_.empty();
}

void ReloadPass::ReportCertificates() const {
    for (X509Cert* cert : personal_.disappeared) {
        LogChange("PersonalCertDisappeared: ", cert->info.subject);
        Tell(Callbacks.PersonalCertDisappeared, cert, cert->info);
    }
    for (X509Cert* cert : personal_.appeared) {
        LogChange("PersonalCertAppeared: ", cert->info.subject);
        Tell(Callbacks.PersonalCertAppeared, cert, cert->info);
    }
}

void ReloadPass::ReportPresharedKeys() const {
    for (const std::string& name : keys_disappeared_) {
        LogChange("PresharedKeyDisappeared: ", asn_text_to_line(name));
        Tell(Callbacks.PresharedKeyDisappeared, name);
    }
    for (const std::string& name : keys_appeared_) {
        LogChange("PresharedKeyAppeared: ", asn_text_to_line(name));
        Tell(Callbacks.PresharedKeyAppeared, name);
    }
}

}  // namespace CM
