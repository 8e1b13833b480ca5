#include <algorithm>
#include <chrono>

#include "reset.h"
#include "token_state.h"

namespace PKCS11 {

// Trivially destroyed: token threads and other libraries may still look at it when the process ends.
constinit CallbackTable Callbacks;

Manager& Manager::Instance() {
    static Manager& instance = *new Manager;
    return instance;
}

}  // namespace PKCS11

namespace vendor_host {

namespace {

struct TokenList {
    std::mutex mutex;
    std::vector<std::shared_ptr<Token>> tokens;
    unsigned reload_calls = 0;
};

TokenList& List() {
    static TokenList& list = *new TokenList;  // lives as long as the process
    return list;
}

std::vector<std::shared_ptr<Token>> Listed() {
    const std::lock_guard lock(List().mutex);
    return List().tokens;
}

std::string FirstBytesOfSha1(const std::string& data) {
    std::string digest = DigestOf(PKI_HASH_SHA1, data).value_or(std::string(20, '\0'));
    digest.resize(8);
    return digest;
}

std::uint64_t TokenId(const PKCS11::TokenInfo& info) {
    const std::string text = info.manufacturer + info.model + info.serialNumber + info.label;
    const std::string digest = DigestOf(PKI_HASH_SHA256, text).value_or(std::string(32, '\0'));
    std::uint64_t id = 0;
    for (std::size_t i = 0; i < sizeof id; ++i) id = id << 8 | static_cast<unsigned char>(digest[i]);
    return id;
}

/// What libcrypto can do.
const std::set<pki_alg_t>& DefaultAlgorithms() {
    static const auto& algorithms = *new std::set<pki_alg_t>{
        PKI_KEY_RSA,     PKI_KEY_RSA_PSS, PKI_KEY_DSA,     PKI_KEY_EC,      PKI_KEY_ED25519, PKI_HASH_SHA1,
        PKI_HASH_SHA224, PKI_HASH_SHA256, PKI_HASH_SHA384, PKI_HASH_SHA512, PKI_HASH_MD5,    PKI_HASH_NONE};
    return algorithms;
}

}  // namespace

// --- State ---

bool Token::State::Offers(pki_alg_t alg, bool whole) const {
    const std::set<pki_alg_t>& offered = algorithms ? *algorithms : DefaultAlgorithms();
    const auto has = [&offered](pki_alg_t part) { return part == 0 || offered.count(part) != 0; };
    const pki_alg_t masked = alg & PKI_ALG_MASK;
    const pki_alg_t key = masked & PKI_KEY_MASK;
    const pki_alg_t hash = masked & PKI_HASH_MASK;
    if (has(masked)) return true;
    return has(key) && ((key != 0 && !whole) || has(hash));
}

void Token::State::PutKey(const std::string& id, KeyPair pair) {
    key_by_spki[pair.spki] = id;
    keys[id] = std::move(pair);
}

void Token::State::DropKey(const std::string& id) {
    const auto found = keys.find(id);
    if (found == keys.end()) return;
    key_by_spki.erase(found->second.spki);
    keys.erase(found);
}

std::vector<PKCS11::CertObject> Token::State::ListCerts() const {
    std::vector<PKCS11::CertObject> objects = certs;
    std::set<std::string> with_certificate;
    for (const PKCS11::CertObject& object : objects) with_certificate.insert(object.id);
    for (const auto& [id, pair] : keys) {
        if (!pair.has_private || with_certificate.count(id) != 0) continue;
        PKCS11::CertObject object;
        object.id = id;
        object.category = PKCS11::kKeyPairCategory;
        object.keyAlg = pair.alg;
        object.keyNotAfter = pair.not_after;
        objects.push_back(std::move(object));
    }
    return objects;
}

std::shared_ptr<Token::State> FindState(std::uint64_t id) {
    for (const std::shared_ptr<Token>& token : Listed()) {
        const std::shared_ptr<Token::State>& state = token->state();
        const std::lock_guard lock(state->mutex);
        if (state->info.id == id) return state;
    }
    return nullptr;
}

// --- Gate ---

void Gate::Pass() {
    std::unique_lock lock(mutex_);
    ++arrivals_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
}

void Gate::Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
}

