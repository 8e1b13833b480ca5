#include "platform/tokens/registry.h"

#include <algorithm>
#include <filesystem>

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

bool TokenTable::SharesLabel(const PKCS11::TokenInfo& token) const {
    return std::any_of(infos_.begin(), infos_.end(), [&](const PKCS11::TokenInfo& other) {
        return other.label == token.label && other.id != token.id;
    });
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
        if (alg == 0 || tokens_[i]->mechanisms().Offers(alg, CKF_VERIFY)) list->push_back(infos_[i]);
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
    Replace(settings, true);
    return true;
}

bool Registry::Apply(const Settings& settings, std::string& error) {
    const std::lock_guard host(host_mutex_);
    {
        const std::lock_guard lock(mutex_);
        error = running_ ? FindFault(settings) : "the token manager does not run";
        if (!error.empty()) return false;
    }
    Replace(settings, true);
    return true;
}

void Registry::Stop() {
    std::unique_lock host(host_mutex_, std::defer_lock);
    // A callback that ends the process gets here, perhaps while a change of the settings waits for its monitor.
    if (!ModuleMonitor::OnMonitor()) {
        host.lock();
    } else if (!host.try_lock()) {
        return;
    }
    Settings nothing;
    {
        const std::lock_guard lock(mutex_);
        if (!running_) return;
        running_ = false;
    }
    Replace(nothing, false);
}

/// Stops the monitors that the settings have no more, starts those that they have anew.
void Registry::Replace(const Settings& settings, bool report_removals) {
    std::vector<ModuleMonitorPtr> before = Monitors();
    std::vector<ModuleMonitorPtr> monitors;
    std::vector<ModuleMonitorPtr> fresh;
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
    for (const ModuleMonitorPtr& monitor : before) monitor->RequestStop(report_removals);
    for (const ModuleMonitorPtr& monitor : before) monitor->Join();
    for (std::size_t i = 0; i < monitors.size(); ++i) {
        if (monitors[i] != nullptr) continue;
        monitors[i] = ModuleMonitor::Make(settings.providers[i]);
        fresh.push_back(monitors[i]);
    }
    {
        const std::lock_guard lock(mutex_);
        pin_files_ = settings.pin_files;
        ++settings_generation_;
        tokens_known_ = false;
        monitors_ = monitors;
    }
    for (const ModuleMonitorPtr& monitor : monitors) monitor->Configure(settings);
    for (const ModuleMonitorPtr& monitor : fresh) monitor->Start();
    Publish();
    AwaitLooks(monitors, kStartWait);  // all tokens are known before a PIN file is used
    {
        const std::lock_guard lock(mutex_);
        tokens_known_ = true;
    }
    if (!settings.pin_files.empty()) AwaitLooks(monitors, kStartWait);
}

void Registry::AwaitLooks(std::vector<ModuleMonitorPtr>& monitors, milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::erase_if(monitors, [deadline](const ModuleMonitorPtr& monitor) {
        const auto left = deadline - std::chrono::steady_clock::now();
        return !monitor->WaitForLook(std::chrono::duration_cast<milliseconds>(left));
    });
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
    std::vector<PKCS11::TokenInfo> sharing;
    {
        const std::lock_guard publish(publish_mutex_);
        std::vector<TokenPtr> tokens;
        for (const ModuleMonitorPtr& monitor : Monitors()) {
            for (TokenPtr& token : monitor->Tokens()) tokens.push_back(std::move(token));
        }
        auto table = std::make_shared<const TokenTable>(std::move(tokens));
        sharing = NoteSharedLabels(*table);
        const std::lock_guard lock(table_mutex_);
        table_.swap(table);
    }
    for (const PKCS11::TokenInfo& token : sharing) {
        Log(kMsgTokenError, Describe(token) + ": another token has the same label; name the serial number for its PIN");
    }
}

/// The tokens whose PIN file names a label that they share, as far as that is new.
std::vector<PKCS11::TokenInfo> Registry::NoteSharedLabels(const TokenTable& table) {
    std::vector<PKCS11::TokenInfo> news;
    std::set<std::uint64_t> not_used;
    const std::lock_guard lock(mutex_);
    for (const PKCS11::TokenInfo& token : table.infos()) {
        if (FindPinFile(token, false) == FindPinFile(token, table.SharesLabel(token))) continue;
        not_used.insert(token.id);
        if (label_not_used_.count(token.id) == 0) news.push_back(token);
    }
    label_not_used_.swap(not_used);
    return news;
}

bool Registry::Claim(const TokenPtr& token) {
    const std::lock_guard lock(claims_mutex_);
    const auto [claim, fresh] = claims_.try_emplace(token->id(), token);
    if (claim->second == token) return true;
    claimed_in_vain_.insert(token->id());
    return false;
}

void Registry::Release(const TokenPtr& token) {
    {
        const std::lock_guard lock(claims_mutex_);
        const auto claim = claims_.find(token->id());
        if (claim == claims_.end() || claim->second != token) return;
        claims_.erase(claim);
        if (claimed_in_vain_.erase(token->id()) == 0) return;
    }
    for (const ModuleMonitorPtr& monitor : Monitors()) monitor->LookAgain();
}

/// By serial number, else by label. Expects mutex_ held.
const PinFile* Registry::FindPinFile(const PKCS11::TokenInfo& token, bool label_is_shared) const {
    const auto find = [this](const std::string& name) -> const PinFile* {
        const auto found =
            std::find_if(pin_files_.begin(), pin_files_.end(), [&](const PinFile& file) { return file.token == name; });
        return found == pin_files_.end() ? nullptr : &*found;
    };
    const PinFile* const by_serial = find(token.serialNumber);
    return by_serial != nullptr || label_is_shared ? by_serial : find(token.label);
}

bool Registry::FindPin(const PKCS11::TokenInfo& token, vpnfc::SecretString& pin) const {
    const bool shared = Table()->SharesLabel(token);
    std::string path;
    {
        const std::lock_guard lock(mutex_);
        const PinFile* const file = FindPinFile(token, shared);
        if (file == nullptr) return false;
        path = file->path;
    }
    std::string error;
    if (ReadPinFile(path, pin, error)) return true;
    Log(kMsgTokenError, Describe(token) + ": " + error);
    return false;
}

bool Registry::TakeInsertionLogin(Token& token) const {
    const PKCS11::TokenInfo info = token.Info();
    const bool shared = Table()->SharesLabel(info);
    const std::lock_guard lock(mutex_);
    const PinFile* const file = FindPinFile(info, shared);
    return tokens_known_ && file != nullptr && file->login_on_insertion &&
           token.TakeInsertionLogin(settings_generation_);
}

}  // namespace tokens
