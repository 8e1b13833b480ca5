// Everything the token manager knows: providers, the tokens present, PIN files.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "platform/tokens/monitor.h"
#include "platform/tokens/token_host.h"

namespace tokens {

using TokenInfoList = std::shared_ptr<const std::vector<PKCS11::TokenInfo>>;

/// The tokens present at one moment. Never changes; what is computed from it is kept with it.
class TokenTable {
  public:
    TokenTable() : TokenTable(std::vector<TokenPtr>()) {}
    explicit TokenTable(std::vector<TokenPtr> tokens);

    const std::vector<TokenPtr>& tokens() const { return tokens_; }
    TokenPtr Find(std::uint64_t id) const;
    /// Those that offer the algorithm; all for 0.
    TokenInfoList Offering(pki_alg_t alg) const;
    const std::vector<PKCS11::TokenInfo>& infos() const { return infos_; }
    /// Whether another token has the same label.
    bool SharesLabel(const PKCS11::TokenInfo& token) const;

  private:
    TokenInfoList Select(pki_alg_t alg) const;

    std::vector<TokenPtr> tokens_;
    std::vector<PKCS11::TokenInfo> infos_;
    mutable std::mutex mutex_;
    mutable std::unordered_map<pki_alg_t, TokenInfoList> offering_;  // guarded by mutex_
};

class Registry {
  public:
    /// Never destroyed: tokens are used while static objects are.
    static Registry& Instance();

    bool Start(const Settings& settings, std::string& error);
    bool Apply(const Settings& settings, std::string& error);
    void Stop();

    std::shared_ptr<const TokenTable> Table() const;
    TokenPtr Find(std::uint64_t id) const { return Table()->Find(id); }
    std::vector<ModuleMonitorPtr> Monitors() const;
    ModuleMonitorPtr MonitorOf(const Token& token) const;
    /// Waits until all have looked at their slots after the call; drops those that take too long.
    static void AwaitLooks(std::vector<ModuleMonitorPtr>& monitors, std::chrono::milliseconds limit);
    /// Makes the table anew from what the monitors show.
    void Publish();

    /// A monitor claims a token before it shows it: of tokens with one identifier only one is shown at a time. False when
    /// another one has the identifier; the claimant is then told to look again when it is released.
    bool Claim(const TokenPtr& token);
    /// After the token's removal was reported. Harmless for one that was not claimed.
    void Release(const TokenPtr& token);

    /// Reads the PIN of a token from its file. False when there is none that can be used; why stands in the log.
    bool FindPin(const PKCS11::TokenInfo& token, vpnfc::SecretString& pin) const;
    /// Whether a PIN file is to be used for the token now, without being asked for. True once for each token and state of
    /// the settings, and not before all modules had time to show their tokens: labels may be shared.
    bool TakeInsertionLogin(Token& token) const;

  private:
    Registry() = default;
    const PinFile* FindPinFile(const PKCS11::TokenInfo& token, bool label_is_shared) const;
    std::vector<PKCS11::TokenInfo> NoteSharedLabels(const TokenTable& table);
    void Replace(const Settings& settings, bool report_removals);

    std::mutex host_mutex_;  // one Start, Apply or Stop at a time

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    bool running_ = false;
    std::vector<ModuleMonitorPtr> monitors_;
    std::vector<PinFile> pin_files_;
    unsigned settings_generation_ = 0;
    bool tokens_known_ = false;  // all modules had time to show theirs
    std::set<std::uint64_t> label_not_used_;  // tokens whose PIN file is not used because it names a shared label

    std::mutex claims_mutex_;
    // Guarded by claims_mutex_.
    std::unordered_map<std::uint64_t, TokenPtr> claims_;
    std::set<std::uint64_t> claimed_in_vain_;

    std::mutex publish_mutex_;  // one Publish at a time
    mutable std::mutex table_mutex_;
    std::shared_ptr<const TokenTable> table_ = std::make_shared<const TokenTable>();  // guarded by table_mutex_
};

}  // namespace tokens
