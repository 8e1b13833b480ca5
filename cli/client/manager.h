// What the daemon offers to those who manage certificates: one function for each command, in the shared records.
//
//     bridge::Client client;
//     client.Connect(...);
//     certmgr_client::Manager manager(client);
//     const auto listed = manager.ListCertificates(certmgr_client::CertSelector::kPersonal);
//     if (!listed) return Complain(manager.failure());
//
// Functions give nothing, or false, when the command did not reach its end: failure() says why. How a command ended at
// the daemon is in what it gives. Used by the thread that uses the client. No function throws.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "certmgr/records.h"
#include "platform/base.h"
#include "platform/bridge_client.h"
#include "platform/token_commands.h"
#include "platform/tokens.h"

namespace certmgr_client {

using PKCS11::TokenInfo;

/// The lists of the store.
enum class CertSelector : std::uint32_t {
    kPersonal = 0,  // with the key pairs that have no certificate (kind 5)
    kTrusted = 1,
    kIntermediate = 2,  // CAs that are not trusted
    kOther = 3,
};

struct ListedCert {
    TokenInfo token;
    CertInfo info;
};

struct ListedCrl {
    TokenInfo token;
    CRLInfo info;
    bool downloaded = false;  // from the cache of downloaded CRLs, not from the token
};

struct ListedKey {
    TokenInfo token;
    std::string name;
};

/// What a file holds. `status` other than 0: nothing; 2: wrong password of a PKCS #12 file, else not readable.
struct FileContent {
    std::uint32_t status = 0;
    std::vector<TokenInfo> tokens;
    std::vector<CertImportOption> certs;  // their `tokens` are positions in the list above
    std::vector<CRLInfo> crls;
};

struct ImportOptions {
    std::uint32_t mode = kImportOther;  // CertImportMode
    bool exportable = false;  // a private key may leave the token again
    const vpnfc::SecretString* pin = nullptr;  // null: none; for a trusted import the security officer's
};

struct ExportOptions {
    std::uint32_t format = kExportPem;  // CertExportFormat
    const vpnfc::SecretString* password = nullptr;  // of PKCS #12; null: empty
    bool with_chain = false;
    bool with_private_key = false;
};

/// A result code and, on success, bytes. The bytes may be secret: they are wiped.
struct Produced {
    std::uint32_t result = 0;
    vpnfc::SecretString bytes;
};

struct Chain {
    bool found = false;  // the certificate was in the store; else nothing else is set
    std::uint32_t result = 0;  // ChainBuildResult: 3 and 4 end in trust
    std::vector<ListedCert> members;  // leaf first
};

struct Details {
    bool found = false;  // likewise
    CertInfo info;
    CertExtentions ext;
    std::string public_key;  // SubjectPublicKeyInfo, DER
};

struct Verdict {
    bool good = false;
    std::string text;  // why not
};

/// How a command with a PIN ended.
struct PinReply {
    std::uint32_t status = 0;  // PKCS11::PinStatus
    std::string text;  // for people
};

struct InitReply {
    bool done = false;
    std::string text;  // why not
    TokenInfo token;
};

class Manager {
  public:
    using Milliseconds = bridge::Client::Milliseconds;

    /// The client is borrowed. `timeout` is for each command; generating a key and reloading take long.
    explicit Manager(bridge::Client& client, Milliseconds timeout = bridge::Client::kForever)
        : client_(client), timeout_(timeout) {}

    const bridge::ClientFailure& failure() const { return failure_; }

    // --- Certificates ---

    std::optional<std::vector<ListedCert>> ListCertificates(CertSelector selector);
    std::optional<Details> CertificateDetails(const TokenInfo& token, const CertInfo& info);
    std::optional<Chain> BuildChain(const TokenInfo& token, const CertInfo& info);
    /// `mode`: 0 without revocation, 1 strict, 2 soft.
    std::optional<Verdict> VerifyCertificate(const TokenInfo& token, const CertInfo& info, std::uint32_t mode);
    /// Sent; the list tells what became of it.
    bool DeleteCertificate(const TokenInfo& token, const CertInfo& info);
    /// The result is a CertExportResult: 1 is success.
    std::optional<Produced> ExportCertificate(const TokenInfo& token, const CertInfo& info,
                                              const ExportOptions& options);

    // --- Files. The daemon keeps the one that was opened last as long as the connection lives. ---

    std::optional<FileContent> OpenFile(std::string_view content, const vpnfc::SecretString& password);
    /// The CertImportStatus: 0 is success.
    std::optional<std::uint32_t> ImportCertificate(const TokenInfo& token, std::uint32_t index,
                                                   const ImportOptions& options);
    /// 0 is success, 3 that the login failed.
    std::optional<std::uint32_t> ImportCrl(const TokenInfo& token, std::uint32_t index);

    // --- Requests ---

    std::optional<std::vector<CertRequestKeyInfo>> RequestMechanisms(const TokenInfo& token);
    /// The result is a CertRequestResult: 0 is success, the bytes are PEM.
    std::optional<Produced> MakeRequest(const TokenInfo& token, const CertRequestInfo& info);

    // --- Preshared keys ---

    std::optional<std::vector<ListedKey>> ListPresharedKeys();
    /// False inside: the token refused it.
    std::optional<bool> CreatePresharedKey(const TokenInfo& token, const std::string& name,
                                           const vpnfc::SecretString& value);
    bool DeletePresharedKey(const TokenInfo& token, const std::string& name);

    // --- CRLs ---

    std::optional<std::vector<ListedCrl>> ListCrls();
    bool DeleteCrl(const TokenInfo& token, const CRLInfo& info);

    /// Reads all tokens anew; returns when that is done.
    bool Reload();

    // --- Tokens ---

    std::optional<PKCS11::TokenListing> ListTokens();
    /// An empty PIN is for tokens with a PIN pad. `try_anyway`: also when the token says that few tries are left.
    std::optional<PinReply> Login(const TokenInfo& token, const vpnfc::SecretString& pin, bool try_anyway = false);
    std::optional<PinReply> Logout(const TokenInfo& token);
    /// `old_pin` is the security officer's where that one acts.
    std::optional<PinReply> ChangePin(const TokenInfo& token, PKCS11::PinRole role, const vpnfc::SecretString& old_pin,
                                      const vpnfc::SecretString& new_pin, bool try_anyway = false);
    /// Initialises the first token of the provider that is not; those in use are never touched.
    std::optional<InitReply> InitToken(const std::string& provider, const std::string& label,
                                       const vpnfc::SecretString& officer_pin, const vpnfc::SecretString& user_pin);

  private:
    template <typename Result, typename Write, typename Read>
    std::optional<Result> Call(std::uint32_t group, std::uint32_t command, Write write, Read read,
                               std::size_t secret_bytes = 0);
    template <typename Write>
    bool Send(std::uint32_t group, std::uint32_t command, Write write);

    bridge::Client& client_;
    Milliseconds timeout_;
    bridge::ClientFailure failure_;
};

/// The question which of several certificates to use (bridge::kQuestionSelectCertificate). Nothing when the body is not
/// one.
std::optional<std::vector<ListedCert>> ParseCertificateQuestion(const std::string& body);
/// The answers to it.
std::string ChooseCertificate(const CertInfo& chosen);
std::string CancelChoice();

}  // namespace certmgr_client
