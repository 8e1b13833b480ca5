#include <certmgr/records.h>
#include <platform/event_codes.h>

#include <algorithm>

#include "token_state.h"

using vendor_host::Behaviour;
using vendor_host::FindState;
using vendor_host::KeyPair;
using vendor_host::KeyPtr;
using vendor_host::Op;
using State = vendor_host::Token::State;
using Lock = std::unique_lock<std::mutex>;

namespace PKCS11 {

struct TokenSession::Impl {
    std::shared_ptr<State> token;
    Logger* logger = nullptr;
    bool opened = false;
    bool login_failed = false;
    bool is_security_officer = false;
    bool security_officer_required = false;
    bool look_up_failed = false;

    bool Open(OpenType type, const std::string* pin);
    /// Counts the operation, waits at its gate, and gives the token's lock when the operation may go on.
    Lock Begin(Op op, const char* function);
    void Report(const char* function, const char* result) const;
    /// Whether a session of that kind may open; a PIN is the security officer's.
    bool Login_unlocked_(OpenType type, const std::string* pin);
};

void TokenSession::Impl::Report(const char* function, const char* result) const {
    TokenInfo info;
    {
        const Lock lock(token->mutex);
        info = token->info;
    }
    if (logger != nullptr) {
        logger->OnDeviceError(info, function, result);
    } else {
        TLogMessage(kMsgTokenError).Attr(info.label + ": " + function + ": " + result).Send();
    }
}

Lock TokenSession::Impl::Begin(Op op, const char* function) {
    if (token == nullptr) return {};
    Lock lock(token->mutex);
    Behaviour& behaviour = token->At(op);
    ++behaviour.calls;
    if (const auto gate = behaviour.gate; gate != nullptr) {
        lock.unlock();
        gate->Pass();
        lock.lock();
    }
    const bool opening = op == Op::kOpenPublic || op == Op::kOpenPrivate;
    if (!opening && !opened) return {};
    const bool broken = behaviour.failures > 0;
    if (broken && behaviour.failures != ~0U) --behaviour.failures;
    if (token->present && !broken) return lock;
    const char* result = token->present ? "CKR_DEVICE_ERROR" : "CKR_DEVICE_REMOVED";
    lock.unlock();
    Report(function, result);
    return {};
}

bool TokenSession::Impl::Login_unlocked_(OpenType type, const std::string* pin) {
    if (type == kPublic) {
        is_security_officer = pin != nullptr && !pin->empty() && *pin == token->security_officer_pin.get();
        return pin == nullptr || pin->empty() || is_security_officer;
    }
    return !token->info.loginRequired || token->info.loggedIn;
}

bool TokenSession::Impl::Open(OpenType type, const std::string* pin) {
    const Lock lock = Begin(type == kPublic ? Op::kOpenPublic : Op::kOpenPrivate, "C_OpenSession");
    if (!lock) return false;
    login_failed = !Login_unlocked_(type, pin);
    if (login_failed) return false;
    ++token->open_sessions;
    opened = true;
    return true;
}

TokenSession::TokenSession(const TokenInfo& token, OpenType type, const std::string* pin, Logger* logger)
    : impl_(std::make_unique<Impl>()) {
    impl_->token = FindState(token.id);
    impl_->logger = logger;
    impl_->Open(type, pin);
}

TokenSession::~TokenSession() {
    if (!impl_->opened) return;
    const Lock lock(impl_->token->mutex);
    --impl_->token->open_sessions;
}

bool TokenSession::opened() const {
    return impl_->opened;
}
bool TokenSession::loginFailed() const {
    return impl_->login_failed;
}
bool TokenSession::securityOfficerRequired() const {
    return impl_->security_officer_required;
}

bool TokenSession::keyLookUpFailed() const {
    return impl_->look_up_failed;
}

// --- Enumerations ---

bool TokenSession::EnumCertificates(std::list<CertObject>& certificates) {
    const Lock lock = impl_->Begin(Op::kEnumCertificates, "C_FindObjects");
    if (!lock) return false;
    for (CertObject& object : impl_->token->ListCerts()) certificates.push_back(std::move(object));
    return true;
}

bool TokenSession::EnumCRLs(std::list<CRLObject>& crls) {
    const Lock lock = impl_->Begin(Op::kEnumCRLs, "C_FindObjects");
    if (!lock) return false;
    crls.insert(crls.end(), impl_->token->crls.begin(), impl_->token->crls.end());
    return true;
}

bool TokenSession::EnumPresharedKeys(std::list<PresharedKeyObject>& keys) {
    const Lock lock = impl_->Begin(Op::kEnumPresharedKeys, "C_FindObjects");
    if (!lock) return false;
    for (const auto& key : impl_->token->preshared) keys.push_back({key.first});
    return true;
}

bool TokenSession::GetRawPubKeyObjectData(pki_alg_t keyAlg, const std::string& id, std::string& spki) {
    const Lock lock = impl_->Begin(Op::kGetPublicKey, "C_GetAttributeValue");
    impl_->look_up_failed = !lock;
    if (!lock) return false;
    const auto found = impl_->token->keys.find(id);
    if (found == impl_->token->keys.end() || found->second.alg != keyAlg) return false;
    spki = found->second.spki;
    return true;
}

bool TokenSession::ContainPubKeyObject(const std::string& spki, std::string* id) {
    const Lock lock = impl_->Begin(Op::kContainPublicKey, "C_FindObjects");
    impl_->look_up_failed = !lock;
    if (!lock) return false;
    const auto found = impl_->token->key_by_spki.find(spki);
    if (found == impl_->token->key_by_spki.end()) return false;
    if (id != nullptr) *id = found->second;
    return true;
}

// --- Keys at work ---

bool TokenSession::Digest(pki_alg_t alg, const std::string& data, std::string& digest) {
    vendor_host::Token::Digester digester;
    {
        const Lock lock = impl_->Begin(Op::kDigest, "C_Digest");
        if (!lock) return false;
        digester = impl_->token->digester;
    }
    std::optional<std::string> made = digester ? digester(alg, data) : vendor_host::DigestOf(alg, data);
    if (!made) return false;
    digest = std::move(*made);
    return true;
}

bool TokenSession::Sign(pki_alg_t alg, const std::string& id, const std::string& digest, std::string& signature) {
    KeyPtr key;
    vendor_host::Token::Signer signer;
    {
        const Lock lock = impl_->Begin(Op::kSign, "C_Sign");
        if (!lock) return false;
        const auto found = impl_->token->keys.find(id);
        if (found == impl_->token->keys.end() || !found->second.has_private) return false;
        key = found->second.key;
        signer = impl_->token->signer;
    }
    std::optional<std::string> made = signer ? signer(alg, id, digest) : vendor_host::SignDigest(key, alg, digest);
    if (!made) return false;
    signature = std::move(*made);
    return true;
}

bool TokenSession::Verify(pki_alg_t alg, const std::string& spki, const std::string& digest,
                          const std::string& signature) {
    vendor_host::Token::Verifier verifier;
    {
        const Lock lock = impl_->Begin(Op::kVerify, "C_Verify");
        if (!lock) return false;
        verifier = impl_->token->verifier;
    }
    if (verifier) return verifier(alg, spki, digest, signature);
    return vendor_host::VerifyDigest(vendor_host::KeyFromSpki(spki), alg, digest, signature);
}

bool TokenSession::VerifyDecrypt(const std::string& spki, const std::string& signature, std::string& block) {
    if (!impl_->Begin(Op::kVerifyDecrypt, "C_Encrypt")) return false;
    std::optional<std::string> recovered = vendor_host::RecoverBlock(vendor_host::KeyFromSpki(spki), signature);
    if (!recovered) return false;
    block = std::move(*recovered);
    return true;
}

bool TokenSession::SeedRandom(const std::string&) {
    return static_cast<bool>(impl_->Begin(Op::kSeedRandom, "C_SeedRandom"));
}

// --- Objects made ---

/// Adds one half of a key pair, or both, to what the token has under that identifier.
static void PutKeyPart_unlocked_(State& token, const std::string& id, KeyPair pair) {
    const auto found = token.keys.find(id);
    if (found != token.keys.end() && found->second.spki == pair.spki) {
        pair.has_private |= found->second.has_private;
        pair.has_public |= found->second.has_public;
        pair.exportable |= found->second.exportable;
        if (found->second.has_private) pair.key = found->second.key;
    }
    token.PutKey(id, std::move(pair));
}

bool TokenSession::GenerateKeyPair(pki_alg_t keyAlg, std::uint32_t bits, const std::string& id, bool exportable) {
    const Lock lock = impl_->Begin(Op::kGenerateKeyPair, "C_GenerateKeyPair");
    if (!lock) return false;
    const KeyPtr key = keyAlg == PKI_KEY_EC ? vendor_host::GenerateEcKey(bits) : nullptr;
    if (key == nullptr) return false;
    PutKeyPart_unlocked_(*impl_->token, id,
                         {key, keyAlg, vendor_host::SpkiOf(key), CERT_TIME_UNKNOWN, true, true, exportable});
    return true;
}

bool TokenSession::CreateCertObject(const CertObject& object, const std::string&) {
    const Lock lock = impl_->Begin(Op::kCreateCertificate, "C_CreateObject");
    if (!lock) return false;
    State& token = *impl_->token;
    impl_->security_officer_required =
        object.trusted && !token.security_officer_pin.empty() && !impl_->is_security_officer;
    if (impl_->security_officer_required || token.info.writeProtected) return false;
    token.certs.push_back(object);
    return true;
}

bool TokenSession::CreatePrivKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& pkcs8_der,
                                       bool exportable, cert_time64_t not_after) {
    const Lock lock = impl_->Begin(Op::kCreatePrivateKey, "C_CreateObject");
    const KeyPtr key = vendor_host::KeyFromPkcs8(pkcs8_der);
    if (!lock || key == nullptr || vendor_host::KeyAlgOf(key) != keyAlg) return false;
    PutKeyPart_unlocked_(*impl_->token, id,
                         {key, keyAlg, vendor_host::SpkiOf(key), not_after, true, false, exportable});
    return true;
}

