#include "platform/tokens/ck_api.h"

#include "platform/tokens/call_runner.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace tokens {
namespace {

/// While it lives, the leak checker of sanitizer builds looks away: what a module leaks is not ours.
#if defined(__SANITIZE_ADDRESS__)
using ModuleLeaks = __lsan::ScopedDisabler;
#else
struct ModuleLeaks {
    ModuleLeaks() {}  // not trivial: a mere scope is not an unused variable
};
#endif

template <typename... Parameters, typename... Arguments>
Result Enter(const char* name, CK_RV (*function)(Parameters...), Arguments... arguments) {
    if (function == nullptr) return {name, CKR_FUNCTION_NOT_SUPPORTED};
    const ModuleLeaks leaks;
    return {name, function(arguments...)};
}

/// Enters the module, unless the call on this thread was abandoned.
template <typename Function, typename... Arguments>
Result Call(const char* name, Function function, Arguments... arguments) {
    if (!NoteModuleCall(name)) return {name, kRvNoAnswer};
    return Enter(name, function, arguments...);
}

/// Enters the module in any case: an abandoned call leaves nothing open behind.
template <typename Function, typename... Arguments>
Result CallToCleanUp(const char* name, Function function, Arguments... arguments) {
    NoteModuleCall(name);
    return Enter(name, function, arguments...);
}

// The interface takes input through pointers to non-const.
unsigned char* In(std::string_view bytes) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data()));
}

using OnePartOperation = CK_RV (*)(CK_SESSION_HANDLE, unsigned char*, CK_ULONG, unsigned char*, CK_ULONG*);

Result CallForOutput(const char* name, OnePartOperation function, CK_SESSION_HANDLE session, std::string_view input,
                     std::string& output) {
    CK_ULONG length = output.size();
    const Result result = Call(name, function, session, In(input), input.size(), In(output), &length);
    if (!result.ok()) return result;
    if (length > output.size()) return {name, CKR_BUFFER_TOO_SMALL};  // a module that lies about its output
    output.resize(length);
    return result;
}

}  // namespace

Result Api::Initialize(CK_C_INITIALIZE_ARGS& args) const {
    return Call("C_Initialize", list_->C_Initialize, &args);
}

Result Api::Finalize() const {
    return CallToCleanUp("C_Finalize", list_->C_Finalize, nullptr);
}

Result Api::GetInfo(CK_INFO& info) const {
    return Call("C_GetInfo", list_->C_GetInfo, &info);
}

Result Api::GetSlotList(bool token_present, CK_SLOT_ID* slots, CK_ULONG& count) const {
    return Call("C_GetSlotList", list_->C_GetSlotList, static_cast<unsigned char>(token_present), slots, &count);
}

Result Api::GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO& info) const {
    return Call("C_GetSlotInfo", list_->C_GetSlotInfo, slot, &info);
}

Result Api::GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO& info) const {
    return Call("C_GetTokenInfo", list_->C_GetTokenInfo, slot, &info);
}

Result Api::WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID& slot) const {
    return Call("C_WaitForSlotEvent", list_->C_WaitForSlotEvent, flags, &slot, nullptr);
}

Result Api::GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* mechanisms, CK_ULONG& count) const {
    return Call("C_GetMechanismList", list_->C_GetMechanismList, slot, mechanisms, &count);
}

Result Api::GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE mechanism, CK_MECHANISM_INFO& info) const {
    return Call("C_GetMechanismInfo", list_->C_GetMechanismInfo, slot, mechanism, &info);
}

Result Api::InitToken(CK_SLOT_ID slot, std::string_view pin, std::string_view label32) const {
    return Call("C_InitToken", list_->C_InitToken, slot, In(pin), pin.size(), In(label32));
}

Result Api::InitPIN(CK_SESSION_HANDLE session, std::string_view pin) const {
    return Call("C_InitPIN", list_->C_InitPIN, session, In(pin), pin.size());
}

Result Api::SetPIN(CK_SESSION_HANDLE session, std::string_view old_pin, std::string_view new_pin) const {
    return Call("C_SetPIN", list_->C_SetPIN, session, In(old_pin), old_pin.size(), In(new_pin), new_pin.size());
}

Result Api::OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_SESSION_HANDLE& session) const {
    return Call("C_OpenSession", list_->C_OpenSession, slot, flags, nullptr, nullptr, &session);
}

