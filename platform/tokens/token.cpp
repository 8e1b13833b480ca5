#include "platform/tokens/token.h"

#include "platform/asn1.h"
#include "platform/eventlog.h"

namespace tokens {
namespace {

/// Sessions kept open and unused. Tokens allow few; the ones in use are as many as there are threads at work.
constexpr std::size_t kMaxIdleSessions = 16;
/// Handles of private keys remembered of one token.
constexpr std::size_t kMaxPrivateKeys = 10000;

std::string KeyName(pki_alg_t alg, const std::string& id) {
    return std::to_string(alg & PKI_KEY_MASK) + ":" + id;
}

}  // namespace

Token::Token(ModuleLinkPtr link, CK_SLOT_ID slot, PKCS11::TokenInfo info, MechanismList mechanisms)
    : link_(std::move(link)),
      slot_(slot),
      id_(info.id),
      mechanisms_(std::move(mechanisms)),
      read_write_(!info.writeProtected),
      login_required_(info.loginRequired),
      info_(std::move(info)) {}

PKCS11::TokenInfo Token::Info() const {
    const std::lock_guard lock(mutex_);
    PKCS11::TokenInfo info = info_;
    info.loggedIn = login_state_ == LoginState::kUser;
    return info;
}

bool Token::Update(const PKCS11::TokenInfo& info) {
    const std::lock_guard lock(mutex_);
    if (info_.pinPad == info.pinPad && info_.holdsTrusted == info.holdsTrusted) return false;
    info_.pinPad = info.pinPad;
    info_.holdsTrusted = info.holdsTrusted;
    return true;
}

void Token::MarkRemoved() {
    std::vector<SessionPtr> idle;
    SessionPtr watching;
    {
        const std::lock_guard lock(mutex_);
        removed_ = true;
        idle.swap(idle_);
        watching.swap(watch_session_);
    }
    ForgetContent();
}

SessionPtr Token::TakeIdle() {
    const std::lock_guard lock(mutex_);
    if (idle_.empty()) return nullptr;
    SessionPtr session = std::move(idle_.back());
    idle_.pop_back();
    return session;
}

Result Token::Open(SessionPtr& session) const {
    if (removed_) return {"C_OpenSession", CKR_DEVICE_REMOVED};
    Result result = Session::Open(link_, slot_, read_write_, session);
    if (result.rv == CKR_TOKEN_WRITE_PROTECTED) result = Session::Open(link_, slot_, false, session);
    return result;
}

void Token::GiveBack(SessionPtr session) {
    const std::lock_guard lock(mutex_);
    if (!removed_ && idle_.size() < kMaxIdleSessions) idle_.push_back(std::move(session));
}

SessionPtr Token::watch_session() const {
    const std::lock_guard lock(mutex_);
    return watch_session_;
}

void Token::SetWatchSession(SessionPtr session) {
    const std::lock_guard lock(mutex_);
    if (!removed_) watch_session_.swap(session);
}

std::optional<CK_OBJECT_HANDLE> Token::PrivateKeyHandle(pki_alg_t alg, const std::string& id) const {
    const std::lock_guard lock(mutex_);
    const auto found = private_keys_.find(KeyName(alg, id));
    return found == private_keys_.end() ? std::nullopt : std::optional(found->second);
}

void Token::RememberPrivateKey(pki_alg_t alg, const std::string& id, CK_OBJECT_HANDLE handle) {
    const std::lock_guard lock(mutex_);
    if (private_keys_.size() >= kMaxPrivateKeys) private_keys_.clear();
    private_keys_[KeyName(alg, id)] = handle;
}

std::shared_ptr<const ObjectClasses> Token::KnownClasses() const {
    const std::lock_guard lock(mutex_);
    return classes_;
}

void Token::RememberClasses(std::shared_ptr<const ObjectClasses> classes) {
    const std::lock_guard lock(mutex_);
    classes_ = std::move(classes);
}

void Token::ForgetPrivateKeys() {
    const std::lock_guard lock(mutex_);
    private_keys_.clear();
}

void Token::ForgetContent() {
    const std::lock_guard lock(mutex_);
    private_keys_.clear();
    classes_ = nullptr;
}

void Token::SetLoginState(LoginState state) {
    ++login_changes_;
    if (login_state_.exchange(state) == LoginState::kUser && state != LoginState::kUser) ForgetContent();
}

bool Token::ObserveLoginState(LoginState state, unsigned changes_before) {
    if (login_changes_ != changes_before || login_state_ == state) return false;
    SetLoginState(state);
    return true;
}

bool Token::TakeInsertionLogin(unsigned settings_generation) {
    return insertion_login_.exchange(settings_generation) != settings_generation;
}

std::string Describe(const PKCS11::TokenInfo& info) {
    return "\"" + asn_text_to_printable(info.label) + "\" (serial " + asn_text_to_printable(info.serialNumber) +
           ", provider " + info.providerName + ")";
}

void Log(EventCode code, const std::string& text) {
    TLogMessage(code).Attr(text).Send();
}

void LogTrouble(const PKCS11::TokenInfo& info, const Result& result) {
    Log(kMsgTokenError, Describe(info) + ": " + result.function + " failed: " + RvName(result.rv));
}

}  // namespace tokens
