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

/// The encodings of all items, one behind the other.
template <typename Items, typename Encode>
std::string All(const Items& items, Encode encode) {
    std::string out;
    for (const auto& item : items) out += encode(item);
    return out;
}

std::string FreshSerial() {
    static std::atomic<std::uint32_t> last{0x10000000};  // four bytes, never negative, never zero
    return der::Integer(++last).substr(2);
}

std::string ExtensionDer(const Extension& extension) {
    return der::Sequence(der::Oid(extension.oid) + (extension.critical ? der::Boolean(true) : std::string()) +
                         der::OctetString(extension.der));
}

/// What libcrypto makes of a line of a configuration file.
std::string FromConf(const ConfExtension& conf) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, nullptr, nullptr, nullptr, nullptr, 0);
    const Owner<CONF, NCONF_free> empty(NCONF_new(nullptr));
    X509V3_set_nconf(&context, empty.get());
    const Owner<X509_EXTENSION, X509_EXTENSION_free> extension(
        X509V3_EXT_nconf(empty.get(), &context, conf.name.c_str(), conf.value.c_str()));
    Check(extension != nullptr, (conf.name + " = " + conf.value).c_str());
    return libcrypto::Encode(extension.get(), i2d_X509_EXTENSION);
}

/// [tag] of the extensions: `content` made already, the key identifier and those that are listed; nothing when there are
/// none.
template <typename Spec>
std::string ExtensionsDer(unsigned tag, std::string content, const Spec& spec, const Cert& issuer) {
    if (spec.aki.bytes) {
        const std::string id = der::Implicit(0, spec.aki.is_auto ? issuer.key_id : *spec.aki.bytes);
        content += ExtensionDer({"authorityKeyIdentifier", false, der::Sequence(id)});
    }
    content += All(spec.conf, FromConf) + All(spec.extensions, ExtensionDer);
    return content.empty() ? content : der::Explicit(tag, der::Sequence(content));
}

std::string CrlPointDer(const std::vector<std::string>& names) {
    return der::Sequence(der::Explicit(0, der::Explicit(0, All(names, GeneralName))));
}

std::string CertExtensions(const CertSpec& spec, const Cert& cert, const Cert& issuer) {
    std::string out;
    if (spec.ca) {
        const std::string path_len = spec.path_len < 0 ? "" : ",pathlen:" + std::to_string(spec.path_len);
        out += FromConf({"basicConstraints", (*spec.ca ? "critical,CA:TRUE" : "critical,CA:FALSE") + path_len});
    }
    if (!spec.key_usage.empty()) out += FromConf({"keyUsage", "critical," + spec.key_usage});
    if (!spec.eku.empty()) out += ExtensionDer({"extendedKeyUsage", false, der::Sequence(All(spec.eku, der::Oid))});
    if (!spec.san.empty()) out += ExtensionDer({"subjectAltName", false, der::Sequence(All(spec.san, GeneralName))});
    if (spec.ski.bytes) out += ExtensionDer({"subjectKeyIdentifier", false, der::OctetString(cert.key_id)});
    if (!spec.crl_points.empty()) {
        out += ExtensionDer({"crlDistributionPoints", false, der::Sequence(All(spec.crl_points, CrlPointDer))});
    }
    return ExtensionsDer(3, out, spec, issuer);
}

std::string CertTbs(const CertSpec& spec, const Cert& cert, const Cert& issuer) {
    std::string tbs;
    if (spec.version != 1) tbs += der::Explicit(0, der::Integer(static_cast<std::uint64_t>(spec.version - 1)));
    tbs += der::IntegerBytes(cert.serial);
    tbs += spec.inner_algorithm.empty() ? SignatureAlgorithm(issuer.key, spec.sign) : spec.inner_algorithm;
    tbs += cert.issuer_der + der::Sequence(TimeDer(spec.not_before) + TimeDer(spec.not_after));
    tbs += cert.subject_der + cert.spki;
    if (spec.version >= 3) tbs += CertExtensions(spec, cert, issuer);
    return der::Sequence(tbs);
}

