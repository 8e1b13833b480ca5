#include "platform/tokens/session.h"

#include "platform/tokens/attributes.h"
#include "platform/tokens/key_codec.h"

namespace tokens {
namespace {

/// Public keys kept in a session: the issuers that a host verifies with, and its latest peers. Making and destroying one
/// costs time, and in some modules memory that never comes back.
constexpr std::size_t kMaxPublicKeys = 64;

}  // namespace

Result Session::Open(const ModuleLinkPtr& link, CK_SLOT_ID slot, bool read_write, SessionPtr& session) {
    CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (read_write ? CKF_RW_SESSION : 0);
    const Result result = link->api().OpenSession(slot, flags, handle);
    if (result.ok()) session = SessionPtr(new Session(link, handle), End);
    return result;
}

/// Closing may hang. A runner that is closing does not take it any more; then nobody gets into the module anyway.
void Session::End(Session* session) {
    std::shared_ptr<Session> owned(session);
    const ModuleLinkPtr link = session->link_;
    if (!link->runner().OnWorker()) link->runner().Post([owned = std::move(owned)] {});
}

Session::~Session() {
    if (const ModuleLink::Entry entry = link_->Enter()) api().CloseSession(handle_);
}

Result Session::ImportPublicKey(const std::string& spki, const PublicKeyObject*& key) {
    if (const auto found = by_spki_.find(spki); found != by_spki_.end()) {
        keys_.splice(keys_.begin(), keys_, found->second);
        key = &keys_.front();
        return {};
    }
    key = nullptr;
    PublicKey parsed;
    if (!PublicKeyFromSpki(spki, parsed)) return {};

    AttributeTemplate attributes;
    attributes.Number(CKA_CLASS, CKO_PUBLIC_KEY).Number(CKA_KEY_TYPE, parsed.type);
    attributes.Flag(CKA_TOKEN, false).Flag(CKA_PRIVATE, false).Flag(CKA_VERIFY, true);
    if (parsed.type == CKK_RSA) attributes.Flag(CKA_ENCRYPT, true);
    const auto types = PublicComponents(parsed.type);
    for (std::size_t i = 0; i < types.size(); ++i) attributes.Bytes(types[i], parsed.components[i]);
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    const Result result = api().CreateObject(handle_, attributes.view(), handle);
    if (!result.ok()) return result;

    while (keys_.size() >= kMaxPublicKeys) Drop(std::prev(keys_.end()));
    keys_.push_front({spki, handle, parsed.alg, parsed.size});
    by_spki_.emplace(keys_.front().spki, keys_.begin());
    key = &keys_.front();
    return result;
}

void Session::ForgetPublicKey(const std::string& spki) {
    if (const auto found = by_spki_.find(spki); found != by_spki_.end()) Drop(found->second);
}

void Session::Drop(Keys::iterator key) {
    api().DestroyObject(handle_, key->handle);
    by_spki_.erase(key->spki);
    keys_.erase(key);
}

}  // namespace tokens
