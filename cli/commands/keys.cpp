#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

using certmgr_client::ListedKey;

struct KeyOptions {
    std::string name;
    std::string token;
    std::string key_file;
    std::string pin_file;
    bool yes = false;
};

Json KeyJson(const ListedKey& key) {
    return {{"name", key.name}, {"token", ToJson(key.token)}};
}

void List(Context& context) {
    const auto keys = context.session.Take(context.session.manager().ListPresharedKeys());
    if (context.console.json) {
        Json json = {{"preshared_keys", Json::array()}};
        for (const ListedKey& key : keys) json["preshared_keys"].push_back(KeyJson(key));
        return context.console.PrintJson(json);
    }
    if (keys.empty()) return context.console.Note("There is no preshared key.");
    Table table({{"NAME", true}, {"TOKEN", true}});
    for (const ListedKey& key : keys) table.Add({{key.name}, {key.token.label}});
    table.Print(context.console);
}

void Done(const Context& context, const ListedKey& key, const char* json_key, const std::string& text) {
    if (context.console.json) return context.console.PrintJson(Json{{json_key, KeyJson(key)}});
    context.console.Print(text + " preshared key " + Quoted(key.name) + " on " + Quoted(key.token.label) + ".");
}

void Add(Context& context, const KeyOptions& options) {
    const TokenInfo token = FindToken(context, options.token);
    LogInIfNeeded(context, token, options.pin_file);
    const vpnfc::SecretString value =
        ReadNewSecret(options.key_file, "Key \"" + options.name + "\"", "Use --key-file FILE.");
    if (!context.session.Take(context.session.manager().CreatePresharedKey(token, options.name, value))) {
        RequireLogin(context, token, "not added");
        throw Failure(kExitFailed, "the token did not take the key",
                      {"Its name may be in use (certmgrctl psk list); the daemon's log says what the token answered."});
    }
    Done(context, {.token = token, .name = options.name}, "added", "Added");
}

bool IsThere(Context& context, const ListedKey& key) {
    for (const ListedKey& other : context.session.Take(context.session.manager().ListPresharedKeys())) {
        if (other.name == key.name && other.token.id == key.token.id) return true;
    }
    return false;
}

void Delete(Context& context, const KeyOptions& options) {
    const ListedKey key = FindKey(context, options.name, options.token);
    const std::string question = "Delete preshared key \"" + key.name + "\" on \"" + key.token.label + "\"?";
    if (!options.yes && !Confirmed(question, "Use --yes.")) throw Failure(kExitCancelled, "nothing was deleted");
    LogInIfNeeded(context, key.token, options.pin_file);
    context.session.Check(context.session.manager().DeletePresharedKey(key.token, key.name));
    if (IsThere(context, key)) {
        RequireLogin(context, key.token, "not deleted");
        throw Failure(kExitFailed, "the token did not delete the key", {"The daemon's log says what it answered."});
    }
    Done(context, key, "deleted", "Deleted");
}

Command AddNamed(Command& group, const char* name, const char* what, KeyOptions& options) {
    Command command = group.AddCommand(name, what);
    command.AddOption("name", options.name, "NAME", "Name of the key").Required();
    AddTokenOption(command, options.token);
    AddPinOption(command, options.pin_file);
    return command;
}

}  // namespace

void AddPresharedKeyCommands(Command& app, Context& context) {
    Command group = app.AddCommand("psk", "Preshared keys: list, add, delete").Group(kGroupChange);
    group.RequireCommand();
    group.AddCommand("list", "Names of the preshared keys").OnChosen([&context] { List(context); });
    const auto options = std::make_shared<KeyOptions>();
    Command add = AddNamed(group, "add", "Put a preshared key on a token", *options);
    add.AddOption("--key-file", options->key_file, "FILE",
                  "Key, the first line of this file, or of standard input (-)");
    OnChosen(add, context, options, Add);
    Command del = AddNamed(group, "delete", "Delete a preshared key", *options);
    del.AddFlag("-y,--yes", options->yes, "Do not ask");
    OnChosen(del, context, options, Delete);
}

}  // namespace certmgrctl
