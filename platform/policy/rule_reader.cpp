#include "platform/policy/rule_reader.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <tuple>

#include "platform/asn1.h"
#include "platform/asn1/der.h"
#include "platform/base/text.h"

namespace LPCFG {

namespace {

using settings::DidYouMean;
using settings::Field;
using settings::Quoted;
using settings::Value;

constexpr std::size_t kMd5Bytes = 16;
constexpr std::size_t kSha1Bytes = 20;

// --- Names, numbers, algorithms ---

// Replaces a printable name by the form that certificates have. `der` may be null.
bool ReadName(const Value& value, std::string& printable, std::string* der = nullptr) {
    std::string text;
    if (!value.Read(text)) return false;
    std::string name;
    std::string canonical;
    if (!printable_to_asn_dn(text, name) || !asn_dn_to_printable(name, canonical)) {
        return value.Error(Quoted(text) + " is not a distinguished name", "write it like \"C=DE, O=Example, CN=host\"");
    }
    if (canonical.empty()) return value.Error("is empty", "leave the key out if there is nothing to say");
    printable = std::move(canonical);
    if (der != nullptr) *der = std::move(name);
    return true;
}

bool ReadHex(const Value& value, std::string_view text, std::string& bytes) {
    if (FROM_HEX_STD_STRING(text, bytes) && !bytes.empty()) return true;
    return value.Error(Quoted(text) + " is not hexadecimal");
}

void ReadFingerprint(const Value& value, std::size_t length, std::string& out) {
    std::string text;
    std::string bytes;
    if (!value.Read(text) || !ReadHex(value, text, bytes)) return;
    if (bytes.size() != length) {
        value.Error("has " + std::to_string(bytes.size()) + " bytes, expected " + std::to_string(length));
        return;
    }
    out = TO_HEX_STD_STRING(bytes);
}

// Any usual notation: "0x", colons, an odd number of digits, leading zeros, a minus sign.
void ReadSerial(const Value& value, std::string& out) {
    std::string text;
    if (!value.Read(text)) return;
    const bool negative = text.starts_with('-');
    std::string_view digits = std::string_view(text).substr(negative ? 1 : 0);
    if (digits.starts_with("0x") || digits.starts_with("0X")) digits.remove_prefix(2);
    std::string padded(digits);
    if (padded.find_first_of(": ") == std::string::npos && padded.size() % 2 != 0) padded.insert(0, 1, '0');
    std::string bytes;
    if (!ReadHex(value, padded, bytes)) return;
    out = asn_serial_to_text(negative, asn1::WithoutLeadingZeros(bytes));
}

constexpr std::array<pki_alg_t, 8> kCertificateKeys = {PKI_KEY_RSA,          PKI_KEY_DSA,      PKI_KEY_EC,
                                                       PKI_KEY_ED25519,      PKI_KEY_GOST2001, PKI_KEY_GOST2012_256,
                                                       PKI_KEY_GOST2012_512, PKI_KEY_RSA_PSS};

void ReadKeyAlg(const Value& value, pki_alg_t& out) {
    std::string text;
    if (!value.Read(text)) return;
    const pki_alg_t alg = PKI_ALG_FROM_NAME(text);
    if (alg == 0 || (alg & ~PKI_KEY_MASK) != 0) {
        std::vector<std::string_view> names;
        names.reserve(kCertificateKeys.size());
        for (const pki_alg_t known : kCertificateKeys) names.emplace_back(I2S_PKI_ALG_T.getString(known));
        names.pop_back();
        const std::string nearest = DidYouMean(text, names);
        value.Error(Quoted(text) + (alg == 0 ? " is not a key algorithm" : " is not a key algorithm alone"),
                    nearest.empty() ? "known are " + vpnfc::Joined(names) : nearest);
        return;
    }
    if (alg == PKI_KEY_RSA_PSS || alg == PKI_KEY_512BIT) {
        value.Warn("can never match: no certificate is of this key algorithm",
                   alg == PKI_KEY_RSA_PSS ? "RSASSA-PSS signs with RSA keys: write \"RSA\"" : "");
    }
    out = alg;
}

// --- Certificate patterns ---

void ReadSubject(const Value& value, bool exact, std::string& name, bool& name_is_exact) {
    if (!name.empty()) {
        value.Error("stands beside its other form", "keep one: the whole name, or attributes that it contains");
        return;
    }
    if (ReadName(value, name)) name_is_exact = exact;
}

constexpr Field<cert_t> kPatternFields[] = {
    {"subject", [](const Value& v, cert_t& p) { ReadSubject(v, true, p.subject, p.subjectExact); }},
    {"subject_attrs", [](const Value& v, cert_t& p) { ReadSubject(v, false, p.subject, p.subjectExact); }},
    {"issuer", [](const Value& v, cert_t& p) { ReadSubject(v, true, p.issuer, p.issuerExact); }},
    {"issuer_attrs", [](const Value& v, cert_t& p) { ReadSubject(v, false, p.issuer, p.issuerExact); }},
    {"serial", [](const Value& v, cert_t& p) { ReadSerial(v, p.serialNumber); }},
    {"md5", [](const Value& v, cert_t& p) { ReadFingerprint(v, kMd5Bytes, p.md5); }},
    {"sha1", [](const Value& v, cert_t& p) { ReadFingerprint(v, kSha1Bytes, p.sha1); }},
    {"key", [](const Value& v, cert_t& p) { ReadKeyAlg(v, p.keyAlg); }},
};

auto PatternValue(const cert_t& p) {
    return std::tie(p.keyAlg, p.serialNumber, p.md5, p.sha1, p.subject, p.subjectExact, p.issuer, p.issuerExact);
}

bool SamePattern(const cert_t& a, const cert_t& b) {
    return PatternValue(a) == PatternValue(b);
}

bool MatchesAnything(const cert_t& pattern) {
    return SamePattern(pattern, cert_t{});
}

// Reads a list of tables into records, and warns about an entry that an earlier one always answers for.
template <typename T, typename Covers>
void ReadEntries(const Value& list, std::string_view expected, std::list<T>& out, void (*read)(const Value&, T&),
                 Covers&& covers) {
    std::vector<std::pair<std::size_t, const T*>> good;  // by position in the list
    std::size_t position = 0;
    ReadList(list, expected, [&](const Value& entry) {
        ++position;
        T& item = out.emplace_back();
        const std::size_t errors = entry.problems().errors();
        read(entry, item);
        if (entry.problems().errors() != errors) return;
        const auto cover =
            std::find_if(good.begin(), good.end(), [&](const auto& earlier) { return covers(*earlier.second, item); });
        if (cover != good.end()) {
            entry.Warn("is never reached: entry " + std::to_string(cover->first) + " matches all of it");
        }
        good.emplace_back(position, &item);
    });
}

void ReadPattern(const Value& entry, cert_t& pattern) {
    ReadTable<cert_t>(entry, ".", kPatternFields, pattern);
}

void ReadPatterns(const Value& list, std::list<cert_t>& patterns) {
    ReadEntries<cert_t>(list, "a list of certificate patterns", patterns, ReadPattern,
                        [](const cert_t& earlier, const cert_t& later) {
                            return MatchesAnything(earlier) || SamePattern(earlier, later);
                        });
}

// --- Identities ---

constexpr std::array<std::string_view, 4> kIdentityTypes = {"ip", "fqdn", "email", "dn"};  // by ipsecid_t::Type

void ReadIp(const Value& value, ipsecid_t& id) {
    std::string text;
    if (!value.Read(text)) return;
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        value.Error(Quoted(text) + " is not an IPv4 address");
        return;
    }
    id.type = ipsecid_t::kIp4;
    id.value.assign(reinterpret_cast<const char*>(&address), sizeof address);
}

void ReadIdText(const Value& value, ipsecid_t::Type type, ipsecid_t& id) {
    if (!value.Read(id.value)) return;
    id.type = type;
    if (type == ipsecid_t::kEmail && id.value.find('@') == std::string::npos) {
        value.Warn(Quoted(id.value) + " is not an e-mail address");
    }
    if (id.value.find('*') != std::string::npos) {
        value.Warn("a star stands for itself: identities are compared byte for byte",
                   "any = " + Quoted(kIdentityTypes.at(type)) + " accepts every one");
    }
}

void ReadDn(const Value& value, ipsecid_t& id) {
    if (ReadName(value, id.dn, &id.value)) id.type = ipsecid_t::kDn;
}

void ReadAny(const Value& value, ipsecid_t& id) {
    std::size_t type = 0;
    if (!value.ReadChoice(kIdentityTypes, type)) return;
    id.type = static_cast<std::uint32_t>(type);
    id.any = 1;
}

constexpr Field<ipsecid_t> kIdentityFields[] = {
    {"ip", ReadIp},
    {"fqdn", [](const Value& v, ipsecid_t& id) { ReadIdText(v, ipsecid_t::kFqdn, id); }},
    {"email", [](const Value& v, ipsecid_t& id) { ReadIdText(v, ipsecid_t::kEmail, id); }},
    {"dn", ReadDn},
    {"any", ReadAny},
};

void ReadIdentity(const Value& entry, ipsecid_t& id) {
    ReadTable<ipsecid_t>(entry, ".", kIdentityFields, id);
    const toml::table* const table = entry.node().as_table();
    if (table != nullptr && table->size() != 1) {
        entry.Error("holds " + std::to_string(table->size()) + " keys, expected one");
    }
}

void ReadIdentities(const Value& list, std::list<ipsecid_t>& ids) {
    ReadEntries<ipsecid_t>(list, "a list of identities", ids, ReadIdentity,
                           [](const ipsecid_t& earlier, const ipsecid_t& later) {
                               if (earlier.type != later.type) return false;
                               return earlier.any != 0 || (earlier.value == later.value && earlier.any == later.any);
                           });
}

// --- Rules ---

constexpr std::array<std::string_view, 3> kCrlModes = {"off", "strict", "soft"};  // by LPARAMS::CRL_PROC_t

void ReadCrlMode(const Value& value, auth_ike_t& rule) {
    std::size_t mode = 0;
    if (value.ReadChoice(kCrlModes, mode)) rule.crlProcessing = static_cast<LPARAMS::CRL_PROC_t>(mode);
}

void ReadCrlServer(const Value& value, auth_ike_t& rule) {
    constexpr std::array<std::string_view, 4> kSchemes = {"http", "https", "ldap", "ldaps"};
    std::string text;
    if (!value.Read(text)) return;
    const std::size_t colon = text.find("://");
    const bool known =
        std::find(kSchemes.begin(), kSchemes.end(), text.substr(0, std::min(colon, text.size()))) != kSchemes.end();
    const std::string host = colon == std::string::npos ? "" : text.substr(colon + 3);
    if (!known || host.empty() || host.find_first_of("/?#@ ") != std::string::npos) {
        // What is before an "@" may be a password.
        const std::string shown = text.find('@') == std::string::npos ? Quoted(text) : "a text with an \"@\"";
        value.Error(shown + " is not a server", "write it like \"http://crl.example:8080\", without a path");
        return;
    }
    rule.crlServer = text;
}

constexpr Field<auth_ike_t> kRuleFields[] = {
    {"name", [](const Value& v, auth_ike_t& r) { v.Read(r.name); }},
    {"auth", [](const Value& v, auth_ike_t& r) { ReadKeyAlg(v, r.authAlg); }},
    {"id_local", [](const Value& v, auth_ike_t& r) { ReadIdentities(v, r.id_local); }},
    {"id_remote", [](const Value& v, auth_ike_t& r) { ReadIdentities(v, r.id_remote); }},
    {"cert_local", [](const Value& v, auth_ike_t& r) { ReadPatterns(v, r.cert_local); }},
    {"cert_remote", [](const Value& v, auth_ike_t& r) { ReadPatterns(v, r.cert_remote); }},
    {"cert_trust", [](const Value& v, auth_ike_t& r) { ReadPatterns(v, r.cert_trust); }},
    {"no_map_id_local", [](const Value& v, auth_ike_t& r) { v.Read(r.no_map_id_local); }},
    {"no_map_id_remote", [](const Value& v, auth_ike_t& r) { v.Read(r.no_map_id_remote); }},
    {"crl", ReadCrlMode},
    {"crl_server", ReadCrlServer},
};

bool PatternAdmits(const cert_t& pattern, const std::string& dn) {
    if (pattern.subject.empty()) return true;
    return pattern.subjectExact ? pattern.subject == dn : printable_dn_contain_attrs(dn, pattern.subject);
}

// Whether no certificate can satisfy both lists, because the names they demand exclude each other.
bool NamesExcludeEachOther(const std::list<ipsecid_t>& ids, const std::list<cert_t>& patterns) {
    if (ids.empty() || patterns.empty()) return false;
    return std::none_of(ids.begin(), ids.end(), [&](const ipsecid_t& id) {
        if (id.type != ipsecid_t::kDn || id.any != 0) return true;
        return std::any_of(patterns.begin(), patterns.end(),
                           [&](const cert_t& pattern) { return PatternAdmits(pattern, id.dn); });
    });
}

// What is doubtful about a rule as a whole.
void WarnAboutRule(const Value& named, const auth_ike_t& rule) {
    if (!rule.no_map_id_local && NamesExcludeEachOther(rule.id_local, rule.cert_local)) {
        named.Warn("can never match: no name of id_local fits a pattern of cert_local");
    }
    if (!rule.no_map_id_remote && NamesExcludeEachOther(rule.id_remote, rule.cert_remote)) {
        named.Warn("can never match: no name of id_remote fits a pattern of cert_remote");
    }
    if (rule.no_map_id_local && (rule.id_local.empty() || rule.id_local.front().any != 0)) {
        named.Warn("no_map_id_local announces the first identity of id_local, and there is none with a value");
    }
    if (!rule.crlServer.empty() && rule.crlProcessing == LPARAMS::CRL_PROC_DISABLED) {
        named.Warn("crl_server is not used, because crl is \"off\"");
    }
}

}  // namespace

