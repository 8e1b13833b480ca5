// Files of the state directory. Everything is for its owner alone, and a file is written as a whole or not at all: a
// process that is killed, or a machine that stops, leaves either the old content or the new one.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/descriptor.h"

namespace gost_token {

/// Tells whether a file or folder is the one that was looked at before.
struct Stamp {
    unsigned long device = 0;
    unsigned long inode = 0;
    long seconds = 0;
    long nanoseconds = 0;
    long size = 0;

    bool operator==(const Stamp&) const = default;
};
/// Nothing when it is not there. Fails with CKR_DEVICE_ERROR when that cannot be told.
std::optional<Stamp> StampOf(const std::filesystem::path& path);

/// Nothing when it is not there, not a regular file, or longer. What may pass is a failure instead: CKR_HOST_MEMORY for
/// memory and descriptors, CKR_DEVICE_ERROR for everything else that keeps the file from being read.
std::optional<std::string> ReadFile(const std::filesystem::path& path, std::size_t max_bytes);
/// Fails with CKR_DEVICE_ERROR or CKR_DEVICE_MEMORY.
void WriteFile(const std::filesystem::path& path, std::string_view content);

struct NamedContent {
    std::string name;
    std::string content;
};
/// Likewise, with the lock of the folder held: all of them or, for who looks after Recover, none. They appear in that
/// order.
void WriteFiles(const std::filesystem::path& folder, std::span<const NamedContent> files);
/// Makes the folder, mode 0700, and its parents. False when it cannot be made, or others may read or write it.
bool MakePrivateFolder(const std::filesystem::path& folder);
/// Puts a folder in the place of another one, which takes the first one's name, or where there was none.
void PutFolder(const std::filesystem::path& folder, const std::filesystem::path& place);
/// Removes a folder for good, that file of it first. Fails with CKR_DEVICE_ERROR when something of it stays.
void RemoveFolder(const std::filesystem::path& folder, const char* first);
/// Sixteen hexadecimal digits that no other writer chooses.
std::string RandomName();
/// A name under which nothing counts as there yet.
std::filesystem::path TemporaryName(const std::filesystem::path& folder);

/// Keeps other processes, and other threads, from changing the folder that has this name now: one that is put in its
/// place meanwhile is waited for, too. Everything that writes into a folder holds its lock. The state directory's lock
/// is taken before that of a slot's folder.
class FolderLock {
  public:
    enum class Wait { kYes, kNo };
    /// Fails with CKR_DEVICE_ERROR. Without waiting it never does; see held.
    explicit FolderLock(const std::filesystem::path& folder, Wait wait = Wait::kYes);

    bool held() const { return static_cast<bool>(fd_); }
    /// Brings to an end what processes that were killed had begun in the folder, or undoes it, if the lock is held.
    void Recover() const;

  private:
    bool IsOfItsPlace() const;

    std::filesystem::path folder_;
    vpnfc::Descriptor fd_;
};

}  // namespace gost_token
