#include "tests/support/pki.h"

#include <openssl/conf.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>

#include "tests/support/der.h"
#include "tests/support/pki_internal.h"

namespace test_pki {

namespace {

std::string TimeDer(const Time& time) {
    return der::Tlv(time.tag, time.text);
}

std::string FreshSerial() {
    static std::atomic<std::uint32_t> last{0x10000000};  // four bytes, never negative, never zero
    return der::Integer(++last).substr(2);
}

/// What libcrypto makes of a line of a configuration file.
Extension FromConf(const ConfExtension& conf) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, nullptr, nullptr, nullptr, nullptr, 0);
    const Owner<CONF, NCONF_free> empty(NCONF_new(nullptr));
    X509V3_set_nconf(&context, empty.get());
    const Owner<X509_EXTENSION, X509_EXTENSION_free> extension(
        X509V3_EXT_nconf(empty.get(), &context, conf.name.c_str(), conf.value.c_str()));
    Check(extension != nullptr, (conf.name + " = " + conf.value).c_str());
    char oid[128];
    OBJ_obj2txt(oid, sizeof oid, X509_EXTENSION_get_object(extension.get()), 1);
    const ASN1_OCTET_STRING* data = X509_EXTENSION_get_data(extension.get());
    return {oid, X509_EXTENSION_get_critical(extension.get()) == 1,
            std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)),
                        static_cast<std::size_t>(ASN1_STRING_length(data)))};
}

std::string Joined(const std::vector<std::string>& parts) {
    std::string out;
    for (const std::string& part : parts) out += (out.empty() ? "" : ",") + part;
    return out;
}

std::string GeneralNames(const std::vector<std::string>& names) {
    std::string out;
    for (const std::string& name : names) out += GeneralName(name);
    return out;
}

std::string CrlPointsDer(const std::vector<std::vector<std::string>>& points) {
    std::string out;
    for (const auto& names : points) {
        out += der::Sequence(der::Explicit(0, der::Explicit(0, GeneralNames(names))));
    }
    return der::Sequence(out);
}

std::string BasicConstraintsDer(bool ca, int path_len) {
    std::string content;
    if (ca) content += der::Boolean(true);
    if (path_len >= 0) content += der::Integer(static_cast<std::uint64_t>(path_len));
    return der::Sequence(content);
}

std::string GeneralizedText(const Time& time) {
    const bool two_digit_year = time.tag == 0x17 && time.text.size() == 13;
    return (two_digit_year ? time.text.front() < '5' ? "20" : "19" : "") + time.text;
}

std::string UsagePeriodDer(const CertSpec& spec) {
    std::string content;
    if (spec.key_usage_from) content += der::Implicit(0, GeneralizedText(*spec.key_usage_from));
    if (spec.key_usage_to) content += der::Implicit(1, GeneralizedText(*spec.key_usage_to));
    return der::Sequence(content);
}

void AddConf(std::vector<Extension>& out, const std::string& name, const std::string& value, bool critical = false) {
    if (!value.empty()) out.push_back(FromConf({name, (critical ? "critical," : "") + value}));
}

std::vector<Extension> Extensions(const CertSpec& spec, const Cert& cert, const Cert& issuer) {
    std::vector<Extension> out;
    if (spec.ca) {
        out.push_back({"basicConstraints", true, BasicConstraintsDer(*spec.ca, spec.path_len)});
    }
    AddConf(out, "keyUsage", spec.key_usage, true);
    AddConf(out, "extendedKeyUsage", Joined(spec.eku));
    if (!spec.san.empty()) out.push_back({"subjectAltName", false, der::Sequence(GeneralNames(spec.san))});
    if (spec.ski.bytes()) out.push_back({"subjectKeyIdentifier", false, der::OctetString(cert.key_id)});
    const std::string aki =
        AuthorityKeyIdDer(spec.aki, issuer.key_id, spec.aki_issuer_serial ? issuer.issuer_der : "", issuer.serial);
    if (!aki.empty()) out.push_back({"authorityKeyIdentifier", false, aki});
    if (!spec.crl_points.empty()) out.push_back({"crlDistributionPoints", false, CrlPointsDer(spec.crl_points)});
    if (spec.key_usage_from || spec.key_usage_to) {
        out.push_back({"privateKeyUsagePeriod", false, UsagePeriodDer(spec)});
    }
    for (const ConfExtension& conf : spec.conf) out.push_back(FromConf(conf));
    out.insert(out.end(), spec.extensions.begin(), spec.extensions.end());
    return out;
}

