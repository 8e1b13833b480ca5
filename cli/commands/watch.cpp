#include <chrono>
#include <map>

#include "cli/commands/commands.h"
#include "cli/store/names.h"
#include "cli/terminal/text.h"
#include "platform/base.h"

namespace certmgrctl {
namespace {

using bridge::ClientFailure;

/// An object as a line says it, and as JSON does.
struct Entry {
    std::string what;
    std::string text;
    Json json;
};
/// By what tells an object from all others.
using Snapshot = std::map<std::string, Entry>;

std::string OnToken(const std::string& text, const TokenInfo& token) {
    return text + ", on \"" + token.label + "\"";
}

Snapshot TakeCerts(Context& context) {
    Snapshot snapshot;
    for (const StoredCert& cert : StoredCerts(context)) {
        Json json = ToJson(cert);
        const std::string key = json.dump(-1, ' ', false, Json::error_handler_t::replace);
        const char* const what = IsKeyPair(cert.info) ? "key pair" : ListName(cert.list);
        snapshot[key] = {.what = what, .text = Described(cert.token, cert.info), .json = std::move(json)};
    }
    return snapshot;
}

/// What no notification tells of by itself.
Snapshot TakeRest(Context& context) {
    Snapshot snapshot;
    certmgr_client::Manager& manager = context.session.manager();
    for (const auto& key : context.session.Take(manager.ListPresharedKeys())) {
        snapshot["k" + std::to_string(key.token.id) + key.name] = {
            "preshared key", OnToken(key.name, key.token), {{"name", key.name}, {"token", ToJson(key.token)}}};
    }
    for (const auto& crl : context.session.Take(manager.ListCrls())) {
        snapshot["c" + std::to_string(crl.token.id) + crl.info.id + crl.info.issuer + crl.info.crlNumber] = {
            "CRL", Described(crl.token, crl.info), ToJson(crl.info)};
    }
    for (const auto& token : context.session.Take(manager.ListTokens()).tokens) {
        if ((token.flags & PKCS11::kTokenInitialised) == 0) continue;
        const char* const login = token.info.loggedIn ? ", logged in" : ", logged out";
        Json json = ToJson(token.info);
        json["logged_in"] = token.info.loggedIn;
        snapshot["t" + std::to_string(token.info.id) + login] = {
            "token", "\"" + token.info.label + "\"" + (token.info.loginRequired ? login : ""), std::move(json)};
    }
    return snapshot;
}

void PrintChange(const Console& console, const Entry& entry, bool came) {
    const cert_time64_t now = CertTimeNow();
    if (console.json) {
        return console.PrintJson(Json{{"time", TimeJson(now)},
                                      {"event", came ? "came" : "went"},
                                      {"what", entry.what},
                                      {"object", entry.json}},
                                 true);
    }
    constexpr std::size_t kWhatColumns = 13;
    const std::string line =
        std::string(came ? "+ " : "- ") + Padded(entry.what, kWhatColumns) + " " + Escaped(entry.text);
    console.Print(CertTimeToString(now) + "  " + console.Painted(came ? Style::kGood : Style::kBad, line));
}

/// What went first, as the daemon tells it.
void PrintChanges(const Console& console, Snapshot& before, Snapshot after) {
    for (const auto& [key, entry] : before) {
        if (!after.contains(key)) PrintChange(console, entry, false);
    }
    for (const auto& [key, entry] : after) {
        if (!before.contains(key)) PrintChange(console, entry, true);
    }
    std::cout << std::flush;
    before = std::move(after);
}

/// Ends with the daemon or with a signal.
void Watch(Context& context) {
    constexpr std::chrono::milliseconds kTick{2000};
    Snapshot certs = TakeCerts(context);
    Snapshot rest = TakeRest(context);
    context.console.Note("Watching; Ctrl-C ends it.");
    bridge::Client& client = context.session.client();
    while (true) {
        const auto event = client.Wait(kTick);
        if (!event && !client.connected()) context.session.Fail(client.failure());
        PrintChanges(context.console, rest, TakeRest(context));
        if (event && event->code == bridge::kNotifyCertListChanged) {
            PrintChanges(context.console, certs, TakeCerts(context));
        }
    }
}

}  // namespace

void AddWatchCommand(CLI::App& app, Context& context) {
    app.add_subcommand("watch", "Print what comes and goes, until interrupted")
        ->group(kGroupStay)
        ->callback([&context] { Watch(context); });
}

}  // namespace certmgrctl
