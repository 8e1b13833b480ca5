#include "cli/store/names.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <optional>

#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

using certmgr_client::ListedCrl;
using certmgr_client::ListedKey;

/// How well an object fits a name.
enum class Fit : std::uint8_t { kNone, kPiece, kValue, kWhole };

/// Fewer digits of a fingerprint are not worth asking for.
constexpr std::size_t kLeastFingerprint = 4;

/// Upper-case digits without separators; empty when it is no number.
std::string HexDigits(const std::string& name) {
    std::string digits;
    for (const char c : name) {
        if (c == ':' || c == ' ') continue;
        if (std::isxdigit(static_cast<unsigned char>(c)) == 0) return {};
        digits.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    }
    return digits;
}

Fit FitsNumber(const std::string& name, const std::string& number) {
    const std::string wanted = HexDigits(name);
    const std::string digits = HexDigits(number);
    if (wanted.empty() || !digits.starts_with(wanted)) return Fit::kNone;
    return wanted.size() == digits.size() ? Fit::kWhole : Fit::kPiece;
}

/// Whether what begins there is a whole value of a printable name.
bool IsWholeValue(const std::string& text, std::size_t at, std::size_t length) {
    const std::size_t end = at + length;
    const bool begins = at > 0 && text[at - 1] == '=';
    return begins && (end == text.size() || text[end] == ',' || text[end] == '+');
}

Fit FitsText(const std::string& name, const std::string& text) {
    const std::string wanted = Folded(name);
    const std::string folded = Folded(text);
    if (wanted.empty()) return Fit::kNone;
    if (wanted == folded) return Fit::kWhole;
    Fit fit = Fit::kNone;
    for (std::size_t at = folded.find(wanted); at != std::string::npos; at = folded.find(wanted, at + 1)) {
        fit = std::max(fit, IsWholeValue(folded, at, wanted.size()) ? Fit::kValue : Fit::kPiece);
    }
    return fit;
}

/// The objects that fit best.
template <typename Object, typename FitOf>
std::vector<const Object*> BestOf(const std::vector<Object>& objects, FitOf fit_of) {
    std::vector<const Object*> best;
    Fit best_fit = Fit::kPiece;
    for (const Object& object : objects) {
        const Fit fit = fit_of(object);
        if (fit < best_fit) continue;
        if (fit > best_fit) best.clear();
        best_fit = fit;
        best.push_back(&object);
    }
    return best;
}

[[noreturn]] void NotFound(const std::string& what, const std::string& name, const std::string& next) {
    throw Failure(kExitNotFound, "no " + what + " is named \"" + name + "\"", {next});
}

/// The only one of them; `describe` makes a line of each when there are several.
template <typename Object, typename Describe>
const Object& OnlyOf(const std::vector<const Object*>& best, const std::string& what, const std::string& name,
                     Describe describe) {
    if (best.size() == 1) return *best.front();
    std::vector<std::string> lines;
    lines.reserve(best.size() + 1);
    for (const Object* object : best) lines.push_back("  " + describe(*object));
    lines.emplace_back("Use more of the name, or --token where they are on several tokens.");
    throw Failure(kExitAmbiguous, "\"" + name + "\" can be any of " + Counted(best.size(), what), lines);
}

std::string DescribedCert(const StoredCert& cert) {
    return std::string(ListName(cert.list)) + ": " + Described(cert.token, cert.info);
}

Fit FitsCert(const std::string& name, const CertInfo& info) {
    return std::max(FitsNumber(name, NumberOf(info)), FitsText(name, info.subject));
}

Fit FitsFingerprint(Context& context, const std::string& name, const StoredCert& cert) {
    const auto details = context.session.Take(context.session.manager().CertificateDetails(cert.token, cert.info));
    return std::max(FitsNumber(name, details.ext.sha1), FitsNumber(name, details.ext.md5));
}

/// Drops what is on another token than the one that was named.
template <typename Object>
void KeepOnToken(Context& context, std::vector<Object>& objects, const std::string& token_name) {
    if (token_name.empty()) return;
    const std::uint64_t id = FindToken(context, token_name).id;
    std::erase_if(objects, [id](const Object& object) { return object.token.id != id; });
}

/// A CRL that came from two addresses is listed twice.
void FoldDownloads(std::vector<ListedCrl>& crls) {
    for (auto crl = crls.begin(); crl != crls.end(); ++crl) {
        const auto is_again = [&](const ListedCrl& other) {
            return crl->downloaded && other.downloaded && other.info.id == crl->info.id &&
                   other.info.issuer == crl->info.issuer && other.info.crlNumber == crl->info.crlNumber &&
                   other.info.thisUpdate == crl->info.thisUpdate;
        };
        crls.erase(std::remove_if(crl + 1, crls.end(), is_again), crls.end());
    }
}

