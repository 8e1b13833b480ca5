#include "certmgr/cert_crlcache.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "certmgr/cert_crltransfer.h"
#include "certmgr/cert_verifychain.h"
#include "certmgr/records_sync.h"
#include "platform/base.h"
#include "platform/params.h"

namespace CM {

CrlDbLock g_crl_db_lock;
CrlDb g_crl_db;
CrlCounters g_crl_counters;

namespace {

// Guarded by the cache's lock.
FailureMemory g_failures;
CrlGeneration g_generation;
/// Transfers under way. Whoever asks after a change does not join one that was begun before.
std::map<std::pair<std::string, CrlGeneration>, std::shared_future<CrlAnswer>> g_flights;

/// Takes the module out of the parameter server, and closes the CRLs while libcrypto still works, when the library goes
/// away without CM::Finit. Constructed after, so destroyed before what is above.
struct AtUnload {
    // Registers libcrypto's clean-up at exit before this object's destructor.
    AtUnload() { OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr); }
    ~AtUnload() { FiniDownloadedCrlDB(); }
    AtUnload(const AtUnload&) = delete;
    AtUnload& operator=(const AtUnload&) = delete;
} g_at_unload;

/// Failures with an address, whoever asks it.
FailureMemory::Key AddressKey(const CrlRequest& request) {
    return {request.address, {}};
}

/// Failures of one issuer's certificates with an address that others may be content with.
FailureMemory::Key IssuerKey(const CrlRequest& request) {
    return {request.address, request.issuer.pubKeyHash};
}

/// Has the address not asked again for a while, unless it was asked before something changed.
void NoteUnderLock(const FailureMemory::Key& key, const CrlAnswer& answer, const CrlParams& params) {
    if (params.retry_seconds != 0 && answer.generation == g_generation) g_failures.Note(key, answer.outcome);
}

CrlRef FindUnderLock(const std::string& address) {
    const auto found = g_crl_db.find(&address);
    return found == g_crl_db.end() ? nullptr : found->second;
}

std::uint64_t CachedBytesUnderLock() {
    std::uint64_t bytes = 0;
    for (const auto& [uri, crl] : g_crl_db) bytes += crl->rawCrl().size();
    return bytes;
}

bool IsOlder(const CrlRef& crl, const CrlRef& other) {
    return other->info.thisUpdate != CERT_TIME_UNKNOWN && crl->info.thisUpdate < other->info.thisUpdate;
}

/// Takes out what was downloaded first, until there is room for as many bytes more.
void MakeRoomUnderLock(std::uint64_t wanted, std::uint64_t max_bytes, std::vector<CrlRef>& dropped) {
    std::uint64_t bytes = CachedBytesUnderLock() + wanted;
    while (g_crl_db.size() >= kMaxCachedCrls || bytes > max_bytes) {
        const auto oldest = std::min_element(g_crl_db.begin(), g_crl_db.end(), [](const auto& a, const auto& b) {
            return a.second->downloadedAt < b.second->downloadedAt;
        });
        bytes -= oldest->second->rawCrl().size();
        dropped.push_back(oldest->second);
        g_crl_db.erase(oldest);
    }
}

/// Puts a CRL under its address, in place of what was there; nothing when a newer one is there, which is the result,
/// unless that is the one to be `ignored`. Tells in the answer whether the cache has it.
CrlRef Keep(CrlAnswer& answer, const CrlParams& params, const CrlRef& ignored) {
    const CrlRef& crl = answer.crl;
    std::vector<CrlRef> dropped;  // destroyed without the lock
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    const auto place = g_crl_db.find(&crl->uri);
    if (place != g_crl_db.end() && place->second != ignored && IsOlder(crl, place->second)) return place->second;
    const bool emptied = answer.generation.clears != g_generation.clears;
    if (!params.keep || emptied || crl->rawCrl().size() > params.keep_max_bytes) return nullptr;
    answer.kept = true;
    if (place != g_crl_db.end()) {
        if (place->second == crl) return nullptr;
        dropped.push_back(place->second);
        g_crl_db.erase(place);
    }
    MakeRoomUnderLock(crl->rawCrl().size(), params.keep_max_bytes, dropped);
    // Asked for before everything was to be downloaded again.
    crl->refresh = answer.generation != g_generation;
    g_crl_db.emplace(&crl->uri, crl);
    return nullptr;
}

// --- One transfer at a time ---

/// A transfer under way, which others wait for. It ends with this object, whatever happens.
class Flight {
  public:
    /// With the cache's lock held.
    explicit Flight(const CrlRequest& request) : request_(request) {
        g_flights.emplace(Key(), promise_.get_future().share());
    }
    ~Flight() { Land(); }
    Flight(const Flight&) = delete;
    Flight& operator=(const Flight&) = delete;