std::string CrlExtensions(const CrlSpec& spec, const Cert& issuer) {
    std::string out;
    if (spec.number) out += ExtensionDer({"crlNumber", false, der::IntegerBytes(*spec.number)});
    if (spec.delta_base) out += ExtensionDer({"deltaCRL", true, der::IntegerBytes(*spec.delta_base)});
    const std::string& point = spec.issuing_distribution_point;
    if (!point.empty()) out += ExtensionDer({"issuingDistributionPoint", true, point});
    return ExtensionsDer(0, out, spec, issuer);
}

/// SEQUENCE of the to-be-signed part, the algorithm and the signature.
std::string SignedDer(const std::string& tbs, const Key& key, const SignWith& with, const std::string& outer_algorithm,
                      bool damage_signature) {
    std::string signature = SignData(key, with, tbs);
    if (damage_signature) signature.back() = static_cast<char>(signature.back() ^ 1);
    return der::Sequence(tbs + (outer_algorithm.empty() ? SignatureAlgorithm(key, with) : outer_algorithm) +
                         der::BitString(signature));
}

}  // namespace

Time::Time(std::time_t t) : tag(0x17) {
    std::tm tm{};
    Check(gmtime_r(&t, &tm) != nullptr, "time");
    if (tm.tm_year < 50 || tm.tm_year >= 150) tag = 0x18;
    char buffer[32];
    text.assign(buffer, std::strftime(buffer, sizeof buffer, tag == 0x17 ? "%y%m%d%H%M%SZ" : "%Y%m%d%H%M%SZ", &tm));
}

Cert MakeCert(const CertSpec& spec, const Cert* issuer) {
    Cert cert;
    cert.serial = spec.serial.empty() ? FreshSerial() : spec.serial;
    cert.subject_der = spec.subject_der ? *spec.subject_der : NameDer(spec.subject);
    cert.key = spec.key_index < 0 ? MakeKeyOf(spec.key, cert.subject_der) : MakeKey(spec.key, spec.key_index);
    cert.key_id = spec.ski.bytes && !spec.ski.is_auto ? *spec.ski.bytes : KeyIdOf(cert.key);
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
    std::string extensions = All(entry.extensions, ExtensionDer);
    const std::string reason(1, static_cast<char>(entry.reason.value_or(0)));
    if (entry.reason) extensions += ExtensionDer({"CRLReason", false, der::Tlv(0x0A, reason)});
    if (!extensions.empty()) extensions = der::Sequence(extensions);
    return der::Sequence(der::IntegerBytes(entry.serial) + TimeDer(entry.date) + extensions);
}

std::string MakeCrl(const CrlSpec& spec, const Cert& issuer) {
    std::string tbs;
    if (spec.version != 1) tbs += der::Integer(static_cast<std::uint64_t>(spec.version - 1));
    tbs += SignatureAlgorithm(issuer.key, spec.sign);
    tbs += spec.issuer_der ? *spec.issuer_der : issuer.subject_der;
    tbs += TimeDer(spec.this_update);
    if (spec.next_update) tbs += TimeDer(*spec.next_update);
    const std::string entries = spec.entries_der.value_or("") + All(spec.entries, EntryDer);
    if (spec.entries_der || !entries.empty()) tbs += der::Sequence(entries);
    if (spec.version != 1) tbs += CrlExtensions(spec, issuer);
    return SignedDer(der::Sequence(tbs), issuer.key, spec.sign, "", spec.damage_signature);
}

std::string MakePkcs7(const std::vector<std::string>& certs_der, const std::vector<std::string>& crls_der) {
    const auto list = [](unsigned tag, const std::vector<std::string>& items) {
        return items.empty() ? std::string()
                             : der::Explicit(tag, All(items, [](const std::string& der) { return der; }));
    };
    const std::string signed_data = der::Integer(1) + der::Set("") + der::Sequence(der::Oid("pkcs7-data")) +
                                    list(0, certs_der) + list(1, crls_der) + der::Set("");
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
std::string Cert::KeyPem() const {
    return ToPem("PRIVATE KEY", Pkcs8(key));
}

}  // namespace test_pki
