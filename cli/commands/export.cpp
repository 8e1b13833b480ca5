#include <algorithm>
#include <map>

#include "certmgr/cert_storage.h"
#include "cli/commands/commands.h"
#include "cli/files.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

using enum CM::CertExportResult;

struct ExportOptions {
    std::string name;
    std::string token;
    std::string output;
    std::string format;
    std::string password_file;
    std::string pin_file;
    bool with_chain = false;
    bool with_key = false;
    bool force = false;
};

const std::map<std::string, std::uint32_t> kFormats{
    {"der", kExportDer}, {"pem", kExportPem}, {"pkcs7", kExportPkcs7}, {"pkcs12", kExportPkcs12}};

/// By the ending of the file's name where no format is named.
std::uint32_t FormatOf(const ExportOptions& options) {
    static const std::map<std::string, std::uint32_t> kEndings{{".der", kExportDer},
                                                               {".p7b", kExportPkcs7},
                                                               {".p7c", kExportPkcs7},
                                                               {".p12", kExportPkcs12},
                                                               {".pfx", kExportPkcs12}};
    if (!options.format.empty()) return kFormats.at(options.format);
    const std::size_t dot = options.output.rfind('.');
    const auto found = dot == std::string::npos ? kEndings.end() : kEndings.find(options.output.substr(dot));
    if (found != kEndings.end()) return found->second;
    return options.with_key ? kExportPkcs12 : kExportPem;
}

void RequireSense(const ExportOptions& options, std::uint32_t format) {
    if (options.with_key && format != kExportPkcs12) {
        throw Failure(kExitUsage, "a private key goes into PKCS #12 alone", {"Use --format pkcs12."});
    }
    if (options.with_chain && format != kExportPkcs12 && format != kExportPkcs7) {
        throw Failure(kExitUsage, "a chain goes into PKCS #7 and PKCS #12 alone", {"Use --format pkcs7 or pkcs12."});
    }
}

void RequireDone(std::uint32_t result, const StoredCert& cert) {
    switch (result) {
        case ExportCertOk:
            return;
        case ExportCertNotFound:
            throw Failure(kExitNotFound, "the certificate is not in the store any more");
        case ExportCertErrorPrivKey:
            throw Failure(kExitFailed, "the token does not let the private key out",
                          {"Only keys that were made or imported with --exportable leave a token."});
        case ExportCertErrorLogin:
            throw NotLoggedIn("not exported", cert.token);
        default:
            break;
    }
    throw Failure(kExitFailed, "the certificate could not be exported", {"The daemon's log says why."});
}

certmgr_client::Produced Produce(Context& context, const StoredCert& cert, const ExportOptions& options,
                                 std::uint32_t format) {
    vpnfc::SecretString password;
    if (format == kExportPkcs12) {
        password = ReadNewSecret(options.password_file, "Password of the new file", "Use --password-file FILE.");
    }
    if (options.with_key) LogInIfNeeded(context, cert.token, options.pin_file);
    return context.session.Take(context.session.manager().ExportCertificate(cert.token, cert.info,
                                                                            {.format = format,
                                                                             .password = &password,
                                                                             .with_chain = options.with_chain,
                                                                             .with_private_key = options.with_key}));
}

void PrintData(const Console& console, const std::string& bytes, std::uint32_t format) {
    const auto named =
        std::find_if(kFormats.begin(), kFormats.end(), [&](const auto& f) { return f.second == format; });
    const bool is_text = format == kExportPem;
    console.PrintJson(Json{{"format", named->first}, {is_text ? "pem" : "base64", is_text ? bytes : Base64(bytes)}});
}

void Export(Context& context, const ExportOptions& options) {
    const std::uint32_t format = FormatOf(options);
    RequireSense(options, format);
    RequireAbsent(options.output, options.force);
    const StoredCert cert = FindCert(context, options.name, options.token);
    if (IsKeyPair(cert.info)) throw Failure(kExitFailed, "a key pair without certificate cannot be exported");
    const certmgr_client::Produced produced = Produce(context, cert, options, format);
    RequireDone(produced.result, cert);
    const Access access = options.with_key ? Access::kOwnerOnly : Access::kOthersMayRead;
    const bool to_output = options.output.empty() || options.output == "-";
    if (to_output && context.console.json) return PrintData(context.console, produced.bytes.get(), format);
    WriteResult(options.output, produced.bytes.get(), access, options.force);
    if (to_output) return;
    if (context.console.json) {
        return context.console.PrintJson(Json{{"file", options.output}, {"bytes", produced.bytes.get().size()}});
    }
    context.console.Note("Wrote " + options.output + ".");
}

}  // namespace

void AddExportCommand(Command& app, Context& context) {
    const auto options = std::make_shared<ExportOptions>();
    Command command = app.AddCommand("export", "Write a certificate to a file").Group(kGroupLook);
    command.AddOption("name", options->name, "NAME", "Certificate, as for \"show\"").Required();
    AddTokenOption(command, options->token);
    command.AddOption("-o,--output", options->output, "FILE", "File; standard output when left out");
    command
        .AddOption("-f,--format", options->format, "", "Default by the file's ending (.der .p7b .p12), otherwise pem")
        .OneOf({"der", "pem", "pkcs7", "pkcs12"});
    command.AddFlag("--chain", options->with_chain, "With the certificates of its chain (PKCS #7, PKCS #12)");
    command.AddFlag("--with-key", options->with_key, "With its private key, where the token lets it out (PKCS #12)");
    command.AddOption("--password-file", options->password_file, "FILE",
                      "Password of a PKCS #12 file; - for standard input");
    AddPinOption(command, options->pin_file);
    command.AddFlag("--force", options->force, "Replace the file if it is there");
    OnChosen(command, context, options, Export);
}

}  // namespace certmgrctl
