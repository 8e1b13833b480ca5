#include <algorithm>
#include <map>
#include <optional>

#include "certmgr/x509cert.h"
#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/store/opened_file.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"
#include "platform/base.h"

namespace certmgrctl {
namespace {

using enum CM::CertImportStatus;

struct ImportOptions {
    std::string file;
    std::string token;
    std::string as;
    std::string password_file;
    std::string pin_file;
    std::string officer_pin_file;
    bool exportable = false;
    bool yes = false;
};

const std::map<std::string, CertImportMode> kModes{
    {"trusted", kImportTrusted}, {"personal", kImportPersonal}, {"other", kImportOther}};

const char* ModeName(std::uint32_t mode) {
    return mode == kImportTrusted ? "trusted" : mode == kImportPersonal ? "personal" : "other";
}

/// What is done with a certificate of the file.
struct Step {
    const FileCert* cert;
    CertImportMode mode;
    TokenInfo token;
};

/// How an import ended, for people: status, what went wrong and what to do about it.
struct Outcome {
    std::uint32_t status;
    const char* key;  // in JSON
    const char* text;
    const char* next;
};

constexpr const char* kSeeLog = "The daemon's log says why.";
constexpr const char* kAskIssuer = "It cannot be used like this; ask who issued it for another one.";

constexpr Outcome kOutcomes[] = {
    {ImportCertOk, "imported", "imported", ""},
    {ImportCertAlreadyExist, "already_there", "it is on the token already", ""},
    {ImportCertWarningTrustedNotCA, "imported_not_ca", "imported, although it is not a certification authority", ""},
    {ImportCertUnsupportedKeyLen, "key_length", "no token supports its key length", kAskIssuer},
    {ImportCertError, "failed", "the token did not take it", kSeeLog},
    {ImportCertErrorPrivKey, "private_key", "the token did not take the private key",
     "The token may not know its algorithm; the daemon's log says what it answered."},
    {ImportCertErrorPubKey, "public_key", "the token did not take the public key", kSeeLog},
    {ImportCertErrorLogin, "login", "nobody is logged in to the token",
     "Log in first (certmgrctl token login), or give --pin-file FILE."},
    {ImportCertErrorLoginSO, "officer_login", "only the security officer stores trusted certificates there",
     "Give --so-pin-file FILE with the right PIN. After a wrong one, set it anew: certmgrctl token pin --so "
     "--try-anyway."},
    {ImportCertErrorOpenTokenSession, "session", "the token cannot be reached", "See certmgrctl token list."},
    {ImportCertErrorNotPersonal, "not_personal", "its key pair is not on this token",
     "Import it where its request was made, or from a PKCS #12 file with its key."},
    {ImportCertErrorNotTrusted, "not_trusted", "the token did not take it as trusted", kSeeLog},
    {ImportCertErrorUnknownCriticalExtension, "critical_extension", "it has a critical extension that is not known",
     "\"allow_unknown_critical_extensions\" in the daemon's settings permits it."},
    {ImportCertErrorUnknownKeyAlg, "key_algorithm", "the algorithm of its key is not known", kAskIssuer},
    {ImportCertErrorUnknownSignAlg, "signature_algorithm", "the algorithm of its signature is not known", kAskIssuer},
    {ImportCertErrorInvalidTime, "validity", "it is not valid now", "Check the clock, or ask for a new one."},
    {ImportCertErrorInvalidValidFrom, "valid_from", "its validity has not begun", "Check the clock."},
    {ImportCertErrorInvalidValidTo, "valid_to", "it has expired", "Ask who issued it for a new one."},
    {ImportCertErrorEmptySubject, "empty_subject", "its subject is empty", kAskIssuer},
    {ImportCertErrorEmptyIssuer, "empty_issuer", "its issuer is empty", kAskIssuer},
};

const Outcome& OutcomeOf(std::uint32_t status) {
    const auto found = std::find_if(std::begin(kOutcomes), std::end(kOutcomes),
                                    [status](const Outcome& outcome) { return outcome.status == status; });
    static constexpr Outcome kUnknown{ImportCertError, "failed", "it could not be imported", kSeeLog};
    return found == std::end(kOutcomes) ? kUnknown : *found;
}

bool IsStored(std::uint32_t status) {
    return status == ImportCertOk || status == ImportCertAlreadyExist || status == ImportCertWarningTrustedNotCA;
}

// --- What is in the file, and where it may go ---

std::string ProposalText(const FileCert& cert) {
    std::string labels;
    for (const TokenInfo& token : cert.tokens) labels += (labels.empty() ? ", on " : " or ") + token.label;
    return ModeName(cert.option.mode) + labels;
}

void ShowContent(const Console& console, const OpenedFile& file) {
    Table table({{"#"}, {"SUBJECT", true}, {"VALID UNTIL"}, {"KEY"}, {"MAY GO TO", true}});
    const std::time_t now = vpnfc::CurrentTime();
    std::size_t number = 0;
    for (const FileCert& cert : file.certs()) {
        const CertInfo& info = cert.option.info;
        table.Add({{std::to_string(++number)},
                   {ShortNameOf(info)},
                   ExpiryCell(info, now),
                   {KeyText(info)},
                   {ProposalText(cert)}});
    }
    table.Print(console);
}

// --- What is to be done ---

/// The token that was named, else the first proposed for this mode, else the only one there is.
TokenInfo TokenFor(const OpenedFile& file, const FileCert& cert, CertImportMode mode, const ImportOptions& options) {
    if (!options.token.empty()) return FindToken(file.tokens(), options.token);
    if (mode == cert.option.mode && !cert.tokens.empty()) return cert.tokens.front();
    if (mode == kImportTrusted) {
        const auto holder = std::find_if(file.tokens().begin(), file.tokens().end(),
                                         [](const TokenInfo& token) { return token.holdsTrusted; });
        if (holder != file.tokens().end()) return *holder;
    }
    return FindToken(file.tokens(), "");
}

/// Nothing: passed over.
std::optional<CertImportMode> AskMode(const FileCert& cert, std::size_t number) {
    const auto proposed = static_cast<CertImportMode>(cert.option.mode);
    constexpr std::size_t kNameColumns = 24;  // the question fits into a line
    std::string question = std::to_string(number) + ", " + Cut(Escaped(ShortNameOf(cert.option.info)), kNameColumns) +
                           ": p)ersonal, t)rusted, o)ther or s)kip? [" + ModeName(proposed) + "]";
    while (true) {
        const std::string answer = Folded(Ask(question, "Use --as or --yes."));
        if (answer.empty()) return proposed;
        if (answer == "s" || answer == "skip") return std::nullopt;
        for (const auto& [name, mode] : kModes) {
            if (answer == name || answer == name.substr(0, 1)) return mode;
        }
        question = std::string("Type p, t, o or s, or Enter for ") + ModeName(proposed) + ":";
    }
}

std::optional<CertImportMode> ModeFor(const FileCert& cert, std::size_t number, const ImportOptions& options) {
    if (!options.as.empty()) return kModes.at(options.as);
    if (options.yes) return static_cast<CertImportMode>(cert.option.mode);
    return AskMode(cert, number);
}

std::vector<Step> Plan(const OpenedFile& file, const ImportOptions& options) {
    std::vector<Step> steps;
    std::size_t number = 0;
    for (const FileCert& cert : file.certs()) {
        const auto mode = ModeFor(cert, ++number, options);
        if (mode) steps.push_back({.cert = &cert, .mode = *mode, .token = TokenFor(file, cert, *mode, options)});
    }
    // The security officer's turn ends the user's: trusted ones go last, as long as the user is not needed any more.
    std::stable_partition(steps.begin(), steps.end(), [](const Step& step) { return step.mode != kImportTrusted; });
    return steps;
}

/// The tokens of the steps that a PIN of the officer, or of the user, is for.
std::vector<TokenInfo> TokensOf(const std::vector<Step>& steps, bool officer) {
    std::vector<TokenInfo> tokens;
    for (const Step& step : steps) {
        if ((step.mode == kImportTrusted) == officer) tokens.push_back(step.token);
    }
    return tokens;
}

// --- Doing it ---

class Importer {
  public:
    Importer(Context& context, OpenedFile& file, const ImportOptions& options)
        : context_(context), file_(file), options_(options) {}

