#include "tokens/gost/session.h"

#include <algorithm>
#include <utility>

namespace gost_token {
namespace {

using Lock = std::lock_guard<std::mutex>;

/// What a generated key's template cannot change.
Attributes GeneratedKey(const Mechanism& mechanism, CK_OBJECT_CLASS object_class, std::string_view value) {
    Attributes made;
    made.SetNumber(CKA_CLASS, object_class);
    made.SetNumber(CKA_KEY_TYPE, mechanism.key_type);
    made.SetNumber(CKA_KEY_GEN_MECHANISM, mechanism.type);
    made.SetFlag(CKA_LOCAL, true);
    made.Set(CKA_VALUE, value);
    return made;
}

void CopyDomain(const Template& from, Attributes& to) {
    for (CK_ULONG i = 0; i < from.count; ++i) {
        const CK_ATTRIBUTE& attribute = from.attributes[i];
        if (attribute.type == CKA_GOSTR3410_PARAMS || attribute.type == CKA_GOSTR3411_PARAMS) {
            to.Set(attribute.type, ValueOf(attribute));
        }
    }
    if (to.Bytes(CKA_GOSTR3411_PARAMS).empty()) to.Set(CKA_GOSTR3411_PARAMS, LongHashIdentifier());
}

}  // namespace

bool Output::HasRoom(std::size_t size) const {
    Require(length != nullptr, CKR_ARGUMENTS_BAD);
    const CK_ULONG room = std::exchange(*length, size);
    Require(bytes == nullptr || room >= size, CKR_BUFFER_TOO_SMALL);
    return bytes != nullptr;
}

void Output::Put(std::string_view content) const {
    std::copy(content.begin(), content.end(), bytes);
}

Operation::Operation(const Engine& engine, const CK_MECHANISM* mechanism, CK_FLAGS use)
    : mechanism_(&FindMechanism(mechanism, use)) {
    if (mechanism_->hash) hash_.emplace(engine, *mechanism_->hash);
}

void Operation::UseKey(const Engine& engine, const Attributes& object, CK_FLAGS use, unsigned long logouts) {
    const bool signs = use == CKF_SIGN;
    Require(object.Number(CKA_CLASS) == (signs ? CKO_PRIVATE_KEY : CKO_PUBLIC_KEY), CKR_KEY_HANDLE_INVALID);
    Require(object.Number(CKA_KEY_TYPE) == mechanism_->key_type, CKR_KEY_TYPE_INCONSISTENT);
    Require(object.Flag(signs ? CKA_SIGN : CKA_VERIFY), CKR_KEY_FUNCTION_NOT_PERMITTED);
    key_ = KeyOf(engine, object);
    Require(!mechanism_->hash || key_->kind().hash == *mechanism_->hash, CKR_KEY_TYPE_INCONSISTENT);
    if (object.Flag(CKA_PRIVATE)) logouts_ = logouts;
}

void Operation::Update(std::string_view data) {
    Require(hash_.has_value(), CKR_FUNCTION_NOT_SUPPORTED);
    hash_->Update(data);
}

std::string Operation::Finish(std::string_view data) {
    if (!hash_) return std::string(data);
    hash_->Update(data);
    return hash_->Finish();
}

std::size_t Operation::output_bytes() const {
    return key_ != nullptr ? 2 * key_->kind().bytes : HashBytes(*mechanism_->hash);
}

Session::Session(const Engine& engine, TokenPtr token, CK_SESSION_HANDLE handle, bool read_write)
    : engine_(engine), token_(std::move(token)), view_{handle, read_write}, serial_(token_->OpenSession(view_)) {}

Session::~Session() {
    token_->CloseSession(view_, serial_);
}

void Session::Describe(CK_SESSION_INFO& info) const {
    info = {};
    info.slotID = token_->slot();
    info.flags = CKF_SERIAL_SESSION | (view_.read_write ? CKF_RW_SESSION : 0);
    switch (token_->role()) {
        case Role::kOfficer:
            info.state = CKS_RW_SO_FUNCTIONS;
            break;
        case Role::kUser:
            info.state = view_.read_write ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
            break;
        default:
            info.state = view_.read_write ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    }
}

CK_OBJECT_HANDLE Session::CreateObject(const Template& wanted) {
    Attributes object = NewObject(wanted, {}, token_->role());
    CheckObject(engine_, object);
    std::vector<Attributes> objects;
    objects.push_back(std::move(object));
    return token_->Create(std::move(objects), view_).front();
}

void Session::GenerateKeyPair(const CK_MECHANISM* wanted, const Template& public_key, const Template& private_key,
                              CK_OBJECT_HANDLE& public_handle, CK_OBJECT_HANDLE& private_handle) {
    const Mechanism& mechanism = FindMechanism(wanted, CKF_GENERATE_KEY_PAIR);
    const Domain domain = DomainOf(mechanism.key_type, public_key);
    const KeyPtr key = Key::Generate(engine_, domain);
    Attributes made_public = GeneratedKey(mechanism, CKO_PUBLIC_KEY, key->PublicValue());
    Attributes made_private = GeneratedKey(mechanism, CKO_PRIVATE_KEY, key->PrivateValue().get());
    CopyDomain(public_key, made_public);
    CopyDomain(public_key, made_private);
    Attributes public_object = NewObject(public_key, made_public, token_->role());
    Attributes private_object = NewObject(private_key, made_private, token_->role());
    private_object.SetFlag(CKA_ALWAYS_SENSITIVE, private_object.Flag(CKA_SENSITIVE));
    private_object.SetFlag(CKA_NEVER_EXTRACTABLE, !private_object.Flag(CKA_EXTRACTABLE));
    std::vector<Attributes> pair;
    pair.push_back(std::move(public_object));
    pair.push_back(std::move(private_object));
    const std::vector<CK_OBJECT_HANDLE> handles = token_->Create(std::move(pair), view_);
    public_handle = handles[0];
    private_handle = handles[1];
}

void Session::StartFind(const Template& wanted) {
    const Lock lock(mutex_);
    Require(!found_.has_value(), CKR_OPERATION_ACTIVE);
    const std::vector<CK_OBJECT_HANDLE> handles = token_->FindAll(wanted);
    found_.emplace(handles.begin(), handles.end());
}

CK_ULONG Session::Find(CK_OBJECT_HANDLE* handles, CK_ULONG most) {
    const Lock lock(mutex_);
    Require(found_.has_value(), CKR_OPERATION_NOT_INITIALIZED);
    const CK_ULONG count = std::min<CK_ULONG>(most, found_->size());
    const auto end = found_->begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(found_->begin(), end, handles);
    found_->erase(found_->begin(), end);
    return count;
}

void Session::EndFind() {
    const Lock lock(mutex_);
    Require(found_.has_value(), CKR_OPERATION_NOT_INITIALIZED);
    found_.reset();
}

Operation& Session::Started(Running& operation) {
    Require(operation.has_value(), CKR_OPERATION_NOT_INITIALIZED);
    if (operation->IsOver(*token_)) {
        operation.reset();
        Fail(CKR_USER_NOT_LOGGED_IN);
    }
    return *operation;
}

/// A failure ends the operation.
void Session::Update(Running& operation, std::string_view data) {
    const Lock lock(mutex_);
    Started(operation);
    Running taken = std::exchange(operation, std::nullopt);
    taken->Update(data);
    operation = std::move(taken);
}

void Session::StartDigest(const CK_MECHANISM* mechanism) {
    const Lock lock(mutex_);
    Require(!digest_.has_value(), CKR_OPERATION_ACTIVE);
    digest_.emplace(engine_, mechanism, CKF_DIGEST);
}

void Session::UpdateDigest(std::string_view data) {
    Update(digest_, data);
}

void Session::EndDigest(std::string_view data, const Output& output) {
    const Lock lock(mutex_);
    if (!output.HasRoom(Started(digest_).output_bytes())) return;
    Running operation = std::exchange(digest_, std::nullopt);
    output.Put(operation->Finish(data));
}

void Session::StartWithKey(Running& operation, const CK_MECHANISM* mechanism, CK_FLAGS use, CK_OBJECT_HANDLE key) {
    const Lock lock(mutex_);
    Require(!operation.has_value(), CKR_OPERATION_ACTIVE);
    Operation started(engine_, mechanism, use);
    const unsigned long logouts = token_->Logouts();
    started.UseKey(engine_, *token_->FindKey(key), use, logouts);
    operation = std::move(started);
}

void Session::StartSign(const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    StartWithKey(sign_, mechanism, CKF_SIGN, key);
}

void Session::UpdateSign(std::string_view data) {
    Update(sign_, data);
}

void Session::EndSign(std::string_view data, const Output& output) {
    const Lock lock(mutex_);
    if (!output.HasRoom(Started(sign_).output_bytes())) return;
    Running operation = std::exchange(sign_, std::nullopt);
    output.Put(operation->key().Sign(operation->Finish(data)));
}

void Session::StartVerify(const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    StartWithKey(verify_, mechanism, CKF_VERIFY, key);
}

void Session::UpdateVerify(std::string_view data) {
    Update(verify_, data);
}

void Session::EndVerify(std::string_view data, std::string_view signature) {
    const Lock lock(mutex_);
    Started(verify_);
    Running operation = std::exchange(verify_, std::nullopt);
    Require(operation->key().Verify(operation->Finish(data), signature), CKR_SIGNATURE_INVALID);
}

}  // namespace gost_token