bool Gate::WaitForArrivals(unsigned count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return arrivals_ >= count; });
}

// --- Controls ---

Token::Token(std::shared_ptr<State> state) : state_(std::move(state)) {}
Token::~Token() = default;

PKCS11::TokenInfo Token::Info() const {
    const std::lock_guard lock(state_->mutex);
    return state_->info;
}

void Token::EditInfo(const std::function<void(PKCS11::TokenInfo&)>& edit) {
    const std::lock_guard lock(state_->mutex);
    edit(state_->info);
}

std::string Token::AddCertificate(const std::string& der, const CertOptions& options) {
    PKCS11::CertObject object;
    object.id = options.id.empty() ? FirstBytesOfSha1(der) : options.id;
    object.value = der;
    object.category = options.category;
    object.trusted = options.trusted;
    object.keyNotAfter = options.key_not_after;
    AddObject(object);
    return object.id;
}

void Token::AddKeyPair(const std::string& id, std::shared_ptr<EVP_PKEY> key, cert_time64_t not_after) {
    KeyPair pair;
    pair.alg = KeyAlgOf(key);
    pair.spki = SpkiOf(key);
    pair.not_after = not_after;
    pair.key = std::move(key);
    const std::lock_guard lock(state_->mutex);
    state_->PutKey(id, std::move(pair));
}

void Token::AddForeignKeyPair(const std::string& id, pki_alg_t alg, const std::string& spki) {
    KeyPair pair;
    pair.alg = alg;
    pair.spki = spki;
    const std::lock_guard lock(state_->mutex);
    state_->PutKey(id, std::move(pair));
}

std::string Token::AddPersonal(const std::string& der, std::shared_ptr<EVP_PKEY> key, CertOptions options) {
    if (options.category == CertOptions().category) options.category = 1;
    const std::string id = AddCertificate(der, options);
    AddKeyPair(id, std::move(key), options.key_not_after);
    return id;
}

void Token::AddObject(const PKCS11::CertObject& object) {
    const std::lock_guard lock(state_->mutex);
    state_->certs.push_back(object);
}

void Token::AddCrl(const std::string& id, const std::string& der) {
    const std::lock_guard lock(state_->mutex);
    state_->crls.push_back({id, der});
}

void Token::AddPresharedKey(const std::string& name, const std::string& value) {
    const std::lock_guard lock(state_->mutex);
    state_->preshared.emplace_back(name, vpnfc::SecretString(std::string_view(value)));
}

void Token::Remove(const std::string& id) {
    const std::lock_guard lock(state_->mutex);
    std::erase_if(state_->certs, [&](const auto& object) { return object.id == id; });
    std::erase_if(state_->crls, [&](const auto& object) { return object.id == id; });
    state_->DropKey(id);
}

void Token::RemovePresharedKey(const std::string& name) {
    const std::lock_guard lock(state_->mutex);
    std::erase_if(state_->preshared, [&](const auto& key) { return key.first == name; });
}

std::vector<PKCS11::CertObject> Token::CertObjects() const {
    const std::lock_guard lock(state_->mutex);
    return state_->ListCerts();
}

std::vector<PKCS11::CRLObject> Token::CrlObjects() const {
    const std::lock_guard lock(state_->mutex);
    return state_->crls;
}

std::vector<std::string> Token::PresharedKeyNames() const {
    const std::lock_guard lock(state_->mutex);
    std::vector<std::string> names;
    for (const auto& key : state_->preshared) names.push_back(key.first);
    return names;
}

bool Token::HasKeyPair(const std::string& id) const {
    const std::lock_guard lock(state_->mutex);
    return state_->keys.count(id) != 0;
}

void Token::SetAlgorithms(std::set<pki_alg_t> algorithms) {
    const std::lock_guard lock(state_->mutex);
    state_->algorithms = std::move(algorithms);
}

