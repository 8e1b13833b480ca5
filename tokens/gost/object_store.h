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

/// A name for the file of a new object.
std::string NewObjectFile();

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

    /// Of what stands in a file now.
    CK_OBJECT_HANDLE Put(const std::string& file, const Stamp& stamp, Attributes object);
    CK_OBJECT_HANDLE AddToSession(Attributes object, CK_SESSION_HANDLE session);
    /// Of a session object.
    void Replace(CK_OBJECT_HANDLE handle, Attributes object);
    void Remove(CK_OBJECT_HANDLE handle);

    /// Empty for a session object and for an unknown handle.
    std::string FileOf(CK_OBJECT_HANDLE handle) const;
    bool IsOfSession(CK_OBJECT_HANDLE handle) const;
    /// As it is now. Null for an unknown handle, or an object that is gone.
    ObjectPtr Look(CK_OBJECT_HANDLE handle, const Access& access);
    /// As it was at the last look.
    ObjectPtr Find(CK_OBJECT_HANDLE handle) const;
    std::vector<CK_OBJECT_HANDLE> Handles() const;

  private:
    struct Entry {
        ObjectPtr object{};  // null: locked or damaged
        std::string file{};  // empty: a session object
        std::optional<Stamp> stamp{};  // nothing: to be read again
        CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    };

    /// False when the file cannot be read now.
    bool Read(const std::string& file, const Access& access);

    std::filesystem::path folder_;
    std::optional<Stamp> looked_at_;  // the folder, when it was read last
    std::map<CK_OBJECT_HANDLE, Entry> entries_;
    std::map<std::string, CK_OBJECT_HANDLE> by_file_;
    CK_OBJECT_HANDLE last_handle_ = 0;
};

}  // namespace gost_token
