// The PKCS #11 functions of one module, one to one and checked: every call answers which function it was and what that
// returned. A function that the module leaves out answers CKR_FUNCTION_NOT_SUPPORTED.
#pragma once

#include <p11-kit/pkcs11.h>
#include <p11-kit/pkcs11x.h>

#include <span>
#include <string>
#include <string_view>

namespace tokens {

/// What a function returned. A default result is success.
struct Result {
    const char* function = "";
    CK_RV rv = CKR_OK;

    bool ok() const { return rv == CKR_OK; }
};

/// Not a CK_RV of the standard: the call did not return in time, or the module is not to be entered.
inline constexpr CK_RV kRvNoAnswer = CKR_VENDOR_DEFINED | 0x6E6F0001UL;

// Nor are these: what a token shows is more than is taken from it.
inline constexpr CK_RV kRvTooManyObjects = CKR_VENDOR_DEFINED | 0x6E6F0002UL;
inline constexpr CK_RV kRvTooManyBytes = CKR_VENDOR_DEFINED | 0x6E6F0003UL;
/// Objects that one search finds, and bytes that are read for one listing or search, at most: far above the tokens of
/// use, low enough for a hostile one.
inline constexpr std::size_t kMaxObjects = 200000;
inline constexpr std::size_t kMaxListingBytes = 256UL << 20;

/// Of an object or a key that was there.
constexpr bool IsLostObject(CK_RV rv) {
    return rv == CKR_OBJECT_HANDLE_INVALID || rv == CKR_KEY_HANDLE_INVALID;
}

/// Whether the user is logged in.
constexpr bool IsUserState(CK_STATE state) {
    return state == CKS_RW_USER_FUNCTIONS || state == CKS_RO_USER_FUNCTIONS;
}

/// The text of a field that is padded with blanks; one that ends with a zero byte, as some modules write it, too.
template <std::size_t Size>
std::string Padded(const unsigned char (&field)[Size]) {
    const std::string_view whole(reinterpret_cast<const char*>(field), Size);
    const std::string_view text = whole.substr(0, whole.find('\0'));
    return std::string(text.substr(0, text.find_last_not_of(' ') + 1));
}

/// "CKR_DEVICE_ERROR"; "CKR_0x80000001" for a value without a name. The text lives as long as the thread.
const char* RvName(CK_RV rv);

class Api {
  public:
    explicit Api(CK_FUNCTION_LIST* list) : list_(list) {}

    Result Initialize(CK_C_INITIALIZE_ARGS& args) const;
    Result Finalize() const;
    Result GetInfo(CK_INFO& info) const;
    Result GetSlotList(bool token_present, CK_SLOT_ID* slots, CK_ULONG& count) const;
    Result GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO& info) const;
    Result GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO& info) const;
    Result WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID& slot) const;
    Result GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* mechanisms, CK_ULONG& count) const;
    Result GetMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE mechanism, CK_MECHANISM_INFO& info) const;
    Result InitToken(CK_SLOT_ID slot, std::string_view pin, std::string_view label32) const;
    Result InitPIN(CK_SESSION_HANDLE session, std::string_view pin) const;
    Result SetPIN(CK_SESSION_HANDLE session, std::string_view old_pin, std::string_view new_pin) const;
    Result OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, CK_SESSION_HANDLE& session) const;
    Result CloseSession(CK_SESSION_HANDLE session) const;
    Result GetSessionInfo(CK_SESSION_HANDLE session, CK_SESSION_INFO& info) const;
    /// An empty PIN is the null pointer: the token asks for it itself.
    Result Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, std::string_view pin) const;
    Result Logout(CK_SESSION_HANDLE session) const;

    Result CreateObject(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes, CK_OBJECT_HANDLE& object) const;
    Result DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) const;
    Result GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                             std::span<CK_ATTRIBUTE> attributes) const;
    Result FindObjectsInit(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes) const;
    Result FindObjects(CK_SESSION_HANDLE session, std::span<CK_OBJECT_HANDLE> objects, CK_ULONG& found) const;
    Result FindObjectsFinal(CK_SESSION_HANDLE session) const;

    // Operations in one part. The output string has the size of the longest expected output; the call shortens it.
    Result EncryptInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const;
    Result Encrypt(CK_SESSION_HANDLE session, std::string_view data, std::string& encrypted) const;
    Result DigestInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism) const;
    Result Digest(CK_SESSION_HANDLE session, std::string_view data, std::string& digest) const;
    Result SignInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const;
    Result Sign(CK_SESSION_HANDLE session, std::string_view data, std::string& signature) const;
    Result VerifyInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const;
    Result Verify(CK_SESSION_HANDLE session, std::string_view data, std::string_view signature) const;
    Result VerifyRecoverInit(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key) const;
    Result VerifyRecover(CK_SESSION_HANDLE session, std::string_view signature, std::string& data) const;

    Result GenerateKey(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, std::span<CK_ATTRIBUTE> attributes,
                       CK_OBJECT_HANDLE& key) const;
    Result GenerateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, std::span<CK_ATTRIBUTE> public_key,
                           std::span<CK_ATTRIBUTE> private_key, CK_OBJECT_HANDLE& public_handle,
                           CK_OBJECT_HANDLE& private_handle) const;
    Result SeedRandom(CK_SESSION_HANDLE session, std::string_view seed) const;

  private:
    CK_FUNCTION_LIST* list_;
};

}  // namespace tokens
