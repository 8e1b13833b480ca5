#include "platform/tokens/session_impl.h"

#include "certmgr/records.h"
#include "platform/tokens/login.h"
#include "platform/tokens/registry.h"

namespace PKCS11 {

using tokens::Registry;
using tokens::Result;
using tokens::Session;
using vpnfc::SecretString;

namespace {

/// The session is gone, and with it whatever the failed call was to do.
bool IsSessionGone(CK_RV rv) {
    return rv == CKR_SESSION_HANDLE_INVALID || rv == CKR_SESSION_CLOSED || rv == CKR_DEVICE_REMOVED ||
           rv == CKR_TOKEN_NOT_PRESENT;
}

struct OpenOutcome {
    Result result{};
    tokens::SessionPtr session{};
};

struct StateOutcome {
    Result result{};
    CK_SESSION_INFO info{};
};

}  // namespace

TokenSession::Impl::Impl(const TokenInfo& on_token, OpenType open_type, const std::string* pin, Logger* to)
    : token(Registry::Instance().Find(on_token.id)), type(open_type), logger(to) {
    if (token == nullptr) return;
    if (const Result result = OpenSession(); !result.ok()) {
        Report(result);
        return;
    }
    if (type == kPublic) {
        if (pin != nullptr) officer_pin = SecretString(std::string_view(*pin));
        return;
    }
    if (!EnsureLogin(pin)) {
        login_failed = true;
        token->GiveBack(std::exchange(session, nullptr));
    }
}

TokenSession::Impl::~Impl() {
    if (session != nullptr) token->GiveBack(std::move(session));
}

/// Takes a session that is not in use, or opens one.
Result TokenSession::Impl::OpenSession() {
    session = token->TakeIdle();
    if (session != nullptr) return {};
    const auto outcome = token->link()->runner().Run([on = token]() -> OpenOutcome {
        OpenOutcome opened;
        const tokens::ModuleLink::Entry entry = on->link()->Enter();
        opened.result = entry ? on->Open(opened.session) : Result{"C_OpenSession", tokens::kRvNoAnswer};
        return opened;
    });
    if (!outcome.has_value()) return {"C_OpenSession", tokens::kRvNoAnswer};
    session = outcome->session;
    return outcome->result;
}

/// After trouble: the session may be in the middle of an operation that the token did not end.
void TokenSession::Impl::Renew() {
    if (std::exchange(session, nullptr) != nullptr) OpenSession();
}

bool TokenSession::Impl::EnsureLogin(const std::string* pin) {
    if (!token->login_required() && pin == nullptr) return true;
    if (token->login_state() == tokens::LoginState::kUser) return true;
    if (pin != nullptr) return LogIn(SecretString(std::string_view(*pin)));
    SecretString from_file;
    if (Registry::Instance().FindPin(token->Info(), from_file)) return LogIn(from_file);
    return IsLoggedIn();
}

bool TokenSession::Impl::LogIn(const SecretString& pin) {
    if (pin.empty() || tokens::LoginUser(token, pin, tokens::FewTries::kRefuse) != tokens::PinResult::kDone) {
        return false;
    }
    Registry::Instance().Publish();
    if (const auto monitor = Registry::Instance().MonitorOf(*token)) monitor->ReportLogin(token, true);
    return true;
}

/// Somebody else in the process may have logged in since the token was last looked at.
bool TokenSession::Impl::IsLoggedIn() {
    const StateOutcome outcome = Perform(Where::kWorker, [](Session& on) {
        StateOutcome state;
        state.result = on.api().GetSessionInfo(on.handle(), state.info);
        return state;
    });
    if (!outcome.result.ok() || !tokens::IsUserState(outcome.info.state)) return false;
    token->link()->LookAgain();
    return true;
}

/// Has the monitor find out what became of the token.
bool TokenSession::Impl::LookNow() const {
    const auto monitor = Registry::Instance().MonitorOf(*token);
    return monitor != nullptr && monitor->WaitForLook(token->link()->runner().limit());
}

/// Replaces a session that is gone, or a login. False when the trouble is another, or nothing can be done about it.
bool TokenSession::Impl::Recover(const Result& result) {
    if (session == nullptr) return false;
    if (result.rv == CKR_USER_NOT_LOGGED_IN && type == kPrivate) {
        return LookNow() && EnsureLogin(nullptr);
    }
    if (!IsSessionGone(result.rv)) return false;
    session = nullptr;
    Changed();
    // The other idle sessions of the token went the same way.
    while (token->TakeIdle() != nullptr) {
    }
    if (!LookNow()) return false;
    if (const tokens::TokenPtr now = Registry::Instance().Find(token->id()); now != nullptr) token = now;
    if (token->removed() || !OpenSession().ok()) return false;
    return type == kPublic || EnsureLogin(nullptr);
}

bool TokenSession::Impl::Report(const Result& result) const {
    if (logger != nullptr) {
        logger->OnDeviceError(token->Info(), result.function, tokens::RvName(result.rv));
    } else {
        tokens::LogTrouble(token->Info(), result);
    }
    return false;
}

void TokenSession::Impl::LogRefusal(const std::string& why) const {
    tokens::Log(kMsgTokenError, tokens::Describe(token->Info()) + ": " + why);
}

tokens::ObjectListingPtr TokenSession::Impl::List(Kind kind) {
    if (listing != nullptr && (listed_kinds & kind) == 0) {
        listed_kinds |= kind;
        return listing;
    }
    const tokens::ListingOutcome outcome = Perform(
        Where::kWorker, [known = token->KnownClasses()](Session& on) { return tokens::ListObjects(on, known); });
    listing = outcome.listing;
    listed_kinds = kind;
    public_keys = nullptr;
    if (listing != nullptr) token->RememberClasses(listing->classes);
    return listing;
}

std::shared_ptr<const tokens::PublicKeyIndex> TokenSession::Impl::PublicKeys() {
    for (bool again = false; session != nullptr && public_keys == nullptr; again = true) {
        const tokens::ObjectListingPtr listed = List(kPublicKeys);
        if (listed == nullptr) break;
        const tokens::IndexOutcome outcome =
            Perform(Where::kWorker, [listed](Session& on) { return tokens::IndexPublicKeys(on, *listed); });
        if (!outcome.stale || again) {
            public_keys = outcome.index;
            break;
        }
        ForgetListing();
    }
    look_up_failed = public_keys == nullptr;
    return public_keys;
}

void TokenSession::Impl::Changed() {
    listing = nullptr;
    listed_kinds = 0;
    public_keys = nullptr;
}

void TokenSession::Impl::ForgetListing() {
    Changed();
    token->RememberClasses(nullptr);
}

bool TokenSession::Impl::Create(const std::function<tokens::CreateOutcome(Session&)>& work, unsigned patience) {
    const tokens::CreateOutcome outcome = Perform(Where::kWorker, work, patience);
    officer_required = outcome.officer_required;
    Changed();
    if (!outcome.refusal.empty()) LogRefusal(outcome.refusal);
    return outcome.created;
}

bool TokenSession::Impl::CreateTrusted(const std::function<tokens::CreateOutcome(Session&)>& work) {
    if (officer_pin.empty()) return Create(work);
    tokens::PinResult pin_result = tokens::PinResult::kFailed;
    const tokens::CreateOutcome outcome = tokens::RunAsSecurityOfficer(token, officer_pin, work, pin_result);
    officer_required = outcome.officer_required || pin_result != tokens::PinResult::kDone;
    Changed();
    return outcome.result.ok() ? outcome.created : Report(outcome.result);
}

bool TokenSession::Impl::Delete(const std::function<tokens::DeleteOutcome(Session&)>& work) {
    const tokens::DeleteOutcome outcome = Perform(Where::kWorker, work);
    Changed();
    token->ForgetPrivateKeys();
    return outcome.deleted;
}

/// A key that another certificate on the token needs stays.
bool TokenSession::Impl::DeleteKey(CK_OBJECT_CLASS key_class, const CertInfo& info) {
    if (info.id.empty()) return false;
    return Delete([key_class, id = info.id](Session& on) -> tokens::DeleteOutcome {
        const tokens::CertificatesOutcome certificates = tokens::FindCertificates(on, id);
        if (!certificates.result.ok() || !certificates.certificates.empty()) return {certificates.result};
        return tokens::Delete(on, tokens::FindById(on, key_class, id));
    });
}

}  // namespace PKCS11
