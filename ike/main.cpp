// ikeauth: drives the IKE services of the certificate manager as an IKE engine does.

#include <iostream>
#include <map>
#include <string>

#include "arguments/arguments.h"
#include "ike/exchange.h"
#include "ike/host.h"
#include "ike/probe.h"
#include "ike/provision.h"
#include "ike/report_text.h"
#include "ike/respond.h"
#include "ike/side.h"
#include "platform/host/program.h"

namespace {

using arguments::Command;
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

void AddFaults(Command& command, ikeauth::Faults& faults) {
    command.AddFlag("--careless", faults.careless).Hidden();
    command.AddFlag("--leaf-only", faults.leaf_only).Hidden();
    command.AddFlag("--damage-signature", faults.damage_signature).Hidden();
    command.AddOption("--announce-fqdn", faults.announce_fqdn).Hidden();
    command.AddOption("--before-signing", faults.before_signing).Hidden();
}

Command AddSide(Command& program, SideCommand& options) {
    Command side = program.AddCommand("side", "One side of an exchange over an inherited socket");
    side.Group("");  // started by `exchange`
    side.AddOption("--config", options.config).Required();
    side.AddOption("--rule", options.rule).Required();
    side.AddOption("--fd", options.descriptor).Required();
    side.AddOption("--bridge", options.bridge_socket);
    side.AddOption("--time-out", options.seconds);
    side.AddChoice("--role", options.side.initiator, kRoles).Required();
    side.AddChoice("--ike", options.side.version, kVersions);
    side.AddChoice("--payload", options.side.form, kForms);
    AddFaults(side, options.side.faults);
    return side;
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

Command AddExchange(Command& program, ExchangeCommand& options) {
    Command exchange =
        program.AddCommand("exchange", "Two hosts, each a process with tokens of its own, authenticate each other");
    exchange.Footer(std::string(kFaults) + kExitCodes);
    exchange.AddOption("--initiator", options.initiator_config, "FILE", "Settings file of the initiator").Required();
    exchange.AddOption("--responder", options.responder_config, "FILE", "Settings file of the responder").Required();
    exchange.AddOption("--rule", options.rule, "NAME", "Rule to authenticate by, in both files").Required();
    exchange.AddOption("--ike", options.version, "", "IKE version: 1 signs a hash, 2 octets; default 2")
        .OneOf({"1", "2"});
    exchange.AddOption("--payload", options.form, "", "Single certificates or one bundle; default x509")
        .OneOf({"x509", "pkcs7"});
    exchange.AddOption("--expect", options.options.expect, "TEXT (repeatable)",
                       "Succeed only if refused with this text in the log");
    exchange.AddOption("--fault", options.initiator_faults, "FAULT",
                       "What the initiator does wrong, see below; repeatable");
    exchange.AddOption(
        "--ask", options.ask, "PATH",
        "The initiator waits for a client at this socket, and asks which of several certificates to use");
    exchange.AddFlag("-q,--quiet", options.options.quiet, "Print the verdict alone");
    return exchange;
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

Command AddProvision(Command& program, ProvisionOptions& options) {
    Command provision = program.AddCommand(
        "provision", "Makes a token with a host's key and certificates, with SoftHSM2 or a module like it");
    provision.Footer(
        "A PIN file that is not there is written with a random PIN; one that is there must have mode 0600.\n"
        "Certificates and keys are PEM files.\n\n" +
        std::string(kExitCodes));
    provision.AddOption("--state", options.state, "FOLDER", "State folder of the module; made when absent").Required();
    provision.AddOption("--module", options.module, "FILE",
                        "PKCS#11 module that takes \"directory=FOLDER\"; default SoftHSM2");
    provision.AddOption("--label", options.label, "TEXT", "Label of the token").Required();
    provision.AddOption("--pin-file", options.pin_file, "FILE", "PIN of the user").Required();
    provision.AddOption("--so-pin-file", options.so_pin_file, "FILE", "PIN of the security officer").Required();
    const arguments::Option certs =
        provision.AddOption("--cert", options.certs, "FILE ...", "Certificates of the host");
    provision.AddOption("--key", options.keys, "FILE ...", "Their private keys, in the same order, not encrypted")
        .Needs(certs);
    provision.AddOption("--psk", options.preshared_keys, "NAME=FILE ...",
                        "Preshared keys, each in a file with mode 0600");
    provision.AddOption("--other", options.others, "FILE ...", "Further certificates");
    provision.AddOption("--trusted", options.trusted, "FILE ...", "Certificates to be trusted");
    provision.AddOption("--key-not-after", options.key_not_after, "YYYY-MM-DD", "Last day of the private key's usage");
    return provision;
}

// --- On the wire ---

constexpr const char* kProposals =
    "Proposals are words joined by '-', several by ',': aes256gcm16-sha384-ecp384,aes128-sha256-modp2048\n"
    "  ciphers  aes128gcm16 aes192gcm16 aes256gcm16 aes128 aes192 aes256\n"
    "  hashes   sha256 sha384 sha512\n"
    "  groups   x25519 ecp256 ecp384 modp2048\n\n"
    "Neither side carries traffic: the SA is deleted as soon as both have authenticated.\n\n";

void AddAuthentication(Command& command, ikeauth::WireOptions& wire) {
    ikeauth::ExchangeSettings& settings = wire.settings;
    command.AddOption("--config", wire.config, "FILE", "Settings file").Required();
    command.AddOption("--rule", wire.rule, "NAME", "Rule to authenticate by").Required();
    command.AddOption("--psk", settings.preshared_key, "NAME",
                      "Authenticate with the preshared key of this name, on a token");
    command.AddChoice("--payload", settings.form, kForms, "x509|pkcs7",
                      "Single certificates or one bundle; default x509");
    command.AddFlag("--pss", settings.pss, "Sign with RSASSA-PSS where the key is RSA");
    command.AddFlag("--classic", settings.classic, "The methods before RFC 7427: RSA with SHA-1, ECDSA by curve");
    AddFaults(command, settings.faults);
}

void AddWire(Command& command, ikeauth::WireOptions& wire, unsigned& seconds) {
    ikeauth::ExchangeSettings& settings = wire.settings;
    command.Footer(std::string(kProposals) + ikeauth::StageHelp());
    AddAuthentication(command, wire);
    command.AddOption("--proposal", wire.proposals, "WORDS", "What to propose or allow; default all below");
    command.AddOption("--fragment-bytes", settings.fragment_bytes, "BYTES", "Largest IP datagram; default 1280")
        .Range(ikeauth::kMinFragmentBytes, ikeauth::kMaxFragmentBytes);
    command.AddOption("--time-out", seconds, "SECONDS", "How long to wait for each answer; default 10").Range(1, 600);
    command.AddOption("--pcap", wire.pcap, "FILE", "Write the datagrams to this file");
    command.AddOption("--keys", wire.keys, "FILE",
                      "Write the session keys to this file, as Wireshark's ikev2_decryption_table");
    command.AddFlag("--json", wire.json, "Print JSON");
}

Command AddProbe(Command& program, ikeauth::ProbeOptions& options, unsigned& seconds) {
    Command probe =
        program.AddCommand("probe", "Authenticates with an IKEv2 peer, and says step by step how that goes");
    AddWire(probe, options.wire, seconds);
    probe.AddOption("host", options.host, "HOST", "Name or address of the peer").Required();
    probe.AddOption("--port", options.port, "N", "UDP port; default 500").Range(1, 65535);
    probe.AddOption("--nat-port", options.nat_port, "N", "Port behind an address translator; default 4500")
        .Range(1, 65535);
    probe.AddFlag("--child", options.wire.settings.want_child, "Ask for a child SA even where none is needed");
    return probe;
}

Command AddRespond(Command& program, ikeauth::RespondOptions& options, unsigned& seconds) {
    Command respond = program.AddCommand("respond", "Answers IKEv2 initiators, to check a client");
    AddWire(respond, options.wire, seconds);
    respond.AddOption("--listen", options.listen, "ADDRESS", "Address; default 127.0.0.1");
    respond.AddOption("--port", options.port, "N", "UDP port, 0 for a free one; default 500").Range(0, 65535);
    respond
        .AddOption("--nat-port", options.nat_port, "N", "Second UDP port; default 4500 when the port is 500, else none")
        .Range(1, 65535);
    respond.AddOption("--count", options.count, "N",
                      "End after that many exchanges that got to IKE_AUTH, with the last code");
    respond.AddFlag("--cookies", options.cookies, "Ask every initiator for a cookie");
    respond.AddFlag("-q,--quiet", options.quiet, "One line for each exchange");
    return respond;
}

int RunCommandLine(int argc, char** argv) {
    arguments::Program program("ikeauth",
                               "Drives the certificate services of an IKE engine: choose, sign, send, verify.\n");
    program.Footer("\"ikeauth SUBCOMMAND --help\" shows the options of one.\n\n" + std::string(kExitCodes));
    program.RequireCommand();
    program.AddVersion(CERTMGR_VERSION);
    program.AddHelp();
    ExchangeCommand exchange;
    ProvisionOptions provision;
    SideCommand side;
    ikeauth::ProbeOptions probe;
    ikeauth::RespondOptions respond;
    unsigned seconds = 10;
    int result = 0;
    AddExchange(program, exchange).OnChosen([&] { result = RunExchangeCommand(exchange); });
    AddProvision(program, provision).OnChosen([&] { result = ikeauth::RunProvision(provision); });
    AddSide(program, side).OnChosen([&] { result = RunSide(side); });
    AddProbe(program, probe, seconds).OnChosen([&] {
        probe.wire.settings.time_limit = std::chrono::seconds(seconds);
        result = ikeauth::RunProbe(probe);
    });
    AddRespond(program, respond, seconds).OnChosen([&] {
        respond.wire.settings.time_limit = std::chrono::seconds(seconds);
        result = ikeauth::RunRespond(respond);
    });
    return program.Parse(argc, argv, ikeauth::kExitCannotRun).value_or(result);
}

}  // namespace

int main(int argc, char** argv) {
    return vpnhost::RunProgram("ikeauth", ikeauth::kExitCannotRun, [&] { return RunCommandLine(argc, argv); });
}
