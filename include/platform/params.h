// Parameter server: the switches and texts that the module reads at each use.
//
// A block is a lockable object; its members are read and written under its own mutex (vpnfc::ObjectLock). Blocks live
// as long as the process and may be read while static objects are being destroyed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/api.h"
#include "platform/base.h"

namespace LPARAMS {

/// CRL processing mode of a rule.
enum CRL_PROC_t : std::uint32_t {
    CRL_PROC_DISABLED = 0,  // no revocation check
    CRL_PROC_ENABLED = 1,  // strict: a certificate without a current CRL fails
    CRL_PROC_ENABLED_SOFT = 2,  // soft: a certificate without a CRL passes, a stale CRL is used
};

/// A switch together with the name under which the settings hold it (for log lines that name it).
struct NamedSwitch {
    bool on = false;
    std::string name;
};

struct CallLock : vpnfc::ObjectLevelLockable {};  // recursive: a callback may take itself out

/// The certificate block.
struct CertParams : vpnfc::ObjectLevelLockable {
    /// A peer chain must end in a trusted self-signed certificate.
    NamedSwitch require_self_signed_root{false, "require_self_signed_root"};
    /// Missing key usages are logged and tolerated.
    NamedSwitch ignore_key_usage{false, "ignore_key_usage"};
    /// Certificates with unknown critical extensions may be used.
    NamedSwitch allow_unknown_critical_extensions{false, "allow_unknown_critical_extensions"};
    /// Local certificates whose Extended Key Usage lacks the IKE purpose may be used.
    NamedSwitch allow_missing_ike_eku{false, "allow_missing_ike_eku"};

    /// Total and connect time-out of one CRL transfer, in seconds.
    std::uint32_t crl_download_timeout_seconds = 10;
    /// 0: downloaded CRLs are not kept. Any other value keeps them.
    std::uint32_t crl_cache = 1;
    /// Bytes of all CRLs that are kept; beyond it the one that was downloaded first goes.
    std::uint64_t crl_cache_max_bytes = 256ULL << 20;
    /// Size cap of one downloaded CRL, in bytes, enforced while receiving.
    std::uint64_t crl_max_bytes = 64ULL << 20;
    /// How long an address that failed is not asked again, in seconds; 0 asks always.
    std::uint32_t crl_retry_seconds = 30;
    /// Proxy for HTTP addresses, "[scheme://]host[:port]"; empty: none, whatever the environment says.
    std::string crl_proxy;
    /// PEM file of the authorities that may vouch for https and ldaps servers; empty: the system's.
    std::string crl_tls_ca_file;
    /// Evaluate the issuing distribution point and unknown critical CRL extensions.
    bool honour_crl_scope = true;

    /// Called after the block changed, on the parameter server's thread, without the block's mutex held. The argument
    /// is true while the settings are loaded for the first time, false at every later change. The server holds `calls`
    /// from before it reads this list until the last call has returned. Who takes a callback out holds it, too, and takes
    /// it before the block's mutex: afterwards no call is in progress, and the code behind it may be unloaded.
    std::vector<void (*)(bool)> on_change;
    CallLock calls;
};

/// The logging block.
struct LogParams : vpnfc::ObjectLevelLockable {
    bool certificate_changes = true;  // personal certificates and preshared keys that appear or disappear
    bool crl_details = false;  // full CRL search text, CA certificates without distribution points
    bool ike_verify_success = false;  // successful IKEv2 signature verifications
};

struct Server {
    CertParams cert;
    LogParams log;
};

/// The process's parameter server.
extern PLATFORM_API Server& server;

}  // namespace LPARAMS