    CrlAnswer answer{.outcome = "no data"};

  private:
    std::pair<std::string, CrlGeneration> Key() const { return {request_.address, request_.params.generation}; }
    void Land() {
        {
            const vpnfc::ObjectLock lock(g_crl_db_lock);
            g_flights.erase(Key());
            if (answer.crl != nullptr) {
                g_failures.Forget(AddressKey(request_));
            } else {
                NoteUnderLock(AddressKey(request_), answer, request_.params);
            }
            UnmarkUnderLock();
        }
        promise_.set_value(std::move(answer));
    }
    /// What was to be downloaded again has been, or cannot be. Until now whoever met the mark waited for this.
    void UnmarkUnderLock() const {
        const CrlRef cached = FindUnderLock(request_.address);
        if (cached == nullptr || answer.generation != g_generation) return;
        if (answer.crl == nullptr || answer.crl == cached || IsOlder(answer.crl, cached)) cached->refresh = false;
    }

    const CrlRequest& request_;
    std::promise<CrlAnswer> promise_;
};

/// The newer CRL that a cached one is; whoever answers in a server's place cannot take back a revocation that was seen.
CrlAnswer Older(CrlAnswer answer, const CrlRef& newer) {
    answer.crl = newer;
    answer.kept = true;
    answer.outcome = "CRL is older than the cached one, first downloaded at: " + CertTimeToString(newer->downloadedAt);
    return answer;
}

/// What was known has been asked for, unless all was marked since.
void UnmarkKnownUnderLock(const CrlRequest& request, const CrlAnswer& answer) {
    if (request.known != nullptr && answer.generation == g_generation) request.known->refresh = false;
}

/// Whether what the cache has from another address is current, but for its mark, newer, and for the same certificates.
bool KnownIsBetter(const CrlRequest& request, const CrlRef& crl) {
    const CrlRef& known = request.known;
    return known != nullptr && known != crl && IsCurrent(*known) && IsOlder(crl, known) &&
           known->scope() == crl->scope();
}

/// None: the issuer has not signed it.
CrlAnswer Refuse(CrlAnswer answer, const CrlRequest& request, SignatureCheck check, bool definite) {
    answer.crl = nullptr;
    answer.outcome = SignatureCheckText(check);
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    if (definite) NoteUnderLock(IssuerKey(request), answer, request.params);
    if (request.known == FindUnderLock(request.address)) UnmarkKnownUnderLock(request, answer);
    return answer;
}

/// What the issuer has signed is kept, unless a newer one is known.
CrlAnswer KeepNewer(CrlAnswer answer, const CrlRequest& request) {
    if (KnownIsBetter(request, answer.crl)) return Older(std::move(answer), request.known);
    CrlRef ignored;
    while (const CrlRef newer = Keep(answer, request.params, ignored)) {
        if (newer->CheckSignature(&request.issuer) == kSignatureRight) return Older(std::move(answer), newer);
        ignored = newer;
    }
    return answer;
}

/// The answer as it is for this issuer.
CrlAnswer Accept(CrlAnswer answer, const CrlRequest& request) {
    if (answer.crl == nullptr) return answer;
    bool definite = false;
    const SignatureCheck check = answer.crl->CheckSignature(&request.issuer, &definite);
    if (check != kSignatureRight) return Refuse(std::move(answer), request, check, definite);
    if (answer.crl == request.known) {  // whichever address has it; one that has an older one confirms nothing
        const vpnfc::ObjectLock lock(g_crl_db_lock);
        UnmarkKnownUnderLock(request, answer);
    }
    return KeepNewer(std::move(answer), request);
}

/// The cached CRL of the address, when it is current: since it was looked for, another check may have brought it, or have
/// seen to it that it is the server's still.
CrlRef CurrentUnderLock(const CrlRequest& request) {
    const CrlRef cached = FindUnderLock(request.address);
    return cached != nullptr && !cached->refresh && IsCurrent(*cached) ? cached : nullptr;
}

/// What the log says of a failure that this request need not repeat.
std::optional<std::string> RecallUnderLock(const CrlRequest& request) {
    auto outcome = g_failures.Recall(IssuerKey(request), request.params.retry_seconds);
    return outcome ? outcome : g_failures.Recall(AddressKey(request), request.params.retry_seconds);
}

}  // namespace