void ReadRules(const Value& list, Rules& rules) {
    std::set<std::string> names;
    ReadList(list, "a list of tables", [&](const Value& entry) {
        auth_ike_t& rule = rules.list.emplace_back();
        const toml::table* const table = entry.node().as_table();
        const std::string_view name =
            table == nullptr ? "" : (*table)["name"].value_exact<std::string_view>().value_or("");
        const Value named(entry.node(), "rule " + (name.empty() ? std::to_string(rules.list.size()) : Quoted(name)),
                          entry.problems());
        ReadTable<auth_ike_t>(named, ": ", kRuleFields, rule);
        if (table != nullptr && !table->contains("name")) named.Error("has no \"name\"");
        if (!rule.name.empty() && !names.insert(rule.name).second) {
            named.Warn("is never used: an earlier rule has the same name");
        }
        WarnAboutRule(named, rule);
    });
}

std::vector<std::string_view> RuleKeys() {
    return settings::NamesOf<auth_ike_t>(kRuleFields);
}
std::vector<std::string_view> PatternKeys() {
    return settings::NamesOf<cert_t>(kPatternFields);
}
std::vector<std::string_view> IdentityKeys() {
    return settings::NamesOf<ipsecid_t>(kIdentityFields);
}

}  // namespace LPCFG
