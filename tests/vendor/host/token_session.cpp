#include <certmgr/records.h>
#include <openssl/ec.h>
#include <platform/event_codes.h>

#include <algorithm>

#include "vendor_host.h"

namespace PKCS11 {

using vendor_host::KeyFromSpki;
using vendor_host::KeyPair;
using vendor_host::KeyPtr;
using vendor_host::Op;

struct TokenSession::Impl {
    std::shared_ptr<vendor_host::Token> token;
    Logger* logger = nullptr;
    bool opened = false;
    bool login_failed = false;
    bool look_up_failed = false;

    /// Counts the operation and waits at its gate; whether it may go on.
    bool Begin(Op op, const char* function);
    /// The same for a look-up of a public key.
    bool BeginLookUp(Op op, const char* function) {
        look_up_failed = !Begin(op, function);
        return !look_up_failed;
    }
    /// Nobody's PIN opens anything here.
    void Open(OpenType type, const std::string* pin);
    bool Delete(const std::function<std::size_t(vendor_host::TokenState&)>& erase);
};

bool TokenSession::Impl::Begin(Op op, const char* function) {
    const bool opening = op == Op::kOpenPublic || op == Op::kOpenPrivate;
    if (token == nullptr || (!opening && !opened)) return false;
    if (const auto gate = token->state()->Count(op)) gate->Pass();
    const char* const result = token->state()->Trouble(op);
    if (result == nullptr) return true;
    const TokenInfo info = token->Info();
    if (logger != nullptr) {
        logger->OnDeviceError(info, function, result);
    } else {
        TLogMessage(kMsgTokenError).Attr(info.label + ": " + function + ": " + result).Send();
    }
    return false;
}

void TokenSession::Impl::Open(OpenType type, const std::string* pin) {
    if (!Begin(type == kPublic ? Op::kOpenPublic : Op::kOpenPrivate, "C_OpenSession")) return;
    const TokenInfo info = token->Info();
    login_failed = type == kPrivate ? info.loginRequired && !info.loggedIn : pin != nullptr && !pin->empty();
    opened = !login_failed;
    if (opened) ++token->state()->open_sessions;
}

bool TokenSession::Impl::Delete(const std::function<std::size_t(vendor_host::TokenState&)>& erase) {
    return Begin(Op::kOther, "C_DestroyObject") && erase(*token->state().Lock()) > 0;
}

TokenSession::TokenSession(const TokenInfo& token, OpenType type, const std::string* pin, Logger* logger)
    : impl_(std::make_unique<Impl>()) {
    impl_->token = vendor_host::FindToken(token.id);
    impl_->logger = logger;
    impl_->Open(type, pin);
}

TokenSession::~TokenSession() {
    if (impl_->opened) --impl_->token->state()->open_sessions;
}

bool TokenSession::opened() const {
    return impl_->opened;
}
bool TokenSession::loginFailed() const {
    return impl_->login_failed;
}
bool TokenSession::securityOfficerRequired() const {
    return false;
}
bool TokenSession::keyLookUpFailed() const {
    return impl_->look_up_failed;
}

// --- Enumerations ---

bool TokenSession::EnumCertificates(std::list<CertObject>& certificates) {
    if (!impl_->Begin(Op::kEnumCertificates, "C_FindObjects")) return false;
    std::ranges::copy(impl_->token->CertObjects(), std::back_inserter(certificates));
    return true;
}

bool TokenSession::EnumCRLs(std::list<CRLObject>& crls) {
    if (!impl_->Begin(Op::kEnumCRLs, "C_FindObjects")) return false;
    std::ranges::copy(impl_->token->CrlObjects(), std::back_inserter(crls));
    return true;
}

bool TokenSession::EnumPresharedKeys(std::list<PresharedKeyObject>& keys) {
    if (!impl_->Begin(Op::kEnumPresharedKeys, "C_FindObjects")) return false;
    for (const std::string& name : impl_->token->PresharedKeyNames()) keys.push_back({name});
    return true;
}

bool TokenSession::GetRawPubKeyObjectData(pki_alg_t keyAlg, const std::string& id, std::string& spki) {
    if (!impl_->BeginLookUp(Op::kGetPublicKey, "C_GetAttributeValue")) return false;
    const auto key = impl_->token->state()->FindKey(id);
    if (!key || key->alg != keyAlg) return false;
    spki = key->spki;
    return true;
}

bool TokenSession::ContainPubKeyObject(const std::string& spki, std::string* id) {
    if (!impl_->BeginLookUp(Op::kContainPublicKey, "C_FindObjects")) return false;
    const auto state = impl_->token->state().Lock();
    const auto found = std::ranges::find_if(state->keys, [&](const auto& entry) { return entry.second.spki == spki; });
    if (found == state->keys.end()) return false;
    if (id != nullptr) *id = found->first;
    return true;
}

// --- Keys at work ---

/// Whether there is a result, which is handed over then.
static bool Give(std::optional<std::string>&& made, std::string& result) {
    if (made) result = std::move(*made);
    return made.has_value();
}

bool TokenSession::Digest(pki_alg_t alg, const std::string& data, std::string& digest) {
    return impl_->Begin(Op::kDigest, "C_Digest") && Give(vendor_host::DigestOf(alg, data), digest);
}

bool TokenSession::Sign(pki_alg_t alg, const std::string& id, const std::string& digest, std::string& signature) {
    if (!impl_->Begin(Op::kSign, "C_Sign")) return false;
    const auto pair = impl_->token->state()->FindKey(id);
    return pair && pair->has_private && Give(vendor_host::SignDigest(pair->key, alg, digest), signature);
}

bool TokenSession::Verify(pki_alg_t alg, const std::string& spki, const std::string& digest,
                          const std::string& signature) {
    return impl_->Begin(Op::kVerify, "C_Verify") &&
           vendor_host::VerifyDigest(KeyFromSpki(spki), alg, digest, signature);
}

bool TokenSession::VerifyDecrypt(const std::string& spki, const std::string& signature, std::string& block) {
    return impl_->Begin(Op::kOther, "C_Encrypt") &&
           Give(vendor_host::RecoverBlock(KeyFromSpki(spki), signature), block);
}

bool TokenSession::SeedRandom(const std::string&) {
    return impl_->Begin(Op::kOther, "C_SeedRandom");
}

// --- Objects made ---

bool TokenSession::GenerateKeyPair(pki_alg_t keyAlg, std::uint32_t bits, const std::string& id, bool exportable) {
    if (!impl_->Begin(Op::kOther, "C_GenerateKeyPair") || keyAlg != PKI_KEY_EC) return false;
    const KeyPtr key(EVP_EC_gen(bits == 384 ? "P-384" : bits == 521 ? "P-521" : "P-256"), EVP_PKEY_free);
    impl_->token->state()->PutKeyPart(
        id, {key, keyAlg, vendor_host::SpkiOf(key), CERT_TIME_UNKNOWN, true, true, exportable});
    return true;
}

bool TokenSession::CreateCertObject(const CertObject& object, const std::string&) {
    if (!impl_->Begin(Op::kOther, "C_CreateObject")) return false;
    impl_->token->AddObject(object);
    return true;
}

bool TokenSession::CreatePrivKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& pkcs8_der,
                                       bool exportable, cert_time64_t not_after) {
    if (!impl_->Begin(Op::kOther, "C_CreateObject")) return false;
    const KeyPtr key = vendor_host::KeyFromPkcs8(pkcs8_der);
    if (key == nullptr || vendor_host::KeyAlgOf(key) != keyAlg) return false;
    impl_->token->state()->PutKeyPart(id, {key, keyAlg, vendor_host::SpkiOf(key), not_after, true, false, exportable});
    return true;
}

