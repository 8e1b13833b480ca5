#include "platform/params/settings.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "platform/base/descriptor.h"
#include "platform/base/files.h"
#include "platform/base/text.h"
#include "platform/bridge_socket.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"
#include "platform/params.h"
#include "platform/params/toml_reader.h"
#include "platform/policy/rule_reader.h"

namespace settings {

namespace {

constexpr Field<Certificates> kCertificateFields[] = {
    {"require_self_signed_root", [](const Value& v, Certificates& c) { v.Read(c.require_self_signed_root); }},
    {"ignore_key_usage", [](const Value& v, Certificates& c) { v.Read(c.ignore_key_usage); }},
    {"allow_unknown_critical_extensions",
     [](const Value& v, Certificates& c) { v.Read(c.allow_unknown_critical_extensions); }},
    {"allow_missing_ike_eku", [](const Value& v, Certificates& c) { v.Read(c.allow_missing_ike_eku); }},
    {"crl_download_timeout_seconds",
     [](const Value& v, Certificates& c) { v.ReadNumber(1, 600, c.crl_download_timeout_seconds); }},
    {"crl_cache", [](const Value& v, Certificates& c) { v.Read(c.crl_cache); }},
    {"crl_cache_max_bytes",
     [](const Value& v, Certificates& c) { v.ReadNumber(1024, 1ULL << 40, c.crl_cache_max_bytes); }},
    {"crl_max_bytes", [](const Value& v, Certificates& c) { v.ReadNumber(1024, 256ULL << 20, c.crl_max_bytes); }},
    {"crl_retry_seconds", [](const Value& v, Certificates& c) { v.ReadNumber(0, 86400, c.crl_retry_seconds); }},
    {"crl_proxy", [](const Value& v, Certificates& c) { v.Read(c.crl_proxy); }},
    {"crl_tls_ca_file", [](const Value& v, Certificates& c) { v.ReadPath(c.crl_tls_ca_file); }},
    {"honour_crl_scope", [](const Value& v, Certificates& c) { v.Read(c.honour_crl_scope); }},
};

template <typename E, std::size_t N>
void ReadEnum(const Value& value, const std::array<std::string_view, N>& names, E& out) {
    std::size_t index = 0;
    if (value.ReadChoice(names, index)) out = static_cast<E>(index);
}
// In the order of their enumerators.
constexpr std::array<std::string_view, 3> kColours = {"auto", "always", "never"};

constexpr Field<Log> kLogFields[] = {
    {"level", [](const Value& v, Log& log) { ReadEnum(v, eventlog::kSeverityNames, log.sinks.level); }},
    {"stderr", [](const Value& v, Log& log) { v.Read(log.sinks.to_stderr); }},
    {"colour", [](const Value& v, Log& log) { ReadEnum(v, kColours, log.sinks.colour); }},
    {"file", [](const Value& v, Log& log) { v.ReadPath(log.sinks.file); }},
    {"file_max_bytes", [](const Value& v, Log& log) { v.ReadNumber(4096, 1ULL << 40, log.sinks.file_max_bytes); }},
    {"file_count", [](const Value& v, Log& log) { v.ReadNumber(1, 1000, log.sinks.file_count); }},
    {"syslog", [](const Value& v, Log& log) { v.Read(log.sinks.to_syslog); }},
    {"certificate_changes", [](const Value& v, Log& log) { v.Read(log.certificate_changes); }},
    {"crl_details", [](const Value& v, Log& log) { v.Read(log.crl_details); }},
    {"ike_verify_success", [](const Value& v, Log& log) { v.Read(log.ike_verify_success); }},
};

constexpr Field<tokens::Provider> kProviderFields[] = {
    {"name", [](const Value& v, tokens::Provider& p) { v.Read(p.name); }},
    {"module", [](const Value& v, tokens::Provider& p) { v.ReadPath(p.module_path); }},
    {"init_args", [](const Value& v, tokens::Provider& p) { v.Read(p.init_args); }},
};

constexpr Field<tokens::PinFile> kPinFileFields[] = {
    {"token", [](const Value& v, tokens::PinFile& p) { v.Read(p.token); }},
    {"path", [](const Value& v, tokens::PinFile& p) { v.ReadPath(p.path); }},
    {"login_on_insertion", [](const Value& v, tokens::PinFile& p) { v.Read(p.login_on_insertion); }},
};

// A text that each table of a list must have.
template <typename T>
struct Required {
    std::string_view key;
    std::string T::*member;
    bool unique;
};

constexpr Required<tokens::Provider> kProviderRequired[] = {
    {"name", &tokens::Provider::name, true},
    {"module", &tokens::Provider::module_path, true},
};
constexpr Required<tokens::PinFile> kPinFileRequired[] = {
    {"token", &tokens::PinFile::token, true},
    {"path", &tokens::PinFile::path, false},
};

template <typename T>
void ReadTables(const Value& list, std::string_view table_name, std::span<const Field<T>> fields,
                std::span<const Required<T>> required, std::vector<T>& out) {
    std::set<std::pair<std::string_view, std::string>> seen;
    ReadList(list, "a list of tables", [&](const Value& entry) {
        T& item = out.emplace_back();
        const Value named(entry.node(), "[[" + std::string(table_name) + "]] " + std::to_string(out.size()),
                          entry.problems());
        ReadTable(named, " ", fields, item);
        const toml::table* const table = entry.node().as_table();
        for (const Required<T>& text : required) {
            const std::string& value = item.*text.member;
            if (table != nullptr && !table->contains(text.key)) {
                named.Error("has no " + Quoted(text.key));
            } else if (text.unique && !value.empty() && !seen.emplace(text.key, value).second) {
                named.Error(std::string(text.key) + " " + Quoted(value) + " is there already");
            }
        }
    });
}

constexpr Field<Tokens> kTokenFields[] = {
    {"softhsm_directory", [](const Value& v, Tokens& t) { v.ReadPath(t.softhsm_directory); }},
    {"poll_interval_milliseconds",
     [](const Value& v, Tokens& t) {
         std::uint32_t number = 0;
         if (v.ReadNumber(50, 60000, number)) t.manager.poll_interval = std::chrono::milliseconds(number);
     }},
    {"call_limit_milliseconds",
     [](const Value& v, Tokens& t) {
         std::uint32_t number = 0;
         if (v.ReadNumber(100, 600000, number)) t.manager.call_limit = std::chrono::milliseconds(number);
     }},
    {"provider",
     [](const Value& v, Tokens& t) {
         ReadTables<tokens::Provider>(v, "tokens.provider", kProviderFields, kProviderRequired, t.manager.providers);
     }},
    {"pin_file",
     [](const Value& v, Tokens& t) {
         ReadTables<tokens::PinFile>(v, "tokens.pin_file", kPinFileFields, kPinFileRequired, t.manager.pin_files);
     }},
};

constexpr std::uint32_t kMaxIdNumber = 0xFFFFFFFE;  // the highest one means none

/// A list of users or groups, by name or number.
template <typename Find>
void ReadIds(const Value& list, std::string_view what, std::vector<std::uint32_t>& out, Find find) {
    out.clear();
    ReadList(list, "a list of names or numbers", [&](const Value& entry) {
        std::uint32_t number = 0;
        std::string name;
        if (!entry.node().is_string()) {
            if (entry.ReadNumber(0, kMaxIdNumber, number)) out.push_back(number);
        } else if (entry.Read(name)) {
            const auto id = find(name);
            if (!id.has_value()) entry.Error("there is no " + std::string(what) + " " + Quoted(name));
            out.push_back(id.value_or(0));
        }
    });
}

std::optional<std::uint32_t> FindUser(const std::string& name) {
    const passwd* const entry = getpwnam(name.c_str());
    return entry == nullptr ? std::nullopt : std::optional<std::uint32_t>(entry->pw_uid);
}

std::optional<std::uint32_t> FindGroup(const std::string& name) {
    const group* const entry = getgrnam(name.c_str());
    return entry == nullptr ? std::nullopt : std::optional<std::uint32_t>(entry->gr_gid);
}

/// Octal digits, as chmod takes them.
void ReadMode(const Value& value, Bridge& bridge) {
    std::string text;
    if (!value.Read(text)) return;
    std::uint32_t mode = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
    if (error != std::errc() || end != text.data() + text.size() || mode > 0777 || (mode & 0600) != 0600) {
        value.Error(Quoted(text) + " is no mode of a socket", "write \"0600\", \"0660\" or \"0666\"");
        return;
    }
    bridge.server.socket_mode = mode;
    bridge.socket_mode_set = true;
}

constexpr Field<Bridge> kBridgeFields[] = {
    {"enabled", [](const Value& v, Bridge& b) { v.Read(b.enabled); }},
    {"socket", [](const Value& v, Bridge& b) { v.ReadPath(b.server.socket_path); }},
    {"socket_mode", ReadMode},
    {"users", [](const Value& v, Bridge& b) { ReadIds(v, "user", b.server.users, FindUser); }},
    {"groups", [](const Value& v, Bridge& b) { ReadIds(v, "group", b.server.groups, FindGroup); }},
    {"max_frame_bytes", [](const Value& v, Bridge& b) { v.ReadNumber(65536, 1ULL << 30, b.server.max_frame_bytes); }},
    {"max_pending_bytes",
     [](const Value& v, Bridge& b) { v.ReadNumber(131072, 1ULL << 40, b.server.max_pending_bytes); }},
    {"max_sessions", [](const Value& v, Bridge& b) { v.ReadNumber(1, 10000, b.server.max_sessions); }},
    {"stall_limit_seconds",
     [](const Value& v, Bridge& b) {
         std::uint32_t number = 0;
         if (v.ReadNumber(1, 3600, number)) b.server.stall_limit = std::chrono::seconds(number);
     }},
};

template <typename T, std::size_t N>
void ReadSection(const Value& value, const Field<T> (&fields)[N], T& target) {
    ReadTable<T>(Value(value.node(), "[" + value.name() + "]", value.problems()), " ", fields, target);
}

constexpr Field<Settings> kSections[] = {
    {"certificates", [](const Value& v, Settings& s) { ReadSection(v, kCertificateFields, s.certificates); }},
    {"log", [](const Value& v, Settings& s) { ReadSection(v, kLogFields, s.log); }},
    {"tokens", [](const Value& v, Settings& s) { ReadSection(v, kTokenFields, s.tokens); }},
    {"bridge",
     [](const Value& v, Settings& s) {
         ReadSection(v, kBridgeFields, s.bridge);
         const bridge::Settings& server = s.bridge.server;
         if (server.max_pending_bytes < std::uint64_t{server.max_frame_bytes} + bridge::kRoomBesideFrame) {
             v.Error("max_pending_bytes has no room for a frame of max_frame_bytes",
                     "write at least " + std::to_string(server.max_frame_bytes + bridge::kRoomBesideFrame));
         }
     }},
    {"rule", [](const Value& v, Settings& s) { LPCFG::ReadRules(v, s.rules); }},
};

// What to do about a settings file that cannot be opened.
std::string RemedyOf(int error) {
    if (error == ENOENT) return "write one, as docs/settings.md describes, or name another with --config";
    if (error == EACCES) return "let the user with the number " + std::to_string(geteuid()) + " read it";
    return {};
}

// Reads the whole file; false when it cannot be used, with the reason reported.
bool ReadFile(const std::string& path, ProblemList& problems, vpnfc::SecretString& content) {
    const auto fail = [&](const std::string& text, const std::string& remedy = {}) {
        problems.Add(Problem::Kind::kError, {}, text, remedy);
        return false;
    };
    const vpnfc::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        const int error = errno;
        return fail("cannot be opened: " + std::string(std::strerror(error)), RemedyOf(error));
    }
    if (!S_ISREG(status.st_mode)) return fail("is not a regular file", "name the settings file itself");
    const vpnfc::ReadResult result = vpnfc::ReadToEnd(file.get(), kMaxFileBytes, content);
    if (result == vpnfc::ReadResult::kFailed) return fail("cannot be read: " + std::string(std::strerror(errno)));
    if (result == vpnfc::ReadResult::kTooLong) {
        return fail("is larger than " + std::to_string(kMaxFileBytes) + " bytes");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        problems.Add(Problem::Kind::kWarning, {},
                     "can be written by others than its owner: it names libraries that are loaded", "chmod go-w");
    }
    return true;
}

bool Parse(const std::string& content, ProblemList& problems, toml::table& document) {
    try {
        document = toml::parse(content);
    } catch (const toml::parse_error& error) {
        problems.Add(Problem::Kind::kError, error.source().begin,
                     "not valid TOML: " + std::string(error.description()));
        return false;
    }
    return true;
}

// Where the programs' own token stands unless the settings say otherwise; empty when the user has no home.
std::string DefaultSoftHsmDirectory() {
    const std::string state = vpnfc::StateFolder();
    return state.empty() ? state : state + "/softhsm";
}

bool IsSoftHsm(const tokens::Provider& provider) {
    return std::filesystem::path(provider.module_path).filename().string().starts_with("libsofthsm2");
}

void SetHostDefaults(Tokens& tokens, const std::string& softhsm_module, ProblemList& problems) {
    std::vector<::tokens::Provider>& providers = tokens.manager.providers;
    if (providers.empty() && softhsm_module.empty()) {
        problems.Add(Problem::Kind::kWarning, {}, "no [[tokens.provider]], and SoftHSM2 is not installed: no tokens",
                     "install softhsm2 or name a PKCS #11 module");
    } else if (providers.empty()) {
        providers.push_back({.name = "softhsm", .module_path = softhsm_module});
    }
    const bool uses_softhsm = std::any_of(providers.begin(), providers.end(), IsSoftHsm);
    if (uses_softhsm && tokens.softhsm_directory.empty()) tokens.softhsm_directory = DefaultSoftHsmDirectory();
}

/// Whom the credentials let in the file's mode lets in, too.
void SetBridgeDefaults(Bridge& bridge) {
    bridge::Settings& server = bridge.server;
    if (server.socket_path.empty()) server.socket_path = bridge::DefaultSocketPath();
    const bool others = !server.users.empty() || !server.groups.empty();
    if (!bridge.socket_mode_set) server.socket_mode = others ? 0666 : 0600;
}

void CopyToServer(const Certificates& from, LPARAMS::CertParams& to) {
    to.require_self_signed_root.on = from.require_self_signed_root;
    to.ignore_key_usage.on = from.ignore_key_usage;
    to.allow_unknown_critical_extensions.on = from.allow_unknown_critical_extensions;
    to.allow_missing_ike_eku.on = from.allow_missing_ike_eku;
    to.crl_download_timeout_seconds = from.crl_download_timeout_seconds;
    to.crl_cache = from.crl_cache ? 1 : 0;
    to.crl_cache_max_bytes = from.crl_cache_max_bytes;
    to.crl_max_bytes = from.crl_max_bytes;
    to.crl_retry_seconds = from.crl_retry_seconds;
    to.crl_proxy = from.crl_proxy;
    to.crl_tls_ca_file = from.crl_tls_ca_file;
    to.honour_crl_scope = from.honour_crl_scope;
}

// What Apply put into the server last.
struct Applied {
    std::mutex mutex;
    bool any = false;
    Certificates certificates;
};
Applied& LastApplied() {
    static Applied& applied = *new Applied;
    return applied;
}

}  // namespace

