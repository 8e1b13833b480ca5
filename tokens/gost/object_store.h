// The objects of one token: those in its folder, as they are now, and the session objects of this process.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tokens/gost/attributes.h"
#include "tokens/gost/files.h"

namespace gost_token {

using ObjectPtr = std::shared_ptr<const Attributes>;

/// What reading an object file takes.
struct Access {
    std::string serial{};
    vpnfc::SecretString key{};  // of the token; empty when nobody is logged in
};

/// Not locked: the token that owns it is.
class ObjectStore {
  public:
    explicit ObjectStore(std::filesystem::path folder) : folder_(std::move(folder)) {}

    /// Reads what other processes have changed. A file that is damaged is left alone and not shown.
    void Refresh(const Access& access);
    /// After the login state changed: private objects get new handles.
    void ForgetPrivate();
    void Clear();
    void DropSession(CK_SESSION_HANDLE session);

    CK_OBJECT_HANDLE Add(const Attributes& object, const Access& access);
    CK_OBJECT_HANDLE AddToSession(Attributes object, CK_SESSION_HANDLE session);
    void Replace(CK_OBJECT_HANDLE handle, Attributes object, const Access& access);
    void Remove(CK_OBJECT_HANDLE handle);

    /// As it is now. Null for an unknown handle, or an object that is gone.
    ObjectPtr Look(CK_OBJECT_HANDLE handle, const Access& access);
    /// As it was at the last look.
    ObjectPtr Find(CK_OBJECT_HANDLE handle) const;
    std::vector<CK_OBJECT_HANDLE> Handles() const;

  private:
    struct Entry {
        ObjectPtr object{};  // null: locked or damaged
        std::string file{};  // empty: a session object
        Stamp stamp{};
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    };

    void Read(const std::string& file, const Access& access);
    void Write(const std::string& file, const Attributes& object, const Access& access);

    std::filesystem::path folder_;
    std::optional<Stamp> looked_at_;  // the folder, when it was read last
    std::map<CK_OBJECT_HANDLE, Entry> entries_;
    std::map<std::string, CK_OBJECT_HANDLE> by_file_;
    CK_OBJECT_HANDLE last_handle_ = 0;
};

}  // namespace gost_token
