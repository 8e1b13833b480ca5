#include "platform/tokens/registry.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "platform/tokens/pins.h"

namespace tokens {
namespace {

using std::chrono::milliseconds;

/// How long starting waits for slow modules.
constexpr milliseconds kStartWait{3000};
constexpr milliseconds kMinPollInterval{10};
constexpr milliseconds kMinCallLimit{10};
/// Answers remembered for one set of tokens: the algorithms in use are far fewer.
constexpr std::size_t kMaxOfferings = 256;

/// Empty when the settings are usable.
std::string FindFault(const Settings& settings) {
    std::set<std::string> names;
    std::set<std::filesystem::path> paths;
    for (const Provider& provider : settings.providers) {
        const std::filesystem::path path(provider.module_path);
        if (provider.name.empty()) return "a provider has no name";
        if (!path.is_absolute()) return "provider " + provider.name + ": the module's path must be absolute";
        if (!names.insert(provider.name).second) return "two providers are named " + provider.name;
        std::error_code error;
        const std::filesystem::path canonical = std::filesystem::weakly_canonical(path, error);
        if (!paths.insert(error ? path : canonical).second) {
            return "provider " + provider.name + ": another provider has the same module";
        }
    }
    for (const PinFile& file : settings.pin_files) {
        if (file.token.empty()) return "a PIN file names no token";
        if (!std::filesystem::path(file.path).is_absolute()) {
            return "PIN file of token " + file.token + ": its path must be absolute";
        }
    }
    if (settings.poll_interval < kMinPollInterval) return "the poll interval is too short";
    if (settings.call_limit < kMinCallLimit) return "the call limit is too short";
    return {};
}

bool SameModule(const Provider& a, const Provider& b) {
    return a.name == b.name && a.module_path == b.module_path && a.init_args == b.init_args;
}

}  // namespace

TokenTable::TokenTable(std::vector<TokenPtr> tokens) : tokens_(std::move(tokens)) {
    infos_.reserve(tokens_.size());
    for (const TokenPtr& token : tokens_) infos_.push_back(token->Info());
}

TokenPtr TokenTable::Find(std::uint64_t id) const {
    const auto found =
        std::find_if(tokens_.begin(), tokens_.end(), [&](const TokenPtr& token) { return token->id() == id; });
    return found == tokens_.end() ? nullptr : *found;
}

TokenInfoList TokenTable::Offering(pki_alg_t alg) const {
    alg &= PKI_ALG_MASK;
    const std::lock_guard lock(mutex_);
    if (const auto found = offering_.find(alg); found != offering_.end()) return found->second;
    TokenInfoList list = Select(alg);
    if (offering_.size() < kMaxOfferings) offering_.emplace(alg, list);
    return list;
}

TokenInfoList TokenTable::Select(pki_alg_t alg) const {
    auto list = std::make_shared<std::vector<PKCS11::TokenInfo>>();
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
        if (alg == 0 || tokens_[i]->mechanisms().Offers(alg)) list->push_back(infos_[i]);
    }
    return list;
}

Registry& Registry::Instance() {
    static Registry* const registry = new Registry;
    return *registry;
}

bool Registry::Start(const Settings& settings, std::string& error) {
    const std::lock_guard host(host_mutex_);
    {
        const std::lock_guard lock(mutex_);
        error = running_ ? "the token manager runs already" : FindFault(settings);
        if (!error.empty()) return false;
        running_ = true;
    }
    Replace(settings);
    return true;
}

bool Registry::Apply(const Settings& settings, std::string& error) {
    const std::lock_guard host(host_mutex_);
    {
        const std::lock_guard lock(mutex_);
        error = running_ ? FindFault(settings) : "the token manager does not run";
        if (!error.empty()) return false;
    }
    Replace(settings);
    return true;
}

void Registry::Stop() {
    const std::lock_guard host(host_mutex_);
    Settings nothing;
    {
        const std::lock_guard lock(mutex_);
        if (!running_) return;
        running_ = false;
    }
    Replace(nothing);
}

