#include "certmgr/cert_storage.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <utility>

#include "cert_index.h"
#include "cert_reload.h"
#include "certmgr/certmgr.h"
#include "certmgr/discarded_keys.h"
#include "certmgr/hooks.h"
#include "platform/bridge.h"

namespace CM {

namespace {

/// Token events that arrive within this many units of the event manager fold into one reload.
constexpr unsigned long kReloadDelay = 2;

void cm_send_cert_list_changed_nitification_(const EM_Event& event) {
    if (!event.cancelled) bridge::server::NotifyClients(bridge::kNotifyCertListChanged, {});
}

/// Marks the calling thread as one that runs a reload.
class Reloading {
  public:
    Reloading() = default;
    ~Reloading() { here = outer_; }
    Reloading(const Reloading&) = delete;
    Reloading& operator=(const Reloading&) = delete;

    static thread_local bool here;

  private:
    const bool outer_ = std::exchange(here, true);
};
thread_local bool Reloading::here = false;

template <typename Slot, typename Handler>
void ClearIfOurs(Slot& slot, Handler handler) {
    if (slot == handler) slot = nullptr;
}

}  // namespace

// --- Lists ---

CertList& CertList::operator=(CertList&& other) noexcept {
    if (this != &other) {
        Clear();
        certs_.swap(other.certs_);
    }
    return *this;
}

void CertList::Append(X509Cert* cert) {
    certs_.push_back(cert);
    cert->AddRef();
}

void CertList::Clear() {
    for (X509Cert* cert : std::exchange(certs_, {})) cert->Release();
}

CertStorage::X509CertsDB::X509CertsDB() = default;
CertStorage::X509CertsDB::~X509CertsDB() = default;
CertStorage::X509CertsDB::X509CertsDB(X509CertsDB&&) noexcept = default;
CertStorage::X509CertsDB& CertStorage::X509CertsDB::operator=(X509CertsDB&&) noexcept = default;

void CertStorage::X509CertsDB::Clear() {
    index_.reset();
    CertList::Clear();
}

void CertStorage::X509CertsDB::Reindex() {
    index_ = certs_.empty() ? nullptr : std::make_unique<CertIndex>(certs_);
}

void CertStorage::X509CertsDB::Swap(X509CertsDB& other) noexcept {
    certs_.swap(other.certs_);
    index_.swap(other.index_);
}

void CertStorage::X509CertsDB::ClearAndSwap(X509CertsDB& other) {
    X509CertsDB old;
    old.Swap(*this);
    Swap(other);
}

std::span<const std::uint32_t> CertStorage::X509CertsDB::WithSubject(const std::string& subject) const {
    return index_ ? index_->WithSubject(subject) : std::span<const std::uint32_t>();
}

std::span<const std::uint32_t> CertStorage::X509CertsDB::WithSubjectKeyId(const std::string& key_id_hex) const {
    return index_ ? index_->WithSubjectKeyId(key_id_hex) : std::span<const std::uint32_t>();
}

std::size_t CertStorage::X509CertsDB::PositionOf(const X509Cert* cert) const {
    if (!index_) return npos;
    const std::span<const std::uint32_t> positions = index_->WithAddress(cert);
    return positions.empty() ? npos : positions.front();
}

std::size_t CertStorage::X509CertsDB::PositionOfObject(const TokenObjectKey& key,
                                                       const std::vector<bool>* taken) const {
    if (!index_) return npos;
    for (const std::uint32_t position : index_->WithObjectHash(key.hash)) {
        if (taken != nullptr && (*taken)[position]) continue;
        if (key.Equals(*certs_[position])) return position;
    }
    return npos;
}

X509Cert* CertStorage::X509CertsDB::Take(const PKCS11::TokenInfo& token, const PKCS11::CertObject& object) const {
    const std::size_t position = PositionOfObject(TokenObjectKey(token, object), nullptr);
    return position == npos ? nullptr : MutableCertRef(certs_[position]).Detach();
}

X509Cert* CertStorage::X509CertsDB::Find(const PKCS11::TokenInfo& token, const CertInfo& info) const {
    for (const std::uint32_t position : WithSubject(info.subject)) {
        X509Cert* cert = certs_[position];
        if (cert->token.id != token.id || cert->info.serialNumber != info.serialNumber ||
            cert->info.issuer != info.issuer) {
            continue;
        }
        if (info.id.empty() || cert->info.id.empty() || cert->info.id == info.id) return MutableCertRef(cert).Detach();
    }
    return nullptr;
}

CertStorage::CopyCertificates::CopyCertificates(const CertStorage& storage, const X509CertsDB& list) {
    const vpnfc::ReadLock lock(storage);
    Reserve(list.size());
    for (X509Cert* cert : list) Append(cert);
}

CrlList::CrlList() : CrlList(std::vector<CrlRef>()) {}

CrlList::CrlList(std::vector<CrlRef> crls) : index_(std::make_shared<const CrlIndex>(std::move(crls))) {}

const std::vector<CrlRef>& CrlList::crls() const {
    return index_->crls();
}

std::span<const std::uint32_t> CrlList::WithIssuer(const std::string& issuer) const {
    return index_->WithIssuer(issuer);
}

void CrlList::Append(CrlRef crl) {
    std::vector<CrlRef> longer = crls();
    longer.push_back(std::move(crl));
    *this = CrlList(std::move(longer));
}

// --- Store ---

CertStorage CertStorage::instance;

CertStorage& CertStorage::Instance() {
    return instance;
}

CertStorage::CertStorage() {
    // Registers libcrypto's clean-up at exit now, so that it runs after this object's destructor, which still closes
    // handles. Without any option the call would register nothing.
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    PrepareDiscardedKeys();  // which a reload that the destructor waits for uses, too
}

CertStorage::~CertStorage() {
    ClearIfOurs(PKCS11::Callbacks.tokenInserted, CertStorage_OnTokenInsert);
    ClearIfOurs(PKCS11::Callbacks.tokenRemoved, CertStorage_OnTokenRemove);
    ClearIfOurs(PKCS11::Callbacks.tokenLogin, CertStorage_OnTokenLogin);
    ClearIfOurs(PKCS11::Callbacks.providerInserted, CertStorage_OnProviderInsert);
    ClearAll();
}

void CertStorage::ReloadTokensObjects(std::uint32_t what) {
    if ((what & kReloadAll) == 0) return;
    const Reloading here;
    const vpnfc::ObjectLock lock(tokensLock);
    ReloadPass pass(*this, what);
    pass.ReadTokens();
    pass.Prepare();
    {
        const vpnfc::WriteLock write_lock(*this);
        pass.Swap();
        ++reloads;
    }
    const std::uint32_t again = NewFailures(what, pass.failures());
    if (pass.Report()) EM_AsyncCall(cm_send_cert_list_changed_nitification_, nullptr);
    if (again != 0) PutReloadEvent(again);
}

/// Bits worth one more reload: a token that failed the last time, too, is left to its next event.
std::uint32_t CertStorage::NewFailures(std::uint32_t what, const ReadFailures& failures) {
    std::uint32_t bits = 0;
    for (const auto& failure : failures) bits |= lastFailures.contains(failure) ? 0 : failure.second;
    std::erase_if(lastFailures, [what](const auto& failure) { return (failure.second & what) != 0; });
    lastFailures.insert(failures.begin(), failures.end());
    return bits;
}

void CertStorage::Reload() {
    {
        const vpnfc::ObjectLock lock(reloadLock);
        reloadFlags = 0;
    }
    ReloadTokensObjects(kReloadAll);
}

void CertStorage::ReloadOne(std::uint32_t bit) {
    {
        const vpnfc::ObjectLock lock(reloadLock);
        reloadFlags &= ~bit;
    }
    ReloadTokensObjects(bit);
}

void CertStorage::ReloadCertificates() {
    ReloadOne(kReloadCertificates);
}

void CertStorage::ReloadPresharedKeys() {
    ReloadOne(kReloadPresharedKeys);
}

void CertStorage::ReloadCRLs() {
    ReloadOne(kReloadCRLs);
}

void CertStorage::ReloadCertificatesAsync() {
    {
        const vpnfc::ObjectLock lock(reloadLock);
        reloadFlags |= kReloadCertificates;
        reloadPending = true;
    }
    EM_SetTimer(0, 0, ReloadEventHandler, nullptr);
}

void CertStorage::PutReloadEvent(std::uint32_t flags, const PKCS11::TokenInfo* /*token*/) {
    CertStorage& storage = Instance();
    {
        const vpnfc::ObjectLock lock(storage.reloadLock);
        if (storage.reloadFlags > kReloadAll) return;
        storage.reloadPending = true;
        storage.reloadFlags |= flags;
    }
    EM_SetTimer(0, kReloadDelay, ReloadEventHandler, nullptr);
}

void CertStorage::ReloadEventHandler(const EM_Event& event) {
    // Whatever happens to this one: who waits for it goes on, as for one that is cancelled and will not come.
    struct End {
        const bool cancelled;
        ~End() { Instance().EndPendingReload(cancelled); }
    } const end{event.cancelled};
    if (event.cancelled) return;
    CertStorage& storage = Instance();
    std::uint32_t flags = 0;
    {
        const vpnfc::ObjectLock lock(storage.reloadLock);
        flags = std::exchange(storage.reloadFlags, 0);
    }
    storage.ReloadTokensObjects(flags);
}

/// What was queued meanwhile is still to come, unless nothing will.
void CertStorage::EndPendingReload(bool for_good) {
    const vpnfc::ObjectLock lock(reloadLock);
    reloadPending = !for_good && (reloadFlags & kReloadAll) != 0;
    ++reloadsEnded;
    reloadDone.notify_all();
}

bool CertStorage::WaitReloadDone() {
    if (Reloading::here) return false;
    std::unique_lock<const vpnfc::ObjectLevelLockable> lock(reloadLock);
    if (!reloadPending) return false;
    reloadDone.wait(lock, [this, ended = reloadsEnded] { return reloadsEnded != ended; });
    return true;
}

void CertStorage::Stop() {
    const vpnfc::ObjectLock lock(reloadLock);
    reloadFlags = kStoreStopped;
}

void CertStorage::ClearLists() {
    const vpnfc::ObjectLock lock(tokensLock);  // a reload on another thread ends first
    decltype(presharedKeys) old_keys;
    decltype(crls) old_crls;
    X509CertsDB old_lists[4];
    {
        const vpnfc::WriteLock write_lock(*this);
        presharedKeys.swap(old_keys);
        crls.Swap(old_crls);
        otherCerts.Swap(old_lists[0]);
        trustedCerts.Swap(old_lists[1]);
        personalCerts.Swap(old_lists[2]);
        keyPairCerts.Swap(old_lists[3]);
    }
    lastFailures.clear();
    Stop();
}

void CertStorage::ClearAll() {
    Stop();  // from here on token events queue nothing
    EM_DelTimer(0, ReloadEventHandler, nullptr);
    ClearLists();
    EndPendingReload(true);
    // Nothing of this library stays queued, so that it may be unloaded: neither a reload that was armed all the same ...
    EM_DelTimer(0, ReloadEventHandler, nullptr);
    ClearLists();  // which may have run, and filled the lists, while it was waited for
    // ... nor a notification of the last reload.
    EM_DelTimer(0, cm_send_cert_list_changed_nitification_, nullptr);
}

void CertStorage::PutCRLToDB(CrlRef crl) {
    const vpnfc::WriteLock lock(*this);
    const auto same = [&](std::uint32_t position) { return crls[position]->rawCrl() == crl->rawCrl(); };
    const std::span<const std::uint32_t> candidates = crls.WithIssuer(crl->info.issuer);
    if (std::none_of(candidates.begin(), candidates.end(), same)) crls.Append(std::move(crl));
}

// --- Token handlers ---

void CertStorage_OnTokenInsert(const PKCS11::TokenInfo& token) {
    CertStorage::PutReloadEvent(kReloadAll, &token);
    Tell(Callbacks.TokenInserted, token);
}

void CertStorage_OnTokenRemove(const PKCS11::TokenInfo& token) {
    CertStorage::PutReloadEvent(kReloadAll, &token);
}

void CertStorage_OnTokenLogin(const PKCS11::TokenInfo& token, bool own_session) {
    if (!own_session) CertStorage::PutReloadEvent(kReloadAll, &token);
}

void CertStorage_OnProviderInsert(const PKCS11::ProviderInfo& provider, unsigned long tokens) {
    if (!provider.available) return;
    CertStorage::PutReloadEvent(kReloadAll);
    if (tokens != 0) Tell(Callbacks.ProviderInserted, provider);
}

// --- Preshared keys ---

bool IsValidPresharedKey(const std::string& name, const TLogIdent& /*ident*/) {
    const CertStorage& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    return std::any_of(storage.presharedKeys.begin(), storage.presharedKeys.end(),
                       [&name](const auto& key) { return key->name == name; });
}

bool GetPresharedKeyByName(const char* name, std::string& value) {
    if (name == nullptr) return false;
    std::vector<PKCS11::TokenInfo> tokens;  // read from without the store's lock
    {
        const CertStorage& storage = CertStorage::Instance();
        const vpnfc::ReadLock lock(storage);
        for (const auto& key : storage.presharedKeys) {
            if (key->name == name) tokens.push_back(key->token);
        }
    }
    for (const PKCS11::TokenInfo& token : tokens) {
        PKCS11::TokenSession session(token, PKCS11::TokenSession::kPrivate);
        if (session && session.GetPresharedKeyPrivateData(name, value)) return true;
    }
    return false;
}

}  // namespace CM