std::string ExtensionsDer(const std::vector<Extension>& extensions) {
    std::string content;
    for (const Extension& extension : extensions) content += ExtensionDer(extension);
    return der::Sequence(content);
}

std::string CertTbs(const CertSpec& spec, const Cert& cert, const Cert& issuer) {
    std::string tbs;
    if (spec.version != 1) tbs += der::Explicit(0, der::Integer(static_cast<std::uint64_t>(spec.version - 1)));
    tbs += der::IntegerBytes(cert.serial);
    tbs += spec.inner_algorithm.empty() ? SignatureAlgorithm(issuer.key, spec.sign) : spec.inner_algorithm;
    tbs += cert.issuer_der;
    tbs += der::Sequence(TimeDer(spec.not_before) + TimeDer(spec.not_after));
    tbs += cert.subject_der;
    tbs += cert.spki;
    if (spec.version >= 3) {
        const std::vector<Extension> extensions = Extensions(spec, cert, issuer);
        if (!extensions.empty()) tbs += der::Explicit(3, ExtensionsDer(extensions));
    }
    return der::Sequence(tbs);
}

std::vector<Extension> CrlExtensions(const CrlSpec& spec, const Cert& issuer) {
    std::vector<Extension> out;
    const std::string aki = AuthorityKeyIdDer(spec.aki, issuer.key_id, "", "");
    if (!aki.empty()) out.push_back({"authorityKeyIdentifier", false, aki});
    if (spec.number) out.push_back({"crlNumber", false, der::IntegerBytes(*spec.number)});
    if (spec.delta_base) out.push_back({"deltaCRL", true, der::IntegerBytes(*spec.delta_base)});
    if (!spec.issuing_distribution_point.empty()) {
        out.push_back({"issuingDistributionPoint", true, spec.issuing_distribution_point});
    }
    for (const ConfExtension& conf : spec.conf) out.push_back(FromConf(conf));
    out.insert(out.end(), spec.extensions.begin(), spec.extensions.end());
    return out;
}

}  // namespace

Time::Time(std::time_t t) : tag(0x17) {
    std::tm tm{};
    Check(gmtime_r(&t, &tm) != nullptr, "time");
    if (tm.tm_year < 50 || tm.tm_year >= 150) tag = 0x18;
    char buffer[32];
    text.assign(buffer, std::strftime(buffer, sizeof buffer, tag == 0x17 ? "%y%m%d%H%M%SZ" : "%Y%m%d%H%M%SZ", &tm));
}

std::string ExtensionDer(const Extension& extension) {
    return der::Sequence(der::Oid(extension.oid) + (extension.critical ? der::Boolean(true) : std::string()) +
                         der::OctetString(extension.der));
}

std::string AuthorityKeyIdDer(const KeyId& key_id, const std::string& issuer_key_id, const std::string& name_der,
                              const std::string& serial) {
    std::string content;
    if (key_id.bytes()) content += der::Implicit(0, key_id.is_auto() ? issuer_key_id : *key_id.bytes());
    if (!name_der.empty()) content += der::Explicit(1, der::Explicit(4, name_der)) + der::Implicit(2, serial);
    return content.empty() ? std::string() : der::Sequence(content);
}

std::string SignedDer(const std::string& tbs, const Key& key, const SignWith& with, const std::string& outer_algorithm,
                      bool damage_signature) {
    std::string signature = SignData(key, with, tbs);
    if (damage_signature) signature.back() = static_cast<char>(signature.back() ^ 1);
    return der::Sequence(tbs + (outer_algorithm.empty() ? SignatureAlgorithm(key, with) : outer_algorithm) +
                         der::BitString(signature));
}