Certificates::Certificates() {
    const LPARAMS::CertParams from;
    require_self_signed_root = from.require_self_signed_root.on;
    ignore_key_usage = from.ignore_key_usage.on;
    allow_unknown_critical_extensions = from.allow_unknown_critical_extensions.on;
    allow_missing_ike_eku = from.allow_missing_ike_eku.on;
    crl_download_timeout_seconds = from.crl_download_timeout_seconds;
    crl_cache = from.crl_cache != 0;
    crl_cache_max_bytes = from.crl_cache_max_bytes;
    crl_max_bytes = from.crl_max_bytes;
    crl_retry_seconds = from.crl_retry_seconds;
    crl_proxy = from.crl_proxy;
    crl_tls_ca_file = from.crl_tls_ca_file;
    honour_crl_scope = from.honour_crl_scope;
}

std::string Problem::ToString() const {
    return Place() + (kind == Kind::kError ? ": error: " : ": warning: ") + Sentence();
}

std::string Problem::Place() const {
    return line == 0 ? file : file + ":" + std::to_string(line) + ":" + std::to_string(column);
}

std::string Problem::Sentence() const {
    return suggestion.empty() ? text : text + "; " + suggestion;
}

LoadResult Load(const std::string& path, const std::string& softhsm_module) {
    std::error_code ignored;
    ProblemList problems(std::filesystem::absolute(path, ignored).lexically_normal());
    LoadResult result;
    vpnfc::SecretString content;  // the arguments of modules may be secret
    toml::table document;
    if (ReadFile(path, problems, content) && Parse(content.get(), problems, document)) {
        ReadTable<Settings>(Value(document, "", problems), "", kSections, result.settings);
    }
    result.ok = problems.errors() == 0;
    if (result.ok) {
        SetHostDefaults(result.settings.tokens, softhsm_module, problems);
        SetBridgeDefaults(result.settings.bridge);
    } else {
        result.settings = Settings();
    }
    result.problems = problems.Take();
    return result;
}

