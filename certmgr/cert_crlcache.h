// Downloaded CRLs: the cache of them, the one transfer at a time for each address, and what failed lately.
//
// Nothing here waits, reads from a server, parses, verifies or logs with the cache's lock held.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "certmgr/x509cert.h"
#include "platform/bridge.h"

namespace CM {

/// Orders addresses by their text.
struct compare_string_t {
    bool operator()(const std::string* a, const std::string* b) const { return *a < *b; }
};
/// Downloaded CRLs by the address they came from; the key is the CRL's own `uri`.
using CrlDb = std::map<const std::string*, CrlRef, compare_string_t>;
struct CrlDbLock : vpnfc::ObjectLevelLockable {};

/// The cache and, in its lock's charge, the `refresh` flags of all CRLs in it. Taken after every other lock.
extern CrlDb g_crl_db;
extern CrlDbLock g_crl_db_lock;

/// CRLs that are kept at most, whatever their size.
inline constexpr std::size_t kMaxCachedCrls = 1000;

/// Makes a change of the parameters reach the cache.
void InitDownloadedCrlDB();
/// Empties the cache and forgets failures.
void ClearDownloadedCrlDB();
/// The same at the module's end; undoes InitDownloadedCrlDB. Always 0.
int FiniDownloadedCrlDB();
/// Called when the certificate parameters changed: empties the cache when nothing is to be kept any more, or else has
/// every CRL downloaded again at its next use. Nothing at the first load of the parameters (`first`).
void cm_crl_apply_lparams_(bool first);
/// Removes the first CRL of that token and description (its identifier aside). False when there is none.
bool DeleteDownloadedCrlDB(const PKCS11::TokenInfo& token, const CRLInfo& info);
/// Writes token and description of every CRL, in the order of the addresses.
void EnumDownloadedCrlDB(CommandStreamOut& stream);

/// What made CRLs that are under way ones of yesterday, counted.
struct CrlGeneration {
    std::uint64_t clears = 0;  // the cache was emptied: what comes is not kept
    std::uint64_t marks = 0;  // all is to be downloaded again: what comes, too

    bool operator==(const CrlGeneration&) const = default;
    bool operator<(const CrlGeneration& other) const {
        return std::tie(clears, marks) < std::tie(other.clears, other.marks);
    }
};

/// The parameters of one revocation check, read once.
struct CrlParams {
    std::uint32_t timeout_seconds;
    bool keep;
    std::uint64_t keep_max_bytes;
    std::uint32_t retry_seconds;
    bool honour_scope;
    CrlGeneration generation;

    static CrlParams Read();
};

/// The CRL that the cache has for the address; null: none.
CrlRef FindCachedCrl(const std::string& address);
/// Whether its next update is still to come.
bool IsCurrent(const X509CRL& crl);
/// Whether a CRL of the cache is to be downloaded again.
bool IsMarked(const X509CRL& crl);
/// Takes a CRL out, unless another one has its place by now.
void DropCachedCrl(const CrlRef& crl);

/// What asking an address came to.
struct CrlAnswer {
    CrlRef crl = nullptr;  // null: nothing
    std::string received = {};  // for the log: content type and data
    std::string outcome = {};  // for the log
    CrlGeneration generation = {};  // when it was asked for
    bool kept = false;  // the CRL is in the cache
    bool own = false;  // from a transfer that this call made
};

/// What is wanted from an address.
struct CrlRequest {
    const std::string& address;
    const X509Cert& issuer;  // who shall have signed it
    const CrlRef& known;  // what the cache had for the certificate and would not do; may be null
    const CrlParams& params;
};

/// The CRL that the address has, signed by the issuer, from a transfer that this call makes or that is under way, or
/// from the cache if somebody else brought it meanwhile. An address that failed lately is not asked.
CrlAnswer ObtainCrl(const CrlRequest& request);

/// What happened so far in this process.
struct CrlCounters {
    std::atomic<std::uint64_t> transfers{0};
    std::atomic<std::uint64_t> joined{0};  // transfers of others that were waited for
    std::atomic<std::uint64_t> parsed{0};
};
extern CrlCounters g_crl_counters;

}  // namespace CM
