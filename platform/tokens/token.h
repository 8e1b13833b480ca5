// A token in a slot, as long as it stays there.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/event_codes.h"
#include "platform/tokens.h"
#include "platform/tokens/mechanisms.h"
#include "platform/tokens/objects.h"
#include "platform/tokens/session.h"

namespace tokens {

enum class LoginState : int { kPublic, kUser, kSecurityOfficer };

/// All members may be used by any thread; what enters the module says so.
class Token {
  public:
    Token(ModuleLinkPtr link, CK_SLOT_ID slot, PKCS11::TokenInfo info, MechanismList mechanisms);

    std::uint64_t id() const { return id_; }
    CK_SLOT_ID slot() const { return slot_; }
    const ModuleLinkPtr& link() const { return link_; }
    const MechanismList& mechanisms() const { return mechanisms_; }
    PKCS11::TokenInfo Info() const;
    /// Takes over the flags that change while a token stays; true when one did.
    bool Update(const PKCS11::TokenInfo& info);

    /// The token is gone for good; one that is inserted again is another object.
    void MarkRemoved();
    bool removed() const { return removed_; }
    /// Its slot could not be looked at: true the first time since EndDoubt.
    bool DoubtOnce() { return !doubted_.exchange(true); }
    void EndDoubt() { doubted_ = false; }

    // Sessions. They are read-write where the token can be written: then the security officer can log in beside them.
    /// A session that is not in use; null when there is none.
    SessionPtr TakeIdle();
    /// Opens one. Enters the module.
    Result Open(SessionPtr& session) const;
    /// Gives a sound session back. It is kept for the next one to use, unless the token is gone or enough are kept.
    void GiveBack(SessionPtr session);

    // What is remembered of the content. Handles of keys belong to a login: they are forgotten when it ends.
    std::optional<CK_OBJECT_HANDLE> PrivateKeyHandle(pki_alg_t alg, const std::string& id) const;
    void RememberPrivateKey(pki_alg_t alg, const std::string& id, CK_OBJECT_HANDLE handle);
    std::shared_ptr<const ObjectClasses> KnownClasses() const;
    void RememberClasses(std::shared_ptr<const ObjectClasses> classes);
    void ForgetPrivateKeys();
    void ForgetContent();

    // Login.
    LoginState login_state() const { return login_state_; }
    bool login_required() const { return login_required_; }
    /// Counts the changes of the login state made by this process, to tell an observation that one overtook.
    unsigned login_changes() const { return login_changes_; }
    void SetLoginState(LoginState state);
    /// Takes over an observed state; true when it is new. Nothing when the process changed it meanwhile.
    bool ObserveLoginState(LoginState state, unsigned changes_before);
    /// Shared by operations that need the login to stay as it is, held exclusively by those that change it.
    std::shared_timed_mutex& login_lock() { return login_lock_; }
    /// True once for each state of the settings: a PIN file is tried once at insertion, and again after it changed.
    bool TakeInsertionLogin(unsigned settings_generation);

    /// The session through which the monitor watches the token; null before it was opened.
    SessionPtr watch_session() const;
    void SetWatchSession(SessionPtr session);

  private:
    const ModuleLinkPtr link_;
    const CK_SLOT_ID slot_;
    const std::uint64_t id_;
    const MechanismList mechanisms_;
    const bool read_write_;
    const bool login_required_;
    std::atomic<bool> removed_{false};  // set under mutex_
    std::atomic<bool> doubted_{false};
    std::atomic<LoginState> login_state_{LoginState::kPublic};
    std::atomic<unsigned> login_changes_{0};
    std::shared_timed_mutex login_lock_;
    std::atomic<unsigned> insertion_login_{0};

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    PKCS11::TokenInfo info_;
    std::vector<SessionPtr> idle_;
    SessionPtr watch_session_;
    std::unordered_map<std::string, CK_OBJECT_HANDLE> private_keys_;
    std::shared_ptr<const ObjectClasses> classes_;
};
using TokenPtr = std::shared_ptr<Token>;

/// `"label" (serial 1234, provider name)`, for log lines.
std::string Describe(const PKCS11::TokenInfo& info);
void Log(EventCode code, const std::string& text);
/// "...: C_Sign failed: CKR_DEVICE_ERROR".
void LogTrouble(const PKCS11::TokenInfo& info, const Result& result);

}  // namespace tokens
