#include <algorithm>
#include <iterator>

#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/text.h"
#include "platform/base.h"

namespace certmgrctl {
namespace {

struct ListOptions {
    std::vector<std::string> lists;
    std::string token;
    std::string match;
    int expiring_days = -1;
};

struct ShowOptions {
    std::string name;
    std::string token;
};

std::vector<std::string> ListNames() {
    std::vector<std::string> names;
    names.reserve(std::size(kAllLists));
    for (const CertSelector list : kAllLists) names.emplace_back(ListName(list));
    return names;
}

bool IsWanted(const StoredCert& cert, const ListOptions& options, std::time_t now) {
    const std::string wanted = Folded(options.match);
    const bool matches = Folded(cert.info.subject).find(wanted) != std::string::npos ||
                         Folded(cert.info.issuer).find(wanted) != std::string::npos;
    if (!matches) return false;
    if (options.expiring_days < 0) return true;
    return !IsKeyPair(cert.info) &&
           CertTimeTo_time_t(cert.info.validTo) - now <= options.expiring_days * kSecondsPerDay;
}

void PrintTable(const Console& console, const std::vector<StoredCert>& certs, std::time_t now) {
    Table table({{"LIST"}, {"NAME", true}, {"VALID UNTIL"}, {"KEY"}, {"SERIAL"}, {"TOKEN", true}});
    for (const StoredCert& cert : certs) {
        table.Add({{IsKeyPair(cert.info) ? "key pair" : ListName(cert.list)},
                   {ShortNameOf(cert.info)},
                   ExpiryCell(cert.info, now),
                   {KeyText(cert.info)},
                   {ShortNumberOf(cert.info)},
                   {cert.token.label}});
    }
    table.Print(console);
}

void List(Context& context, const ListOptions& options) {
    const std::time_t now = vpnfc::CurrentTime();
    std::vector<CertSelector> lists;
    std::copy_if(std::begin(kAllLists), std::end(kAllLists), std::back_inserter(lists), [&](CertSelector list) {
        return std::find(options.lists.begin(), options.lists.end(), ListName(list)) != options.lists.end();
    });
    std::vector<StoredCert> certs = StoredCerts(context, lists, options.token);
    std::erase_if(certs, [&](const StoredCert& cert) { return !IsWanted(cert, options, now); });
    if (context.console.json) {
        Json json = {{"certificates", Json::array()}};
        for (const StoredCert& cert : certs) json["certificates"].push_back(ToJson(cert));
        return context.console.PrintJson(json);
    }
    if (certs.empty()) return context.console.Note("There is no such certificate.");
    PrintTable(context.console, certs, now);
}

/// The texts of a certificate's extensions, with the names that people and JSON know them by.
struct ExtensionText {
    const char* name;
    const char* key;
    std::string CertExtentions::*text;
};

constexpr ExtensionText kExtensions[] = {
    {"Alternative names", "subject_alt_name", &CertExtentions::subjectAltName},
    {"Issuer's alternative names", "issuer_alt_name", &CertExtentions::issuerAltName},
    {"Basic constraints", "basic_constraints", &CertExtentions::basicConstraints},
    {"Key usage", "key_usage", &CertExtentions::keyUsage},
    {"Extended key usage", "extended_key_usage", &CertExtentions::extKeyUsageNames},
    {"Private key usage", "private_key_usage_period", &CertExtentions::privateKeyUsagePeriod},
    {"Subject key identifier", "subject_key_id", &CertExtentions::subjectKeyIdHex},
    {"Authority key identifier", "authority_key_id", &CertExtentions::authorityKeyId},
    {"CRLs", "crl_distribution_points", &CertExtentions::crlDistributionPoints},
    {"Authority information", "authority_info_access", &CertExtentions::authorityInfoAccess},
    {"Policies", "certificate_policies", &CertExtentions::certificatePolicies},
    {"Policy mappings", "policy_mappings", &CertExtentions::policyMappings},
    {"Policy constraints", "policy_constraints", &CertExtentions::policyConstraints},
    {"Name constraints", "name_constraints", &CertExtentions::nameConstraints},
};

Json DetailsJson(const StoredCert& cert, const certmgr_client::Details& details) {
    Json json = ToJson(cert);
    json["sha1"] = details.ext.sha1;
    json["md5"] = details.ext.md5;
    json["public_key"] = TO_HEX_STD_STRING(details.public_key);
    for (const ExtensionText& extension : kExtensions) json["extensions"][extension.key] = details.ext.*extension.text;
    json["extensions"]["unknown"] = Json::array();
    for (const auto& [oid, value] : details.ext.unknownExtensions) {
        json["extensions"]["unknown"].push_back({{"oid", oid}, {"value", value}});
    }
    json["extensions"]["first_unknown_critical"] = details.ext.firstUnknownCritical;
    return json;
}

std::string ValidityText(const CertInfo& info) {
    if (info.validFrom == CERT_TIME_UNKNOWN && info.validTo == CERT_TIME_UNKNOWN) return {};
    return CertTimeToString(info.validFrom) + " until " + CertTimeToString(info.validTo);
}

std::string StateText(Validity validity) {
    switch (validity) {
        case Validity::kValid:
            break;
        case Validity::kEndsSoon:
            return "expires soon";
        case Validity::kExpired:
            return "expired";
        case Validity::kNotYet:
            return "not valid yet";
    }
    return {};
}

void AddIdentity(Fields& fields, const StoredCert& cert) {
    const CertInfo& info = cert.info;
    fields.Add("Subject", NameOf(info));
    fields.Add("Issuer", info.issuer);
    fields.Add("Serial", info.serialNumber);
    fields.Add("Valid", ValidityText(info));
    const Validity validity = ValidityOf(info, vpnfc::CurrentTime());
    if (!IsKeyPair(info)) {
        fields.Add("", StateText(validity), validity == Validity::kExpired ? Style::kBad : Style::kWarning);
    }
    fields.Add("Key", KeyText(info));
    fields.Add("Signature", info.signAlg == 0 ? "" : AlgorithmName(info.signAlg));
    fields.Add("List", std::string(ListName(cert.list)) + (info.isCA ? ", certification authority" : ""));
    fields.Add("Token", cert.token.label);
    fields.Add("Object", TO_HEX_STD_STRING(info.id));
}

void Show(Context& context, const ShowOptions& options) {
    const StoredCert cert = FindCert(context, options.name, options.token);
    const auto details = context.session.Take(context.session.manager().CertificateDetails(cert.token, cert.info));
    if (!details.found) throw Failure(kExitNotFound, "the certificate is not in the store any more");
    if (context.console.json) return context.console.PrintJson(DetailsJson(cert, details));
    Fields fields;
    AddIdentity(fields, cert);
    fields.Add("SHA-1", details.ext.sha1);
    fields.Add("MD5", details.ext.md5);
    for (const ExtensionText& extension : kExtensions) fields.Add(extension.name, details.ext.*extension.text);
    for (const auto& [oid, value] : details.ext.unknownExtensions) fields.Add("Extension " + Escaped(oid), value);
    fields.Add("Unknown critical", details.ext.firstUnknownCritical, Style::kBad);
    fields.Print(context.console);
}

}  // namespace

void AddListCommands(Command& app, Context& context) {
    const auto options = std::make_shared<ListOptions>();
    Command list = app.AddCommand("list", "Certificates, and key pairs that wait for one").Group(kGroupLook);
    list.AddOption("lists", options->lists, "LIST ...", "personal, trusted, intermediate, other; default all")
        .OneOf(ListNames());
    AddTokenOption(list, options->token);
    list.AddOption("-m,--match", options->match, "TEXT", "Only with this text in subject or issuer");
    list.AddOption("--expiring", options->expiring_days, "DAYS",
                   "Only what expires within that many days, or has expired")
        .Range(0, 100000);
    OnChosen(list, context, options, List);

    const auto show_options = std::make_shared<ShowOptions>();
    Command show = app.AddCommand("show", "Everything about one certificate").Group(kGroupLook);
    show.AddOption("name", show_options->name, "NAME",
                   "Piece of the subject, or beginning of serial number or fingerprint")
        .Required();
    AddTokenOption(show, show_options->token);
    OnChosen(show, context, show_options, Show);
}

}  // namespace certmgrctl