CrlAnswer ObtainCrl(const CrlRequest& request) {
    std::shared_future<CrlAnswer> others;
    std::optional<Flight> own;
    CrlRef refused;  // cached under the address, signed by another issuer
    while (!own && !others.valid()) {
        CrlRef cached;
        {
            const vpnfc::ObjectLock lock(g_crl_db_lock);
            cached = CurrentUnderLock(request);
            if (cached == nullptr || cached == refused) {
                if (auto outcome = RecallUnderLock(request)) return {.outcome = std::move(*outcome)};
                const auto flight = g_flights.find({request.address, request.params.generation});
                if (flight != g_flights.end()) {
                    others = flight->second;
                } else {
                    own.emplace(request);
                }
            }
        }
        if (own || others.valid()) break;
        if (cached->CheckSignature(&request.issuer) == kSignatureRight) return {.crl = std::move(cached), .kept = true};
        refused = std::move(cached);
    }
    if (!own) {
        ++g_crl_counters.joined;
        return Accept(others.get(), request);
    }
    own->answer = Transfer(request);
    CrlAnswer answer = own->answer;
    answer.own = true;
    return Accept(std::move(answer), request);
}

CrlParams CrlParams::Read() {
    // Before the settings: whoever changes them counts on afterwards.
    const CrlGeneration generation = [] {
        const vpnfc::ObjectLock lock(g_crl_db_lock);
        return g_generation;
    }();
    const LPARAMS::CertParams& block = LPARAMS::server.cert;
    const vpnfc::ObjectLock lock(block);
    return {.timeout_seconds = block.crl_download_timeout_seconds,
            .keep = block.crl_cache != 0,
            .keep_max_bytes = block.crl_cache_max_bytes,
            .retry_seconds = block.crl_retry_seconds,
            .honour_scope = block.honour_crl_scope,
            .generation = generation};
}

// --- The cache's life ---

namespace {

/// Afterwards no call is in progress.
void Register(bool present) {
    LPARAMS::CertParams& block = LPARAMS::server.cert;
    const vpnfc::ObjectLock no_calls(block.calls);
    const vpnfc::ObjectLock lock(block);
    std::erase(block.on_change, cm_crl_apply_lparams_);
    if (present) block.on_change.push_back(cm_crl_apply_lparams_);
}

}  // namespace

void InitDownloadedCrlDB() {
    Register(true);
}

void ClearDownloadedCrlDB() {
    CrlDb old;  // destroyed without the lock
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    g_crl_db.swap(old);
    g_failures.Clear();
    ++g_generation.clears;
}

int FiniDownloadedCrlDB() {
    Register(false);
    ClearDownloadedCrlDB();
    return 0;
}

void cm_crl_apply_lparams_(bool first) {
    if (first) return;
    if (!CrlParams::Read().keep) {
        ClearDownloadedCrlDB();
        return;
    }
    // What failed may work now.
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    for (const auto& [uri, crl] : g_crl_db) crl->refresh = true;
    g_failures.Clear();
    ++g_generation.marks;
}

bool DeleteDownloadedCrlDB(const PKCS11::TokenInfo& token, const CRLInfo& info) {
    CrlRef deleted;  // destroyed without the lock
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    const auto found = std::find_if(g_crl_db.begin(), g_crl_db.end(), [&](const auto& entry) {
        const CRLInfo& cached = entry.second->info;
        return entry.second->token.id == token.id && cached.issuer == info.issuer &&
               cached.thisUpdate == info.thisUpdate && cached.nextUpdate == info.nextUpdate &&
               cached.signAlg == info.signAlg && cached.crlNumber == info.crlNumber;
    });
    if (found == g_crl_db.end()) return false;
    deleted = found->second;
    g_crl_db.erase(found);
    return true;
}

void EnumDownloadedCrlDB(CommandStreamOut& stream) {
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    for (const auto& [uri, crl] : g_crl_db) {
        sync(stream, std::as_const(crl->token));
        sync(stream, std::as_const(crl->info));
    }
}

CrlRef FindCachedCrl(const std::string& address) {
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    return FindUnderLock(address);
}

bool IsCurrent(const X509CRL& crl) {
    return CertTimeNow() < crl.info.nextUpdate;
}

bool IsMarked(const X509CRL& crl) {
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    return crl.refresh;
}

void DropCachedCrl(const CrlRef& crl) {
    const vpnfc::ObjectLock lock(g_crl_db_lock);
    if (FindUnderLock(crl->uri) == crl) g_crl_db.erase(&crl->uri);
}

}  // namespace CM
