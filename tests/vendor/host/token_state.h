// What a token holds and how it shall behave; shared by the controls (tokens.cpp) and the sessions.
#pragma once

#include <array>
#include <map>
#include <mutex>
#include <unordered_map>

#include <platform/base.h>

#include "vendor_crypto.h"
#include "vendor_host.h"

namespace vendor_host {

struct KeyPair {
    KeyPtr key;  // null for a foreign key
    pki_alg_t alg = 0;
    std::string spki;
    cert_time64_t not_after = CERT_TIME_UNKNOWN;
    bool has_private = true;
    bool has_public = true;
    bool exportable = true;
};

struct Behaviour {
    unsigned calls = 0;
    unsigned failures = 0;  // still to come
    std::shared_ptr<Gate> gate;
};

struct Token::State {
    mutable std::mutex mutex;
    // Everything below is guarded by it.
    PKCS11::TokenInfo info;
    bool present = true;
    std::optional<std::set<pki_alg_t>> algorithms;
    std::pair<std::vector<PKCS11::KeyPairGenMechanism>, std::vector<pki_alg_t>> key_generation{{{PKI_KEY_EC, 256, 521}},
                                                                                               {PKI_HASH_SHA256}};
    vpnfc::SecretString security_officer_pin;
    unsigned open_sessions = 0;

    std::vector<PKCS11::CertObject> certs;
    std::map<std::string, KeyPair> keys;  // by identifier
    std::unordered_map<std::string, std::string> key_by_spki;  // SubjectPublicKeyInfo to identifier
    std::vector<PKCS11::CRLObject> crls;
    std::vector<std::pair<std::string, vpnfc::SecretString>> preshared;

    std::array<Behaviour, static_cast<std::size_t>(Op::kCount_)> ops;
    Digester digester;
    Signer signer;
    Verifier verifier;

    Behaviour& At(Op op) { return ops[static_cast<std::size_t>(op)]; }
    /// Whether the token offers an algorithm, by the rule of Manager::EnumTokens (whole = false: a signature algorithm
    /// needs its key operation alone) or of Manager::IsTokenSupportMechanism.
    bool Offers(pki_alg_t alg, bool whole) const;
    void PutKey(const std::string& id, KeyPair pair);
    void DropKey(const std::string& id);
    /// Certificates in order, then key pairs without one.
    std::vector<PKCS11::CertObject> ListCerts() const;
};

/// State of the listed token of that identifier, or null.
std::shared_ptr<Token::State> FindState(std::uint64_t id);
/// Tokens that are there, in order.
std::vector<std::shared_ptr<Token::State>> PresentStates();
void NoteContentReload();

}  // namespace vendor_host
