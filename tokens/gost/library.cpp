#include "tokens/gost/library.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "platform/base/files.h"

namespace gost_token {
namespace {

namespace fs = std::filesystem;
using Lock = std::lock_guard<std::mutex>;

constexpr std::string_view kDirectoryArgument = "directory=";
constexpr std::string_view kSlotPrefix = "slot-";
constexpr CK_SLOT_ID kMaxSlots = 1000;

/// For programs that give modules no arguments.
constexpr const char* kDirectoryVariable = "CERTMGR_GOST_DIRECTORY";

fs::path DefaultFolder() {
    if (const std::string named = vpnfc::PathFromEnvironment(kDirectoryVariable); !named.empty()) return named;
    const fs::path state = vpnfc::StateFolder();
    Require(!state.empty(), CKR_ARGUMENTS_BAD);
    return state / "gost";
}

fs::path FolderFrom(std::string_view arguments) {
    if (arguments.empty()) return DefaultFolder();
    Require(arguments.starts_with(kDirectoryArgument), CKR_ARGUMENTS_BAD);
    fs::path folder(arguments.substr(kDirectoryArgument.size()));
    Require(folder.is_absolute(), CKR_ARGUMENTS_BAD);
    return folder;
}

std::optional<CK_SLOT_ID> SlotOf(const fs::path& folder) {
    const std::string name = folder.filename().string();
    CK_SLOT_ID id = 0;
    if (!name.starts_with(kSlotPrefix)) return std::nullopt;
    const char* const begin = name.data() + kSlotPrefix.size();
    const char* const end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(begin, end, id);
    if (error != std::errc() || stop != end || id >= kMaxSlots) return std::nullopt;
    return id;
}

}  // namespace

Library::Library(std::string_view arguments) : folder_(FolderFrom(arguments)) {
    MakeCurves(engine_);
    Require(MakePrivateFolder(folder_), CKR_DEVICE_ERROR);
    FolderLock(folder_, FolderLock::Wait::kNo).Recover();
    RefreshSlots();
}

Library::~Library() {
    sessions_.clear();
}

void Library::RefreshSlots() {
    std::vector<CK_SLOT_ID> present;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder_)) {
        if (const auto id = SlotOf(entry.path())) present.push_back(*id);
    }
    const auto last = std::max_element(present.begin(), present.end());
    const CK_SLOT_ID next = last == present.end() ? 0 : *last + 1;
    if (next < kMaxSlots) present.push_back(next);
    const Lock lock(mutex_);
    for (const CK_SLOT_ID id : present) {
        TokenPtr& slot = slots_[id];
        if (slot == nullptr)
            slot = std::make_shared<Token>(folder_ / (std::string(kSlotPrefix) + std::to_string(id)), id);
    }
}

std::vector<TokenPtr> Library::Slots() {
    const Lock lock(mutex_);
    std::vector<TokenPtr> slots;
    for (const auto& [id, token] : slots_) slots.push_back(token);
    return slots;
}

TokenPtr Library::Slot(CK_SLOT_ID id) {
    const Lock lock(mutex_);
    const auto found = slots_.find(id);
    Require(found != slots_.end(), CKR_SLOT_ID_INVALID);
    return found->second;
}

CK_SESSION_HANDLE Library::OpenSession(CK_SLOT_ID slot, bool read_write) {
    const TokenPtr token = Slot(slot);
    CK_SESSION_HANDLE handle = 0;
    {
        const Lock lock(mutex_);
        handle = ++last_session_;
    }
    const auto session = std::make_shared<Session>(engine_, token, handle, read_write);
    const Lock lock(mutex_);
    sessions_[handle] = session;
    return handle;
}

SessionPtr Library::FindSession(CK_SESSION_HANDLE handle) {
    SessionPtr session;
    {
        const Lock lock(mutex_);
        const auto found = sessions_.find(handle);
        Require(found != sessions_.end(), CKR_SESSION_HANDLE_INVALID);
        session = found->second;
    }
    if (!session->IsOver()) return session;
    const Lock lock(mutex_);
    sessions_.erase(handle);
    Fail(CKR_DEVICE_REMOVED);
}

void Library::CloseSession(CK_SESSION_HANDLE handle) {
    SessionPtr closed;  // goes away without the lock
    const Lock lock(mutex_);
    const auto found = sessions_.find(handle);
    Require(found != sessions_.end(), CKR_SESSION_HANDLE_INVALID);
    closed = std::move(found->second);
    sessions_.erase(found);
}

void Library::CloseAll(CK_SLOT_ID slot) {
    Slot(slot);
    std::vector<SessionPtr> closed;
    const Lock lock(mutex_);
    std::erase_if(sessions_, [&](auto& item) {
        const bool close = item.second->token().slot() == slot;
        if (close) closed.push_back(std::move(item.second));
        return close;
    });
}

bool Library::HasSessions(CK_SLOT_ID slot) {
    const Lock lock(mutex_);
    return std::any_of(sessions_.begin(), sessions_.end(),
                       [&](const auto& item) { return item.second->token().slot() == slot; });
}

}  // namespace gost_token