bool TokenSession::CreatePubKeyObject(pki_alg_t keyAlg, const std::string& id, const std::string& spki, cert_time64_t) {
    if (!impl_->Begin(Op::kOther, "C_CreateObject")) return false;
    impl_->token->state()->PutKeyPart(id, {nullptr, keyAlg, spki, CERT_TIME_UNKNOWN, false, true, false});
    return true;
}

/// These tokens unwrap nothing.
bool TokenSession::ImportPrivKeyObject(const EncryptedPrivateKey&, pki_alg_t, const std::string&, bool) {
    return false;
}

bool TokenSession::CreateCRLObject(const std::string& id, const std::string& crl_der) {
    if (!impl_->Begin(Op::kOther, "C_CreateObject")) return false;
    impl_->token->AddCrl(id, crl_der);
    return true;
}

bool TokenSession::CreatePresharedKeyObject(const std::string& name, const std::string& value) {
    if (!impl_->Begin(Op::kCreatePresharedKey, "C_CreateObject")) return false;
    impl_->token->AddPresharedKey(name, value);
    return true;
}

// --- Objects deleted ---

bool TokenSession::DeleteCertObject(const CertInfo& info) {
    return impl_->Delete([&](auto& state) {
        return std::erase_if(state.certs, [&](const auto& object) { return object.id == info.id; });
    });
}
bool TokenSession::DeletePrivKeyObject(const CertInfo& info) {
    return DeletePrivKeyObject(info.id);
}
bool TokenSession::DeletePubKeyObject(const CertInfo& info) {
    return DeletePubKeyObject(info.id);
}
bool TokenSession::DeletePrivKeyObject(const std::string& id) {
    return impl_->Delete([&](auto& state) { return state.DropKeyPart(id, &KeyPair::has_private); });
}
bool TokenSession::DeletePubKeyObject(const std::string& id) {
    return impl_->Delete([&](auto& state) { return state.DropKeyPart(id, &KeyPair::has_public); });
}
bool TokenSession::DeleteCRLObject(const CRLInfo& info) {
    return impl_->Delete([&](auto& state) {
        return std::erase_if(state.crls, [&](const auto& object) { return object.id == info.id; });
    });
}
bool TokenSession::DeletePresharedKeyObject(const PresharedKeyInfo& info) {
    return impl_->Delete([&](auto& state) { return state.preshared.erase(info.name); });
}

bool TokenSession::GetPresharedKeyPrivateData(const std::string& name, std::string& value) {
    if (!impl_->Begin(Op::kGetPresharedKey, "C_GetAttributeValue")) return false;
    const auto state = impl_->token->state().Lock();
    const auto found = state->preshared.find(name);
    if (found == state->preshared.end()) return false;
    value = found->second;
    return true;
}

bool TokenSession::ExportPrivateKey(const std::string& id, std::string& pkcs8_der) {
    if (!impl_->Begin(Op::kOther, "C_GetAttributeValue")) return false;
    const auto pair = impl_->token->state()->FindKey(id);
    if (!pair || !pair->exportable || pair->key == nullptr) return false;
    pkcs8_der = vendor_host::Pkcs8Of(pair->key);
    return true;
}

}  // namespace PKCS11
