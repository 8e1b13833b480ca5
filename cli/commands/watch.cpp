#include <chrono>
#include <iostream>
#include <map>
#include <set>

#include "cli/commands/commands.h"
#include "cli/store/names.h"
#include "cli/terminal/text.h"
#include "platform/base.h"

namespace certmgrctl {
namespace {

/// An object as a line says it, and as JSON does.
struct Entry {  // NOLINT(bugprone-exception-escape): moving a Json throws nothing
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

/// What comes and goes without a notification.
Snapshot TakeRest(Context& context) {
    Snapshot snapshot;
    certmgr_client::Manager& manager = context.session.manager();
    for (const auto& key : context.session.Take(manager.ListPresharedKeys())) {
        snapshot["k" + std::to_string(key.token.id) + key.name] = {
            "preshared key", OnToken(key.name, key.token), {{"name", key.name}, {"token", ToJson(key.token)}}};
    }
    for (const auto& crl : context.session.Take(manager.ListCrls())) {
        snapshot["c" + std::to_string(crl.token.id) + crl.info.id + crl.info.issuer + crl.info.crlNumber] = {
            "CRL", crl.downloaded ? crl.info.issuer + ", downloaded" : OnToken(crl.info.issuer, crl.token),
            ToJson(crl.info)};
    }
    return snapshot;
}

Snapshot TakeTokens(Context& context) {
    Snapshot snapshot;
    certmgr_client::Manager& manager = context.session.manager();
    for (const auto& token : context.session.Take(manager.ListTokens()).tokens) {
        if (!IsInitialised(token)) continue;
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

/// The notifications until the time is up, and those that came with them: many changes are listed once.
std::set<std::uint32_t> TakeNotifications(Context& context, bridge::Client::Milliseconds timeout) {
    std::set<std::uint32_t> codes;
    bridge::Client& client = context.session.client();
    auto event = client.Wait(timeout);
    for (; event; event = client.Wait(bridge::Client::Milliseconds(0))) codes.insert(event->code);
    if (!client.connected()) context.session.Fail(client.failure());
    return codes;
}

/// Ends with the daemon or with a signal.
void Watch(Context& context) {
    constexpr bridge::Client::Milliseconds kTick{2000};
    Snapshot tokens = TakeTokens(context);
    Snapshot certs = TakeCerts(context);
    Snapshot rest = TakeRest(context);
    context.console.Note("Watching; Ctrl-C ends it.");
    while (true) {
        const std::set<std::uint32_t> codes = TakeNotifications(context, kTick);
        if (codes.contains(bridge::kNotifyTokensChanged)) PrintChanges(context.console, tokens, TakeTokens(context));
        if (codes.contains(bridge::kNotifyCertListChanged)) PrintChanges(context.console, certs, TakeCerts(context));
        PrintChanges(context.console, rest, TakeRest(context));
    }
}

}  // namespace

void AddWatchCommand(Command& app, Context& context) {
    app.AddCommand("watch", "Print what comes and goes, until interrupted").Group(kGroupStay).OnChosen([&context] {
        Watch(context);
    });
}

}  // namespace certmgrctl
