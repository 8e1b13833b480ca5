// Files of the state directory. Everything is for its owner alone, and a file is written as a whole or not at all: a
// process that is killed, or a machine that stops, leaves either the old content or the new one.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
std::optional<Stamp> StampOf(const std::filesystem::path& path);

/// Nothing when it is not there, not a regular file, or longer.
std::optional<std::string> ReadFile(const std::filesystem::path& path, std::size_t max_bytes);
/// Fails with CKR_DEVICE_ERROR or CKR_DEVICE_MEMORY.
void WriteFile(const std::filesystem::path& path, std::string_view content);
/// Makes the folder and its parents, mode 0700. False when it cannot be made, or others may read or write it.
bool MakePrivateFolder(const std::filesystem::path& folder);
/// Puts a folder in the place of another one, which takes the first one's name, or where there was none.
void PutFolder(const std::filesystem::path& folder, const std::filesystem::path& place);
/// Sixteen hexadecimal digits that no other writer chooses.
std::string RandomName();
/// A name under which nothing counts as there yet.
std::filesystem::path TemporaryName(const std::filesystem::path& folder);
/// Removes what a process that was killed left in the folder an hour ago or more.
void RemoveLeftovers(const std::filesystem::path& folder);

/// Keeps other processes from changing the same folder.
class FolderLock {
  public:
    explicit FolderLock(const std::filesystem::path& folder);
    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

  private:
    int fd_;
};

}  // namespace gost_token
