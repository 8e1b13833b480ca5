// The library, slots and tokens; and the list of functions, the only symbol of the module.
#include "tokens/gost/entry.h"

namespace gost_token {
namespace {

constexpr std::string_view kMaker = "certmgr";
constexpr std::string_view kLibraryName = "GOST token in software";
constexpr CK_VERSION kInterfaceVersion{2, 40};
constexpr CK_VERSION kLibraryVersion{0, 1};

/// Never destroyed: a call may come while the process ends.
union Current {
    constexpr Current() : library() {}
    ~Current() {}
    LibraryPtr library;  // guarded by current_mutex
};
constinit std::mutex current_mutex;
constinit Current current;

/// The text that the arguments carry for this module.
std::string_view ReadArguments(const void* arguments) {
    if (arguments == nullptr) return {};
    const auto& given = *static_cast<const CK_C_INITIALIZE_ARGS*>(arguments);
    const bool own_locks = given.CreateMutex != nullptr;
    Require(own_locks == (given.DestroyMutex != nullptr) && own_locks == (given.LockMutex != nullptr) &&
                own_locks == (given.UnlockMutex != nullptr),
            CKR_ARGUMENTS_BAD);
    Require(!own_locks || (given.flags & CKF_OS_LOCKING_OK) != 0, CKR_CANT_LOCK);
    return given.pReserved == nullptr ? std::string_view() : static_cast<const char*>(given.pReserved);
}

}  // namespace

LibraryPtr CurrentLibrary() {
    const std::lock_guard lock(current_mutex);
    return current.library;
}

CK_RV Initialize(void* arguments) {
    return Enter([&] {
        const std::lock_guard lock(current_mutex);
        Require(current.library == nullptr, CKR_CRYPTOKI_ALREADY_INITIALIZED);
        current.library = std::make_shared<Library>(ReadArguments(arguments));
    });
}

CK_RV Finalize(void* reserved) {
    return Enter([&] {
        Require(reserved == nullptr, CKR_ARGUMENTS_BAD);
        LibraryPtr ended;  // goes away without the lock
        const std::lock_guard lock(current_mutex);
        ended = std::exchange(current.library, nullptr);
        Require(ended != nullptr, CKR_CRYPTOKI_NOT_INITIALIZED);
    });
}

CK_RV GetInfo(CK_INFO* info) {
    return WithLibrary([&](Library&) {
        Require(info != nullptr, CKR_ARGUMENTS_BAD);
        *info = {};
        info->cryptokiVersion = kInterfaceVersion;
        info->libraryVersion = kLibraryVersion;
        Fill(info->manufacturerID, kMaker);
        Fill(info->libraryDescription, kLibraryName);
    });
}

CK_RV GetSlotList(CK_BBOOL, CK_SLOT_ID* slots, CK_ULONG* count) {
    return WithLibrary([&](Library& library) {
        // Asking how many there are is what may change the list.
        if (slots == nullptr) library.RefreshSlots();
        std::vector<CK_SLOT_ID> ids;
        for (const TokenPtr& token : library.Slots()) ids.push_back(token->slot());
        GiveList(ids, slots, count);
    });
}

CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* info) {
    return WithLibrary([&](Library& library) {
        const TokenPtr token = library.Slot(slot);
        Require(info != nullptr, CKR_ARGUMENTS_BAD);
        *info = {};
        Fill(info->manufacturerID, kMaker);
        Fill(info->slotDescription, std::string(kLibraryName) + ", slot " + std::to_string(token->slot()));
        // A token that is not initialised is there, too: it waits for C_InitToken.
        info->flags = CKF_TOKEN_PRESENT;
        info->hardwareVersion = info->firmwareVersion = kLibraryVersion;
    });
}

CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
    return WithLibrary([&](Library& library) {
        const TokenPtr token = library.Slot(slot);
        Require(info != nullptr, CKR_ARGUMENTS_BAD);
        token->Describe(*info);
        info->hardwareVersion = info->firmwareVersion = kLibraryVersion;
    });
}

