#include "platform/asn1/alg_table.h"
#include "platform/tokens/host_digest.h"
#include "platform/tokens/session_impl.h"

namespace PKCS11 {

using tokens::Session;

bool TokenSession::Digest(pki_alg_t alg, const std::string& data, std::string& digest) {
    const asn1::AlgRow* const hash = asn1::FindHashAlg(alg);
    if (!opened() || hash == nullptr) return false;
    const tokens::MechanismList& mechanisms = impl_->token->mechanisms();
    if (hash->code == PKI_HASH_NONE || mechanisms.MessageMechanism(alg) != CK_UNAVAILABLE_INFORMATION) {
        digest = data;
        return true;
    }
    if (!mechanisms.Has(hash->hash.digest, CKF_DIGEST)) return tokens::HostDigest(alg, data, digest);
    tokens::BytesOutcome outcome;
    if (mechanisms.Has(hash->hash.digest, CKF_HW)) {
        outcome = impl_->Perform(Where::kWorker, [hash, data](Session& session) {
            return tokens::Digest(session, hash->hash.digest, hash->hash.length, data);
        });
    } else {
        outcome = impl_->Perform(Where::kHere, [&](Session& session) {
            return tokens::Digest(session, hash->hash.digest, hash->hash.length, data);
        });
    }
    if (!outcome.bytes.has_value()) return false;
    digest = std::move(*outcome.bytes);
    return true;
}

bool TokenSession::Sign(pki_alg_t alg, const std::string& id, const std::string& digest, std::string& signature) {
    if (!opened()) return false;
    tokens::SignOutcome outcome = impl_->Perform(Where::kWorker, [=, on = impl_->token](Session& session) {
        const CK_MECHANISM_TYPE of_message = on->mechanisms().MessageMechanism(alg);
        return tokens::Sign(session, alg, of_message, id, on->PrivateKeyHandle(alg, id), digest);
    });
    if (!outcome.bytes.has_value()) return false;
    impl_->token->RememberPrivateKey(alg, id, outcome.key);
    signature = std::move(*outcome.bytes);
    return true;
}

bool TokenSession::Verify(pki_alg_t alg, const std::string& spki, const std::string& digest,
                          const std::string& signature) {
    if (!opened()) return false;
    const tokens::MechanismList& mechanisms = impl_->token->mechanisms();
    const CK_MECHANISM_TYPE of_message = mechanisms.MessageMechanism(alg);
    tokens::VerifyOutcome outcome;
    if (mechanisms.VerifiesInSoftware(alg)) {
        outcome = impl_->Perform(Where::kHere, [&](Session& session) {
            return tokens::Verify(session, alg, of_message, spki, digest, signature);
        });
    } else {
        outcome = impl_->Perform(Where::kWorker, [=](Session& session) {
            return tokens::Verify(session, alg, of_message, spki, digest, signature);
        });
    }
    if (outcome.refusal != nullptr) impl_->LogRefusal(outcome.refusal);
    return outcome.valid;
}

bool TokenSession::VerifyDecrypt(const std::string& spki, const std::string& signature, std::string& block) {
    if (!opened()) return false;
    const tokens::MechanismList& mechanisms = impl_->token->mechanisms();
    const bool recover = !mechanisms.Has(CKM_RSA_X_509, CKF_ENCRYPT);
    tokens::BytesOutcome outcome;
    if (mechanisms.Has(recover ? CKM_RSA_PKCS : CKM_RSA_X_509, CKF_HW)) {
        outcome = impl_->Perform(Where::kWorker, [=](Session& session) {
            return tokens::RecoverSignedBlock(session, spki, signature, recover);
        });
    } else {
        outcome = impl_->Perform(Where::kHere, [&](Session& session) {
            return tokens::RecoverSignedBlock(session, spki, signature, recover);
        });
    }
    if (!outcome.bytes.has_value()) return false;
    block = std::move(*outcome.bytes);
    return true;
}

}  // namespace PKCS11
