// A token: a folder of the state directory, and who is logged in on it in this process. A slot that has none yet is one
// whose folder does not exist.
#pragma once

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tokens/gost/object_store.h"
#include "tokens/gost/token_file.h"

namespace gost_token {

/// A text of PKCS #11: of fixed width, padded with blanks.
template <std::size_t Size>
void Fill(unsigned char (&field)[Size], std::string_view text) {
    std::memset(field, ' ', Size);
    std::memcpy(field, text.data(), std::min(Size, text.size()));
}

/// What a session is to its token.
struct SessionView {
    CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
    bool read_write = false;
};

/// May be used from several threads. Files are written, and what a change rests on is read, under the lock of the folder,
/// which is taken before the mutex; session objects take no such lock. The mutex is held while files that are new are
/// read, so that all sessions see the same objects, and not while one is written, a PIN is tried or a lock waited for.
class Token {
  public:
    Token(std::filesystem::path folder, CK_SLOT_ID slot);

    CK_SLOT_ID slot() const { return slot_; }
    void Describe(CK_TOKEN_INFO& info);

    /// Erases what is there, if the PIN is the security officer's; a new token takes it as that. A folder whose token
    /// cannot be read has no such PIN: it is not erased but put aside, as kept-slot-N-....
    void Initialize(std::string_view officer_pin, std::string_view label);
    void Login(Role role, std::string_view pin);
    void Logout();
    /// By the security officer: gives the user a PIN.
    void InitUserPin(std::string_view pin);
    /// Of who is logged in, the user's if nobody is.
    void ChangePin(std::string_view old_pin, std::string_view new_pin);
    Role role();

    /// A number that a later token in the same slot does not have.
    std::string OpenSession(const SessionView& session);
    /// Nothing happens to a later token.
    void CloseSession(const SessionView& session, const std::string& serial);
    /// Whether the token of that number is still there.
    bool IsStill(const std::string& serial);

    /// All of them or none.
    std::vector<CK_OBJECT_HANDLE> Create(std::vector<Attributes> objects, const SessionView& session);
    void Change(CK_OBJECT_HANDLE handle, const Template& changes, const SessionView& session);
    void Destroy(CK_OBJECT_HANDLE handle, const SessionView& session);
    /// Fails with CKR_OBJECT_HANDLE_INVALID for one that the caller may not see.
    ObjectPtr Find(CK_OBJECT_HANDLE handle);
    /// Likewise, with CKR_KEY_HANDLE_INVALID.
    ObjectPtr FindKey(CK_OBJECT_HANDLE handle);
    /// How many logins have ended. What was begun with a private key ends with the login.
    unsigned long Logouts();
    std::vector<CK_OBJECT_HANDLE> FindAll(const Template& wanted);

  private:
    struct ObjectFile {
        std::string name;
        Attributes object;
        std::optional<Stamp> stamp{};
    };

    // With mutex_ held.
    void RefreshLocked();
    const TokenFile& FileLocked();
    void ForgetLoginLocked();
    void RequireWritableLocked(const Attributes& object, const SessionView& session) const;
    ObjectPtr VisibleLocked(CK_OBJECT_HANDLE handle);
    /// With the lock of the folder held, too; releases the mutex while it writes.
    std::vector<CK_OBJECT_HANDLE> WriteLocked(std::unique_lock<std::mutex>& lock, std::vector<ObjectFile> files);
    /// The lock that a change of the object takes, if any.
    std::optional<FolderLock> LockFor(CK_OBJECT_HANDLE handle);

    /// Whether there is a readable token; fails when the PIN is not its security officer's.
    bool MayErase(std::string_view officer_pin);
    TokenFile Snapshot();
    /// Gives the token of that number a PIN that opens its key.
    void Rewrite(Role role, std::string_view pin, const Access& access);
    std::filesystem::path FilePath() const;

    const std::filesystem::path folder_;
    const CK_SLOT_ID slot_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::optional<TokenFile> file_;
    std::optional<Stamp> looked_at_;
    Role role_ = Role::kNobody;
    unsigned long logouts_ = 0;
    Access access_;
    ObjectStore objects_;
    unsigned long sessions_ = 0;
    unsigned long read_only_sessions_ = 0;
};

using TokenPtr = std::shared_ptr<Token>;

}  // namespace gost_token
