#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

using PKCS11::TokenStatus;
using vpnfc::SecretString;

struct TokenOptions {
    std::string token;
    std::string label;
    std::string provider;
    std::string pin_file;
    std::string new_pin_file;
    std::string officer_pin_file;
    bool of_officer = false;
    bool reset = false;
    bool try_anyway = false;
};

struct FlagText {
    std::uint32_t flag;
    const char* text;
    const char* key;  // in JSON
};

constexpr FlagText kPinFlags[] = {
    {PKCS11::kUserPinLocked, "PIN locked", "user_pin_locked"},
    {PKCS11::kUserPinFinalTry, "one try of the PIN left", "user_pin_final_try"},
    {PKCS11::kUserPinFewTries, "few tries of the PIN left", "user_pin_few_tries"},
    {PKCS11::kOfficerPinLocked, "officer's PIN locked", "officer_pin_locked"},
    {PKCS11::kOfficerPinFinalTry, "one try of the officer's PIN left", "officer_pin_final_try"},
    {PKCS11::kOfficerPinFewTries, "few tries of the officer's PIN left", "officer_pin_few_tries"},
};

/// What stands first: the worst of the PIN, else the login.
Cell StateCell(const TokenStatus& token) {
    if (!IsInitialised(token)) return {"not initialised", Style::kDim};
    for (const FlagText& flag : kPinFlags) {
        if ((token.flags & flag.flag) != 0) return {flag.text, Style::kWarning};
    }
    if ((token.flags & PKCS11::kUserPinSet) == 0) return {"no PIN set", Style::kWarning};
    if (token.info.loggedIn) return {"logged in", Style::kGood};
    return {token.info.loginRequired ? "logged out" : "needs no login"};
}

Json TokenJson(const TokenStatus& token) {
    Json json = {{"initialised", IsInitialised(token)}};
    json.update(ToJson(token.info));
    json.update(Json{{"manufacturer", token.info.manufacturer},
                     {"model", token.info.model},
                     {"slot", token.info.slotDescription},
                     {"logged_in", token.info.loggedIn},
                     {"login_required", token.info.loginRequired},
                     {"write_protected", token.info.writeProtected},
                     {"hardware", token.info.hardware},
                     {"removable", token.info.removable},
                     {"pin_pad", token.info.pinPad},
                     {"holds_trusted", token.info.holdsTrusted},
                     {"user_pin_set", (token.flags & PKCS11::kUserPinSet) != 0},
                     {"min_pin_bytes", token.minPinBytes},
                     {"max_pin_bytes", token.maxPinBytes}});
    for (const FlagText& flag : kPinFlags) json[flag.key] = (token.flags & flag.flag) != 0;
    return json;
}

void List(Context& context) {
    const PKCS11::TokenListing listing = context.session.Take(context.session.manager().ListTokens());
    if (context.console.json) {
        Json json = {{"tokens", Json::array()}};
        for (const TokenStatus& token : listing.tokens) json["tokens"].push_back(TokenJson(token));
        return context.console.PrintJson(json);
    }
    Table table({{"TOKEN", true}, {"STATE", true}, {"MODULE", true}, {"MODEL", true}, {"SERIAL"}});
    for (const TokenStatus& token : listing.tokens) {
        const std::string& serial = token.info.serialNumber;
        table.Add({{IsInitialised(token) ? token.info.label : "-"},
                   StateCell(token),
                   {token.info.providerName},
                   {token.info.model},
                   {serial.empty() ? "-" : serial}});
    }
    if (table.empty()) return context.console.Note("There is no token.");
    table.Print(context.console);
}

/// Says that it is done, and to which token.
void Done(const Context& context, const TokenInfo& token, const char* key, const std::string& text) {
    if (context.console.json) return context.console.PrintJson(Json{{key, true}, {"token", ToJson(token)}});
    context.console.Print(text + " " + Quoted(token.label) + ".");
}

void Login(Context& context, const TokenOptions& options) {
    const TokenInfo token = FindToken(context, options.token);
    SecretString pin;
    if (!token.pinPad || !options.pin_file.empty()) {
        pin = ReadPin(options.pin_file, token);
    }
    RequireTaken(context.session.Take(context.session.manager().Login(token, pin, options.try_anyway)), token);
    Done(context, token, "logged_in", "Logged in to token");
}

void Logout(Context& context, const TokenOptions& options) {
    const TokenInfo token = FindToken(context, options.token);
    RequireTaken(context.session.Take(context.session.manager().Logout(token)), token);
    Done(context, token, "logged_out", "Logged out of token");
}