    std::uint32_t Import(const Step& step) {
        file_.Open(step.cert->part);
        if (step.mode != kImportTrusted) LogInIfNeeded(context_, step.token, options_.pin_file);
        std::uint32_t status = Send(step, nullptr);
        if (status == ImportCertErrorLoginSO && CanGiveOfficerPin()) status = SendAsOfficer(step);
        if (status == ImportCertWarningTrustedNotCA) context_.session.Check(context_.session.manager().Reload());
        return status;
    }

  private:
    std::uint32_t Send(const Step& step, const vpnfc::SecretString* pin) {
        return context_.session.Take(context_.session.manager().ImportCertificate(
            step.token, step.cert->index, {.mode = step.mode, .exportable = options_.exportable, .pin = pin}));
    }
    std::uint32_t SendAsOfficer(const Step& step) {
        const bool was_logged_in = Refreshed(context_, step.token).loggedIn;
        const std::uint32_t status = Send(step, &OfficerPin(step.token));
        if (was_logged_in && !Refreshed(context_, step.token).loggedIn) {
            context_.console.Note("The user of token \"" + step.token.label +
                                  "\" was logged out for the security officer: certmgrctl token login.");
        }
        return status;
    }
    bool CanGiveOfficerPin() const { return !options_.officer_pin_file.empty() || CanAsk(); }
    /// Read once for each token.
    const vpnfc::SecretString& OfficerPin(const TokenInfo& token) {
        const auto [entry, is_new] = officer_pins_.try_emplace(token.id);
        if (is_new) {
            entry->second =
                ReadSecret(options_.officer_pin_file, "PIN of the security officer of token \"" + token.label + "\"",
                           "Use --so-pin-file FILE.");
        }
        return entry->second;
    }

