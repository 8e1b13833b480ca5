// What a token can do, and how an algorithm code is put to it.
#pragma once

#include <vector>

#include "platform/asn1.h"
#include "platform/asn1/alg_table.h"
#include "platform/tokens.h"
#include "platform/tokens/ck_api.h"

namespace tokens {

inline constexpr CK_ULONG kMaxMechanisms = 4096;

/// The mechanisms of a token, in its order. Never changes.
class MechanismList {
  public:
    struct Entry {
        CK_MECHANISM_TYPE type;
        CK_MECHANISM_INFO info;
    };

    static Result Read(const Api& api, CK_SLOT_ID slot, MechanismList& list);

    bool empty() const { return entries_.empty(); }
    const Entry* Find(CK_MECHANISM_TYPE type) const;
    bool Has(CK_MECHANISM_TYPE type, CK_FLAGS flags) const;
    /// Whether the token offers the algorithm: a key algorithm by signing or verifying a ready digest, a hash by its
    /// digest mechanism, a signature algorithm by its key's operation and a hash that the token or the host knows, or by
    /// MessageMechanism. `use`: what keys are for, any of these.
    bool Offers(pki_alg_t alg, CK_FLAGS use = CKF_SIGN | CKF_VERIFY) const;
    /// The mechanism of the signature algorithm, or of its hash alone, that takes the message itself, for a token that
    /// has no other way: some GOST tokens do not digest, or do not sign a ready digest. CK_UNAVAILABLE_INFORMATION else.
    CK_MECHANISM_TYPE MessageMechanism(pki_alg_t alg) const;
    /// Whether its public-key operations run in the module's software, on the calling thread.
    bool VerifiesInSoftware(pki_alg_t alg) const;

    void KeyPairGeneration(std::vector<PKCS11::KeyPairGenMechanism>& mechanisms) const;
    void Digests(std::vector<pki_alg_t>& digests) const;

  private:
    bool KnowsGostHash(const asn1::AlgRow& key) const;

    std::vector<Entry> entries_;
};

/// A mechanism with its parameters; points into itself.
class SignatureMechanism {
  public:
    /// Of a key algorithm, or of a signature algorithm whose digest is ready; `of_message`, where it is known, instead.
    SignatureMechanism(pki_alg_t alg, CK_MECHANISM_TYPE of_message);
    SignatureMechanism(const SignatureMechanism&) = delete;
    SignatureMechanism& operator=(const SignatureMechanism&) = delete;

    bool known() const { return mechanism_.mechanism != CK_UNAVAILABLE_INFORMATION; }
    CK_MECHANISM& get() { return mechanism_; }

  private:
    CK_MECHANISM mechanism_{CK_UNAVAILABLE_INFORMATION, nullptr, 0};
    CK_RSA_PKCS_PSS_PARAMS pss_{};
};

}  // namespace tokens
