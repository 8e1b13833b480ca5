#include "cli/login.h"

#include <algorithm>

#include "cli/terminal/prompt.h"

namespace certmgrctl {
namespace {

std::string Label(const TokenInfo& token) {
    return '"' + token.label + '"';
}

struct PinAdvice {
    ExitCode code;
    const char* next;
};

PinAdvice AdviceFor(std::uint32_t status) {
    switch (status) {
        case PKCS11::kPinWrong:
            return {kExitLogin, "A token locks itself after a few wrong PINs."};
        case PKCS11::kPinKnownWrong:
            return {kExitLogin, "It failed before on this token, and was not sent to it again."};
        case PKCS11::kPinFewTriesLeft:
            return {kExitLogin, "Sure of it? certmgrctl token login --try-anyway, or token pin. It may lock itself."};
        case PKCS11::kPinLocked:
            return {kExitLogin, "The security officer can give the user a new PIN: certmgrctl token pin --reset."};
        case PKCS11::kPinTokenNotPresent:
            return {kExitNotFound, "Insert it, and see: certmgrctl token list."};
        default:
            break;
    }
    return {kExitFailed, "The daemon's log says what the token answered."};
}

}  // namespace

void AddTokenOption(arguments::Command& command, std::string& token) {
    command.AddOption("-t,--token", token, "NAME", "Token: label, or beginning of its serial number");
}

void AddPinOption(arguments::Command& command, std::string& pin_file) {
    command.AddOption("--pin-file", pin_file, "FILE", "PIN in this file, or on standard input (-)");
}

TokenInfo Refreshed(Context& context, const TokenInfo& token) {
    for (const auto& status : context.session.Take(context.session.manager().ListTokens()).tokens) {
        if (status.info.id == token.id) return status.info;
    }
    return token;
}

std::string PinQuestion(const TokenInfo& token) {
    return "PIN of token " + Label(token);
}

vpnfc::SecretString ReadPin(const std::string& pin_file, const TokenInfo& token) {
    return ReadSecret(pin_file, PinQuestion(token), "Use --pin-file FILE.");
}

void LogInIfNeeded(Context& context, const TokenInfo& listed, const std::string& pin_file) {
    const TokenInfo token = Refreshed(context, listed);
    if (token.loggedIn || !token.loginRequired) return;
    if (pin_file.empty() && !CanAsk()) return;
    vpnfc::SecretString pin;
    if (token.pinPad && pin_file.empty()) {
        context.console.Note("Type the PIN on the reader of token " + Label(token) + ".");
    } else {
        pin = ReadPin(pin_file, token);
    }
    RequireTaken(context.session.Take(context.session.manager().Login(token, pin)), token);
    context.console.Note("Logged in to token " + Label(token) + "; certmgrctl token logout ends that.");
}

void RequireOneToken(const std::vector<TokenInfo>& tokens, const std::string& option, const std::string& pin_file) {
    const bool several = std::any_of(tokens.begin(), tokens.end(),
                                     [&](const TokenInfo& token) { return token.id != tokens.front().id; });
    // Standard input has a line for each.
    if (!several || pin_file.empty() || pin_file == "-") return;
    throw Failure(kExitUsage, option + " has one PIN, and several tokens are needed",
                  {"Name one with --token, or log in to each first (certmgrctl token login)."});
}

void RequireTaken(const certmgr_client::PinReply& reply, const TokenInfo& token) {
    if (reply.status == PKCS11::kPinDone) return;
    const PinAdvice advice = AdviceFor(reply.status);
    throw Failure(advice.code, "token " + Label(token) + ": " + reply.text, {advice.next});
}

void RequireLogin(Context& context, const TokenInfo& token, const std::string& what) {
    if (token.loginRequired && !Refreshed(context, token).loggedIn) throw NotLoggedIn(what, token);
}

Failure NotLoggedIn(const std::string& what, const TokenInfo& token) {
    return {kExitLogin,
            what + ": nobody is logged in to token " + Label(token),
            {"Log in first (certmgrctl token login), or give --pin-file FILE."}};
}

}  // namespace certmgrctl