bool TokenSession::CreatePubKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& spki, cert_time64_t) {
    const Lock lock = impl_->Begin(Op::kCreatePublicKey, "C_CreateObject");
    if (!lock) return false;
    PutKeyPart_unlocked_(*impl_->token, id, {nullptr, keyAlg, spki, CERT_TIME_UNKNOWN, false, true, false});
    return true;
}

/// These tokens unwrap nothing.
bool TokenSession::ImportPrivKeyObject(const EncryptedPrivateKey&, pki_alg_t, const std::string&, bool) {
    return false;
}

bool TokenSession::CreateCRLObject(const std::string& id, const std::string& crl_der) {
    const Lock lock = impl_->Begin(Op::kCreateCRL, "C_CreateObject");
    if (!lock) return false;
    impl_->token->crls.push_back({id, crl_der});
    return true;
}

bool TokenSession::CreatePresharedKeyObject(const std::string& name, const std::string& value) {
    const Lock lock = impl_->Begin(Op::kCreatePresharedKey, "C_CreateObject");
    if (!lock) return false;
    impl_->token->preshared.emplace_back(name, vpnfc::SecretString(std::string_view(value)));
    return true;
}

// --- Objects deleted ---

bool TokenSession::DeleteCertObject(const CertInfo& info) {
    const Lock lock = impl_->Begin(Op::kDeleteCertificate, "C_DestroyObject");
    return lock && std::erase_if(impl_->token->certs, [&](const auto& object) { return object.id == info.id; }) > 0;
}

