// What lives between C_Initialize and C_Finalize: the engine, the slots of the state directory, the sessions.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tokens/gost/engine.h"
#include "tokens/gost/session.h"

namespace gost_token {

class Library {
  public:
    /// `arguments` is the text "directory=PATH", or empty for the directory that the environment variable
    /// CERTMGR_GOST_DIRECTORY names, or else the user's own. Fails with CKR_ARGUMENTS_BAD for other texts or when nothing
    /// says what is the user's own, with CKR_DEVICE_ERROR when the directory cannot be made or others may use it.
    explicit Library(std::string_view arguments);
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    /// Looks which tokens there are. One more slot, the last, has none yet and takes a new one.
    void RefreshSlots();
    std::vector<TokenPtr> Slots();
    /// Fails with CKR_SLOT_ID_INVALID.
    TokenPtr Slot(CK_SLOT_ID id);

    CK_SESSION_HANDLE OpenSession(CK_SLOT_ID slot, bool read_write);
    void CloseSession(CK_SESSION_HANDLE handle);
    void CloseAll(CK_SLOT_ID slot);
    bool HasSessions(CK_SLOT_ID slot);
    /// Fails with CKR_SESSION_HANDLE_INVALID; with CKR_DEVICE_REMOVED, once, when its token is gone.
    SessionPtr FindSession(CK_SESSION_HANDLE handle);

  private:
    const Engine engine_;
    std::filesystem::path folder_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::map<CK_SLOT_ID, TokenPtr> slots_;
    std::map<CK_SESSION_HANDLE, SessionPtr> sessions_;
    CK_SESSION_HANDLE last_session_ = 0;
};

}  // namespace gost_token
