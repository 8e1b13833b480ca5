// ikeauth: drives the IKE services of the certificate manager as an IKE engine does.

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <string>

#include "ike/exchange.h"
#include "ike/host.h"
#include "ike/probe.h"
#include "ike/provision.h"
#include "ike/report_text.h"
#include "ike/respond.h"
#include "ike/side.h"
#include "platform/host/program.h"

namespace {

using ikeauth::ExchangeOptions;
using ikeauth::ProvisionOptions;
using ikeauth::SideOptions;

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  success: authenticated, refused as expected, or provisioned\n"
    "  1  one side refused the other or could not authenticate\n"
    "  2  could not run: wrong arguments or settings, or files or tokens that cannot be used\n"
    "  3  not refused although it should be, or not for the expected reason\n";

constexpr const char* kFaults =
    "Faults:\n"
    "  careless                take the first personal certificate without judging it\n"
    "  leaf-only               send no intermediate certificates\n"
    "  damage-signature        turn a bit of the authentication data\n"
    "  announce-fqdn=NAME      announce this identity instead of the certificate's\n"
    "  before-signing=COMMAND  run this shell command just before signing\n"
    "\n";

struct SideCommand {
    std::string config;
    std::string rule;
    std::string bridge_socket;
    int descriptor = -1;
    unsigned seconds = 30;  // for each message of the peer
    SideOptions side;
};

const std::map<std::string, bool> kRoles{{"initiator", true}, {"responder", false}};
const std::map<std::string, ikeauth::IkeVersion> kVersions{{"1", ikeauth::IkeVersion::kIke1},
                                                           {"2", ikeauth::IkeVersion::kIke2}};
const std::map<std::string, ikeauth::PayloadForm> kForms{{"x509", ikeauth::PayloadForm::kX509},
                                                         {"pkcs7", ikeauth::PayloadForm::kPkcs7}};

int RunSide(SideCommand& command) {
    command.side.asks = !command.bridge_socket.empty();
    return ikeauth::WithRule(
        command.config, command.rule,
        [&](const LPCFG::auth_ike_t& rule) {
            std::string verdict;
            ikeauth::Channel channel(command.descriptor, std::chrono::seconds(command.seconds));
            const bool success = ikeauth::Side(rule, command.side, channel).Run(verdict);
            std::cout << (command.side.initiator ? "initiator" : "responder")
                      << (success ? ": success: " : ": failure: ") << verdict << "\n";
            return static_cast<int>(success ? ikeauth::kExitSuccess : ikeauth::kExitRefused);
        },
        {}, command.bridge_socket);
}

void AddFaults(CLI::App& app, ikeauth::Faults& faults) {
    app.add_flag("--careless", faults.careless)->group("");
    app.add_flag("--leaf-only", faults.leaf_only)->group("");
    app.add_flag("--damage-signature", faults.damage_signature)->group("");
    app.add_option("--announce-fqdn", faults.announce_fqdn)->group("");
    app.add_option("--before-signing", faults.before_signing)->group("");
}

void AddSide(CLI::App& app, SideCommand& command) {
    CLI::App* side = app.add_subcommand("side", "One side of an exchange over an inherited socket");
    side->group("");  // started by `exchange`
    side->add_option("--config", command.config)->required();
    side->add_option("--rule", command.rule)->required();
    side->add_option("--fd", command.descriptor)->required();
    side->add_option("--bridge", command.bridge_socket);
    side->add_option("--time-out", command.seconds);
    side->add_option("--role", command.side.initiator)->required()->transform(CLI::CheckedTransformer(kRoles));
    side->add_option("--ike", command.side.version)->transform(CLI::CheckedTransformer(kVersions));
    side->add_option("--payload", command.side.form)->transform(CLI::CheckedTransformer(kForms));
    AddFaults(*side, command.side.faults);
}

struct ExchangeCommand {
    std::string initiator_config;
    std::string responder_config;
    std::string rule;
    std::string version = "2";
    std::string form = "x509";
    std::string ask;
    std::vector<std::string> initiator_faults;
    ExchangeOptions options;
};

void AddRequired(CLI::App& app, const char* name, std::string& value, const std::string& kind, const char* what) {
    app.add_option(name, value, what)->required()->option_text(kind + " (required)");
}

void AddExchange(CLI::App& app, ExchangeCommand& command) {
    CLI::App* exchange =
        app.add_subcommand("exchange", "Two hosts, each a process with tokens of its own, authenticate each other");
    exchange->footer(std::string(kFaults) + kExitCodes);
    AddRequired(*exchange, "--initiator", command.initiator_config, "FILE", "Settings file of the initiator");
    AddRequired(*exchange, "--responder", command.responder_config, "FILE", "Settings file of the responder");
    AddRequired(*exchange, "--rule", command.rule, "NAME", "Rule to authenticate by, in both files");
    exchange->add_option("--ike", command.version, "IKE version: 1 signs a hash, 2 octets; default 2")
        ->check(CLI::IsMember({"1", "2"}))
        ->option_text("1|2");
    exchange->add_option("--payload", command.form, "Single certificates or one bundle; default x509")
        ->check(CLI::IsMember({"x509", "pkcs7"}))
        ->option_text("x509|pkcs7");
    exchange->add_option("--expect", command.options.expect, "Succeed only if refused with this text in the log")
        ->option_text("TEXT (repeatable)");
    exchange->add_option("--fault", command.initiator_faults, "What the initiator does wrong, see below; repeatable")
        ->option_text("FAULT");
    exchange
        ->add_option("--ask", command.ask,
                     "The initiator waits for a client at this socket, and asks which of several certificates to use")
        ->option_text("PATH");
    exchange->add_flag("-q,--quiet", command.options.quiet, "Print the verdict alone");
}

int RunExchangeCommand(ExchangeCommand& command) {
    std::vector<std::string> common{"--rule", command.rule, "--ike", command.version, "--payload", command.form};
    ExchangeOptions& options = command.options;
    const bool asks = !command.ask.empty();
    if (asks) {  // a person takes longer than a program
        options.limit = std::chrono::seconds(600);
        common.insert(common.end(), {"--time-out", std::to_string(options.limit.count())});
    }
    options.initiator = {"--config", command.initiator_config};
    options.responder = {"--config", command.responder_config};
    options.initiator.insert(options.initiator.end(), common.begin(), common.end());
    options.responder.insert(options.responder.end(), common.begin(), common.end());
    if (asks) options.initiator.insert(options.initiator.end(), {"--bridge", command.ask});
    for (const std::string& fault : command.initiator_faults) options.initiator.push_back("--" + fault);
    return ikeauth::RunExchange(options);
}

void AddProvision(CLI::App& app, ProvisionOptions& options) {
    CLI::App* provision = app.add_subcommand(
        "provision", "Makes a token with a host's key and certificates, with SoftHSM2 or a module like it");
    provision->footer(
        "A PIN file that is not there is written with a random PIN; one that is there must have mode 0600.\n"
        "Certificates and keys are PEM files.\n\n" +
        std::string(kExitCodes));
    AddRequired(*provision, "--state", options.state, "FOLDER", "State folder of the module; made when absent");
    provision
        ->add_option("--module", options.module, "PKCS#11 module that takes \"directory=FOLDER\"; default SoftHSM2")
        ->option_text("FILE");
    AddRequired(*provision, "--label", options.label, "TEXT", "Label of the token");
    AddRequired(*provision, "--pin-file", options.pin_file, "FILE", "PIN of the user");
    AddRequired(*provision, "--so-pin-file", options.so_pin_file, "FILE", "PIN of the security officer");
    CLI::Option* cert =
        provision->add_option("--cert", options.certs, "Certificates of the host")->option_text("FILE ...");
    provision->add_option("--key", options.keys, "Their private keys, in the same order, not encrypted")
        ->needs(cert)
        ->option_text("FILE ...");
    provision->add_option("--psk", options.preshared_keys, "Preshared keys, each in a file with mode 0600")
        ->option_text("NAME=FILE ...");
    provision->add_option("--other", options.others, "Further certificates")->option_text("FILE ...");
    provision->add_option("--trusted", options.trusted, "Certificates to be trusted")->option_text("FILE ...");
    provision->add_option("--key-not-after", options.key_not_after, "Last day of the private key's usage")
        ->option_text("YYYY-MM-DD");
}

// --- On the wire ---

constexpr const char* kProposals =
    "Proposals are words joined by '-', several by ',': aes256gcm16-sha384-ecp384,aes128-sha256-modp2048\n"
    "  ciphers  aes128gcm16 aes192gcm16 aes256gcm16 aes128 aes192 aes256\n"
    "  hashes   sha256 sha384 sha512\n"
    "  groups   x25519 ecp256 ecp384 modp2048\n\n"
    "Neither side carries traffic: the SA is deleted as soon as both have authenticated.\n\n";

void AddAuthentication(CLI::App& app, ikeauth::WireOptions& wire) {
    ikeauth::ExchangeSettings& settings = wire.settings;
    app.add_option("--config", wire.config, "Settings file")->required()->option_text("FILE (required)");
    app.add_option("--rule", wire.rule, "Rule to authenticate by")->required()->option_text("NAME (required)");
    app.add_option("--psk", settings.preshared_key, "Authenticate with the preshared key of this name, on a token")
        ->option_text("NAME");
    app.add_option("--payload", settings.form, "Single certificates or one bundle; default x509")
        ->transform(CLI::CheckedTransformer(kForms))
        ->option_text("x509|pkcs7");
    app.add_flag("--pss", settings.pss, "Sign with RSASSA-PSS where the key is RSA");
    app.add_flag("--classic", settings.classic, "The methods before RFC 7427: RSA with SHA-1, ECDSA by curve");
    AddFaults(app, settings.faults);
}

void AddWire(CLI::App& app, ikeauth::WireOptions& wire, unsigned& seconds) {
    ikeauth::ExchangeSettings& settings = wire.settings;
    app.footer(std::string(kProposals) + ikeauth::StageHelp());
    AddAuthentication(app, wire);
    app.add_option("--proposal", wire.proposals, "What to propose or allow; default all below")->option_text("WORDS");
    app.add_option("--fragment-bytes", settings.fragment_bytes, "Largest IP datagram; default 1280")
        ->check(CLI::Range(ikeauth::kMinFragmentBytes, ikeauth::kMaxFragmentBytes))
        ->option_text("BYTES");
    app.add_option("--time-out", seconds, "How long to wait for each answer; default 10")
        ->check(CLI::Range(1U, 600U))
        ->option_text("SECONDS");
    app.add_option("--pcap", wire.pcap, "Write the datagrams to this file")->option_text("FILE");
    app.add_option("--keys", wire.keys, "Write the session keys to this file, as Wireshark's ikev2_decryption_table")
        ->option_text("FILE");
    app.add_flag("--json", wire.json, "Print JSON");
}

void AddProbe(CLI::App& app, ikeauth::ProbeOptions& options, unsigned& seconds) {
    CLI::App* probe =
        app.add_subcommand("probe", "Authenticates with an IKEv2 peer, and says step by step how that goes");
    AddWire(*probe, options.wire, seconds);
    probe->add_option("host", options.host, "Name or address of the peer")->required()->option_text("HOST (required)");
    probe->add_option("--port", options.port, "UDP port; default 500")->check(CLI::Range(1, 65535))->option_text("N");
    probe->add_option("--nat-port", options.nat_port, "Port behind an address translator; default 4500")
        ->check(CLI::Range(1, 65535))
        ->option_text("N");
    probe->add_flag("--child", options.wire.settings.want_child, "Ask for a child SA even where none is needed");
}

void AddRespond(CLI::App& app, ikeauth::RespondOptions& options, unsigned& seconds) {
    CLI::App* respond = app.add_subcommand("respond", "Answers IKEv2 initiators, to check a client");
    AddWire(*respond, options.wire, seconds);
    respond->add_option("--listen", options.listen, "Address; default 127.0.0.1")->option_text("ADDRESS");
    respond->add_option("--port", options.port, "UDP port, 0 for a free one; default 500")
        ->check(CLI::Range(0, 65535))
        ->option_text("N");
    respond->add_option("--nat-port", options.nat_port, "Second UDP port; default 4500 when the port is 500, else none")
        ->check(CLI::Range(1, 65535))
        ->option_text("N");
    respond
        ->add_option("--count", options.count, "End after that many exchanges that got to IKE_AUTH, with the last code")
        ->option_text("N");
    respond->add_flag("--cookies", options.cookies, "Ask every initiator for a cookie");
    respond->add_flag("-q,--quiet", options.quiet, "One line for each exchange");
}

int RunCommandLine(int argc, char** argv) {
    CLI::App app{"Drives the certificate services of an IKE engine: choose, sign, send, verify.\n", "ikeauth"};
    app.footer("\"ikeauth SUBCOMMAND --help\" shows the options of one.\n\n" + std::string(kExitCodes));
    app.require_subcommand(1);
    app.set_version_flag("--version", "ikeauth " CERTMGR_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    SideCommand side;
    ExchangeCommand exchange;
    ProvisionOptions provision;
    AddExchange(app, exchange);
    AddProvision(app, provision);
    AddSide(app, side);
    ikeauth::ProbeOptions probe;
    ikeauth::RespondOptions respond;
    unsigned seconds = 10;
    AddProbe(app, probe, seconds);
    AddRespond(app, respond, seconds);
    try {
        app.parse(argc, argv);
        if (app.got_subcommand("side")) return RunSide(side);
        if (app.got_subcommand("exchange")) return RunExchangeCommand(exchange);
        for (ikeauth::WireOptions* wire : {&probe.wire, &respond.wire}) {
            wire->settings.time_limit = std::chrono::seconds(seconds);
        }
        if (app.got_subcommand("probe")) return ikeauth::RunProbe(probe);
        if (app.got_subcommand("respond")) return ikeauth::RunRespond(respond);
        return ikeauth::RunProvision(provision);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ikeauth::kExitSuccess : ikeauth::kExitCannotRun;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return vpnhost::RunProgram("ikeauth", ikeauth::kExitCannotRun, [&] { return RunCommandLine(argc, argv); });
}