bool TokenSession::DeletePrivKeyObject(const CertInfo& info) {
    return DeletePrivKeyObject(info.id);
}
bool TokenSession::DeletePubKeyObject(const CertInfo& info) {
    return DeletePubKeyObject(info.id);
}

bool TokenSession::DeletePrivKeyObject(const std::string& id) {
    const Lock lock = impl_->Begin(Op::kDeletePrivateKey, "C_DestroyObject");
    if (!lock) return false;
    const auto found = impl_->token->keys.find(id);
    if (found == impl_->token->keys.end() || !found->second.has_private) return false;
    found->second.has_private = false;
    if (!found->second.has_public) impl_->token->DropKey(id);
    return true;
}

bool TokenSession::DeletePubKeyObject(const std::string& id) {
    const Lock lock = impl_->Begin(Op::kDeletePublicKey, "C_DestroyObject");
    if (!lock) return false;
    const auto found = impl_->token->keys.find(id);
    if (found == impl_->token->keys.end() || !found->second.has_public) return false;
    found->second.has_public = false;
    if (!found->second.has_private) impl_->token->DropKey(id);
    return true;
}

bool TokenSession::DeleteCRLObject(const CRLInfo& info) {
    const Lock lock = impl_->Begin(Op::kDeleteCRL, "C_DestroyObject");
    return lock && std::erase_if(impl_->token->crls, [&](const auto& object) { return object.id == info.id; }) > 0;
}

bool TokenSession::DeletePresharedKeyObject(const PresharedKeyInfo& info) {
    const Lock lock = impl_->Begin(Op::kDeletePresharedKey, "C_DestroyObject");
    return lock && std::erase_if(impl_->token->preshared, [&](const auto& key) { return key.first == info.name; }) > 0;
}

bool TokenSession::GetPresharedKeyPrivateData(const std::string& name, std::string& value) {
    const Lock lock = impl_->Begin(Op::kGetPresharedKey, "C_GetAttributeValue");
    if (!lock) return false;
    const auto& keys = impl_->token->preshared;
    const auto found = std::find_if(keys.begin(), keys.end(), [&](const auto& key) { return key.first == name; });
    if (found == keys.end()) return false;
    value = found->second.get();
    return true;
}

bool TokenSession::ExportPrivateKey(const std::string& id, std::string& pkcs8_der) {
    const Lock lock = impl_->Begin(Op::kExportPrivateKey, "C_GetAttributeValue");
    if (!lock) return false;
    const auto found = impl_->token->keys.find(id);
    if (found == impl_->token->keys.end() || !found->second.exportable || found->second.key == nullptr) return false;
    pkcs8_der = vendor_host::Pkcs8Of(found->second.key);
    return !pkcs8_der.empty();
}

}  // namespace PKCS11
