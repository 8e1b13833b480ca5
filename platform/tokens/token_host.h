// Token manager, the side of the program that hosts it: which modules to load, PINs, new tokens.
//
//     tokens::Settings settings;
//     settings.providers = {{.name = "softhsm", .module_path = tokens::SoftHsmModulePath()}};
//     std::string error;
//     if (!tokens::PrepareSoftHsm(state_folder, error) || !tokens::Start(settings, error)) ...
//     ...
//     tokens::Stop();
//
// Each provider is served by threads of its own. A call into a module that does not return within the limit is left
// to its thread: the provider counts as not answering and its tokens as absent until that call returns, or another one
// does when the module is tried again; everything else goes on. Of tokens with the same identifier, in two slots or of
// two providers, one is shown at a time: the first to come, and the other one when that is gone. Functions here may be called from any thread, but not from one of the manager's callbacks.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/api.h"
#include "platform/base.h"
#include "platform/token_commands.h"
#include "platform/tokens.h"

namespace tokens {

/// A PKCS #11 module.
struct Provider {
    std::string name{};  // as TokenInfo::providerName shows it; unique, not empty
    std::string module_path{};  // absolute; two providers cannot share a module
    std::string init_args{};  // pReserved of C_Initialize for modules that want it; empty: null
};

/// Where the user PIN of a token stands. The file belongs to the effective user, nobody else can read or write it
/// (mode 0600 or less), and its first line is the PIN. It is read when the PIN is needed and wiped after.
struct PinFile {
    std::string token{};  // label or serial number; a label that several present tokens share serves none of them
    std::string path{};
    bool login_on_insertion = true;  // so that private objects are seen at once; else at the first private session
};

/// First line of a PIN file. False, and why, unless the file is a regular one of the effective user that nobody else
/// may read or write.
PLATFORM_API bool ReadPinFile(const std::string& path, vpnfc::SecretString& pin, std::string& error);

struct Settings {
    std::vector<Provider> providers{};
    std::vector<PinFile> pin_files{};
    std::chrono::milliseconds poll_interval{500};  // how often slots and login states are looked at
    std::chrono::milliseconds call_limit{10000};  // how long one PKCS #11 call may take; an operation of many: 30 times
    /// How long a module that does not answer is left alone before it is tried again; twice as long each further time, up
    /// to sixteen times. A call that returns late is noticed at once.
    std::chrono::milliseconds recovery_interval{30000};
};

/// Loads the modules, each on its own thread, and waits until they have shown their tokens, or a few seconds for those
/// that do not; late ones announce themselves (Callbacks.providerInserted). A module that cannot be loaded is logged
/// and does not make this fail. False, with nothing started, when the settings are wrong or the manager runs already.
PLATFORM_API bool Start(const Settings& settings, std::string& error);

/// Brings the running manager to other settings: providers that stay the same keep their sessions, others are stopped
/// or started; PIN files are looked at anew. Tokens of a provider that goes are reported as removed before anything else
/// is reported. False, with nothing changed, when the settings are wrong.
PLATFORM_API bool Apply(const Settings& settings, std::string& error);

/// Ends the manager: threads stop, modules are finalised and unloaded; nothing is reported any more. A module with a call that does not return is
/// left behind. Harmless when not started; leaving the process without it is clean too.
PLATFORM_API void Stop();

enum class PinResult : int {
    kDone,
    kWrongPin,
    kKnownWrong,  // this PIN failed before on this token; it was not tried again
    kFewTriesLeft,  // the token says that few tries are left; the PIN was not tried
    kLocked,
    kNotPresent,
    kFailed,  // device trouble, logged
};
PLATFORM_API const char* PinResultText(PinResult result);

/// Whether a PIN is tried although the token says that few tries are left: what a person decides.
enum class FewTries : bool { kRefuse, kTryAnyway };

/// Logs the user in until Logout or removal. An empty PIN is for tokens with a PIN pad, where the person types it.
PLATFORM_API PinResult Login(const PKCS11::TokenInfo& token, const vpnfc::SecretString& pin,
                             FewTries few_tries = FewTries::kRefuse);
PLATFORM_API bool Logout(const PKCS11::TokenInfo& token);
PLATFORM_API PinResult ChangePin(const PKCS11::TokenInfo& token, const vpnfc::SecretString& old_pin,
                                 const vpnfc::SecretString& new_pin, FewTries few_tries = FewTries::kRefuse);

/// Changes the PIN of the security officer, or gives the user a new one, which unlocks it. A user who was logged in has to log in again unless their PIN stands in a file.
PLATFORM_API PinResult ChangeOfficerPin(const PKCS11::TokenInfo& token, const vpnfc::SecretString& old_pin,
                                        const vpnfc::SecretString& new_pin, FewTries few_tries = FewTries::kRefuse);
PLATFORM_API PinResult ResetUserPin(const PKCS11::TokenInfo& token, const vpnfc::SecretString& officer_pin,
                                    const vpnfc::SecretString& new_pin, FewTries few_tries = FewTries::kRefuse);

/// The providers, the tokens that are shown and the slots with one to be initialised, with what the modules say of their
/// PINs now. Slots of a module that does not answer are left out.
PLATFORM_API PKCS11::TokenListing ListTokens();

/// Initialises the first uninitialised token of a provider; tokens in use are never touched. Returns when the new
/// token is listed.
PLATFORM_API bool InitToken(const std::string& provider, const std::string& label, const vpnfc::SecretString& so_pin,
                            const vpnfc::SecretString& user_pin, PKCS11::TokenInfo& token, std::string& error);

/// Makes `folder` (mode 0700; missing parents are made) a private state directory of SoftHSM2, with its configuration,
/// and points the process's environment at it. One that others can read or write is refused as it is. Call before Start
/// and before other threads run.
PLATFORM_API bool PrepareSoftHsm(const std::string& folder, std::string& error);
/// Where the system's SoftHSM2 module stands; empty when it is not installed.
PLATFORM_API std::string SoftHsmModulePath();

}  // namespace tokens