std::vector<std::string> LabelsOf(const std::vector<TokenInfo>& tokens) {
    std::vector<std::string> lines;
    lines.reserve(tokens.size());
    for (const TokenInfo& token : tokens) lines.push_back("  \"" + token.label + "\"");
    return lines;
}

TokenInfo OnlyToken(const std::vector<TokenInfo>& tokens) {
    if (tokens.size() == 1) return tokens.front();
    if (tokens.empty())
        throw Failure(kExitNotFound, "there is no token", {"Insert one, or make one: certmgrctl token init."});
    auto lines = LabelsOf(tokens);
    lines.insert(lines.begin(), "Name one with --token:");
    throw Failure(kExitAmbiguous, "there are " + Counted(tokens.size(), "token"), lines);
}

}  // namespace

std::vector<StoredCert> StoredCerts(Context& context, const std::vector<CertSelector>& lists,
                                    const std::string& token_name) {
    std::vector<StoredCert> certs;
    for (const CertSelector list : kAllLists) {
        if (!lists.empty() && std::find(lists.begin(), lists.end(), list) == lists.end()) continue;
        for (ListedCert& listed : context.session.Take(context.session.manager().ListCertificates(list))) {
            certs.push_back({.list = list, .token = std::move(listed.token), .info = std::move(listed.info)});
        }
    }
    KeepOnToken(context, certs, token_name);
    return certs;
}

StoredCert FindCert(Context& context, const std::string& name, const std::string& token_name) {
    const std::vector<StoredCert> certs = StoredCerts(context, {}, token_name);
    auto best = BestOf(certs, [&](const StoredCert& cert) { return FitsCert(name, cert.info); });
    const bool vague = best.empty() || FitsCert(name, best.front()->info) == Fit::kPiece;
    if (vague && HexDigits(name).size() >= kLeastFingerprint) {
        best = BestOf(certs, [&](const StoredCert& cert) {
            return std::max(FitsCert(name, cert.info), FitsFingerprint(context, name, cert));
        });
    }
    if (best.empty()) NotFound("certificate", name, "See what there is: certmgrctl list.");
    return OnlyOf(best, "certificate", name, DescribedCert);
}

TokenInfo FindToken(const std::vector<TokenInfo>& tokens, const std::string& name) {
    if (name.empty()) return OnlyToken(tokens);
    const auto best = BestOf(tokens, [&](const TokenInfo& token) {
        return std::max(FitsText(name, token.label), FitsNumber(name, token.serialNumber));
    });
    if (best.empty()) NotFound("token", name, "See what there is: certmgrctl token list.");
    return OnlyOf(best, "token", name, [](const TokenInfo& token) {
        return "\"" + token.label + "\", serial " + token.serialNumber + ", of " + token.providerName;
    });
}

TokenInfo FindToken(Context& context, const std::string& name) {
    std::vector<TokenInfo> tokens;
    for (const auto& status : context.session.Take(context.session.manager().ListTokens()).tokens) {
        if (IsInitialised(status)) tokens.push_back(status.info);
    }
    return FindToken(tokens, name);
}

ListedCrl FindCrl(Context& context, const std::string& name, const std::string& token_name) {
    auto crls = context.session.Take(context.session.manager().ListCrls());
    KeepOnToken(context, crls, token_name);
    FoldDownloads(crls);
    const auto best = BestOf(crls, [&](const ListedCrl& crl) {
        return std::max(FitsText(name, crl.info.issuer), FitsNumber(name, crl.info.crlNumber));
    });
    if (best.empty()) NotFound("CRL", name, "See what there is: certmgrctl crl list.");
    return OnlyOf(best, "CRL", name, [](const ListedCrl& crl) { return Described(crl.token, crl.info); });
}

ListedKey FindKey(Context& context, const std::string& name, const std::string& token_name) {
    auto keys = context.session.Take(context.session.manager().ListPresharedKeys());
    KeepOnToken(context, keys, token_name);
    const auto best = BestOf(keys, [&](const ListedKey& key) { return key.name == name ? Fit::kWhole : Fit::kNone; });
    if (best.empty()) NotFound("preshared key", name, "See what there is: certmgrctl psk list.");
    return OnlyOf(best, "preshared key", name,
                  [](const ListedKey& key) { return key.name + ", on \"" + key.token.label + "\""; });
}

}  // namespace certmgrctl
