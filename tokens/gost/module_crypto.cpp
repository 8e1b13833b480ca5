// What is done with keys, digests, and random numbers.
#include <openssl/rand.h>

#include "tokens/gost/entry.h"

namespace gost_token {

CK_RV DigestInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism) {
    return WithSession(session, [&](Session& on) { on.StartDigest(mechanism); });
}

CK_RV Digest(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* digest, CK_ULONG* digest_length) {
    return WithSession(session, [&](Session& on) { on.EndDigest(Input(data, length), {digest, digest_length}); });
}

CK_RV DigestUpdate(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length) {
    return WithSession(session, [&](Session& on) { on.UpdateDigest(Input(data, length)); });
}

CK_RV DigestFinal(CK_SESSION_HANDLE session, CK_BYTE* digest, CK_ULONG* digest_length) {
    return WithSession(session, [&](Session& on) { on.EndDigest({}, {digest, digest_length}); });
}

CK_RV SignInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    return WithSession(session, [&](Session& on) { on.StartSign(mechanism, key); });
}

CK_RV Sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature, CK_ULONG* signature_length) {
    return WithSession(session, [&](Session& on) { on.EndSign(Input(data, length), {signature, signature_length}); });
}

CK_RV SignUpdate(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length) {
    return WithSession(session, [&](Session& on) { on.UpdateSign(Input(data, length)); });
}

CK_RV SignFinal(CK_SESSION_HANDLE session, CK_BYTE* signature, CK_ULONG* signature_length) {
    return WithSession(session, [&](Session& on) { on.EndSign({}, {signature, signature_length}); });
}

CK_RV VerifyInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    return WithSession(session, [&](Session& on) { on.StartVerify(mechanism, key); });
}

CK_RV Verify(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature, CK_ULONG signature_length) {
    return WithSession(session,
                       [&](Session& on) { on.EndVerify(Input(data, length), Input(signature, signature_length)); });
}

CK_RV VerifyUpdate(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length) {
    return WithSession(session, [&](Session& on) { on.UpdateVerify(Input(data, length)); });
}

CK_RV VerifyFinal(CK_SESSION_HANDLE session, CK_BYTE* signature, CK_ULONG signature_length) {
    return WithSession(session, [&](Session& on) { on.EndVerify({}, Input(signature, signature_length)); });
}

CK_RV GenerateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_ATTRIBUTE* public_key,
                      CK_ULONG public_count, CK_ATTRIBUTE* private_key, CK_ULONG private_count,
                      CK_OBJECT_HANDLE* public_handle, CK_OBJECT_HANDLE* private_handle) {
    return WithSession(session, [&](Session& on) {
        Require(public_handle != nullptr && private_handle != nullptr, CKR_ARGUMENTS_BAD);
        on.GenerateKeyPair(mechanism, Wanted(public_key, public_count), Wanted(private_key, private_count),
                           *public_handle, *private_handle);
    });
}

namespace {

constexpr CK_ULONG kMostRandomBytes = 1U << 30;  // in one call: libcrypto counts in int

}  // namespace

/// Adds to what libcrypto draws on; never replaces it.
CK_RV SeedRandom(CK_SESSION_HANDLE session, CK_BYTE* seed, CK_ULONG length) {
    return WithSession(session, [&](Session&) {
        Require(length <= kMostRandomBytes, CKR_ARGUMENTS_BAD);
        const std::string_view bytes = Input(seed, length);
        constexpr double kNoEntropyClaimed = 0;
        RAND_add(bytes.data(), static_cast<int>(bytes.size()), kNoEntropyClaimed);
    });
}

CK_RV GenerateRandom(CK_SESSION_HANDLE session, CK_BYTE* bytes, CK_ULONG length) {
    return WithSession(session, [&](Session&) {
        Require((bytes != nullptr || length == 0) && length <= kMostRandomBytes, CKR_ARGUMENTS_BAD);
        Require(RAND_bytes(bytes, static_cast<int>(length)) == 1, CKR_FUNCTION_FAILED);
    });
}

}  // namespace gost_token