/// Stops the monitors that the settings have no more, starts those that they have anew.
void Registry::Replace(const Settings& settings) {
    std::vector<ModuleMonitorPtr> before = Monitors();
    std::vector<ModuleMonitorPtr> monitors;
    const auto take_same = [&](const Provider& provider) -> ModuleMonitorPtr {
        const auto same = std::find_if(before.begin(), before.end(), [&](const ModuleMonitorPtr& monitor) {
            return SameModule(monitor->provider(), provider);
        });
        if (same == before.end()) return nullptr;
        ModuleMonitorPtr monitor = *same;
        before.erase(same);
        return monitor;
    };
    for (const Provider& provider : settings.providers) monitors.push_back(take_same(provider));
    for (const ModuleMonitorPtr& monitor : before) monitor->RequestStop();
    for (const ModuleMonitorPtr& monitor : before) monitor->Join();
    {
        const std::lock_guard lock(mutex_);
        pin_files_ = settings.pin_files;
        ++settings_generation_;
    }
    for (std::size_t i = 0; i < monitors.size(); ++i) {
        if (monitors[i] == nullptr) {
            monitors[i] = ModuleMonitor::Start(settings.providers[i], settings.poll_interval, settings.call_limit);
        } else {
            monitors[i]->Configure(settings.poll_interval, settings.call_limit);
        }
    }
    {
        const std::lock_guard lock(mutex_);
        monitors_ = monitors;
    }
    Publish();
    const auto deadline = std::chrono::steady_clock::now() + kStartWait;
    for (const ModuleMonitorPtr& monitor : monitors) {
        const auto left = deadline - std::chrono::steady_clock::now();
        monitor->WaitForLook(std::chrono::duration_cast<milliseconds>(left));
    }
}

std::shared_ptr<const TokenTable> Registry::Table() const {
    const std::lock_guard lock(table_mutex_);
    return table_;
}

std::vector<ModuleMonitorPtr> Registry::Monitors() const {
    const std::lock_guard lock(mutex_);
    return monitors_;
}

ModuleMonitorPtr Registry::MonitorOf(const Token& token) const {
    for (const ModuleMonitorPtr& monitor : Monitors()) {
        if (monitor->link() == token.link()) return monitor;
    }
    return nullptr;
}

void Registry::Publish() {
    const std::lock_guard publish(publish_mutex_);
    std::vector<TokenPtr> tokens;
    for (const ModuleMonitorPtr& monitor : Monitors()) {
        for (TokenPtr& token : monitor->Tokens()) tokens.push_back(std::move(token));
    }
    auto table = std::make_shared<const TokenTable>(std::move(tokens));
    const std::lock_guard lock(table_mutex_);
    table_.swap(table);
}

bool Registry::FindPinFile(const PKCS11::TokenInfo& token, PinFile& file) const {
    const std::shared_ptr<const TokenTable> table = Table();
    const TokenInfoList present = table->Offering(0);
    const auto sharing = std::count_if(present->begin(), present->end(), [&](const PKCS11::TokenInfo& other) {
        return other.label == token.label && other.id != token.id;
    });
    const std::lock_guard lock(mutex_);
    for (const PinFile& candidate : pin_files_) {
        if (candidate.token == token.serialNumber) {
            file = candidate;
            return true;
        }
    }
    for (const PinFile& candidate : pin_files_) {
        if (candidate.token != token.label) continue;
        if (sharing == 0) {
            file = candidate;
            return true;
        }
        Log(kMsgTokenError, Describe(token) + ": another token has the same label; name the serial number for its PIN");
    }
    return false;
}

bool Registry::FindPin(const PKCS11::TokenInfo& token, vpnfc::SecretString& pin) const {
    PinFile file;
    std::string error;
    if (!FindPinFile(token, file)) return false;
    if (ReadPinFile(file.path, pin, error)) return true;
    Log(kMsgTokenError, Describe(token) + ": " + error);
    return false;
}

bool Registry::TakeInsertionLogin(Token& token) const {
    PinFile file;
    if (!FindPinFile(token.Info(), file) || !file.login_on_insertion) return false;
    return token.TakeInsertionLogin(settings_generation_);
}

}  // namespace tokens
