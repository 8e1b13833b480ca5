#include <algorithm>

#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

struct DeleteOptions {
    std::vector<std::string> names;
    std::string token;
    std::string pin_file;
    bool yes = false;
};

const char* WhatGoes(const CertInfo& info) {
    if (info.kind == kCertKindPersonal) return "certificate and its key pair";
    return IsKeyPair(info) ? "key pair" : "certificate";
}

void Confirm(const Context& context, const std::vector<StoredCert>& certs) {
    for (const StoredCert& cert : certs) {
        context.console.Note(std::string(WhatGoes(cert.info)) + ": " + Described(cert.token, cert.info));
    }
    const bool confirmed =
        Confirmed("Delete " + Counted(certs.size(), "object") + "? A deleted key cannot be had back.", "Use --yes.");
    if (!confirmed) throw Failure(kExitCancelled, "nothing was deleted");
}

bool IsThere(Context& context, const StoredCert& cert) {
    const auto certs = StoredCerts(context, {cert.list});
    return std::any_of(certs.begin(), certs.end(), [&](const StoredCert& other) {
        return other.token.id == cert.token.id && other.info.id == cert.info.id &&
               other.info.serialNumber == cert.info.serialNumber && other.info.issuer == cert.info.issuer;
    });
}

void DeleteOne(Context& context, const StoredCert& cert) {
    context.session.Check(context.session.manager().DeleteCertificate(cert.token, cert.info));
    if (IsThere(context, cert)) {
        RequireLogin(context, cert.token, "not deleted");
        throw Failure(kExitFailed, "the token did not delete " + Described(cert.token, cert.info),
                      {"The daemon's log says what the token answered."});
    }
    if (!context.console.json) context.console.Print("Deleted " + Escaped(Described(cert.token, cert.info)) + ".");
}

void Delete(Context& context, const DeleteOptions& options) {
    std::vector<StoredCert> certs;
    certs.reserve(options.names.size());
    for (const std::string& name : options.names) certs.push_back(FindCert(context, name, options.token));
    std::vector<TokenInfo> tokens;
    tokens.reserve(certs.size());
    for (const StoredCert& cert : certs) tokens.push_back(cert.token);
    RequireOneToken(tokens, "--pin-file", options.pin_file);
    if (!options.yes) Confirm(context, certs);
    Json json = {{"deleted", Json::array()}};
    PrintJsonAfter(context.console, json, [&] {
        for (const StoredCert& cert : certs) {
            LogInIfNeeded(context, cert.token, options.pin_file);
            DeleteOne(context, cert);
            json["deleted"].push_back(ToJson(cert));
        }
    });
}

}  // namespace

void AddDeleteCommand(Command& app, Context& context) {
    const auto options = std::make_shared<DeleteOptions>();
    Command command = app.AddCommand("delete", "Delete certificates and their key pairs").Group(kGroupChange);
    command.AddOption("names", options->names, "NAME ...", "Certificates, as for \"show\"").Required();
    AddTokenOption(command, options->token);
    AddPinOption(command, options->pin_file);
    command.AddFlag("-y,--yes", options->yes, "Do not ask");
    OnChosen(command, context, options, Delete);
}

}  // namespace certmgrctl
