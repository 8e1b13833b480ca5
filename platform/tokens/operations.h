// Cryptographic operations of a session. Each is one PKCS #11 operation, or one after what makes it possible.
#pragma once

#include <optional>
#include <string>

#include "platform/tokens/session.h"

namespace tokens {

struct VerifyOutcome {
    Result result{};
    bool valid = false;
    const char* refusal = nullptr;  // why the token was not asked, for the log
};
/// A signature that cannot be right (its form, or a key of another algorithm) is not valid without asking the token.
/// `of_message`: the mechanism of MechanismList::MessageMechanism; where there is one, `digest` is the message.
VerifyOutcome Verify(Session& session, pki_alg_t alg, CK_MECHANISM_TYPE of_message, const std::string& spki,
                     const std::string& digest, const std::string& signature);

struct BytesOutcome {
    Result result{};
    std::optional<std::string> bytes{};
};
/// The block that an RSA signature holds, without its PKCS #1 type 1 padding. `recover`: with C_VerifyRecover.
BytesOutcome RecoverSignedBlock(Session& session, const std::string& spki, const std::string& signature, bool recover);
BytesOutcome Digest(Session& session, CK_MECHANISM_TYPE mechanism, std::size_t length, const std::string& data);
struct SignOutcome {
    Result result{};
    std::optional<std::string> bytes{};
    CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;  // the one that signed
};
/// DSA and ECDSA signatures in DER. `key` is what was remembered, if anything: the key is looked for when that is not
/// a key any more. A key that is not found because nobody is logged in is CKR_USER_NOT_LOGGED_IN. `of_message` as above.
SignOutcome Sign(Session& session, pki_alg_t alg, CK_MECHANISM_TYPE of_message, const std::string& id,
                 std::optional<CK_OBJECT_HANDLE> key, const std::string& digest);

}  // namespace tokens
