#include "certmgr/discarded_keys.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

namespace CM {

namespace {

/// Key pairs to delete when they are met: token and object identifiers, which are never used again.
class Discarded {
  public:
    using Key = std::pair<std::uint64_t, std::string>;

    void Add(Key key) {
        const std::lock_guard lock(mutex_);
        if (keys_.size() == kMost) keys_.pop_front();
        keys_.push_back(std::move(key));
    }
    void Remove(const Key& key) {
        const std::lock_guard lock(mutex_);
        keys_.erase(std::remove(keys_.begin(), keys_.end(), key), keys_.end());
    }
    bool Has(const Key& key) const {
        const std::lock_guard lock(mutex_);
        return std::find(keys_.begin(), keys_.end(), key) != keys_.end();
    }

  private:
    /// Most failures leave nothing behind and their entry stays: the oldest gives way.
    static constexpr std::size_t kMost = 256;

    mutable std::mutex mutex_;
    std::deque<Key> keys_;
};

Discarded& DiscardedKeys() {
    static Discarded keys;
    return keys;
}

/// Whether both halves were there and are gone.
bool DeleteKeyPair(PKCS11::TokenSession& session, const std::string& id) {
    const bool private_key = session.DeletePrivKeyObject(id);
    const bool public_key = session.DeletePubKeyObject(id);
    return private_key && public_key;
}

}  // namespace

void DiscardKeyPair(const PKCS11::TokenInfo& token, PKCS11::TokenSession& session, const std::string& id) {
    if (!DeleteKeyPair(session, id)) DiscardedKeys().Add({token.id, id});
}

bool DeleteIfDiscarded(const PKCS11::TokenInfo& token, const PKCS11::CertObject& object) {
    if (object.category != PKCS11::kKeyPairCategory || !DiscardedKeys().Has({token.id, object.id})) return false;
    PKCS11::TokenSession session(token, PKCS11::TokenSession::kPrivate);
    if (!session || !session.DeletePrivKeyObject(object.id)) return false;
    session.DeletePubKeyObject(object.id);
    DiscardedKeys().Remove({token.id, object.id});
    return true;
}

}  // namespace CM
