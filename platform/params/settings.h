// Settings: one TOML file for certificates, log, tokens, management bridge and rules. docs/settings.md describes every key.
//
//     settings::LoadResult loaded = settings::Load(path);
//     settings::LogProblems(path, loaded);
//     if (loaded.ok) settings::Apply(loaded.settings);
//
// Reading has no effect on anything but the result: a file with an error leaves the settings in force as they are.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"
#include "platform/bridge/bridge_host.h"
#include "platform/eventlog/sinks.h"
#include "platform/policy/rules.h"
#include "platform/tokens/token_host.h"

namespace settings {

/// [certificates]: what goes into LPARAMS::CertParams, which describes the members and has their defaults.
struct PLATFORM_API Certificates {
    bool require_self_signed_root;
    bool ignore_key_usage;
    bool allow_unknown_critical_extensions;
    bool allow_missing_ike_eku;
    std::uint32_t crl_download_timeout_seconds;
    bool crl_cache;
    std::uint64_t crl_cache_max_bytes;
    std::uint64_t crl_max_bytes;
    std::uint32_t crl_retry_seconds;
    std::string crl_proxy;
    std::string crl_tls_ca_file;
    bool honour_crl_scope;

    Certificates();
    bool operator==(const Certificates&) const = default;
};

/// [log]: where messages go, and the switches of LPARAMS::LogParams.
struct Log {
    eventlog::Sinks sinks{};
    bool certificate_changes = true;
    bool crl_details = false;
    bool ike_verify_success = false;
};

/// [tokens].
struct Tokens {
    /// Without any provider in the file: the system's SoftHSM2, if it is installed, under the name "softhsm".
    tokens::Settings manager{};
    /// State directory of SoftHSM2; by default below the user's state directory when a provider is SoftHSM2, else empty.
    std::string softhsm_directory{};
};

/// [bridge].
struct Bridge {
    bool enabled = true;
    bool socket_mode_set = false;  // else it follows from who may connect
    bridge::Settings server{};  // the socket is the user's default where the file names none
};

struct Settings {
    Certificates certificates{};
    Log log{};
    Tokens tokens{};
    Bridge bridge{};
    LPCFG::Rules rules{};
};

/// Something wrong in the file, or doubtful.
struct PLATFORM_API Problem {
    enum class Kind : std::uint8_t { kWarning, kError };

    Kind kind = Kind::kError;
    std::string file{};
    std::uint32_t line = 0;  // from 1; 0: the file as a whole
    std::uint32_t column = 0;
    std::string text{};
    std::string suggestion{};  // a sentence without its full stop; may be empty

    /// "certmgr.toml:12:1: error: unknown key "crl_cach" in [certificates]; did you mean "crl_cache"?"
    std::string ToString() const;
    /// "certmgr.toml:12:1"
    std::string Place() const;
    /// "unknown key "crl_cach" in [certificates]; did you mean "crl_cache"?"
    std::string Sentence() const;
};

struct LoadResult {
    bool ok = false;  // no error; there may be warnings
    Settings settings{};  // defaults when not ok
    std::vector<Problem> problems{};  // in the order of the file
};

/// Bytes of a settings file that are read at most.
inline constexpr std::size_t kMaxFileBytes = 1U << 20;

/// Reads a settings file. Relative paths in it are taken from the file's folder. `softhsm_module` is used when it names
/// no provider; empty: SoftHSM2 is not installed.
PLATFORM_API LoadResult Load(const std::string& path, const std::string& softhsm_module = tokens::SoftHsmModulePath());

/// Puts the certificate and the log block into LPARAMS::server, each under its own mutex. Then, with its lock of calls
/// alone, calls the change callbacks of the certificate block: with true at the first Apply of the process, with false
/// at a later one that changed a value of that block, not at all at one that did not. One call at a time.
PLATFORM_API void Apply(const Settings& settings);

/// Writes the problems to the event log; when the file was refused or accepted, a line that says so.
PLATFORM_API void LogProblems(const std::string& path, const LoadResult& loaded);

/// A key that settings files may hold, and where: {"[certificates]", "crl_cache"}.
struct KnownKey {
    std::string_view table;
    std::string_view name;
};
PLATFORM_API std::vector<KnownKey> KnownKeys();

}  // namespace settings
