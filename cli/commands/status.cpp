#include <algorithm>
#include <map>

#include "cli/commands/commands.h"
#include "cli/store/names.h"
#include "cli/terminal/text.h"
#include "platform/base.h"
#include "platform/base/text.h"

namespace certmgrctl {
namespace {

struct Numbers {
    std::map<CertSelector, std::size_t> certs;
    std::size_t soon = 0;
    std::size_t expired = 0;
    std::size_t keys = 0;
    std::size_t crls = 0;
};

Numbers Count(Context& context) {
    Numbers numbers;
    const std::time_t now = vpnfc::CurrentTime();
    for (const StoredCert& cert : StoredCerts(context)) {
        ++numbers.certs[cert.list];
        if (IsKeyPair(cert.info)) continue;
        const Validity validity = ValidityOf(cert.info, now);
        if (validity == Validity::kEndsSoon) ++numbers.soon;
        if (validity == Validity::kExpired) ++numbers.expired;
    }
    numbers.keys = context.session.Take(context.session.manager().ListPresharedKeys()).size();
    numbers.crls = context.session.Take(context.session.manager().ListCrls()).size();
    return numbers;
}

Json StatusJson(Context& context, const PKCS11::TokenListing& listing, const Numbers& numbers) {
    Json json = {{"daemon", context.session.client().server_program()}, {"socket", context.session.socket}};
    json["providers"] = Json::array();
    for (const auto& provider : listing.providers) {
        json["providers"].push_back({{"name", provider.name}, {"available", provider.available}});
    }
    json["tokens"] = std::count_if(listing.tokens.begin(), listing.tokens.end(), IsInitialised);
    for (const CertSelector list : kAllLists) {
        const auto found = numbers.certs.find(list);
        json["certificates"][ListName(list)] = found == numbers.certs.end() ? 0 : found->second;
    }
    json["expiring"] = numbers.soon;
    json["expired"] = numbers.expired;
    json["preshared_keys"] = numbers.keys;
    json["crls"] = numbers.crls;
    return json;
}

std::string ProvidersText(const PKCS11::TokenListing& listing) {
    std::string text;
    for (const auto& provider : listing.providers) {
        if (!text.empty()) text += "\n";
        text += provider.name + (provider.available ? "" : " (not available)");
        if (!provider.description.empty()) text += ", " + provider.description;
    }
    return text.empty() ? "none" : text;
}

std::string TokensText(const PKCS11::TokenListing& listing) {
    std::string text;
    for (const auto& token : listing.tokens) {
        if (!IsInitialised(token)) continue;
        if (!text.empty()) text += "\n";
        text += token.info.label + (token.info.loggedIn ? ", logged in" : "");
    }
    return text.empty() ? "none" : text;
}

std::string CertificatesText(const Numbers& numbers) {
    const std::string text = vpnfc::Joined(
        numbers.certs, [](const auto& entry) { return std::to_string(entry.second) + " " + ListName(entry.first); });
    return text.empty() ? "none" : text;
}

std::string ExpiryText(const Numbers& numbers) {
    std::vector<std::string> parts;
    if (numbers.expired > 0) parts.push_back(Counted(numbers.expired, "certificate") + " expired");
    if (numbers.soon > 0) {
        parts.push_back(Counted(numbers.soon, "certificate") + " within " + std::to_string(kSoonDays) + " days");
    }
    return vpnfc::Joined(parts);
}

void Status(Context& context) {
    const PKCS11::TokenListing listing = context.session.Take(context.session.manager().ListTokens());
    const Numbers numbers = Count(context);
    if (context.console.json) return context.console.PrintJson(StatusJson(context, listing, numbers));
    Fields fields;
    fields.Add("Daemon", context.session.client().server_program());
    fields.Add("Socket", context.session.socket);
    fields.Add("Modules", ProvidersText(listing));
    fields.Add("Tokens", TokensText(listing));
    fields.Add("Certificates", CertificatesText(numbers));
    fields.Add("Expiring", ExpiryText(numbers), numbers.expired > 0 ? Style::kBad : Style::kWarning);
    fields.Add("Preshared keys", std::to_string(numbers.keys));
    fields.Add("CRLs", std::to_string(numbers.crls));
    fields.Print(context.console);
}

void Reload(Context& context) {
    context.session.Check(context.session.manager().Reload());
    if (context.console.json) return context.console.PrintJson(Json{{"reloaded", true}});
    context.console.Print("All tokens were read anew.");
}

}  // namespace

void AddStatusCommands(Command& app, Context& context) {
    app.AddCommand("status", "What the daemon has, and what expires soon").Group(kGroupLook).OnChosen([&context] {
        Status(context);
    });
    app.AddCommand("reload", "Have the daemon read all tokens anew").Group(kGroupChange).OnChosen([&context] {
        Reload(context);
    });
}

}  // namespace certmgrctl