    Context& context_;
    OpenedFile& file_;
    const ImportOptions& options_;
    std::map<std::uint64_t, vpnfc::SecretString> officer_pins_;
};

void Report(const Console& console, const Step& step, const Outcome& outcome) {
    if (console.json) return;
    const std::string name = Escaped(NameOf(step.cert->option.info));
    const std::string where = std::string("as ") + ModeName(step.mode) + ", on " + Quoted(step.token.label);
    if (IsStored(outcome.status)) {
        console.Print(name + ": " + outcome.text + (outcome.status == ImportCertOk ? " " + where : "") + ".");
        return;
    }
    console.Print(name + ": " + console.Painted(Style::kBad, "not imported") + " " + where + ": " + outcome.text + ".");
    console.Print(std::string("  ") + outcome.next);
}

/// How it ended, when something was not imported.
ExitCode RunSteps(Context& context, OpenedFile& file, const std::vector<Step>& steps, const ImportOptions& options,
                  Json& imports) {
    Importer importer(context, file, options);
    ExitCode code = kExitDone;
    for (const Step& step : steps) {
        const Outcome& outcome = OutcomeOf(importer.Import(step));
        Report(context.console, step, outcome);
        imports.push_back({{"subject", step.cert->option.info.subject},
                           {"as", ModeName(step.mode)},
                           {"token", ToJson(step.token)},
                           {"result", outcome.key}});
        if (IsStored(outcome.status) || code != kExitDone) continue;
        const bool login = outcome.status == ImportCertErrorLogin || outcome.status == ImportCertErrorLoginSO;
        code = login ? kExitLogin : kExitFailed;
    }
    return code;
}

void Import(Context& context, const ImportOptions& options) {
    OpenedFile file(context, options.file, options.password_file);
    if (file.certs().empty()) {
        throw Failure(kExitFailed, options.file + " holds no certificate",
                      {"Its CRLs: certmgrctl crl import " + options.file});
    }
    if (!context.console.json) ShowContent(context.console, file);
    if (!file.crls().empty()) {
        context.console.Note(Counted(file.crls().size(), "CRL") + " beside: certmgrctl crl import " + options.file);
    }
    const std::vector<Step> steps = Plan(file, options);
    if (steps.empty()) throw Failure(kExitCancelled, "nothing was imported");
    RequireOneToken(TokensOf(steps, false), "--pin-file", options.pin_file);
    RequireOneToken(TokensOf(steps, true), "--so-pin-file", options.officer_pin_file);
    if (!context.console.json) context.console.Print();
    Json json = {{"imports", Json::array()}, {"unreadable", file.unreadable()}};
    PrintJsonAfter(context.console, json, [&] {
        const ExitCode code = RunSteps(context, file, steps, options, json["imports"]);
        if (code != kExitDone) throw Failure(code, "");
        file.RequireAllRead();
    });
}

}  // namespace

void AddImportCommand(Command& app, Context& context) {
    const auto options = std::make_shared<ImportOptions>();
    Command command = app.AddCommand("import", "Put the certificates of a file on a token").Group(kGroupChange);
    command.Footer(
        "Certificates (DER, PEM, several in a PEM bundle), PKCS #7 and PKCS #12 files.\n"
        "Shows what is in the file and where it may go, and asks for each certificate\n"
        "unless --as or --yes say.");
    command.AddOption("file", options->file, "FILE", "File; - for standard input").Required();
    command.AddOption("--as", options->as, "", "What all of them are imported as")
        .OneOf({"trusted", "personal", "other"});
    AddTokenOption(command, options->token);
    command.AddFlag("-y,--yes", options->yes, "Import each as it is proposed");
    command.AddFlag("--exportable", options->exportable, "A private key may leave the token again");
    command.AddOption("--password-file", options->password_file, "FILE",
                      "Password of a PKCS #12 file; - for standard input");
    AddPinOption(command, options->pin_file);
    command.AddOption("--so-pin-file", options->officer_pin_file, "FILE",
                      "PIN of the security officer, for trusted ones");
    OnChosen(command, context, options, Import);
}

}  // namespace certmgrctl