void Apply(const Settings& settings) {
    Applied& applied = LastApplied();
    const std::lock_guard one_at_a_time(applied.mutex);
    const bool first = !applied.any;
    const bool changed = first || !(applied.certificates == settings.certificates);
    applied.any = true;
    applied.certificates = settings.certificates;
    {
        LPARAMS::LogParams& log = LPARAMS::server.log;
        const vpnfc::ObjectLock lock(log);
        log.certificate_changes = settings.log.certificate_changes;
        log.crl_details = settings.log.crl_details;
        log.ike_verify_success = settings.log.ike_verify_success;
    }
    LPARAMS::CertParams& cert = LPARAMS::server.cert;
    const vpnfc::ObjectLock calls(cert.calls);
    std::vector<void (*)(bool)> callbacks;
    {
        const vpnfc::ObjectLock lock(cert);
        CopyToServer(settings.certificates, cert);
        if (changed) callbacks = cert.on_change;
    }
    for (void (*const callback)(bool) : callbacks) callback(first);
}

void LogProblems(const std::string& path, const LoadResult& loaded) {
    std::string errors;
    std::size_t count = 0;
    for (const Problem& problem : loaded.problems) {
        if (problem.kind == Problem::Kind::kWarning) {
            TLogMessage(kMsgSettingsWarning).Attr(problem.Place() + ": " + problem.Sentence()).Send();
        } else {
            errors += "\\\n\t" + problem.Place() + ": " + problem.Sentence();
            ++count;
        }
    }
    if (loaded.ok) {
        const std::size_t rules = loaded.settings.rules.list.size();
        TLogMessage(kMsgSettingsLoaded).Attr(path + ", " + vpnfc::Counted(rules, "rule")).Send();
    } else {
        TLogMessage(kMsgSettingsRejected).Attr(path + " has " + vpnfc::Counted(count, "error") + errors).Send();
    }
}

std::vector<KnownKey> KnownKeys() {
    std::vector<KnownKey> keys;
    const auto add = [&keys](std::string_view table, const std::vector<std::string_view>& names) {
        for (const std::string_view name : names) keys.push_back({table, name});
    };
    add("[certificates]", NamesOf<Certificates>(kCertificateFields));
    add("[log]", NamesOf<Log>(kLogFields));
    add("[tokens]", NamesOf<Tokens>(kTokenFields));
    add("[[tokens.provider]]", NamesOf<tokens::Provider>(kProviderFields));
    add("[[tokens.pin_file]]", NamesOf<tokens::PinFile>(kPinFileFields));
    add("[bridge]", NamesOf<Bridge>(kBridgeFields));
    add("[[rule]]", LPCFG::RuleKeys());
    add("a certificate pattern", LPCFG::PatternKeys());
    add("an identity", LPCFG::IdentityKeys());
    return keys;
}

}  // namespace settings
