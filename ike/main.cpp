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
    if (!host.Start(command.config)) return ikeauth::kExitUsage;
    const std::shared_ptr<const LPCFG::Rules> rules = host.rules();
    const LPCFG::auth_ike_t* rule = rules->find(command.rule);
    if (rule == nullptr) {
        std::cerr << "ikeauth: no rule '" << command.rule << "' in " << command.config << "\n";
        return ikeauth::kExitUsage;
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
    side->add_flag("--careless", command.side.careless);
    side->add_flag("--leaf-only", command.side.leaf_only);
    side->add_flag("--damage-signature", command.side.damage_signature);
    side->add_option("--announce-fqdn", command.side.announce_fqdn);
    side->add_option("--before-signing", command.side.before_signing);
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

void AddExchange(CLI::App& app, ExchangeCommand& command) {
    CLI::App* exchange = app.add_subcommand(
        "exchange", "Two hosts authenticate each other: two processes, each with the module and its own tokens");
    exchange->add_option("--initiator", command.initiator_config, "Settings file of the initiator")->required();
    exchange->add_option("--responder", command.responder_config, "Settings file of the responder")->required();
    exchange->add_option("--rule", command.rule, "Rule to authenticate by, in both files")->required();
    exchange->add_option("--ike", command.version, "IKE version whose authentication is made: 1 signs a hash, 2 octets")
        ->check(CLI::IsMember({"1", "2"}))
        ->capture_default_str();
    exchange->add_option("--payload", command.form, "Certificate payloads: single certificates, or one PKCS#7 bundle")
        ->check(CLI::IsMember({"x509", "pkcs7"}))
        ->capture_default_str();
    exchange->add_option("--expect", command.options.expect,
                         "Succeed only if refused with this text in the log; may be repeated");
    exchange->add_flag("-q,--quiet", command.options.quiet, "Print the verdict alone");
    exchange->add_option("--fault", command.initiator_faults,
                         "What the initiator does wrong: careless, leaf-only, damage-signature, announce-fqdn=NAME, "
                         "before-signing=COMMAND");
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
    CLI::App* provision = app.add_subcommand("provision", "Makes a SoftHSM2 token with a host's key and certificates");
    provision->add_option("--state", options.state, "State folder of SoftHSM2; made when absent")->required();
    provision->add_option("--label", options.label, "Label of the token")->required();
    provision->add_option("--pin-file", options.pin_file, "User PIN; a random one is written if the file is not there")
        ->required();
    provision->add_option("--so-pin-file", options.so_pin_file, "The same for the security officer")->required();
    CLI::Option* cert = provision->add_option("--cert", options.cert, "Certificate of the host (PEM)");
    provision->add_option("--key", options.key, "Its private key (PEM, not encrypted)")->needs(cert);
    provision->add_option("--other", options.others, "Further certificates (PEM)");
    provision->add_option("--trusted", options.trusted, "Certificates to be trusted (PEM)");
    provision->add_option("--key-not-after", options.key_not_after, "Last day of the private key's usage, YYYY-MM-DD");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Drives the certificate services of an IKE engine: choose, sign, send, verify.\n"
        "Exit codes: 0 success, 1 refused, 2 wrong arguments or settings, 3 not refused as expected.",
        "ikeauth"};
    app.require_subcommand(1);
    app.set_version_flag("--version", CERTMGR_VERSION);
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
        return app.exit(error) == 0 ? ikeauth::kExitSuccess : ikeauth::kExitUsage;
    } catch (const std::exception& error) {
        std::cerr << "ikeauth: " << error.what() << "\n";
        return ikeauth::kExitUsage;
    }
}
