// An open session on a token.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/asn1.h"
#include "platform/tokens/module.h"

namespace tokens {

/// A public key that stands in the token as an object of this session.
struct PublicKeyObject {
    std::string spki;
    CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
    pki_alg_t alg = 0;
    std::size_t size = 0;  // as PublicKey::size
};

/// Used by one thread at a time; every use is inside the module: see ModuleLink::Enter. Whichever thread drops it, it is
/// closed by a worker.
class Session {
  public:
    /// Inside the module.
    static Result Open(const ModuleLinkPtr& link, CK_SLOT_ID slot, bool read_write, std::shared_ptr<Session>& session);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const Api& api() const { return link_->api(); }
    CK_SESSION_HANDLE handle() const { return handle_; }

    /// The object of a public key, made when the session does not have it yet; a bounded number of them is kept. Null
    /// with a successful result: not a public key that is understood. Valid until the next call.
    Result ImportPublicKey(const std::string& spki, const PublicKeyObject*& key);
    /// Drops the object, which the token may have lost.
    void ForgetPublicKey(const std::string& spki);

  private:
    using Keys = std::list<PublicKeyObject>;  // last used first

    Session(ModuleLinkPtr link, CK_SESSION_HANDLE handle) : link_(std::move(link)), handle_(handle) {}
    void Drop(Keys::iterator key);
    static void End(Session* session);

    ModuleLinkPtr link_;
    CK_SESSION_HANDLE handle_;
    Keys keys_;
    std::unordered_map<std::string_view, Keys::iterator> by_spki_;
};
using SessionPtr = std::shared_ptr<Session>;

}  // namespace tokens
