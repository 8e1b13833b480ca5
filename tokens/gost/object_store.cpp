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

std::string NewObjectFile() {
    return RandomName().append(kSuffix);
}

void ObjectStore::Refresh(const Access& access) {
    const std::optional<Stamp> now = StampOf(folder_);
    if (!now || (now == looked_at_ && now->seconds < time(nullptr) - kClockSeconds)) return;
    std::set<std::string> present;
    bool all_read = true;
    for (const fs::directory_entry& file : fs::directory_iterator(folder_)) {
        if (!IsObjectFile(file.path())) continue;
        const auto name = present.insert(file.path().filename().string()).first;
        all_read = Read(*name, access) && all_read;
    }
    for (auto it = by_file_.begin(); it != by_file_.end();) {
        const bool gone = !present.contains(it->first);
        if (gone) entries_.erase(it->second);
        it = gone ? by_file_.erase(it) : std::next(it);
    }
    looked_at_ = all_read ? now : std::nullopt;
}

bool ObjectStore::Read(const std::string& file, const Access& access) {
    const std::optional<Stamp> stamp = StampOf(folder_ / file);
    const auto known = by_file_.find(file);
    if (!stamp || (known != by_file_.end() && entries_[known->second].stamp == stamp)) return true;
    std::optional<std::string> content;
    bool read = true;
    try {
        content = ReadFile(folder_ / file, kMaxObjectFileBytes);
    } catch (const Failure& failure) {
        // A bad place on a disk hides one object; a shortage hides none.
        if (failure.rv() != CKR_DEVICE_ERROR) throw;
        read = false;
    }
    Attributes object;
    const bool readable =
        content && DecodeObject(*content, {access.serial, file}, access.key, object) == Readable::kYes;
    const CK_OBJECT_HANDLE handle = known != by_file_.end() ? known->second : ++last_handle_;
    by_file_[file] = handle;
    entries_[handle] = {readable ? std::make_shared<const Attributes>(std::move(object)) : nullptr, file,
                        read ? stamp : std::nullopt};
    return read;
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

CK_OBJECT_HANDLE ObjectStore::Put(const std::string& file, const Stamp& stamp, Attributes object) {
    const auto [known, is_new] = by_file_.try_emplace(file, last_handle_ + 1);
    if (is_new) ++last_handle_;
    entries_[known->second] = {std::make_shared<const Attributes>(std::move(object)), file, stamp};
    return known->second;
}

CK_OBJECT_HANDLE ObjectStore::AddToSession(Attributes object, CK_SESSION_HANDLE session) {
    entries_[++last_handle_] = {std::make_shared<const Attributes>(std::move(object)), {}, {}, session};
    return last_handle_;
}

void ObjectStore::Replace(CK_OBJECT_HANDLE handle, Attributes object) {
    entries_.at(handle).object = std::make_shared<const Attributes>(std::move(object));
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

std::string ObjectStore::FileOf(CK_OBJECT_HANDLE handle) const {
    const auto found = entries_.find(handle);
    return found == entries_.end() ? std::string() : found->second.file;
}

bool ObjectStore::IsOfSession(CK_OBJECT_HANDLE handle) const {
    return entries_.contains(handle) && FileOf(handle).empty();
}

ObjectPtr ObjectStore::Look(CK_OBJECT_HANDLE handle, const Access& access) {
    const std::string file = FileOf(handle);
    if (!file.empty() && !StampOf(folder_ / file)) {
        by_file_.erase(file);
        entries_.erase(handle);
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