Cert MakeCert(const CertSpec& spec, const Cert* issuer) {
    Cert cert;
    cert.serial = spec.serial.empty() ? FreshSerial() : spec.serial;
    cert.subject_der = spec.subject_der ? *spec.subject_der : NameDer(spec.subject);
    cert.key = spec.key_index < 0 ? MakeKeyOf(spec.key, cert.subject_der) : MakeKey(spec.key, spec.key_index);
    cert.key_id = spec.ski.bytes() && !spec.ski.is_auto() ? *spec.ski.bytes() : KeyIdOf(cert.key);
    cert.spki = spec.spki.empty() ? Spki(cert.key) : spec.spki;
    const std::string& issuer_name = issuer == nullptr ? cert.subject_der : issuer->subject_der;
    cert.issuer_der = spec.issuer_der ? *spec.issuer_der : issuer_name;
    const Cert& signer = issuer == nullptr ? cert : *issuer;
    cert.der =
        SignedDer(CertTbs(spec, cert, signer), signer.key, spec.sign, spec.outer_algorithm, spec.damage_signature);
    return cert;
}

Cert MakeCa(const std::string& subject, const Cert* issuer, KeyType key, int key_index) {
    return MakeCert(
        {.key = key, .key_index = key_index, .subject = subject, .ca = true, .key_usage = "keyCertSign, cRLSign"},
        issuer);
}

Cert MakeLeaf(const std::string& subject, const Cert& issuer, KeyType key, int key_index) {
    return MakeCert({.key = key, .key_index = key_index, .subject = subject, .key_usage = "digitalSignature"}, &issuer);
}

std::string EntryDer(const CrlEntry& entry) {
    std::vector<Extension> extensions = entry.extensions;
    if (entry.reason) {
        extensions.push_back({"CRLReason", false, der::Tlv(0x0A, std::string(1, static_cast<char>(*entry.reason)))});
    }
    return der::Sequence(der::IntegerBytes(entry.serial) + TimeDer(entry.date) +
                         (extensions.empty() ? std::string() : ExtensionsDer(extensions)));
}

std::string MakeCrl(const CrlSpec& spec, const Cert& issuer) {
    std::string tbs;
    if (spec.version != 1) tbs += der::Integer(static_cast<std::uint64_t>(spec.version - 1));
    tbs += SignatureAlgorithm(issuer.key, spec.sign);
    tbs += spec.issuer_der ? *spec.issuer_der : issuer.subject_der;
    tbs += TimeDer(spec.this_update);
    if (spec.next_update) tbs += TimeDer(*spec.next_update);
    std::string entries = spec.entries_der.value_or("");
    for (const CrlEntry& entry : spec.entries) entries += EntryDer(entry);
    if (spec.entries_der || !entries.empty()) tbs += der::Sequence(entries);
    const std::vector<Extension> extensions = CrlExtensions(spec, issuer);
    if (spec.version != 1 && !extensions.empty()) tbs += der::Explicit(0, ExtensionsDer(extensions));
    return SignedDer(der::Sequence(tbs), issuer.key, spec.sign, "", spec.damage_signature);
}

std::string MakePkcs7(const std::vector<std::string>& certs_der, const std::vector<std::string>& crls_der) {
    std::string certs;
    for (const std::string& cert : certs_der) certs += cert;
    std::string crls;
    for (const std::string& crl : crls_der) crls += crl;
    const std::string signed_data = der::Integer(1) + der::Set("") + der::Sequence(der::Oid("pkcs7-data")) +
                                    (certs.empty() ? std::string() : der::Explicit(0, certs)) +
                                    (crls.empty() ? std::string() : der::Explicit(1, crls)) + der::Set("");
    return der::Sequence(der::Oid("pkcs7-signedData") + der::Explicit(0, der::Sequence(signed_data)));
}

std::string ToPem(const std::string& label, std::string_view der) {
    const libcrypto::BioPtr bio(BIO_new(BIO_s_mem()));
    Check(PEM_write_bio(bio.get(), label.c_str(), "", Data(der), static_cast<long>(der.size())) > 0, "PEM");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(length)};
}

std::string Cert::Pem() const {
    return ToPem("CERTIFICATE", der);
}

}  // namespace test_pki
