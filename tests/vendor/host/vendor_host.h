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

#include <openssl/evp.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <platform/bridge.h>
#include <platform/eventlog.h>
#include <platform/params.h>
#include <platform/tokens.h>

namespace vendor_host {

/// Back to the state of a fresh process: no tokens, no messages, no timers (dropped without a call), manual events,
/// default parameters, no token callbacks. Call it before CM::Init, or after CM::Finit.
void Reset();

// --- Events ---

enum class EventMode : std::uint8_t {
    kManual,  // timers run in RunDue and Advance, on the caller's thread, in virtual units
    kThreaded,  // a thread of its own; one unit is one millisecond
};

/// Back to manual waits for a running handler and keeps what is armed.
void SetEventMode(EventMode mode);
/// Manual mode: runs what is due now, and what that makes due. Number of handlers run.
std::size_t RunDue();
/// Manual mode: moves the virtual time on, running each timer at its moment. Number of handlers run.
std::size_t Advance(unsigned long units);
/// Timers and calls that are armed.
std::size_t PendingEvents();
/// Waits until nothing is armed and no handler runs (threaded mode); false after 30 seconds.
bool WaitEventsIdle();

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
/// Whether a message (of that code, or of any: 0) contains the text.
bool Logged(const std::string& text, std::uint16_t code = 0);
void ClearMessages();
/// A disabled code is neither enabled nor recorded.
void SetMessageEnabled(std::uint16_t code, bool enabled);

// --- Bridge ---

struct Notification {
    std::uint32_t code = 0;
    std::string body;
};

/// What went to all clients.
std::vector<Notification> Notifications();
std::size_t NotificationCount(std::uint32_t code);
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
    kVerifyDecrypt,
    kSeedRandom,
    kGenerateKeyPair,
    kCreateCertificate,
    kCreatePrivateKey,
    kCreatePublicKey,
    kCreateCRL,
    kCreatePresharedKey,
    kDeleteCertificate,
    kDeletePrivateKey,
    kDeletePublicKey,
    kDeleteCRL,
    kDeletePresharedKey,
    kGetPresharedKey,
    kExportPrivateKey,
    kCount_,
};

/// Where operations wait until a test lets them go.
class Gate {
  public:
    /// Waits for Open. Called by the token.
    void Pass();
    /// Lets everybody through, for good.
    void Open();
    /// Waits until that many have arrived; false after 30 seconds.
    bool WaitForArrivals(unsigned count);

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned arrivals_ = 0;
    bool open_ = false;
};

struct CertOptions {
    std::string id{};  // empty: the first 8 bytes of the DER's SHA-1
    std::uint32_t category = 3;  // CKA_CERTIFICATE_CATEGORY: 1 token user, 2 authority, 3 other
    bool trusted = false;
    cert_time64_t key_not_after = CERT_TIME_UNKNOWN;
};

/// A token. Keys of any kind libcrypto has; everything is offered until SetAlgorithms says otherwise; private
/// sessions open unless EditInfo makes it one that requires a login and has none.
class Token {
  public:
    struct State;
    explicit Token(std::shared_ptr<State> state);
    ~Token();
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

    PKCS11::TokenInfo Info() const;
    void EditInfo(const std::function<void(PKCS11::TokenInfo&)>& edit);

    // Objects. Returns identifiers.
    std::string AddCertificate(const std::string& der, const CertOptions& options = {});
    /// A key pair; the object list shows it as one without certificate until a certificate has its identifier.
    void AddKeyPair(const std::string& id, std::shared_ptr<EVP_PKEY> key, cert_time64_t not_after = CERT_TIME_UNKNOWN);
    /// A key pair known by its description alone (an algorithm libcrypto lacks); OnSign signs for it.
    void AddForeignKeyPair(const std::string& id, pki_alg_t alg, const std::string& spki);
    /// Certificate (category 1 unless the options say otherwise) and key pair with one identifier.
    std::string AddPersonal(const std::string& der, std::shared_ptr<EVP_PKEY> key, CertOptions options = {});
    /// Any object as the enumeration shall show it, in order with the certificates.
    void AddObject(const PKCS11::CertObject& object);
    void AddCrl(const std::string& id, const std::string& der);
    void AddPresharedKey(const std::string& name, const std::string& value);
    /// Removes what has the identifier: certificates, key pair, CRL.
    void Remove(const std::string& id);
    void RemovePresharedKey(const std::string& name);
    /// Objects as they are now.
    std::vector<PKCS11::CertObject> CertObjects() const;
    std::vector<PKCS11::CRLObject> CrlObjects() const;
    std::vector<std::string> PresharedKeyNames() const;
    bool HasKeyPair(const std::string& id) const;

    // Behaviour.
    /// What the token offers: key algorithms (RSASSA-PSS is 2), hash codes, or whole signature algorithms.
    void SetAlgorithms(std::set<pki_alg_t> algorithms);
    /// Which key pairs and digests it says that it makes, in place of those it can.
    void SetKeyGeneration(std::vector<PKCS11::KeyPairGenMechanism> mechanisms, std::vector<pki_alg_t> digests);
    /// Trusted certificates may be created by the security officer alone.
    void SetSecurityOfficerPin(const std::string& pin);
    /// The operation fails like a broken device, `times` times (default: always); 0 mends it.
    void Fail(Op op, unsigned times = ~0U);
    /// The operation waits at the gate; null lets it pass again.
    void Block(Op op, std::shared_ptr<Gate> gate);
    /// The token is gone (not listed, open sessions fail), or back.
    void SetPresent(bool present);
    /// In place of libcrypto.
    using Digester = std::function<std::optional<std::string>(pki_alg_t alg, const std::string& data)>;
    using Signer =
        std::function<std::optional<std::string>(pki_alg_t alg, const std::string& id, const std::string& digest)>;
    using Verifier = std::function<bool(pki_alg_t alg, const std::string& spki, const std::string& digest,
                                        const std::string& signature)>;
    void OnDigest(Digester digester);
    void OnSign(Signer signer);
    void OnVerify(Verifier verifier);

    // What happened.
    unsigned Calls(Op op) const;
    void ClearCalls();
    /// Sessions open now.
    unsigned OpenSessions() const;

    const std::shared_ptr<State>& state() const { return state_; }

  private:
    std::shared_ptr<State> state_;
};

/// A token after those that are there. Its TokenInfo::id is made from the label and the serial number. Calls nobody.
std::shared_ptr<Token> AddToken(const std::string& label, const std::string& serial = "0001");
/// Takes the token out of the list for good. Calls nobody.
void RemoveToken(const Token& token);
/// Calls of Manager::ReloadTokensContent so far.
unsigned ReloadTokensContentCalls();

// What the token manager's threads would report, on the caller's thread.
void FireInsert(const Token& token);
void FireRemove(const Token& token);
void FireLogin(const Token& token, bool own_session);
void FireProviderInsert(const PKCS11::ProviderInfo& provider, unsigned long tokens);

}  // namespace vendor_host
