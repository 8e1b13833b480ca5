#include "tokens/gost/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/base/files.h"
#include "tokens/gost/failure.h"
#include "tokens/gost/sealing.h"

namespace gost_token {
namespace {

namespace fs = std::filesystem;
using vpnfc::Descriptor;

constexpr std::string_view kTemporaryPrefix = ".new-";
/// A folder of files that are whole, and are to be moved out of it.
constexpr std::string_view kSetPrefix = ".set-";
constexpr std::size_t kNameBytes = 8;
constexpr mode_t kFileMode = 0600;

[[noreturn]] void FailToWrite(const fs::path& temporary) {
    const bool full = errno == ENOSPC || errno == EDQUOT;
    unlink(temporary.c_str());
    Fail(full ? CKR_DEVICE_MEMORY : CKR_DEVICE_ERROR);
}

/// What was asked for is not there, or is nothing that could be read. Everything else is a failure.
std::nullopt_t Absent() {
    switch (errno) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case ENXIO:
            return std::nullopt;
        case EMFILE:
        case ENFILE:
        case ENOMEM:
            Fail(CKR_HOST_MEMORY);
        default:
            Fail(CKR_DEVICE_ERROR);
    }
}

Descriptor Open(const fs::path& path, int flags, mode_t mode = 0) {
    return Descriptor(open(path.c_str(), flags | O_CLOEXEC, mode));
}

/// Makes the names in a folder last.
void SyncFolder(const fs::path& folder) {
    const Descriptor descriptor = Open(folder, O_RDONLY | O_DIRECTORY);
    if (descriptor) fsync(descriptor.get());
}

void MoveInto(const fs::path& folder, const fs::path& file) {
    Require(rename(file.c_str(), (folder / file.filename()).c_str()) == 0, CKR_DEVICE_ERROR);
}

}  // namespace

std::optional<Stamp> StampOf(const fs::path& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return Absent();
    return Stamp{status.st_dev, status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_size};
}

std::optional<std::string> ReadFile(const fs::path& path, std::size_t max_bytes) {
    const Descriptor file = Open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) return Absent();
    if (!S_ISREG(status.st_mode)) return std::nullopt;
    vpnfc::SecretString content;
    const vpnfc::ReadResult result = vpnfc::ReadToEnd(file.get(), max_bytes, content);
    if (result == vpnfc::ReadResult::kFailed) return Absent();
    if (result == vpnfc::ReadResult::kTooLong) return std::nullopt;
    return std::move(content.edit());
}

void WriteFile(const fs::path& path, std::string_view content) {
    const fs::path temporary = TemporaryName(path.parent_path());
    Descriptor file = Open(temporary, O_WRONLY | O_CREAT | O_EXCL, kFileMode);
    if (!file || !vpnfc::WriteAll(file.get(), content) || fsync(file.get()) != 0 || !file.Close() ||
        rename(temporary.c_str(), path.c_str()) != 0) {
        FailToWrite(temporary);
    }
    SyncFolder(path.parent_path());
}

void WriteFiles(const fs::path& folder, std::span<const NamedContent> files) {
    if (files.size() == 1) return WriteFile(folder / files[0].name, files[0].content);
    const fs::path fresh = TemporaryName(folder);
    const fs::path set = folder / std::string(kSetPrefix).append(RandomName());
    try {
        Require(MakePrivateFolder(fresh), CKR_DEVICE_ERROR);
        for (const NamedContent& file : files) WriteFile(fresh / file.name, file.content);
        Require(rename(fresh.c_str(), set.c_str()) == 0, CKR_DEVICE_ERROR);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(fresh, ignored);
        throw;
    }
    SyncFolder(folder);
    // From here on they count as written.
    for (const NamedContent& file : files) MoveInto(folder, set / file.name);
    SyncFolder(folder);
    rmdir(set.c_str());
}

bool MakePrivateFolder(const fs::path& folder) {
    std::string ignored;
    return vpnfc::MakePrivateFolder(folder, ignored);
}

void PutFolder(const fs::path& folder, const fs::path& place) {
    SyncFolder(folder);
    const bool exists = StampOf(place).has_value();
    const unsigned flags = exists ? RENAME_EXCHANGE : RENAME_NOREPLACE;
    Require(renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, place.c_str(), flags) == 0, CKR_DEVICE_ERROR);
    SyncFolder(place.parent_path());
}

void RemoveFolder(const fs::path& folder, const char* first) {
    std::error_code error;
    fs::remove(folder / first, error);
    if (!error) fs::remove_all(folder, error);
    Require(!error, CKR_DEVICE_ERROR);
    SyncFolder(folder.parent_path());
}

std::string RandomName() {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string name;
    for (const char byte : RandomBytes(kNameBytes)) {
        name.push_back(kDigits[static_cast<unsigned char>(byte) >> 4]);
        name.push_back(kDigits[static_cast<unsigned char>(byte) & 0xF]);
    }
    return name;
}

fs::path TemporaryName(const fs::path& folder) {
    return folder / std::string(kTemporaryPrefix).append(RandomName());
}

FolderLock::FolderLock(const fs::path& folder, Wait wait) : folder_(folder) {
    const int how = LOCK_EX | (wait == Wait::kNo ? LOCK_NB : 0);
    do {
        fd_ = Open(folder, O_RDONLY | O_DIRECTORY);
        while (fd_ && flock(fd_.get(), how) != 0) {
            if (errno != EINTR) fd_.Close();
        }
    } while (fd_ && !IsOfItsPlace());
    Require(held() || wait == Wait::kNo, CKR_DEVICE_ERROR);
}

bool FolderLock::IsOfItsPlace() const {
    struct stat locked {};
    struct stat named {};
    const bool both = fstat(fd_.get(), &locked) == 0 && stat(folder_.c_str(), &named) == 0;
    return both && locked.st_dev == named.st_dev && locked.st_ino == named.st_ino;
}

void FolderLock::Recover() const {
    std::error_code error;
    if (!held()) return;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder_, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(kTemporaryPrefix)) fs::remove_all(entry.path(), error);
        if (!name.starts_with(kSetPrefix)) continue;
        for (const fs::directory_entry& file : fs::directory_iterator(entry.path(), error))
            MoveInto(folder_, file.path());
        SyncFolder(folder_);
        rmdir(entry.path().c_str());
    }
}

}  // namespace gost_token
