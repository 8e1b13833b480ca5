// ikeauth: drives the IKE services of the certificate manager as an IKE engine does.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include "certmgr/certmgr.h"
#include "ike/exchange.h"
#include "ike/provision.h"
#include "ike/side.h"
#include "platform/host/host.h"

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
    int descriptor = -1;
    SideOptions side;
};

const std::map<std::string, bool> kRoles{{"initiator", true}, {"responder", false}};
const std::map<std::string, ikeauth::IkeVersion> kVersions{{"1", ikeauth::IkeVersion::kIke1},
                                                           {"2", ikeauth::IkeVersion::kIke2}};
const std::map<std::string, ikeauth::PayloadForm> kForms{{"x509", ikeauth::PayloadForm::kX509},
                                                         {"pkcs7", ikeauth::PayloadForm::kPkcs7}};

int RunSide(const SideCommand& command) {
    vpnhost::Host host;
    if (host.Start(command.config) != vpnhost::StartResult::kRunning) return ikeauth::kExitCannotRun;
    const std::shared_ptr<const LPCFG::Rules> rules = host.rules();
    const LPCFG::auth_ike_t* rule = rules->find(command.rule);
    if (rule == nullptr) {
        std::cerr << "ikeauth: no rule '" << command.rule << "' in " << command.config << "\n";
        return ikeauth::kExitCannotRun;
    }
    std::string verdict;
    bool success = false;
    {
        const CM::RunningModule module;
        CM::Reload();
        ikeauth::Channel channel(command.descriptor);
        success = ikeauth::Side(*rule, command.side, channel).Run(verdict);
    }
    host.Stop();
    std::cout << (command.side.initiator ? "initiator" : "responder") << (success ? ": success: " : ": failure: ")
              << verdict << "\n";
    return success ? ikeauth::kExitSuccess : ikeauth::kExitRefused;
}

void AddSide(CLI::App& app, SideCommand& command) {
    CLI::App* side = app.add_subcommand("side", "One side of an exchange over an inherited socket");
    side->group("");  // started by `exchange`
    side->add_option("--config", command.config)->required();
    side->add_option("--rule", command.rule)->required();
    side->add_option("--fd", command.descriptor)->required();
    side->add_option("--role", command.side.initiator)->required()->transform(CLI::CheckedTransformer(kRoles));
    side->add_option("--ike", command.side.version)->transform(CLI::CheckedTransformer(kVersions));
    side->add_option("--payload", command.side.form)->transform(CLI::CheckedTransformer(kForms));
    side->add_flag("--careless", command.side.faults.careless);
    side->add_flag("--leaf-only", command.side.faults.leaf_only);
    side->add_flag("--damage-signature", command.side.faults.damage_signature);
    side->add_option("--announce-fqdn", command.side.faults.announce_fqdn);
    side->add_option("--before-signing", command.side.faults.before_signing);
}

struct ExchangeCommand {
    std::string initiator_config;
    std::string responder_config;
    std::string rule;
    std::string version = "2";
    std::string form = "x509";
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
    exchange->add_flag("-q,--quiet", command.options.quiet, "Print the verdict alone");
}

int RunExchangeCommand(ExchangeCommand& command) {
    const std::vector<std::string> common{"--rule", command.rule, "--ike", command.version, "--payload", command.form};
    ExchangeOptions& options = command.options;
    options.initiator = {"--config", command.initiator_config};
    options.responder = {"--config", command.responder_config};
    options.initiator.insert(options.initiator.end(), common.begin(), common.end());
    options.responder.insert(options.responder.end(), common.begin(), common.end());
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
    CLI::Option* cert = provision->add_option("--cert", options.cert, "Certificate of the host")->option_text("FILE");
    provision->add_option("--key", options.key, "Its private key, not encrypted")->needs(cert)->option_text("FILE");
    provision->add_option("--other", options.others, "Further certificates")->option_text("FILE ...");
    provision->add_option("--trusted", options.trusted, "Certificates to be trusted")->option_text("FILE ...");
    provision->add_option("--key-not-after", options.key_not_after, "Last day of the private key's usage")
        ->option_text("YYYY-MM-DD");
}

}  // namespace

int main(int argc, char** argv) {
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
    try {
        app.parse(argc, argv);
        if (app.got_subcommand("side")) return RunSide(side);
        if (app.got_subcommand("exchange")) return RunExchangeCommand(exchange);
        return ikeauth::RunProvision(provision);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ikeauth::kExitSuccess : ikeauth::kExitCannotRun;
    } catch (const std::exception& error) {
        std::cerr << "ikeauth: " << error.what() << "\n";
        return ikeauth::kExitCannotRun;
    }
}
