#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/store/opened_file.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"
#include "platform/base.h"

namespace certmgrctl {
namespace {

using certmgr_client::ListedCrl;

struct CrlOptions {
    std::string name;  // of the CRL, or of the file
    std::string token;
    std::string pin_file;
    bool yes = false;
};

Json CrlJson(const ListedCrl& crl) {
    Json json = ToJson(crl.info);
    json["downloaded"] = crl.downloaded;
    json["token"] = crl.downloaded ? Json(nullptr) : ToJson(crl.token);
    return json;
}

Cell NextUpdateCell(const CRLInfo& info, std::time_t now) {
    if (info.nextUpdate == CERT_TIME_UNKNOWN) return {"-"};
    const bool late = CertTimeTo_time_t(info.nextUpdate) < now;
    return {(late ? "overdue " : "") + Date(info.nextUpdate), late ? Style::kWarning : Style::kPlain};
}

void List(Context& context) {
    const auto crls = context.session.Take(context.session.manager().ListCrls());
    if (context.console.json) {
        Json json = {{"crls", Json::array()}};
        for (const ListedCrl& crl : crls) json["crls"].push_back(CrlJson(crl));
        return context.console.PrintJson(json);
    }
    if (crls.empty()) return context.console.Note("There is no CRL.");
    Table table({{"ISSUER", true}, {"NUMBER", true}, {"ISSUED"}, {"NEXT UPDATE"}, {"WHERE", true}});
    for (const ListedCrl& crl : crls) {
        table.Add({{crl.info.issuer},
                   {crl.info.crlNumber.empty() ? "-" : crl.info.crlNumber},
                   {Date(crl.info.thisUpdate)},
                   NextUpdateCell(crl.info, vpnfc::CurrentTime()),
                   {crl.downloaded ? "downloaded" : crl.token.label}});
    }
    table.Print(context.console);
}

void RequireImported(std::uint32_t result, const TokenInfo& token) {
    constexpr std::uint32_t kLoginFailed = 3;
    if (result == kLoginFailed) throw NotLoggedIn("not imported", token);
    if (result != 0) throw Failure(kExitFailed, "the token did not take the CRL", {"The daemon's log says why."});
}

void Import(Context& context, const CrlOptions& options) {
    OpenedFile file(context, options.name, "");
    if (file.crls().empty()) {
        throw Failure(kExitFailed, options.name + " holds no CRL", {"Certificates: certmgrctl import " + options.name});
    }
    const TokenInfo token = FindToken(file.tokens(), options.token);
    LogInIfNeeded(context, token, options.pin_file);
    Json json = {{"imported", Json::array()}, {"unreadable", file.unreadable()}};
    PrintJsonAfter(context.console, json, [&] {
        for (const FileCrl& crl : file.crls()) {
            file.Open(crl.part);
            RequireImported(context.session.Take(context.session.manager().ImportCrl(token, crl.index)), token);
            json["imported"].push_back(ToJson(crl.info));
            if (!context.console.json) context.console.Print("Imported " + Escaped(Described(token, crl.info)) + ".");
        }
        file.RequireAllRead();
    });
}

bool IsThere(Context& context, const ListedCrl& crl) {
    for (const ListedCrl& other : context.session.Take(context.session.manager().ListCrls())) {
        if (other.downloaded == crl.downloaded && other.token.id == crl.token.id && other.info.id == crl.info.id &&
            other.info.issuer == crl.info.issuer && other.info.crlNumber == crl.info.crlNumber &&
            other.info.thisUpdate == crl.info.thisUpdate) {
            return true;
        }
    }
    return false;
}

void Delete(Context& context, const CrlOptions& options) {
    const ListedCrl crl = FindCrl(context, options.name, options.token);
    const std::string described = Described(crl.token, crl.info);
    if (!options.yes && !Confirmed("Delete " + described + "?", "Use --yes.")) {
        throw Failure(kExitCancelled, "nothing was deleted");
    }
    if (!crl.downloaded) LogInIfNeeded(context, crl.token, options.pin_file);
    context.session.Check(context.session.manager().DeleteCrl(crl.token, crl.info));
    // One that was downloaded from several addresses goes once for each.
    constexpr int kMostAddresses = 16;
    for (int i = 1; crl.downloaded && i < kMostAddresses && IsThere(context, crl); ++i) {
        context.session.Check(context.session.manager().DeleteCrl(crl.token, crl.info));
    }
    if (IsThere(context, crl)) {
        RequireLogin(context, crl.downloaded ? TokenInfo() : crl.token, "not deleted");
        throw Failure(kExitFailed, "the CRL is still there", {"The daemon's log says why."});
    }
    if (context.console.json) return context.console.PrintJson(Json{{"deleted", CrlJson(crl)}});
    context.console.Print("Deleted " + Escaped(described) + ".");
}

Command AddNamed(Command& group, const char* name, const char* what, const char* argument, CrlOptions& options) {
    Command command = group.AddCommand(name, what);
    command.AddOption("name", options.name, "NAME", argument).Required();
    AddTokenOption(command, options.token);
    AddPinOption(command, options.pin_file);
    return command;
}

}  // namespace

void AddCrlCommands(Command& app, Context& context) {
    Command group = app.AddCommand("crl", "CRLs: list, import, delete").Group(kGroupChange);
    group.RequireCommand();
    group.AddCommand("list", "CRLs on tokens, and those that were downloaded").OnChosen([&context] { List(context); });
    const auto options = std::make_shared<CrlOptions>();
    OnChosen(AddNamed(group, "import", "Put the CRLs of a file on a token", "File; - for standard input", *options),
             context, options, Import);
    Command del =
        AddNamed(group, "delete", "Delete a CRL", "Piece of the issuer, or beginning of the number", *options);
    del.AddFlag("-y,--yes", options->yes, "Do not ask");
    OnChosen(del, context, options, Delete);
}

}  // namespace certmgrctl