Result Api::CloseSession(CK_SESSION_HANDLE session) const {
    return CallToCleanUp("C_CloseSession", list_->C_CloseSession, session);
}

Result Api::GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO& info) const {
    return Call("C_GetSessionInfo", list_->C_GetSessionInfo, session, &info);
}

Result Api::Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, std::string_view pin) const {
    return Call("C_Login", list_->C_Login, session, user, pin.empty() ? nullptr : In(pin), pin.size());
}

Result Api::Logout(CK_SESSION_HANDLE session) const {
    return CallToCleanUp("C_Logout", list_->C_Logout, session);
}

Result Api::CreateObject(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes,
                         CK_OBJECT_HANDLE& object) const {
    return Call("C_CreateObject", list_->C_CreateObject, session, attributes.data(), attributes.size(), &object);
}

Result Api::DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) const {
    return Call("C_DestroyObject", list_->C_DestroyObject, session, object);
}

Result Api::GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                              std::span<CK_ATTRIBUTE> attributes) const {
    return Call("C_GetAttributeValue", list_->C_GetAttributeValue, session, object, attributes.data(),
                attributes.size());
}

Result Api::FindObjectsInit(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes) const {
    return Call("C_FindObjectsInit", list_->C_FindObjectsInit, session, attributes.data(), attributes.size());
}

Result Api::FindObjects(CK_SESSION_HANDLE session, std::span<CK_OBJECT_HANDLE> objects, CK_ULONG& found) const {
    return Call("C_FindObjects", list_->C_FindObjects, session, objects.data(), objects.size(), &found);
}

Result Api::FindObjectsFinal(CK_SESSION_HANDLE session) const {
    return CallToCleanUp("C_FindObjectsFinal", list_->C_FindObjectsFinal, session);
}

Result Api::EncryptInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const {
    return Call("C_EncryptInit", list_->C_EncryptInit, session, &mechanism, key);
}

Result Api::Encrypt(CK_SESSION_HANDLE session, std::string_view data, std::string& encrypted) const {
    return CallForOutput("C_Encrypt", list_->C_Encrypt, session, data, encrypted);
}

Result Api::DigestInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism) const {
    return Call("C_DigestInit", list_->C_DigestInit, session, &mechanism);
}

Result Api::Digest(CK_SESSION_HANDLE session, std::string_view data, std::string& digest) const {
    return CallForOutput("C_Digest", list_->C_Digest, session, data, digest);
}

Result Api::SignInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const {
    return Call("C_SignInit", list_->C_SignInit, session, &mechanism, key);
}

Result Api::Sign(CK_SESSION_HANDLE session, std::string_view data, std::string& signature) const {
    return CallForOutput("C_Sign", list_->C_Sign, session, data, signature);
}

Result Api::VerifyInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const {
    return Call("C_VerifyInit", list_->C_VerifyInit, session, &mechanism, key);
}

Result Api::Verify(CK_SESSION_HANDLE session, std::string_view data, std::string_view signature) const {
    return Call("C_Verify", list_->C_Verify, session, In(data), data.size(), In(signature), signature.size());
}

Result Api::VerifyRecoverInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const {
    return Call("C_VerifyRecoverInit", list_->C_VerifyRecoverInit, session, &mechanism, key);
}

Result Api::VerifyRecover(CK_SESSION_HANDLE session, std::string_view signature, std::string& data) const {
    return CallForOutput("C_VerifyRecover", list_->C_VerifyRecover, session, signature, data);
}

Result Api::GenerateKey(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, std::span<CK_ATTRIBUTE> attributes,
                        CK_OBJECT_HANDLE& key) const {
    return Call("C_GenerateKey", list_->C_GenerateKey, session, &mechanism, attributes.data(), attributes.size(), &key);
}

Result Api::GenerateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, std::span<CK_ATTRIBUTE> public_key,
                            std::span<CK_ATTRIBUTE> private_key, CK_OBJECT_HANDLE& public_handle,
                            CK_OBJECT_HANDLE& private_handle) const {
    return Call("C_GenerateKeyPair", list_->C_GenerateKeyPair, session, &mechanism, public_key.data(),
                public_key.size(), private_key.data(), private_key.size(), &public_handle, &private_handle);
}

Result Api::SeedRandom(CK_SESSION_HANDLE session, std::string_view seed) const {
    return Call("C_SeedRandom", list_->C_SeedRandom, session, In(seed), seed.size());
}

}  // namespace tokens