CK_RV GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* mechanisms, CK_ULONG* count) {
    return WithLibrary([&](Library& library) {
        library.Slot(slot);
        std::vector<CK_MECHANISM_TYPE> types;
        for (const Mechanism& mechanism : Mechanisms()) types.push_back(mechanism.type);
        GiveList(types, mechanisms, count);
    });
}

CK_RV GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
    return WithLibrary([&](Library& library) {
        library.Slot(slot);
        Require(info != nullptr, CKR_ARGUMENTS_BAD);
        const CK_MECHANISM wanted{type, nullptr, 0};
        const Mechanism& mechanism = FindMechanism(&wanted, ~CK_FLAGS{0});
        *info = {KeyBits(mechanism), KeyBits(mechanism), mechanism.flags};
    });
}

CK_RV InitToken(CK_SLOT_ID slot, CK_UTF8CHAR* pin, CK_ULONG pin_length, CK_UTF8CHAR* label) {
    return WithLibrary([&](Library& library) {
        const TokenPtr token = library.Slot(slot);
        Require(!library.HasSessions(slot), CKR_SESSION_EXISTS);
        token->Initialize(Input(pin, pin_length), Input(label, label == nullptr ? 1 : kLabelBytes));
    });
}

namespace {

/// Stands for every function that the token has no use for.
template <typename... Arguments>
CK_RV NotSupported(Arguments...) {
    return CKR_FUNCTION_NOT_SUPPORTED;
}

template <typename... Arguments>
CK_RV NotParallel(Arguments...) {
    return CKR_FUNCTION_NOT_PARALLEL;
}

CK_FUNCTION_LIST functions{
    kInterfaceVersion,
    Initialize,
    Finalize,
    GetInfo,
    C_GetFunctionList,
    GetSlotList,
    GetSlotInfo,
    GetTokenInfo,
    GetMechanismList,
    GetMechanismInfo,
    InitToken,
    InitPIN,
    SetPIN,
    OpenSession,
    CloseSession,
    CloseAllSessions,
    GetSessionInfo,
    NotSupported,  // C_GetOperationState
    NotSupported,  // C_SetOperationState
    Login,
    Logout,
    CreateObject,
    NotSupported,  // C_CopyObject
    DestroyObject,
    GetObjectSize,
    GetAttributeValue,
    SetAttributeValue,
    FindObjectsInit,
    FindObjects,
    FindObjectsFinal,
    NotSupported,  // C_EncryptInit
    NotSupported,  // C_Encrypt
    NotSupported,  // C_EncryptUpdate
    NotSupported,  // C_EncryptFinal
    NotSupported,  // C_DecryptInit
    NotSupported,  // C_Decrypt
    NotSupported,  // C_DecryptUpdate
    NotSupported,  // C_DecryptFinal
    DigestInit,
    Digest,
    DigestUpdate,
    NotSupported,  // C_DigestKey
    DigestFinal,
    SignInit,
    Sign,
    SignUpdate,
    SignFinal,
    NotSupported,  // C_SignRecoverInit
    NotSupported,  // C_SignRecover
    VerifyInit,
    Verify,
    VerifyUpdate,
    VerifyFinal,
    NotSupported,  // C_VerifyRecoverInit
    NotSupported,  // C_VerifyRecover
    NotSupported,  // C_DigestEncryptUpdate
    NotSupported,  // C_DecryptDigestUpdate
    NotSupported,  // C_SignEncryptUpdate
    NotSupported,  // C_DecryptVerifyUpdate
    NotSupported,  // C_GenerateKey
    GenerateKeyPair,
    NotSupported,  // C_WrapKey
    NotSupported,  // C_UnwrapKey
    NotSupported,  // C_DeriveKey
    SeedRandom,
    GenerateRandom,
    NotParallel,  // C_GetFunctionStatus
    NotParallel,  // C_CancelFunction
    NotSupported,  // C_WaitForSlotEvent
};

}  // namespace
}  // namespace gost_token

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
    if (list == nullptr) return CKR_ARGUMENTS_BAD;
    *list = &gost_token::functions;
    return CKR_OK;
}
