#include <map>

#include "certmgr/chain.h"
#include "cli/commands/commands.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/text.h"
#include "platform/base.h"

namespace certmgrctl {
namespace {

using certmgr_client::Chain;

struct ChainOptions {
    std::string name;
    std::string token;
    bool dot = false;
    std::string crl;  // soft, strict
};

struct ChainVerdict {
    bool trusted;
    const char* key;  // in JSON
    const char* text;
};

ChainVerdict VerdictOf(std::uint32_t result) {
    switch (result) {
        case ChainIncomplete:
            return {false, "incomplete", "The chain ends before a trusted certificate: an issuer is missing."};
        case ChainCycle:
            return {false, "cycle", "The chain leads back into itself."};
        case ChainNotTrusted:
            return {false, "not_trusted", "The chain ends in a root that is not trusted."};
        case ChainTrusted:
            return {true, "trusted", "The chain ends in a trusted root."};
        case ChainEndsAtTrusted:
            return {true, "ends_at_trusted", "The chain ends in a trusted certificate."};
        default:
            break;
    }
    return {false, "error", "The chain could not be built."};
}

/// "trusted, valid until 2031-02-28".
Cell MarksOf(const CertInfo& info, std::time_t now) {
    Cell expiry = ExpiryCell(info, now);
    const bool ends = ValidityOf(info, now) == Validity::kValid || ValidityOf(info, now) == Validity::kEndsSoon;
    std::string text = info.kind == kCertKindTrusted ? "trusted, " : "";
    text += (ends ? "until " : "") + expiry.text;
    if (info.kind == kCertKindTrusted && expiry.style == Style::kPlain) expiry.style = Style::kGood;
    return {text, expiry.style};
}

/// The member's branch: root first, each issued certificate one step to the right.
std::string Branch(std::size_t depth) {
    constexpr std::size_t kStep = 3;
    return depth == 0 ? "" : std::string((depth - 1) * kStep, ' ') + "└─ ";
}

void PrintTree(const Console& console, const Chain& chain) {
    const std::time_t now = vpnfc::CurrentTime();
    Table table({{"CERTIFICATE", true}, {"VALIDITY AND TRUST"}, {"TOKEN", true}});
    std::size_t depth = 0;
    for (auto member = chain.members.rbegin(); member != chain.members.rend(); ++member, ++depth) {
        table.Add({{Branch(depth) + ShortNameOf(member->info)}, MarksOf(member->info, now), {member->token.label}});
    }
    table.Print(console);
    const ChainVerdict verdict = VerdictOf(chain.result);
    console.Print();
    console.Print(console.Painted(verdict.trusted ? Style::kGood : Style::kBad, verdict.text));
}

std::string DotText(const std::string& text) {
    std::string quoted;
    for (const char c : Escaped(text)) {
        if (c == '"' || c == '\\') quoted.push_back('\\');
        quoted.push_back(c);
    }
    return quoted;
}

const char* DotColour(const CertInfo& info, std::time_t now) {
    const Validity validity = ValidityOf(info, now);
    if (validity == Validity::kExpired || validity == Validity::kNotYet) return "red";
    return info.kind == kCertKindTrusted ? "darkgreen" : "black";
}

void PrintDot(const Console& console, const Chain& chain) {
    const std::time_t now = vpnfc::CurrentTime();
    console.Print("digraph chain {");
    console.Print("    node [shape=box];");
    for (std::size_t i = 0; i < chain.members.size(); ++i) {
        const CertInfo& info = chain.members[i].info;
        console.Print("    c" + std::to_string(i) + " [label=\"" + DotText(NameOf(info)) + "\\n" +
                      DotText(MarksOf(info, now).text) + "\", color=" + DotColour(info, now) + "];");
        if (i > 0) console.Print("    c" + std::to_string(i) + " -> c" + std::to_string(i - 1) + ";");
    }
    console.Print("}");
}

Json ChainJson(const Chain& chain) {
    const ChainVerdict verdict = VerdictOf(chain.result);
    Json json = {{"trusted", verdict.trusted}, {"result", verdict.key}, {"members", Json::array()}};
    for (const auto& member : chain.members) json["members"].push_back(ToJson(member.token, member.info));
    return json;
}

/// Leaf first, as it is for machines; the tree shows the root first.
void ShowChain(Context& context, const ChainOptions& options) {
    const StoredCert cert = FindCert(context, options.name, options.token);
    const Chain chain = context.session.Take(context.session.manager().BuildChain(cert.token, cert.info));
    if (!chain.found) throw Failure(kExitNotFound, "the certificate is not in the store any more");
    if (context.console.json) {
        context.console.PrintJson(ChainJson(chain));
    } else if (options.dot) {
        PrintDot(context.console, chain);
    } else {
        PrintTree(context.console, chain);
    }
    if (!VerdictOf(chain.result).trusted) throw Failure(kExitFailed, "");
}

const std::map<std::string, std::uint32_t> kCrlModes{{"", 0}, {"strict", 1}, {"soft", 2}};

void Verify(Context& context, const ChainOptions& options) {
    const StoredCert cert = FindCert(context, options.name, options.token);
    const auto verdict = context.session.Take(
        context.session.manager().VerifyCertificate(cert.token, cert.info, kCrlModes.at(options.crl)));
    if (context.console.json) {
        context.console.PrintJson(Json{{"good", verdict.good}, {"reason", verdict.text}});
    } else if (verdict.good) {
        context.console.Print(context.console.Painted(Style::kGood, "good") + ": " +
                              Escaped(Described(cert.token, cert.info)));
    } else {
        context.console.Print(context.console.Painted(Style::kBad, "refused") + ": " +
                              Escaped(Described(cert.token, cert.info)));
        for (const std::string& line : Lines(verdict.text)) context.console.Print("  " + line);
    }
    if (!verdict.good) throw Failure(kExitFailed, "");
}

Command AddNamed(Command& app, const char* name, const char* what, ChainOptions& options) {
    Command command = app.AddCommand(name, what).Group(kGroupLook);
    command.AddOption("name", options.name, "NAME", "Certificate, as for \"show\"").Required();
    AddTokenOption(command, options.token);
    return command;
}

}  // namespace

void AddChainCommands(Command& app, Context& context) {
    const auto options = std::make_shared<ChainOptions>();
    Command chain = AddNamed(app, "chain", "The chain of a certificate, drawn as a tree", *options);
    chain.AddFlag("--dot", options->dot, "Print it for Graphviz");
    OnChosen(chain, context, options, ShowChain);

    Command verify = AddNamed(app, "verify", "Whether a certificate can be relied on now", *options);
    verify
        .AddOption("--crl", options->crl, "",
                   "Check revocation: soft takes a missing CRL for good, strict does not; default no check")
        .OneOf({"soft", "strict"});
    OnChosen(verify, context, options, Verify);
}

}  // namespace certmgrctl
