#include <algorithm>
#include <optional>

#include "certmgr/cert_request.h"
#include "cli/commands/commands.h"
#include "cli/files.h"
#include "cli/login.h"
#include "cli/store/names.h"
#include "cli/terminal/progress.h"
#include "cli/terminal/text.h"
#include "platform/asn1.h"
#include "platform/base/text.h"

namespace certmgrctl {
namespace {

struct RequestOptions {
    std::string token;
    std::string key;
    std::string hash;
    std::string output;
    std::string pin_file;
    std::string seed_file;
    bool force = false;
    CertRequestInfo info;
};

bool HasModulus(const CertRequestKeyInfo& kind) {
    return kind.keyAlg == PKI_KEY_RSA || kind.keyAlg == PKI_KEY_DSA;
}

/// Two lengths of an algorithm without modulus are the least and the greatest; otherwise they are a list. Within the range
/// of elliptic curves there are few.
bool HasRange(const CertRequestKeyInfo& kind) {
    return !HasModulus(kind) && kind.keyAlg != PKI_KEY_EC && kind.keySizes.size() == 2;
}

std::vector<std::uint32_t> Lengths(const CertRequestKeyInfo& kind) {
    if (kind.keyAlg != PKI_KEY_EC || kind.keySizes.empty()) return kind.keySizes;
    std::vector<std::uint32_t> lengths;
    for (const std::uint32_t bits : {256U, 384U, 521U}) {
        if (kind.keySizes.front() <= bits && bits <= kind.keySizes.back()) lengths.push_back(bits);
    }
    return lengths;
}

bool Makes(const CertRequestKeyInfo& kind, std::uint32_t bits) {
    const auto lengths = Lengths(kind);
    if (kind.keyAlg == PKI_KEY_EC) return std::find(lengths.begin(), lengths.end(), bits) != lengths.end();
    return lengths.front() <= bits && bits <= lengths.back();
}

std::vector<std::string> Sizes(const CertRequestKeyInfo& kind) {
    std::vector<std::string> sizes;
    for (const std::uint32_t bits : Lengths(kind)) sizes.push_back(std::to_string(bits));
    if (!HasRange(kind)) return sizes;
    return {sizes.front() == sizes.back() ? sizes.front() : sizes.front() + " to " + sizes.back()};
}

std::vector<std::string> Hashes(const CertRequestKeyInfo& kind) {
    std::vector<std::string> hashes;
    for (const pki_alg_t hash : kind.hashAlgs) hashes.push_back(AlgorithmName(hash));
    return hashes;
}

std::vector<CertRequestKeyInfo> KindsOf(Context& context, const TokenInfo& token) {
    auto kinds = context.session.Take(context.session.manager().RequestMechanisms(token));
    if (kinds.empty()) throw Failure(kExitFailed, "token \"" + token.label + "\" makes no key pairs");
    return kinds;
}

void ListMechanisms(Context& context, const RequestOptions& options) {
    const auto kinds = KindsOf(context, FindToken(context, options.token));
    if (context.console.json) {
        Json json = {{"mechanisms", Json::array()}};
        for (const CertRequestKeyInfo& kind : kinds) {
            json["mechanisms"].push_back({{"key", AlgorithmName(kind.keyAlg)},
                                          {"bits", Lengths(kind)},
                                          {"bits_are_a_range", HasRange(kind)},
                                          {"hashes", Hashes(kind)}});
        }
        return context.console.PrintJson(json);
    }
    Fields fields;
    for (const CertRequestKeyInfo& kind : kinds) {
        fields.Add(AlgorithmName(kind.keyAlg), vpnfc::Joined(Sizes(kind)) + " bits");
        fields.Add("", kind.hashAlgs.empty() ? "" : "signed with " + vpnfc::Joined(Hashes(kind)));
    }
    fields.Print(context.console);
}

// --- Making one ---

const CertRequestKeyInfo* FindKind(const std::vector<CertRequestKeyInfo>& kinds, pki_alg_t key) {
    const auto found =
        std::find_if(kinds.begin(), kinds.end(), [key](const CertRequestKeyInfo& kind) { return kind.keyAlg == key; });
    return found == kinds.end() ? nullptr : &*found;
}

/// The kind that was named, else ECDSA, else RSA, else the token's first.
const CertRequestKeyInfo& KindFor(const std::vector<CertRequestKeyInfo>& kinds, const std::string& name) {
    if (!name.empty()) {
        const pki_alg_t key = PKI_ALG_FROM_NAME(name);
        const CertRequestKeyInfo* const found = key == 0 ? nullptr : FindKind(kinds, key & PKI_KEY_MASK);
        if (found != nullptr) return *found;
        throw Failure(kExitFailed, "the token makes no keys of the kind " + name,
                      {"See what it makes: certmgrctl request mechanisms."});
    }
    for (const pki_alg_t key : {PKI_KEY_EC, PKI_KEY_RSA}) {
        if (const CertRequestKeyInfo* found = FindKind(kinds, key)) return *found;
    }
    return kinds.front();
}

std::uint32_t BitsFor(const CertRequestKeyInfo& kind, std::uint32_t wanted) {
    constexpr std::uint32_t kUsualCurve = 256;
    constexpr std::uint32_t kUsualModulus = 2048;
    const auto lengths = Lengths(kind);
    if (lengths.empty()) return wanted;  // the token knows better
    if (wanted == 0) return std::clamp(HasModulus(kind) ? kUsualModulus : kUsualCurve, lengths.front(), lengths.back());
    if (Makes(kind, wanted)) return wanted;
    throw Failure(kExitFailed,
                  "the token makes no " + AlgorithmName(kind.keyAlg) + " keys of " + std::to_string(wanted) + " bits",
                  {"It makes " + vpnfc::Joined(Sizes(kind)) + "."});
}

/// The hash that was named, else the one that is as strong as the key, else the token's last.
pki_alg_t HashFor(const CertRequestKeyInfo& kind, std::uint32_t bits, const std::string& name) {
    constexpr std::uint32_t kP256 = 256;
    constexpr std::uint32_t kP384 = 384;
    if (!name.empty()) {
        const pki_alg_t hash = PKI_ALG_FROM_NAME(name) & PKI_HASH_MASK;
        if (hash != 0 && I2S_PKI_ALG_T.find(kind.keyAlg | hash) != nullptr) return hash;
        const std::string by_key = "there are no signatures of " + AlgorithmName(kind.keyAlg) + " keys with ";
        throw Failure(kExitUsage, (hash == 0 ? "there is no hash " : by_key) + name,
                      {"See certmgrctl request mechanisms."});
    }
    if (kind.hashAlgs.empty()) return PKI_HASH_NONE;
    pki_alg_t wanted = PKI_HASH_SHA256;
    if (kind.keyAlg == PKI_KEY_EC && bits > kP256) wanted = bits > kP384 ? PKI_HASH_SHA512 : PKI_HASH_SHA384;
    const bool offered = std::find(kind.hashAlgs.begin(), kind.hashAlgs.end(), wanted) != kind.hashAlgs.end();
    return offered ? wanted : kind.hashAlgs.back();
}

void RequireMade(std::uint32_t result, const TokenInfo& token) {
    switch (result) {
        case CertRequestMade:
            return;
        case CertRequestErrorLogin:
            throw NotLoggedIn("no request made", token);
        case CertRequestKeyPairError:
            throw Failure(kExitFailed, "the token did not make the key pair", {"The daemon's log says why."});
        case CertRequestDigestError:
        case CertRequestSignatureError:
            throw Failure(kExitFailed, "the token did not sign the request", {"Try another --hash."});
        case CertRequestSeedError:
            throw Failure(kExitFailed, "the token takes no seed", {"Leave --seed-file out."});
        default:
            break;
    }
    throw Failure(kExitFailed, "the request could not be built",
                  {"Check the subject (CN=alice, O=Example) and the alternative names."});
}

void PrintMade(const Console& console, const CertRequestInfo& info, const std::string& file, const std::string& pem) {
    if (console.json) {
        return console.PrintJson(Json{{"key", {{"algorithm", AlgorithmName(info.keyAlg)}, {"bits", info.keyBits}}},
                                      {"hash", AlgorithmName(info.hashAlg)},
                                      {"subject", info.subject},
                                      {"file", file},
                                      {"request", pem}});
    }
    if (file.empty()) return WriteResult("", pem, Access::kOthersMayRead, false);
    console.Note("Wrote " + file + ". Have it certified, then: certmgrctl import CERTIFICATE");
}

/// The key pair is on the token: what cannot be written to the file is printed, so that the request is not lost.
void KeepMade(const Console& console, const OutputFile& output, const CertRequestInfo& info, const std::string& file,
              const std::string& pem) {
    try {
        output.Write(pem);
    } catch (const Failure& failure) {
        PrintMade(console, info, "", pem);
        throw Failure(failure.code(), failure.what(),
                      {"The key pair is on the token; its request went to standard output instead."});
    }
    PrintMade(console, info, file, pem);
}

/// Also when a failure ends it.
struct WipedAtEnd {
    std::string& secret;
    ~WipedAtEnd() { vpnfc::SecureWipe(secret); }
};

void Make(Context& context, const RequestOptions& options) {
    RequireAbsent(options.output, options.force);
    const TokenInfo token = FindToken(context, options.token);
    const auto kinds = KindsOf(context, token);
    const CertRequestKeyInfo& kind = KindFor(kinds, options.key);
    CertRequestInfo info = options.info;
    info.keyAlg = kind.keyAlg;
    info.keyBits = BitsFor(kind, options.info.keyBits);
    info.hashAlg = HashFor(kind, info.keyBits, options.hash);
    vpnfc::SecretString seed;
    if (!options.seed_file.empty()) seed = ReadWholeFile(options.seed_file);
    LogInIfNeeded(context, token, options.pin_file);
    info.randomSeed = seed.get();
    const WipedAtEnd wiped{info.randomSeed};
    const std::string file = options.output == "-" ? "" : options.output;
    std::optional<OutputFile> output;
    if (!file.empty()) output.emplace(file, Access::kOthersMayRead, options.force);
    const auto made = [&] {
        const Progress progress("Token \"" + token.label + "\" makes a key pair");
        return context.session.Take(context.session.manager().MakeRequest(token, info));
    }();
    RequireMade(made.result, token);
    if (!output) return PrintMade(context.console, info, file, made.bytes.get());
    KeepMade(context.console, *output, info, file, made.bytes.get());
}

void AddMake(Command& group, Context& context) {
    const auto options = std::make_shared<RequestOptions>();
    CertRequestInfo& info = options->info;
    Command make = group.AddCommand("make", "Have a token make a key pair, and a request for it (PKCS #10)");
    make.AddOption("subject", info.subject, "SUBJECT", "Subject, as in \"CN=alice, O=Example\"").Required();
    AddTokenOption(make, options->token);
    make.AddOption("--key", options->key, "NAME", "Algorithm of the key; default ECDSA, otherwise RSA");
    make.AddOption("--bits", info.keyBits, "N", "Length of the key; default 256, for RSA 2048");
    make.AddOption("--hash", options->hash, "NAME", "Hash of the signature; default SHA-2 as strong as the key");
    make.AddOption("--dns", info.dnsName, "NAME", "Alternative name: host name");
    make.AddOption("--ip", info.ipAddress, "ADDRESS", "Alternative name: IPv4 address");
    make.AddOption("--email", info.email, "ADDRESS", "Alternative name: e-mail address");
    make.AddOption("--upn", info.upn, "NAME", "Alternative name: user principal name");
    make.AddOption("--eku", info.extKeyUsage, "LIST", "Extended key usages, names or dotted identifiers, with commas");
    make.AddFlag("--exportable", info.keyGenFlag, "The private key may leave the token");
    make.AddOption("--seed-file", options->seed_file, "FILE", "Bytes for the token's random generator");
    make.AddOption("-o,--output", options->output, "FILE", "File; standard output when left out");
    make.AddFlag("--force", options->force, "Replace the file if it is there");
    AddPinOption(make, options->pin_file);
    OnChosen(make, context, options, Make);
}

}  // namespace

void AddRequestCommands(Command& app, Context& context) {
    Command group = app.AddCommand("request", "Certificate requests: mechanisms, make").Group(kGroupChange);
    group.RequireCommand();
    const auto options = std::make_shared<RequestOptions>();
    Command mechanisms = group.AddCommand("mechanisms", "Which keys a token makes, and what may sign a request");
    AddTokenOption(mechanisms, options->token);
    OnChosen(mechanisms, context, options, ListMechanisms);
    AddMake(group, context);
}

}  // namespace certmgrctl
