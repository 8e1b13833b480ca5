#include "certmgr/discarded_keys.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <deque>
#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/base.h"

namespace CM {

namespace {

/// What may be left of a key pair; its identifiers are never used again.
struct Remains {
    std::uint64_t token = 0;
    CertInfo certificate{};  // at least the identifier, which the keys have, too
    bool has_certificate = false;
    bool has_private_key = true;
    bool has_public_key = true;
    std::time_t since = vpnfc::CurrentTime();
    std::time_t next_try = 0;

    bool Gone() const { return !has_certificate && !has_private_key && !has_public_key; }
};

/// A deletion that fails does not say whether nothing was there. A call whose answer was lost may write late, but not that
/// late: from then on something that is there resists, and is tried now and then alone.
constexpr std::time_t kLongestCall = std::time_t{10} * 60;
constexpr std::time_t kRetryInterval = std::time_t{60} * 60;

class Discarded {
  public:
    void Add(Remains remains) {
        const std::lock_guard lock(mutex_);
        if (all_.size() == kMost) all_.pop_front();
        all_.push_back(std::move(remains));
    }
    std::vector<Remains> TakeDue(std::uint64_t token, std::time_t now) {
        const std::lock_guard lock(mutex_);
        const auto first = std::stable_partition(all_.begin(), all_.end(), [&](const Remains& remains) {
            return remains.token != token || now < remains.next_try;
        });
        std::vector<Remains> taken(std::make_move_iterator(first), std::make_move_iterator(all_.end()));
        all_.erase(first, all_.end());
        return taken;
    }

  private:
    /// The oldest gives way: many failures leave nothing behind.
    static constexpr std::size_t kMost = 256;

    std::mutex mutex_;
    std::deque<Remains> all_;
};

Discarded& DiscardedKeys() {
    static Discarded keys;
    return keys;
}

void Delete(PKCS11::TokenSession& session, Remains& remains) {
    const std::string& id = remains.certificate.id;
    if (remains.has_certificate && session.DeleteCertObject(remains.certificate)) remains.has_certificate = false;
    if (remains.has_private_key && session.DeletePrivKeyObject(id)) remains.has_private_key = false;
    if (remains.has_public_key && session.DeletePubKeyObject(id)) remains.has_public_key = false;
}

}  // namespace

void DiscardKeyPair(const PKCS11::TokenInfo& token, PKCS11::TokenSession& session, const std::string& id,
                    const CertInfo* certificate) {
    Remains remains{.token = token.id, .has_certificate = certificate != nullptr};
    if (certificate != nullptr) remains.certificate = *certificate;
    remains.certificate.id = id;
    Delete(session, remains);
    if (!remains.Gone()) DiscardedKeys().Add(std::move(remains));
}

void DeleteDiscarded(const PKCS11::TokenInfo& token, PKCS11::TokenSession& session) {
    if (token.loginRequired && !token.loggedIn) return;
    const std::time_t now = vpnfc::CurrentTime();
    std::vector<Remains> all = DiscardedKeys().TakeDue(token.id, now);
    if (all.empty()) return;
    for (Remains& remains : all) {
        Delete(session, remains);
        if (remains.Gone()) continue;
        if (now - remains.since > kLongestCall) remains.next_try = now + kRetryInterval;
        DiscardedKeys().Add(std::move(remains));
    }
}

void PrepareDiscardedKeys() {
    DiscardedKeys();
}

}  // namespace CM
