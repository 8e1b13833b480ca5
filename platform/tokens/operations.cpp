#include "platform/tokens/operations.h"

#include "platform/tokens/key_codec.h"
#include "platform/tokens/mechanisms.h"
#include "platform/tokens/objects.h"

namespace tokens {
namespace {

constexpr std::size_t kMaxSignatureBytes = kMaxRsaBits / 8;
/// Shortest padding of a type 1 block (RFC 8017, 9.2): 00 01, at least eight FF, 00.
constexpr std::size_t kMinPaddingBytes = 11;

bool IsRaw(CK_KEY_TYPE type) {
    return type == CKK_DSA || type == CKK_EC;
}

/// What C_Verify answers to a signature that is wrong.
bool IsWrongSignature(CK_RV rv) {
    return rv == CKR_SIGNATURE_INVALID || rv == CKR_SIGNATURE_LEN_RANGE || rv == CKR_DATA_LEN_RANGE;
}

/// Starts an operation with a public key. The token may have dropped the key's object; then it is made anew, once.
template <typename Init>
Result StartWithKey(Session& session, const std::string& spki, const PublicKeyObject*& key, const Init& init) {
    for (bool again = false;; again = true) {
        Result result = session.ImportPublicKey(spki, key);
        if (!result.ok() || key == nullptr) return result;
        result = init(*key);
        if (!IsLostObject(result.rv) || again) return result;
        session.ForgetPublicKey(spki);
    }
}

Result FindSigningKey(Session& session, pki_alg_t alg, const std::string& id, std::optional<CK_OBJECT_HANDLE>& key) {
    const FoundOutcome found = FindPrivateKeys(session, alg, id);
    if (!found.result.ok()) return found.result;
    if (!found.objects.empty()) {
        key = found.objects.front();
        return {};
    }
    CK_SESSION_INFO info{};
    const Result result = session.api().GetSessionInfo(session.handle(), info);
    if (!result.ok()) return result;
    return {"C_SignInit", IsUserState(info.state) ? CKR_KEY_HANDLE_INVALID : CKR_USER_NOT_LOGGED_IN};
}

/// Removes PKCS #1 type 1 padding.
std::optional<std::string> WithoutPadding(const std::string& block) {
    if (block.size() < kMinPaddingBytes || block[0] != 0 || block[1] != 1) return std::nullopt;
    const std::size_t end = block.find_first_not_of('\xFF', 2);
    if (end == std::string::npos || end + 1 < kMinPaddingBytes || block[end] != 0) return std::nullopt;
    return block.substr(end + 1);
}

}  // namespace

VerifyOutcome Verify(Session& session, pki_alg_t alg, CK_MECHANISM_TYPE of_message, const std::string& spki,
                     const std::string& digest, const std::string& signature) {
    SignatureMechanism mechanism(alg, of_message);
    const CK_KEY_TYPE type = KeyTypeOf(alg);
    if (!mechanism.known()) return {};
    const PublicKeyObject* key = nullptr;
    std::string raw;
    bool well_formed = false;
    const auto init = [&](const PublicKeyObject& object) -> Result {
        well_formed = KeyTypeOf(object.alg) == type &&
                      (!IsRaw(type) || RawSignatureFromDer(object.alg, object.size, signature, raw));
        return well_formed ? session.api().VerifyInit(session.handle(), mechanism.get(), object.handle) : Result{};
    };
    Result result = StartWithKey(session, spki, key, init);
    if (result.ok() && key == nullptr) return {.refusal = WhyNoPublicKey(spki)};
    if (!result.ok() || !well_formed) return {result};
    result = session.api().Verify(session.handle(), digest, IsRaw(type) ? raw : signature);
    if (IsWrongSignature(result.rv)) return {};
    return {result, result.ok()};
}

BytesOutcome RecoverSignedBlock(Session& session, const std::string& spki, const std::string& signature, bool recover) {
    const Api& api = session.api();
    CK_MECHANISM mechanism{recover ? CKM_RSA_PKCS : CKM_RSA_X_509, nullptr, 0};
    PublicKey parsed;
    // A number below the modulus: what modules answer to any other is anybody's guess.
    const bool fits = PublicKeyFromSpki(spki, parsed) && parsed.alg == PKI_KEY_RSA && signature.size() == parsed.size &&
                      signature < parsed.components[0];
    if (!fits) return {};
    const PublicKeyObject* key = nullptr;
    const auto init = [&](const PublicKeyObject& object) -> Result {
        return recover ? api.VerifyRecoverInit(session.handle(), mechanism, object.handle)
                       : api.EncryptInit(session.handle(), mechanism, object.handle);
    };
    Result result = StartWithKey(session, spki, key, init);
    if (!result.ok()) return {result};
    std::string block(signature.size(), '\0');
    if (recover) {
        result = api.VerifyRecover(session.handle(), signature, block);
        if (IsWrongSignature(result.rv)) return {};
        return {result, result.ok() ? std::optional(std::move(block)) : std::nullopt};
    }
    result = api.Encrypt(session.handle(), signature, block);
    return {result, result.ok() ? WithoutPadding(block) : std::nullopt};
}

BytesOutcome Digest(Session& session, CK_MECHANISM_TYPE mechanism_type, std::size_t length, const std::string& data) {
    CK_MECHANISM mechanism{mechanism_type, nullptr, 0};
    Result result = session.api().DigestInit(session.handle(), mechanism);
    if (!result.ok()) return {result};
    std::string digest(length, '\0');
    result = session.api().Digest(session.handle(), data, digest);
    return {result, result.ok() ? std::optional(std::move(digest)) : std::nullopt};
}

SignOutcome Sign(Session& session, pki_alg_t alg, CK_MECHANISM_TYPE of_message, const std::string& id,
                 std::optional<CK_OBJECT_HANDLE> key, const std::string& digest) {
    SignatureMechanism mechanism(alg, of_message);
    if (!mechanism.known()) return {{"C_SignInit", CKR_MECHANISM_INVALID}};
    Result result = {"C_SignInit", CKR_KEY_HANDLE_INVALID};
    if (key.has_value()) result = session.api().SignInit(session.handle(), mechanism.get(), *key);
    if (IsLostObject(result.rv)) {
        result = FindSigningKey(session, alg, id, key);
        if (result.ok()) result = session.api().SignInit(session.handle(), mechanism.get(), *key);
    }
    if (!result.ok()) return {result};
    std::string signature(kMaxSignatureBytes, '\0');
    result = session.api().Sign(session.handle(), digest, signature);
    if (!result.ok()) return {result};
    if (!IsRaw(KeyTypeOf(alg))) return {result, std::move(signature), *key};
    std::string der;
    if (!DerSignatureFromRaw(signature, der)) return {{"C_Sign", CKR_FUNCTION_FAILED}};
    return {result, std::move(der), *key};
}

}  // namespace tokens
