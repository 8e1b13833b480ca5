// The border between the C interface and everything behind it.
#pragma once

#include <openssl/err.h>

#include <filesystem>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "tokens/gost/library.h"

namespace gost_token {

using LibraryPtr = std::shared_ptr<Library>;

/// Null before C_Initialize and after C_Finalize.
LibraryPtr CurrentLibrary();

/// Runs the work of a C function: nothing is thrown across the border, and libcrypto's error queue, which is the
/// caller's, stays as it was.
template <typename Work>
CK_RV Enter(const Work& work) noexcept {
    ERR_set_mark();
    CK_RV rv = CKR_OK;
    try {
        work();
    } catch (const Failure& failure) {
        rv = failure.rv();
    } catch (const std::filesystem::filesystem_error&) {
        rv = CKR_DEVICE_ERROR;
    } catch (const std::bad_alloc&) {
        rv = CKR_HOST_MEMORY;
    } catch (...) {
        rv = CKR_GENERAL_ERROR;
    }
    ERR_pop_to_mark();
    return rv;
}

template <typename Work>
CK_RV WithLibrary(const Work& work) noexcept {
    return Enter([&] {
        const LibraryPtr library = CurrentLibrary();
        Require(library != nullptr, CKR_CRYPTOKI_NOT_INITIALIZED);
        work(*library);
    });
}

template <typename Work>
CK_RV WithSession(CK_SESSION_HANDLE handle, const Work& work) noexcept {
    return WithLibrary([&](Library& library) { work(*library.FindSession(handle)); });
}

/// Bytes that a caller hands in.
inline std::string_view Input(const void* bytes, CK_ULONG length) {
    Require(bytes != nullptr || length == 0, CKR_ARGUMENTS_BAD);
    return length == 0 ? std::string_view() : std::string_view(static_cast<const char*>(bytes), length);
}

inline Template Wanted(const CK_ATTRIBUTE* attributes, CK_ULONG count) {
    Require(attributes != nullptr || count == 0, CKR_ARGUMENTS_BAD);
    return {attributes, count};
}

/// A list as the C functions give lists: its length alone, or as much as there is room for.
template <typename T>
void GiveList(const std::vector<T>& list, T* out, CK_ULONG* count) {
    Require(count != nullptr, CKR_ARGUMENTS_BAD);
    const CK_ULONG room = std::exchange(*count, list.size());
    if (out == nullptr) return;
    Require(room >= list.size(), CKR_BUFFER_TOO_SMALL);
    std::copy(list.begin(), list.end(), out);
}

// module.cpp: the library, slots and tokens.
CK_RV Initialize(void* arguments);
CK_RV Finalize(void* reserved);
CK_RV GetInfo(CK_INFO* info);
CK_RV GetSlotList(CK_BBOOL token_present, CK_SLOT_ID* slots, CK_ULONG* count);
CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* info);
CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info);
CK_RV GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* mechanisms, CK_ULONG* count);
CK_RV GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info);
CK_RV InitToken(CK_SLOT_ID slot, CK_UTF8CHAR* pin, CK_ULONG pin_length, CK_UTF8CHAR* label);

// module_sessions.cpp: sessions, logins and objects.
CK_RV InitPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR* pin, CK_ULONG length);
CK_RV SetPIN(CK_SESSION_HANDLE session, CK_UTF8CHAR* old_pin, CK_ULONG old_length, CK_UTF8CHAR* new_pin,
             CK_ULONG new_length);
CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, void* application, CK_NOTIFY notify, CK_SESSION_HANDLE* session);
CK_RV CloseSession(CK_SESSION_HANDLE session);
CK_RV CloseAllSessions(CK_SLOT_ID slot);
CK_RV GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO* info);
CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length);
CK_RV Logout(CK_SESSION_HANDLE session);
CK_RV CreateObject(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count, CK_OBJECT_HANDLE* object);
CK_RV DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object);
CK_RV GetObjectSize(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG* size);
CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes, CK_ULONG count);
CK_RV SetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes, CK_ULONG count);
CK_RV FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count);
CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG most, CK_ULONG* count);
CK_RV FindObjectsFinal(CK_SESSION_HANDLE session);

// module_crypto.cpp: what is done with keys.
CK_RV DigestInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism);
CK_RV Digest(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* digest, CK_ULONG* digest_length);
CK_RV DigestUpdate(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length);
CK_RV DigestFinal(CK_SESSION_HANDLE session, CK_BYTE* digest, CK_ULONG* digest_length);
CK_RV SignInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);
CK_RV Sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature, CK_ULONG* signature_length);
CK_RV SignUpdate(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length);
CK_RV SignFinal(CK_SESSION_HANDLE session, CK_BYTE* signature, CK_ULONG* signature_length);
CK_RV VerifyInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);
CK_RV Verify(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature, CK_ULONG signature_length);
CK_RV VerifyUpdate(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length);
CK_RV VerifyFinal(CK_SESSION_HANDLE session, CK_BYTE* signature, CK_ULONG signature_length);
CK_RV GenerateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_ATTRIBUTE* public_key,
                      CK_ULONG public_count, CK_ATTRIBUTE* private_key, CK_ULONG private_count,
                      CK_OBJECT_HANDLE* public_handle, CK_OBJECT_HANDLE* private_handle);
CK_RV SeedRandom(CK_SESSION_HANDLE session, CK_BYTE* seed, CK_ULONG length);
CK_RV GenerateRandom(CK_SESSION_HANDLE session, CK_BYTE* bytes, CK_ULONG length);

}  // namespace gost_token
