// Host libraries in memory: an implementation of include/platform/ (events, event log, parameters, tokens, bridge) as a
// vendor with their own would write it, steered by tests. Needs include/ and libcrypto alone; base and asn1 come from
// elsewhere.
//
//     vendor_host::Reset();
//     auto token = vendor_host::AddToken("card");
//     const std::string id = token->AddPersonal(leaf.der, leaf.key);
//     token->AddCertificate(root.der, {.trusted = true});
//     CM::Init();
//     CM::Reload();
//     vendor_host::FireInsert(*token);  // the module arms its reload timer
//     vendor_host::Advance(2);  // and it runs, on this thread
//     EXPECT_EQ(vendor_host::FindMessages(kMsgStoreChanged).size(), 1U);
//
// Every function may be called from any thread. State lives as long as the process, whatever the order of static
// destruction.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <platform/bridge.h>
#include <platform/eventlog.h>
#include <platform/params.h>
#include <platform/tokens.h>

#include "guarded.h"
#include "vendor_crypto.h"

namespace vendor_host {

/// Back to the state of a fresh process: no tokens, no messages, no timers (dropped without a call), manual events,
/// default parameters, no token callbacks. Call it before CM::Init, or after CM::Finit.
void Reset();

// --- Events ---

enum class EventMode : std::uint8_t {
    kManual,  // timers run in RunDue and Advance, on the caller's thread, in virtual units
    kThreaded,  // a thread of its own runs them at once
};

/// Back to manual waits for a running handler and keeps what is armed.
void SetEventMode(EventMode mode);
/// Manual mode: moves the virtual time on, running each timer at its moment. Number of handlers run.
std::size_t Advance(unsigned long units);
/// Manual mode: runs what is due now, and what that makes due.
inline std::size_t RunDue() {
    return Advance(0);
}
/// Timers and calls that are armed.
std::size_t PendingEvents();

// --- Event log ---

struct LogRecord {
    std::uint16_t code = 0;
    std::string ident;  // TLogIdent::toStr
    std::vector<std::string> attributes;

    /// The attributes, joined by a blank.
    std::string Text() const;
};

std::vector<LogRecord> Messages();
std::vector<LogRecord> FindMessages(std::uint16_t code);
/// One line "code [ident] text" a message.
std::string AllText();
/// Whether a message of that code contains the text.
bool Logged(const std::string& text, std::uint16_t code);
void ClearMessages();
/// A disabled code is neither enabled nor recorded.
void DisableMessage(std::uint16_t code);

// --- Bridge ---

struct Notification {
    std::uint32_t code = 0;
    std::string body;
};

/// What went to all clients.
std::vector<Notification> Notifications();
/// Questions asked, answered or not.
std::vector<Notification> Questions();
/// Answers questions: the function gets code, question and time-out; nullopt is "no answer". Without a function (the
/// default) no client is connected. Runs on the asking thread, no lock held.
using Answer = std::function<std::optional<std::string>(std::uint32_t code, const std::string& question, int timeout)>;
void SetAnswer(Answer answer);
/// The listener of a command group; null when there is none.
CommandListener* Listener(std::uint32_t group);

// --- Tokens ---

/// Operations of a token session, for failing, blocking and counting.
enum class Op : std::uint8_t {
    kOpenPublic,
    kOpenPrivate,
    kEnumCertificates,
    kEnumCRLs,
    kEnumPresharedKeys,
    kGetPublicKey,
    kContainPublicKey,
    kDigest,
    kSign,
    kVerify,
    kCreatePresharedKey,
    kGetPresharedKey,
    kOther,
    kCount_,
};

/// Where operations wait until a test lets them go.
class Gate {
  public:
    /// Waits for Open. Called by the token.
    void Pass() {
        ++state_->arrivals;
        while (!state_.Wait([](const State& now) { return now.open; })) continue;
    }
    /// Lets everybody through, for good.
    void Open() { state_->open = true; }
    /// Waits until that many have arrived; false after 30 seconds.
    bool WaitForArrivals(unsigned count) {
        return state_.Wait([count](const State& now) { return now.arrivals >= count; });
    }

  private:
    struct State {
        unsigned arrivals = 0;
        bool open = false;
    };
    Guarded<State> state_;
};

struct CertOptions {
    std::string id{};  // empty: made from the DER
    std::uint32_t category = 3;  // CKA_CERTIFICATE_CATEGORY: 1 token user, 2 authority, 3 other
    bool trusted = false;
    cert_time64_t key_not_after = CERT_TIME_UNKNOWN;
};

struct KeyPair {
    KeyPtr key;  // null for one known by its description alone
    pki_alg_t alg = 0;
    std::string spki;
    cert_time64_t not_after = CERT_TIME_UNKNOWN;
    bool has_private = true;
    bool has_public = true;
    bool exportable = true;
};

/// What a token holds and how it shall behave.
struct TokenState {
    struct Behaviour {
        unsigned calls = 0;
        unsigned failures = 0;  // still to come
        std::shared_ptr<Gate> gate;
    };