void Token::SetKeyGeneration(std::vector<PKCS11::KeyPairGenMechanism> mechanisms, std::vector<pki_alg_t> digests) {
    const std::lock_guard lock(state_->mutex);
    state_->key_generation = {std::move(mechanisms), std::move(digests)};
}

void Token::SetSecurityOfficerPin(const std::string& pin) {
    const std::lock_guard lock(state_->mutex);
    state_->security_officer_pin = vpnfc::SecretString(std::string_view(pin));
}

void Token::Fail(Op op, unsigned times) {
    const std::lock_guard lock(state_->mutex);
    state_->At(op).failures = times;
}

void Token::Block(Op op, std::shared_ptr<Gate> gate) {
    const std::lock_guard lock(state_->mutex);
    state_->At(op).gate = std::move(gate);
}

void Token::SetPresent(bool present) {
    const std::lock_guard lock(state_->mutex);
    state_->present = present;
}

void Token::OnDigest(Digester digester) {
    const std::lock_guard lock(state_->mutex);
    state_->digester = std::move(digester);
}

void Token::OnSign(Signer signer) {
    const std::lock_guard lock(state_->mutex);
    state_->signer = std::move(signer);
}

void Token::OnVerify(Verifier verifier) {
    const std::lock_guard lock(state_->mutex);
    state_->verifier = std::move(verifier);
}

unsigned Token::Calls(Op op) const {
    const std::lock_guard lock(state_->mutex);
    return state_->At(op).calls;
}

void Token::ClearCalls() {
    const std::lock_guard lock(state_->mutex);
    for (Behaviour& behaviour : state_->ops) behaviour.calls = 0;
}

unsigned Token::OpenSessions() const {
    const std::lock_guard lock(state_->mutex);
    return state_->open_sessions;
}

std::shared_ptr<Token> AddToken(const std::string& label, const std::string& serial) {
    auto state = std::make_shared<Token::State>();
    state->info.label = label;
    state->info.serialNumber = serial;
    state->info.manufacturer = "In memory";
    state->info.model = "Test token";
    state->info.slotDescription = "Slot of " + label;
    state->info.providerName = "memory";
    state->info.holdsTrusted = true;
    state->info.id = TokenId(state->info);
    auto token = std::make_shared<Token>(std::move(state));
    const std::lock_guard lock(List().mutex);
    List().tokens.push_back(token);
    return token;
}

void RemoveToken(const Token& token) {
    {
        const std::lock_guard lock(token.state()->mutex);
        token.state()->present = false;
    }
    const std::lock_guard lock(List().mutex);
    std::erase_if(List().tokens, [&](const auto& listed) { return listed->state() == token.state(); });
}

unsigned ReloadTokensContentCalls() {
    const std::lock_guard lock(List().mutex);
    return List().reload_calls;
}

void FireInsert(const Token& token) {
    PKCS11::Callbacks.tokenInserted(token.Info());
}
void FireRemove(const Token& token) {
    PKCS11::Callbacks.tokenRemoved(token.Info());
}
void FireLogin(const Token& token, bool own_session) {
    PKCS11::Callbacks.tokenLogin(token.Info(), own_session);
}
void FireProviderInsert(const PKCS11::ProviderInfo& provider, unsigned long tokens) {
    PKCS11::Callbacks.providerInserted(provider, tokens);
}

void ResetTokens() {
    PKCS11::Callbacks.tokenInserted = nullptr;
    PKCS11::Callbacks.tokenRemoved = nullptr;
    PKCS11::Callbacks.tokenLogin = nullptr;
    PKCS11::Callbacks.providerInserted = nullptr;
    const std::lock_guard lock(List().mutex);
    List().tokens.clear();
    List().reload_calls = 0;
}

void NoteContentReload() {
    const std::lock_guard lock(List().mutex);
    ++List().reload_calls;
}

std::vector<std::shared_ptr<Token::State>> PresentStates() {
    std::vector<std::shared_ptr<Token::State>> states;
    for (const std::shared_ptr<Token>& token : Listed()) {
        const std::lock_guard lock(token->state()->mutex);
        if (token->state()->present) states.push_back(token->state());
    }
    return states;
}

}  // namespace vendor_host
