#include "tokens/gost/object_store.h"

#include <ctime>
#include <set>

#include "tokens/gost/object_file.h"

namespace gost_token {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSuffix = ".object";
/// Two changes of a folder this close together may leave it with one time.
constexpr long kClockSeconds = 2;

bool IsObjectFile(const fs::path& path) {
    const std::string name = path.filename().string();
    return !name.starts_with('.') && name.ends_with(kSuffix);
}

}  // namespace

void ObjectStore::Refresh(const Access& access) {
    const std::optional<Stamp> now = StampOf(folder_);
    if (!now || (now == looked_at_ && now->seconds < time(nullptr) - kClockSeconds)) return;
    std::set<std::string> present;
    for (const fs::directory_entry& file : fs::directory_iterator(folder_)) {
        if (!IsObjectFile(file.path())) continue;
        present.insert(file.path().filename().string());
        Read(*present.find(file.path().filename().string()), access);
    }
    for (auto it = by_file_.begin(); it != by_file_.end();) {
        const bool gone = !present.contains(it->first);
        if (gone) entries_.erase(it->second);
        it = gone ? by_file_.erase(it) : std::next(it);
    }
    looked_at_ = now;
}

void ObjectStore::Read(const std::string& file, const Access& access) {
    const std::optional<Stamp> stamp = StampOf(folder_ / file);
    const auto known = by_file_.find(file);
    if (!stamp || (known != by_file_.end() && entries_[known->second].stamp == *stamp)) return;
    const std::optional<std::string> content = ReadFile(folder_ / file, kMaxObjectFileBytes);
    Attributes object;
    const bool readable =
        content && DecodeObject(*content, {access.serial, file}, access.key, object) == Readable::kYes;
    const CK_OBJECT_HANDLE handle = known != by_file_.end() ? known->second : ++last_handle_;
    by_file_[file] = handle;
    entries_[handle] = {readable ? std::make_shared<const Attributes>(std::move(object)) : nullptr, file, *stamp};
}

void ObjectStore::ForgetPrivate() {
    std::erase_if(entries_, [&](const auto& item) {
        const Entry& entry = item.second;
        const bool forget = entry.object == nullptr || entry.object->Flag(CKA_PRIVATE);
        if (forget) by_file_.erase(entry.file);
        return forget;
    });
    looked_at_.reset();
}

void ObjectStore::Clear() {
    entries_.clear();
    by_file_.clear();
    looked_at_.reset();
}

void ObjectStore::DropSession(CK_SESSION_HANDLE session) {
    std::erase_if(entries_, [&](const auto& item) { return item.second.session == session; });
}

void ObjectStore::Write(const std::string& file, const Attributes& object, const Access& access) {
    WriteFile(folder_ / file, EncodeObject(object, {access.serial, file}, access.key));
    Read(file, access);
}

CK_OBJECT_HANDLE ObjectStore::Add(const Attributes& object, const Access& access) {
    const std::string file = RandomName().append(kSuffix);
    Write(file, object, access);
    const auto written = by_file_.find(file);
    Require(written != by_file_.end() && Find(written->second) != nullptr, CKR_DEVICE_ERROR);
    return written->second;
}

CK_OBJECT_HANDLE ObjectStore::AddToSession(Attributes object, CK_SESSION_HANDLE session) {
    entries_[++last_handle_] = {std::make_shared<const Attributes>(std::move(object)), {}, {}, session};
    return last_handle_;
}

void ObjectStore::Replace(CK_OBJECT_HANDLE handle, Attributes object, const Access& access) {
    Entry& entry = entries_.at(handle);
    if (entry.file.empty()) {
        entry.object = std::make_shared<const Attributes>(std::move(object));
    } else {
        Write(entry.file, object, access);
    }
}

void ObjectStore::Remove(CK_OBJECT_HANDLE handle) {
    const auto found = entries_.find(handle);
    if (found == entries_.end()) return;
    const std::string file = found->second.file;
    std::error_code error;
    if (!file.empty()) fs::remove(folder_ / file, error);
    Require(!error, CKR_DEVICE_ERROR);
    by_file_.erase(file);
    entries_.erase(found);
}

ObjectPtr ObjectStore::Look(CK_OBJECT_HANDLE handle, const Access& access) {
    const auto known = entries_.find(handle);
    if (known == entries_.end()) return nullptr;
    const std::string file = known->second.file;
    if (!file.empty() && !StampOf(folder_ / file)) {
        by_file_.erase(file);
        entries_.erase(known);
    } else if (!file.empty()) {
        Read(file, access);
    }
    return Find(handle);
}

ObjectPtr ObjectStore::Find(CK_OBJECT_HANDLE handle) const {
    const auto found = entries_.find(handle);
    return found == entries_.end() ? nullptr : found->second.object;
}

std::vector<CK_OBJECT_HANDLE> ObjectStore::Handles() const {
    std::vector<CK_OBJECT_HANDLE> handles;
    for (const auto& [handle, entry] : entries_) {
        if (entry.object != nullptr) handles.push_back(handle);
    }
    return handles;
}

}  // namespace gost_token