/// The named provider, else the only one with a token that waits to be initialised.
std::string ProviderFor(Context& context, const std::string& name) {
    if (!name.empty()) return name;
    std::vector<std::string> names;
    for (const TokenStatus& token : context.session.Take(context.session.manager().ListTokens()).tokens) {
        const std::string& provider = token.info.providerName;
        const bool known = std::find(names.begin(), names.end(), provider) != names.end();
        if (!IsInitialised(token) && !known) names.push_back(provider);
    }
    if (names.empty()) {
        throw Failure(kExitNotFound, "there is no token that waits to be initialised",
                      {"Tokens in use are never touched: certmgrctl token list."});
    }
    if (names.size() == 1) return names.front();
    names.insert(names.begin(), "Name one with --provider:");
    throw Failure(kExitAmbiguous, "several modules have a token that waits to be initialised", names);
}

void Init(Context& context, const TokenOptions& options) {
    const std::string provider = ProviderFor(context, options.provider);
    const std::string advice = "Use --so-pin-file FILE and --pin-file FILE.";
    const SecretString officer_pin = ReadNewSecret(options.officer_pin_file, "New PIN of the security officer", advice);
    const SecretString pin = ReadNewSecret(options.pin_file, "New PIN of the user", advice);
    const auto reply =
        context.session.Take(context.session.manager().InitToken(provider, options.label, officer_pin, pin));
    if (!reply.done) throw Failure(kExitFailed, "the token was not initialised: " + reply.text);
    Done(context, reply.token, "initialised", "Initialised token");
}

PKCS11::PinRole RoleOf(const TokenOptions& options) {
    if (options.reset) return PKCS11::kPinOfUserByOfficer;
    return options.of_officer ? PKCS11::kPinOfSecurityOfficer : PKCS11::kPinOfUser;
}

void ChangePin(Context& context, const TokenOptions& options) {
    const TokenInfo token = FindToken(context, options.token);
    const PKCS11::PinRole role = RoleOf(options);
    const std::string advice = "Use --pin-file FILE and --new-pin-file FILE.";
    const bool on_pad = token.pinPad && options.pin_file.empty();
    SecretString old_pin;
    SecretString new_pin;
    if (!on_pad) {
        old_pin =
            ReadSecret(options.pin_file,
                       role == PKCS11::kPinOfUser ? "Present PIN" : "Present PIN of the security officer", advice);
        new_pin = ReadNewSecret(options.new_pin_file,
                                role == PKCS11::kPinOfSecurityOfficer ? "New PIN of the security officer" : "New PIN",
                                advice);
    }
    RequireTaken(
        context.session.Take(context.session.manager().ChangePin(token, role, old_pin, new_pin, options.try_anyway)),
        token);
    Done(context, token, "changed", "Changed the PIN of token");
}

Command AddOn(Command& group, const char* name, const char* what, TokenOptions& options) {
    Command command = group.AddCommand(name, what);
    command.AddOption("token", options.token, "NAME", "Token; may be left out when there is only one");
    return command;
}

void AddTryAnyway(Command& command, TokenOptions& options) {
    command.AddFlag("--try-anyway", options.try_anyway, "Also when the token says that few tries are left");
}

void AddInit(Command& group, Context& context) {
    const auto options = std::make_shared<TokenOptions>();
    Command init = group.AddCommand("init", "Initialise a token that is not; those in use are never touched");
    init.AddOption("label", options->label, "LABEL", "Label of the new token, 1 to 32 bytes").Required();
    init.AddOption("--provider", options->provider, "NAME", "Module, where several have one");
    init.AddOption("--so-pin-file", options->officer_pin_file, "FILE",
                   "New PIN of the security officer; - for standard input");
    init.AddOption("--pin-file", options->pin_file, "FILE", "New PIN of the user; - for standard input");
    OnChosen(init, context, options, Init);
}

void AddPin(Command& group, Context& context) {
    const auto options = std::make_shared<TokenOptions>();
    Command pin = AddOn(group, "pin", "Change a PIN", *options);
    const arguments::Option officer = pin.AddFlag("--so", options->of_officer, "The security officer's own");
    pin.AddFlag("--reset", options->reset, "The user's, by the security officer: it was forgotten, or is locked")
        .Excludes(officer);
    pin.AddOption("--pin-file", options->pin_file, "FILE",
                  "Present PIN, with --so and --reset the security officer's; - for standard input");
    pin.AddOption("--new-pin-file", options->new_pin_file, "FILE", "New PIN; - for standard input");
    AddTryAnyway(pin, *options);
    OnChosen(pin, context, options, ChangePin);
}

}  // namespace

void AddTokenCommands(Command& app, Context& context) {
    Command group = app.AddCommand("token", "Tokens: list, login, logout, init, pin").Group(kGroupChange);
    group.RequireCommand();
    group.AddCommand("list", "Tokens and their state").OnChosen([&context] { List(context); });
    const auto options = std::make_shared<TokenOptions>();
    Command login = AddOn(group, "login", "Log in, for the daemon and all that use it", *options);
    AddPinOption(login, options->pin_file);
    AddTryAnyway(login, *options);
    OnChosen(login, context, options, Login);
    OnChosen(AddOn(group, "logout", "Log out", *options), context, options, Logout);
    AddInit(group, context);
    AddPin(group, context);
}

}  // namespace certmgrctl