    PKCS11::TokenInfo info;
    bool present = true;
    /// Key algorithms (RSASSA-PSS is 2), hash codes, or whole signature algorithms; what libcrypto can do at first.
    std::set<pki_alg_t> algorithms{PKI_KEY_RSA,     PKI_KEY_RSA_PSS, PKI_KEY_DSA,     PKI_KEY_EC,
                                   PKI_KEY_ED25519, PKI_HASH_SHA1,   PKI_HASH_SHA224, PKI_HASH_SHA256,
                                   PKI_HASH_SHA384, PKI_HASH_SHA512, PKI_HASH_MD5,    PKI_HASH_NONE};
    std::vector<PKCS11::KeyPairGenMechanism> key_generation{{PKI_KEY_EC, 256, 521}};
    std::vector<pki_alg_t> key_generation_digests{PKI_HASH_SHA256};
    unsigned open_sessions = 0;
    std::vector<PKCS11::CertObject> certs;
    std::map<std::string, KeyPair> keys;  // by identifier
    std::vector<PKCS11::CRLObject> crls;
    std::map<std::string, std::string> preshared;
    std::array<Behaviour, static_cast<std::size_t>(Op::kCount_)> ops;

    Behaviour& At(Op op) { return ops[static_cast<std::size_t>(op)]; }
    /// Counts a call; the gate that it waits at, or null.
    std::shared_ptr<Gate> Count(Op op) {
        ++At(op).calls;
        return At(op).gate;
    }
    /// The result of a call that fails; null when it does not.
    const char* Trouble(Op op);
    std::optional<KeyPair> FindKey(const std::string& id) const;
    /// Adds one half of a key pair, or both, to what is there under that identifier.
    void PutKeyPart(const std::string& id, KeyPair pair);
    /// Takes a half away; false when it is not there.
    bool DropKeyPart(const std::string& id, bool KeyPair::*half);
    /// Whether the token is there and offers an algorithm, by the rule of Manager::EnumTokens (whole = false: a signature algorithm
    /// needs its key operation alone) or of Manager::IsTokenSupportMechanism.
    bool Offers(pki_alg_t alg, bool whole) const;
    /// Certificates in order, then key pairs without one.
    std::vector<PKCS11::CertObject> ListCerts() const;
};

/// A token. Keys of any kind libcrypto has; private sessions open unless EditInfo makes it one that requires a login and
/// has none.
class Token {
  public:
    explicit Token(const PKCS11::TokenInfo& info) { state_->info = info; }

    PKCS11::TokenInfo Info() const { return state_->info; }
    void EditInfo(const std::function<void(PKCS11::TokenInfo&)>& edit) { edit(state_->info); }

    // Objects. Returns identifiers.
    std::string AddCertificate(const std::string& der, const CertOptions& options = {});
    /// A key pair; the object list shows it as one without certificate until a certificate has its identifier.
    void AddKeyPair(const std::string& id, const KeyPtr& key, cert_time64_t not_after = CERT_TIME_UNKNOWN) {
        state_->keys[id] = {key, KeyAlgOf(key), SpkiOf(key), not_after};
    }
    /// Certificate (category 1 unless the options say otherwise) and key pair with one identifier.
    std::string AddPersonal(const std::string& der, const KeyPtr& key, CertOptions options = {});
    /// Any object as the enumeration shall show it, in order with the certificates.
    void AddObject(const PKCS11::CertObject& object) { state_->certs.push_back(object); }
    void AddCrl(const std::string& id, const std::string& der) { state_->crls.push_back({id, der}); }
    void AddPresharedKey(const std::string& name, const std::string& value) { state_->preshared[name] = value; }
    /// Removes what has the identifier: certificates, key pair, CRL.
    void Remove(const std::string& id);
    void RemovePresharedKey(const std::string& name) { state_->preshared.erase(name); }
    /// Objects as they are now.
    std::vector<PKCS11::CertObject> CertObjects() const { return state_->ListCerts(); }
    std::vector<PKCS11::CRLObject> CrlObjects() const { return state_->crls; }
    std::vector<std::string> PresharedKeyNames() const;

    // Behaviour.
    void SetAlgorithms(const std::set<pki_alg_t>& algorithms) { state_->algorithms = algorithms; }
    /// Which key pairs and digests it says that it makes, in place of those it can.
    void SetKeyGeneration(const std::vector<PKCS11::KeyPairGenMechanism>& made, const std::vector<pki_alg_t>& digests) {
        state_->key_generation = made;
        state_->key_generation_digests = digests;
    }
    /// The operation fails like a broken device, `times` times (default: always); 0 mends it.
    void Fail(Op op, unsigned times = ~0U) { state_->At(op).failures = times; }
    /// The operation waits at the gate; null lets it pass again.
    void Block(Op op, const std::shared_ptr<Gate>& gate) { state_->At(op).gate = gate; }
    /// The token is gone (not listed, open sessions fail), or back.
    void SetPresent(bool present) { state_->present = present; }

    // What happened.
    unsigned Calls(Op op) const { return state_->At(op).calls; }
    void ClearCalls();
    /// Sessions open now.
    unsigned OpenSessions() const { return state_->open_sessions; }

    const Guarded<TokenState>& state() const { return state_; }

  private:
    Guarded<TokenState> state_;
};

/// A token after those that are there. Calls nobody.
std::shared_ptr<Token> AddToken(const std::string& label, const std::string& serial = "0001");
/// Null for an identifier that no token ever had.
std::shared_ptr<Token> FindToken(std::uint64_t id);
/// Calls of Manager::ReloadTokensContent so far.
unsigned ReloadTokensContentCalls();

/// What the token manager's threads would report, on the caller's thread.
void FireInsert(const Token& token);
/// Fires one, and returns while the reload that follows reads the token's CRLs on a thread of its own; false when none did.
bool BeginReload(Token& token);

// --- Parts of Reset ---

void ResetEvents();
void ResetTokens();

}  // namespace vendor_host
