#include "tokens/gost/token.h"

#include <utility>

#include "tokens/gost/object_file.h"

namespace gost_token {
namespace {

namespace fs = std::filesystem;
using vpnfc::SecretString;
using Lock = std::lock_guard<std::mutex>;

constexpr std::size_t kMaxTokenFileBytes = 64U << 10;
constexpr const char* kTokenFile = "token";
constexpr std::string_view kManufacturer = "certmgr";
constexpr std::string_view kModel = "GOST in software";

}  // namespace

Token::Token(fs::path folder, CK_SLOT_ID slot) : folder_(std::move(folder)), slot_(slot), objects_(folder_) {}

void Token::RefreshLocked() {
    const std::optional<Stamp> now = StampOf(FilePath());
    if (now == looked_at_) return;
    const std::optional<std::string> content = ReadFile(FilePath(), kMaxTokenFileBytes);
    file_ = content ? TokenFile::Decode(*content) : std::nullopt;
    looked_at_ = now;
    if (file_ && file_->serial() == access_.serial) return;
    ForgetLoginLocked();
    objects_.Clear();
    if (!file_) return;  // the same token may come back
    access_.serial = file_->serial();
    sessions_ = read_only_sessions_ = 0;
}

const TokenFile& Token::FileLocked() {
    RefreshLocked();
    Require(looked_at_.has_value(), CKR_TOKEN_NOT_PRESENT);
    Require(file_.has_value(), CKR_TOKEN_NOT_RECOGNIZED);
    return *file_;
}

fs::path Token::FilePath() const {
    return folder_ / kTokenFile;
}

TokenFile Token::Snapshot() {
    const Lock lock(mutex_);
    return FileLocked();
}

void Token::Describe(CK_TOKEN_INFO& info) {
    const Lock lock(mutex_);
    RefreshLocked();
    info = {};
    Require(!looked_at_ || file_.has_value(), CKR_TOKEN_NOT_RECOGNIZED);
    Fill(info.label, file_ ? file_->label() : "");
    Fill(info.manufacturerID, kManufacturer);
    Fill(info.model, kModel);
    Fill(info.serialNumber, file_ ? file_->serial() : "");
    Fill(info.utcTime, "");
    info.flags = CKF_RNG | CKF_LOGIN_REQUIRED;
    if (file_) info.flags |= CKF_TOKEN_INITIALIZED;
    if (file_ && file_->HasUserPin()) info.flags |= CKF_USER_PIN_INITIALIZED;
    info.ulMaxSessionCount = info.ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    info.ulSessionCount = sessions_;
    info.ulRwSessionCount = sessions_ - read_only_sessions_;
    info.ulMinPinLen = kMinPinBytes;
    info.ulMaxPinLen = kMaxPinBytes;
    info.ulTotalPublicMemory = info.ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    info.ulTotalPrivateMemory = info.ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
}

bool Token::MayErase(std::string_view officer_pin) {
    std::optional<TokenFile> before;
    {
        const Lock lock(mutex_);
        RefreshLocked();
        before = file_;
    }
    SecretString key;
    Require(!before || before->Unlock(Role::kOfficer, officer_pin, key), CKR_PIN_INCORRECT);
    return before.has_value();
}

void Token::Initialize(std::string_view officer_pin, std::string_view label) {
    const fs::path state = folder_.parent_path();
    // Other processes may want the same slot, or be writing into its folder.
    const FolderLock state_lock(state);
    state_lock.Recover();
    std::optional<FolderLock> folder_lock;
    if (StampOf(folder_)) folder_lock.emplace(folder_);
    const bool erase = MayErase(officer_pin);
    const TokenFile file = TokenFile::New(label, officer_pin);
    const fs::path fresh = TemporaryName(state);
    Require(MakePrivateFolder(fresh), CKR_DEVICE_ERROR);
    WriteFile(fresh / kTokenFile, file.Encode());
    if (folder_lock && !erase)
        fs::rename(folder_, state / ("kept-" + folder_.filename().string() + "-" + RandomName()));
    PutFolder(fresh, folder_);
    if (erase) RemoveFolder(fresh, kTokenFile);  // without it nothing opens the private objects
    const Lock lock(mutex_);
    RefreshLocked();
}

void Token::Login(Role role, std::string_view pin) {
    {
        const Lock lock(mutex_);
        FileLocked();
        Require(role_ != role, CKR_USER_ALREADY_LOGGED_IN);
        Require(role_ == Role::kNobody, CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
        Require(role == Role::kUser || read_only_sessions_ == 0, CKR_SESSION_READ_ONLY_EXISTS);
    }
    const TokenFile file = Snapshot();
    SecretString key;
    Require(role == Role::kOfficer || file.HasUserPin(), CKR_USER_PIN_NOT_INITIALIZED);
    Require(file.Unlock(role, pin, key), CKR_PIN_INCORRECT);
    FolderLock(folder_, FolderLock::Wait::kNo).Recover();
    const Lock lock(mutex_);
    // Another thread may have logged in, another process may have made a new token.
    Require(FileLocked().serial() == file.serial(), CKR_DEVICE_REMOVED);
    Require(role_ == Role::kNobody, CKR_USER_ALREADY_LOGGED_IN);
    role_ = role;
    access_.key = std::move(key);
    objects_.ForgetPrivate();
}

void Token::ForgetLoginLocked() {
    if (role_ != Role::kNobody) ++logouts_;
    role_ = Role::kNobody;
    access_.key = SecretString();
    objects_.ForgetPrivate();
}

void Token::Logout() {
    const Lock lock(mutex_);
    Require(role_ != Role::kNobody, CKR_USER_NOT_LOGGED_IN);
    ForgetLoginLocked();
}

Role Token::role() {
    const Lock lock(mutex_);
    return role_;
}

/// Another process may change the other PIN at the same time, or make a new token.
void Token::Rewrite(Role role, std::string_view pin, const Access& access) {
    const FolderLock folder_lock(folder_);
    TokenFile file = Snapshot();
    Require(file.serial() == access.serial, CKR_DEVICE_REMOVED);
    file.SetPin(role, pin, access.key);
    WriteFile(FilePath(), file.Encode());
}

void Token::InitUserPin(std::string_view pin) {
    Access access;
    {
        const Lock lock(mutex_);
        FileLocked();
        Require(role_ == Role::kOfficer, CKR_USER_NOT_LOGGED_IN);
        access = {access_.serial, SecretString(std::string_view(access_.key.get()))};
    }
    Rewrite(Role::kUser, pin, access);
}

void Token::ChangePin(std::string_view old_pin, std::string_view new_pin) {
    const Role who = role() == Role::kOfficer ? Role::kOfficer : Role::kUser;
    const TokenFile file = Snapshot();
    Require(who == Role::kOfficer || file.HasUserPin(), CKR_USER_PIN_NOT_INITIALIZED);
    Access access{file.serial()};
    Require(file.Unlock(who, old_pin, access.key), CKR_PIN_INCORRECT);
    Rewrite(who, new_pin, access);
}

unsigned long Token::Logouts() {
    const Lock lock(mutex_);
    return logouts_;
}

std::string Token::OpenSession(const SessionView& session) {
    const Lock lock(mutex_);
    std::string serial = FileLocked().serial();
    Require(session.read_write || role_ != Role::kOfficer, CKR_SESSION_READ_WRITE_SO_EXISTS);
    ++sessions_;
    if (!session.read_write) ++read_only_sessions_;
    return serial;
}

void Token::CloseSession(const SessionView& session, const std::string& serial) {
    const Lock lock(mutex_);
    if (access_.serial != serial) return;
    objects_.DropSession(session.handle);
    if (sessions_ > 0) --sessions_;
    if (!session.read_write && read_only_sessions_ > 0) --read_only_sessions_;
    // The last session takes the login with it.
    if (sessions_ == 0) ForgetLoginLocked();
}

bool Token::IsStill(const std::string& serial) {
    const Lock lock(mutex_);
    RefreshLocked();
    return file_ && file_->serial() == serial;
}

void Token::RequireWritableLocked(const Attributes& object, const SessionView& session) const {
    Require(!object.Flag(CKA_PRIVATE) || role_ == Role::kUser, CKR_USER_NOT_LOGGED_IN);
    Require(!object.Flag(CKA_TOKEN) || session.read_write, CKR_SESSION_READ_ONLY);
}

ObjectPtr Token::VisibleLocked(CK_OBJECT_HANDLE handle) {
    ObjectPtr object = objects_.Look(handle, access_);
    const bool visible = object != nullptr && (role_ == Role::kUser || !object->Flag(CKA_PRIVATE));
    Require(visible, CKR_OBJECT_HANDLE_INVALID);
    return object;
}

std::vector<CK_OBJECT_HANDLE> Token::WriteLocked(std::unique_lock<std::mutex>& lock, std::vector<ObjectFile> files) {
    const Access access{access_.serial, SecretString(std::string_view(access_.key.get()))};
    lock.unlock();
    std::vector<NamedContent> contents;
    contents.reserve(files.size());
    for (const ObjectFile& file : files)
        contents.push_back({file.name, EncodeObject(file.object, {access.serial, file.name}, access.key)});
    WriteFiles(folder_, contents);
    for (ObjectFile& file : files) file.stamp = StampOf(folder_ / file.name);
    lock.lock();
    std::vector<CK_OBJECT_HANDLE> handles;
    for (ObjectFile& file : files) {
        Require(file.stamp && access.serial == access_.serial, CKR_DEVICE_REMOVED);
        handles.push_back(objects_.Put(file.name, *file.stamp, std::move(file.object)));
    }
    const bool logged_out = !access.key.empty() && access_.key.empty();  // while it was written
    if (logged_out) objects_.ForgetPrivate();
    return handles;
}

std::optional<FolderLock> Token::LockFor(CK_OBJECT_HANDLE handle) {
    {
        const Lock lock(mutex_);
        if (objects_.IsOfSession(handle)) return std::nullopt;
    }
    return std::optional<FolderLock>(std::in_place, folder_);
}

std::vector<CK_OBJECT_HANDLE> Token::Create(std::vector<Attributes> objects, const SessionView& session) {
    const auto stays = [](const Attributes& object) { return object.Flag(CKA_TOKEN); };
    std::optional<FolderLock> folder_lock;
    if (std::any_of(objects.begin(), objects.end(), stays)) folder_lock.emplace(folder_);
    std::unique_lock lock(mutex_);
    FileLocked();
    for (const Attributes& object : objects) RequireWritableLocked(object, session);
    std::vector<ObjectFile> files;
    for (Attributes& object : objects)
        if (stays(object)) files.push_back({NewObjectFile(), std::exchange(object, {})});
    std::vector<CK_OBJECT_HANDLE> written;
    if (folder_lock) written = WriteLocked(lock, std::move(files));
    std::vector<CK_OBJECT_HANDLE> handles;
    for (auto next = written.begin(); Attributes & object : objects) {
        const bool is_written = object.Find(CKA_CLASS) == nullptr;
        handles.push_back(is_written ? *next++ : objects_.AddToSession(std::move(object), session.handle));
    }
    return handles;
}

void Token::Change(CK_OBJECT_HANDLE handle, const Template& changes, const SessionView& session) {
    const std::optional<FolderLock> folder_lock = LockFor(handle);
    std::unique_lock lock(mutex_);
    FileLocked();
    const ObjectPtr object = VisibleLocked(handle);
    RequireWritableLocked(*object, session);
    Attributes changed = Changed(*object, changes, role_);
    if (folder_lock) {
        std::vector<ObjectFile> files;
        files.push_back({objects_.FileOf(handle), std::move(changed)});
        WriteLocked(lock, std::move(files));
    } else {
        objects_.Replace(handle, std::move(changed));
    }
}

void Token::Destroy(CK_OBJECT_HANDLE handle, const SessionView& session) {
    const std::optional<FolderLock> folder_lock = LockFor(handle);
    const Lock lock(mutex_);
    FileLocked();
    RequireWritableLocked(*VisibleLocked(handle), session);
    objects_.Remove(handle);
}

ObjectPtr Token::Find(CK_OBJECT_HANDLE handle) {
    const Lock lock(mutex_);
    FileLocked();
    return VisibleLocked(handle);
}

ObjectPtr Token::FindKey(CK_OBJECT_HANDLE handle) {
    try {
        return Find(handle);
    } catch (const Failure& failure) {
        Fail(failure.rv() == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : failure.rv());
    }
}

std::vector<CK_OBJECT_HANDLE> Token::FindAll(const Template& wanted) {
    const Lock lock(mutex_);
    FileLocked();
    objects_.Refresh(access_);
    std::vector<CK_OBJECT_HANDLE> found;
    for (const CK_OBJECT_HANDLE handle : objects_.Handles()) {
        const ObjectPtr object = objects_.Find(handle);
        const bool visible = role_ == Role::kUser || !object->Flag(CKA_PRIVATE);
        if (visible && object->Matches(wanted.attributes, wanted.count)) found.push_back(handle);
    }
    return found;
}

}  // namespace gost_token
