// What stands behind a PKCS11::TokenSession.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <shared_mutex>
#include <string>
#include <type_traits>

#include "platform/tokens.h"
#include "platform/tokens/object_writer.h"
#include "platform/tokens/objects.h"
#include "platform/tokens/operations.h"
#include "platform/tokens/token.h"

namespace PKCS11 {

/// Where an operation runs. What only computes in memory runs on the calling thread; everything else on a worker, where
/// a call that does not return can be left behind.
enum class Where : bool { kWorker, kHere };

struct TokenSession::Impl {
    Impl(const TokenInfo& info, OpenType type, const std::string* pin, Logger* logger);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    /// Runs `work(session)`, which returns a structure with a `result`, and reports that result when it is trouble. A
    /// session that turns out to be gone is replaced and the work done once more: its first call did nothing then.
    /// `work` owns everything it touches.
    template <typename Work>
    auto Perform(Where where, Work work, unsigned patience = 1) -> std::invoke_result_t<Work&, tokens::Session&> {
        using Outcome = std::invoke_result_t<Work&, tokens::Session&>;
        for (bool again = false;; again = true) {
            Outcome outcome = where == Where::kHere ? Here<Outcome>(work) : OnWorker<Outcome>(work, patience);
            if (outcome.result.ok() || (!again && Recover(outcome.result))) {
                if (outcome.result.ok()) return outcome;
                continue;
            }
            Report(outcome.result);
            Renew();
            return outcome;
        }
    }

    /// The objects on the token. One listing serves each kind once: asking for a kind again lists anew.
    enum Kind : unsigned { kCertificates = 1, kCrls = 2, kPresharedKeys = 4, kPublicKeys = 8 };
    tokens::ObjectListingPtr List(Kind kind);
    /// Null, and look_up_failed set, when the token does not show them.
    std::shared_ptr<const tokens::PublicKeyIndex> PublicKeys();
    /// After this session changed the token's objects.
    void Changed();

    /// Appends what `read(session, listing)` finds.
    template <typename Object, typename Read>
    bool Enumerate(Kind kind, std::list<Object>& objects, Read read) {
        for (bool again = false;; again = true) {
            const tokens::ObjectListingPtr listed = List(kind);
            if (listed == nullptr) return false;
            tokens::ObjectsOutcome<Object> outcome =
                Perform(Where::kWorker, [listed, read](tokens::Session& on) { return read(on, *listed); });
            if (outcome.stale && !again) {
                ForgetListing();
                continue;
            }
            objects.splice(objects.end(), outcome.objects);
            return outcome.result.ok();
        }
    }

    bool Create(const std::function<tokens::CreateOutcome(tokens::Session&)>& work, unsigned patience = 1);
    /// As the security officer when their PIN was given.
    bool CreateTrusted(const std::function<tokens::CreateOutcome(tokens::Session&)>& work);
    bool Delete(const std::function<tokens::DeleteOutcome(tokens::Session&)>& work);
    bool DeleteKey(CK_OBJECT_CLASS key_class, const CertInfo& info);
    /// Tells the logger or the event log. Always false.
    bool Report(const tokens::Result& result) const;
    /// Says in the event log why the token was not asked.
    void LogRefusal(const std::string& why) const;

    tokens::TokenPtr token;  // null: it was not there
    tokens::SessionPtr session;
    OpenType type;
    Logger* logger;
    vpnfc::SecretString officer_pin;
    bool login_failed = false;
    bool officer_required = false;
    bool look_up_failed = false;
    tokens::ObjectListingPtr listing;
    unsigned listed_kinds = 0;
    std::shared_ptr<const tokens::PublicKeyIndex> public_keys;

  private:
    void ForgetListing();
    tokens::Result OpenSession();
    void Renew();
    bool EnsureLogin(const std::string* pin);
    bool LogIn(const vpnfc::SecretString& pin);
    bool IsLoggedIn();
    bool LookNow() const;
    bool Recover(const tokens::Result& result);

    template <typename Outcome, typename Work>
    Outcome Here(Work& work) {
        if (session == nullptr) return NoAnswer<Outcome>();
        const tokens::ModuleLink::Entry entry = token->link()->EnterHere();
        return entry ? work(*session) : NoAnswer<Outcome>();
    }

    template <typename Outcome, typename Work>
    Outcome OnWorker(const Work& work, unsigned patience) {
        const std::shared_lock login(token->login_lock(), token->link()->runner().limit());
        if (session == nullptr || !login.owns_lock()) return NoAnswer<Outcome>();
        auto outcome = token->link()->runner().Run(
            [own = session, on = token, work]() mutable -> Outcome {
                const tokens::ModuleLink::Entry entry = on->link()->Enter();
                return entry ? work(*own) : NoAnswer<Outcome>();
            },
            patience);
        if (outcome.has_value()) return std::move(*outcome);
        session = nullptr;  // it belongs to the call that did not return
        return NoAnswer<Outcome>();
    }

    template <typename Outcome>
    static Outcome NoAnswer() {
        Outcome outcome;
        outcome.result = {"the module", tokens::kRvNoAnswer};
        return outcome;
    }
};

}  // namespace PKCS11
