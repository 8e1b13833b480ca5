#include <algorithm>

#include "vendor_host.h"

namespace vendor_host {

namespace {

struct TokenList {
    std::vector<std::shared_ptr<Token>> tokens;
    unsigned reload_calls = 0;
};

Guarded<TokenList>& List() {
    static auto& list = *new Guarded<TokenList>;  // lives as long as the process
    return list;
}

}  // namespace

// --- State ---

bool TokenState::Offers(pki_alg_t alg, bool whole) const {
    const auto has = [this](pki_alg_t part) { return part == 0 || algorithms.contains(part); };
    const pki_alg_t key = alg & PKI_KEY_MASK;
    return present && (has(alg & PKI_ALG_MASK) || (has(key) && ((key != 0 && !whole) || has(alg & PKI_HASH_MASK))));
}

const char* TokenState::Trouble(Op op) {
    unsigned& failures = At(op).failures;
    const bool broken = failures > 0;
    if (broken && failures != ~0U) --failures;
    if (!present) return "CKR_DEVICE_REMOVED";
    return broken ? "CKR_DEVICE_ERROR" : nullptr;
}

std::vector<PKCS11::CertObject> TokenState::ListCerts() const {
    std::vector<PKCS11::CertObject> objects = certs;
    for (const auto& [id, pair] : keys) {
        const bool has_certificate =
            std::any_of(certs.begin(), certs.end(), [&id = id](const auto& cert) { return cert.id == id; });
        if (!pair.has_private || has_certificate) continue;
        objects.push_back({.id = id,
                           .value = {},
                           .category = PKCS11::kKeyPairCategory,
                           .keyAlg = pair.alg,
                           .keyNotAfter = pair.not_after});
    }
    return objects;
}

std::optional<KeyPair> TokenState::FindKey(const std::string& id) const {
    const auto found = keys.find(id);
    return found == keys.end() ? std::nullopt : std::optional(found->second);
}

void TokenState::PutKeyPart(const std::string& id, KeyPair pair) {
    if (const auto there = FindKey(id); there && there->spki == pair.spki) {
        pair.has_private |= there->has_private;
        pair.has_public |= there->has_public;
        pair.exportable |= there->exportable;
        if (there->has_private) pair.key = there->key;
    }
    keys[id] = std::move(pair);
}

bool TokenState::DropKeyPart(const std::string& id, bool KeyPair::*half) {
    const auto found = keys.find(id);
    if (found == keys.end() || !std::exchange(found->second.*half, false)) return false;
    if (!found->second.has_private && !found->second.has_public) keys.erase(found);
    return true;
}

// --- Controls ---

std::string Token::AddCertificate(const std::string& der, const CertOptions& options) {
    const std::string id =
        options.id.empty() ? DigestOf(PKI_HASH_SHA1, der).value_or(std::string()).substr(0, 8) : options.id;
    AddObject({id, der, options.category, options.trusted, 0, options.key_not_after});
    return id;
}

std::string Token::AddPersonal(const std::string& der, const KeyPtr& key, CertOptions options) {
    if (options.category == CertOptions().category) options.category = 1;
    const std::string id = AddCertificate(der, options);
    AddKeyPair(id, key, options.key_not_after);
    return id;
}

void Token::Remove(const std::string& id) {
    const auto state = state_.Lock();
    std::erase_if(state->certs, [&](const auto& object) { return object.id == id; });
    std::erase_if(state->crls, [&](const auto& object) { return object.id == id; });
    state->keys.erase(id);
}

std::vector<std::string> Token::PresharedKeyNames() const {
    const auto state = state_.Lock();
    std::vector<std::string> names;
    for (const auto& [name, value] : state->preshared) names.push_back(name);
    return names;
}

void Token::ClearCalls() {
    const auto state = state_.Lock();
    for (auto& behaviour : state->ops) behaviour.calls = 0;
}

std::shared_ptr<Token> AddToken(const std::string& label, const std::string& serial) {
    PKCS11::TokenInfo info;
    info.id = std::hash<std::string>()(label + '\n' + serial);
    info.label = label;
    info.serialNumber = serial;
    info.holdsTrusted = true;
    auto token = std::make_shared<Token>(info);
    List()->tokens.push_back(token);
    return token;
}

std::shared_ptr<Token> FindToken(std::uint64_t id) {
    const auto list = List().Lock();
    const auto found = std::find_if(list->tokens.begin(), list->tokens.end(),
                                    [id](const auto& token) { return token->Info().id == id; });
    return found == list->tokens.end() ? nullptr : *found;
}

unsigned ReloadTokensContentCalls() {
    return List()->reload_calls;
}

void FireInsert(const Token& token) {
    PKCS11::Callbacks.tokenInserted(token.Info());
}

bool BeginReload(Token& token) {
    SetEventMode(EventMode::kThreaded);
    const auto gate = std::make_shared<Gate>();
    token.Block(Op::kEnumCRLs, gate);
    FireInsert(token);
    const bool begun = gate->WaitForArrivals(1);
    gate->Open();
    return begun;
}

void ResetTokens() {
    PKCS11::Callbacks.tokenInserted = nullptr;
    PKCS11::Callbacks.tokenRemoved = nullptr;
    PKCS11::Callbacks.tokenLogin = nullptr;
    PKCS11::Callbacks.providerInserted = nullptr;
    const auto list = List().Lock();
    list->tokens.clear();
    list->reload_calls = 0;
}

}  // namespace vendor_host

namespace PKCS11 {

// Trivially destroyed: token threads and other libraries may still look at it when the process ends.
constinit CallbackTable Callbacks;

Manager& Manager::Instance() {
    static Manager& instance = *new Manager;
    return instance;
}

std::vector<TokenInfo> Manager::EnumTokens(pki_alg_t alg) const {
    const auto tokens = vendor_host::List()->tokens;
    std::vector<TokenInfo> infos;
    for (const auto& token : tokens) {
        const auto state = token->state().Lock();
        if (state->Offers(alg, false)) infos.push_back(state->info);
    }
    return infos;
}

std::shared_ptr<const std::vector<TokenInfo>> Manager::EnumTokensShared(pki_alg_t alg) const {
    return std::make_shared<const std::vector<TokenInfo>>(EnumTokens(alg));
}

bool Manager::IsTokenSupportMechanism(const TokenInfo& token, pki_alg_t alg) const {
    const auto found = vendor_host::FindToken(token.id);
    return found != nullptr && found->state()->Offers(alg, true);
}

bool Manager::GetKeyPairGenMechanisms(const TokenInfo& token, std::vector<KeyPairGenMechanism>& mechanisms,
                                      std::vector<pki_alg_t>& digests) const {
    const auto found = vendor_host::FindToken(token.id);
    if (found == nullptr || !found->state()->present) return false;
    mechanisms = found->state()->key_generation;
    digests = found->state()->key_generation_digests;
    return true;
}

void Manager::ReloadTokensContent(int) {
    ++vendor_host::List()->reload_calls;
}

}  // namespace PKCS11
