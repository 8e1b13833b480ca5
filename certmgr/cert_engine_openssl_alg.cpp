// Algorithm identifiers, times, object identifiers, numbers, names and fingerprints.
#include <openssl/objects.h>

#include <array>
#include <cstring>
#include <ctime>
#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"

using cert_engine::BytesOf;
using cert_engine::ErrorMark;
using libcrypto::ObjectPtr;
using libcrypto::TypePtr;

namespace {

// RSASSA-PSS: the hash stands in the parameters. A NULL in their place means the defaults, with SHA-1.
pki_alg_t PssAlgorithm(const X509_ALGOR* algorithm) {
    const ASN1_TYPE* parameter = algorithm->parameter;
    if (parameter == nullptr) return PKI_KEY_RSA_PSS;
    if (ASN1_TYPE_get(parameter) == V_ASN1_NULL) return PKI_HASH_SHA1 | PKI_KEY_RSA_PSS;
    const ErrorMark mark;
    const std::string der = cert_engine::Encode(parameter, i2d_ASN1_TYPE);
    if (der.empty()) return PKI_KEY_RSA_PSS;
    return asn_ike_signalg_t_to_pki_alg(BytesOf(algorithm->algorithm), der);
}

ObjectPtr ObjectFromContent(std::string_view content) {
    constexpr std::size_t kShortLength = 0x7F;
    if (content.empty() || content.size() > kShortLength) return nullptr;
    std::string der{static_cast<char>(V_ASN1_OBJECT), static_cast<char>(content.size())};
    der.append(content);
    return libcrypto::Decode<ASN1_OBJECT_free>(d2i_ASN1_OBJECT, der);
}

// Value of two decimal digits, -1 when they are none or above the limit.
int charpair_to_int_(char tens, char ones, int limit) {
    if (tens < '0' || tens > '9' || ones < '0' || ones > '9') return -1;
    const int value = (tens - '0') * 10 + (ones - '0');
    return value <= limit ? value : -1;
}

// MMDDHHMMSSZ; what follows is not looked at.
bool ReadMonthToSecond(std::string_view text, std::tm& tm) {
    constexpr std::size_t kBlockLength = 11;
    if (text.size() < kBlockLength || text[kBlockLength - 1] != 'Z') return false;
    const std::array<std::pair<int*, int>, 5> fields{
        {{&tm.tm_mon, 12}, {&tm.tm_mday, 31}, {&tm.tm_hour, 23}, {&tm.tm_min, 59}, {&tm.tm_sec, 60}}};
    std::size_t at = 0;
    for (const auto& [field, limit] : fields) {
        *field = charpair_to_int_(text[at], text[at + 1], limit);
        if (*field < 0) return false;
        at += 2;
    }
    if (tm.tm_mon == 0 || tm.tm_mday == 0) return false;
    --tm.tm_mon;
    return true;
}

constexpr int kTmYearOrigin = 1900;

// Reads the year and moves `text` behind it.
bool ReadYear(int type, std::string_view& text, std::tm& tm) {
    const std::size_t digits = type == V_ASN1_UTCTIME ? 2 : 4;
    if (text.size() < digits + 11) return false;
    const int high = charpair_to_int_(text[0], text[1], 99);
    if (high < 0) return false;
    if (type == V_ASN1_UTCTIME) {
        tm.tm_year = high < 50 ? high + 100 : high;
    } else {
        const int low = charpair_to_int_(text[2], text[3], 99);
        if (low < 0) return false;
        tm.tm_year = high * 100 + low - kTmYearOrigin;
    }
    text.remove_prefix(digits);
    return true;
}

const char* LibcryptoName(const ASN1_OBJECT* object) {
    const int nid = OBJ_obj2nid(object);
    if (nid == NID_undef) return nullptr;
    const char* name = OBJ_nid2ln(nid);
    return name != nullptr ? name : OBJ_nid2sn(nid);
}

std::string_view ObjectName(const ASN1_OBJECT* object) {
    const std::string_view content = BytesOf(object);
    if (const OidMapEntry* entry = oid_map_find_asn(OID_MAP_HANDLE_DEFAULT_FILE, content.data(), content.size())) {
        return entry->preferred_name.empty() ? entry->other_name : entry->preferred_name;
    }
    const char* name = LibcryptoName(object);
    return name != nullptr ? std::string_view(name) : std::string_view();
}

bool AppendDotted(const ASN1_OBJECT* object, std::string& appended) {
    if (oid_asn_to_str_(BytesOf(object), &appended)) return true;
    // Some releases of libcrypto 3 take a time that grows with the square of the length, others refuse what is longer.
    constexpr std::size_t kMaxBytes = 586;
    if (BytesOf(object).size() > kMaxBytes) return false;
    const ErrorMark mark;
    std::array<char, 1024> buffer{};
    const int length = OBJ_obj2txt(buffer.data(), static_cast<int>(buffer.size()), object, 1);
    if (length <= 0) return false;
    if (static_cast<std::size_t>(length) < buffer.size()) {
        appended.append(buffer.data(), static_cast<std::size_t>(length));
        return true;
    }
    std::string longer(static_cast<std::size_t>(length) + 1, '\0');
    if (OBJ_obj2txt(longer.data(), length + 1, object, 1) != length) return false;
    appended.append(longer, 0, static_cast<std::size_t>(length));
    return true;
}

}  // namespace

pki_alg_t X509_ALGOR_to_pki_alg_t(const X509_ALGOR* algorithm) {
    if (algorithm == nullptr || algorithm->algorithm == nullptr) return 0;
    const std::string_view oid = BytesOf(algorithm->algorithm);
    if (const pki_alg_t key = PKI_OID_TO_KEY_ALG(oid.data(), oid.size()); key != 0) return key;
    const pki_alg_t code = PKI_OID_TO_CERT_SIGN_ALG(oid.data(), oid.size());
    return code == PKI_KEY_RSA_PSS ? PssAlgorithm(algorithm) : code;
}

bool X509_ALGOR_from_pki_alg_t(X509_ALGOR* algorithm, pki_alg_t code) {
    const ErrorMark mark;
    ASN1_OBJECT_free(std::exchange(algorithm->algorithm, nullptr));
    std::string oid;
    bool null_parameter = false;
    if (!asn_pki_alg_to_identifier(code, oid, null_parameter)) return false;
    algorithm->algorithm = ObjectFromContent(oid).release();
    if (algorithm->algorithm == nullptr) return false;
    ASN1_TYPE_free(std::exchange(algorithm->parameter, nullptr));
    if (!null_parameter) return true;
    TypePtr parameter(ASN1_TYPE_new());
    if (parameter == nullptr) return false;
    ASN1_TYPE_set(parameter.get(), V_ASN1_NULL, nullptr);
    algorithm->parameter = parameter.release();
    return true;
}

bool X509_ALGOR_to_std_string_(const X509_ALGOR* algorithm, std::string* appended) {
    if (algorithm == nullptr || algorithm->algorithm == nullptr) return false;
    return AppendDotted(algorithm->algorithm, *appended);
}

cert_time64_t ASN1_TIME_to_time_t(const ASN1_TIME* time) {
    return time == nullptr ? CERT_TIME_UNKNOWN : cert_engine::PackedTime(ASN1_STRING_type(time), BytesOf(time));
}

bool ASN1_OBJECT_to_std_string(ASN1_OBJECT* object, std::string& appended, StringOidFormat format) {
    const std::string_view name = format != kOidDotted ? ObjectName(object) : std::string_view();
    if (name.empty()) return AppendDotted(object, appended);
    if (format == kOidName) {
        appended.append(name);
        return true;
    }
    std::string dotted;
    if (!AppendDotted(object, dotted)) return false;
    appended.append(name).append(" (").append(dotted).append(")");
    return true;
}

bool ASN1_INTEGER_to_std_string(ASN1_INTEGER* number, std::string& text) {
    if (number == nullptr) return false;
    text = asn_serial_to_text((ASN1_STRING_type(number) & V_ASN1_NEG) != 0, BytesOf(number));
    return true;
}

unsigned CertEngine_PubKeyBitLength(pki_alg_t keyAlg, const void* der, unsigned long length) {
    // A code with a hash part is no key algorithm.
    if ((keyAlg & PKI_HASH_MASK) != 0) return 0;
    return asn_spki_key_bits(keyAlg & PKI_ALG_MASK, {static_cast<const char*>(der), length});
}

bool CertEngine_FingerprintSHA1(const std::string& der, std::string& out, char format) {
    const ErrorMark mark;
    std::string digest;
    if (!cert_engine::Digest(cert_engine::Sha1(), der, digest)) return false;
    out = TO_HEX_STD_STRING(digest, format);
    return true;
}

void X509_NAME_to_utf8(X509_NAME* name, std::string& text) {
    const std::string_view der = cert_engine::NameDer(name);
    if (!der.empty()) asn_dn_to_printable(der, text, OID_MAP_HANDLE_DEFAULT_FILE);
}

namespace cert_engine {

cert_time64_t PackedTime(int type, std::string_view content) {
    if (type != V_ASN1_UTCTIME && type != V_ASN1_GENERALIZEDTIME) return CERT_TIME_UNKNOWN;
    std::tm tm{};
    if (!ReadYear(type, content, tm) || !ReadMonthToSecond(content, tm)) return CERT_TIME_UNKNOWN;
    return CertTimeFromTm(tm);
}

std::string_view NameDer(const X509_NAME* name) {
    const unsigned char* der = nullptr;
    std::size_t length = 0;
    if (name == nullptr || X509_NAME_get0_der(name, &der, &length) != 1) return {};
    return {reinterpret_cast<const char*>(der), length};
}

pki_alg_t SignatureAlgorithm(const X509_ALGOR* algorithm) {
    const pki_alg_t code = X509_ALGOR_to_pki_alg_t(algorithm);
    if (code == 0 || (code & PKI_HASH_MASK) != 0) return code;
    const std::string_view oid = BytesOf(algorithm->algorithm);
    const pki_alg_t signature = PKI_OID_TO_CERT_SIGN_ALG(oid.data(), oid.size());
    return (signature & PKI_HASH_MASK) == PKI_HASH_NONE ? signature : code;
}

std::string_view ToBeSigned(std::string_view der) {
    const ErrorMark mark;
    const unsigned char* const begin = Data(der);
    const unsigned char* content = begin;
    long length = 0;
    int tag = 0;
    int tag_class = 0;
    constexpr int kDefinite = V_ASN1_CONSTRUCTED;
    if (ASN1_get_object(&content, &length, &tag, &tag_class, static_cast<long>(der.size())) != kDefinite) return {};
    const auto* const first = content;
    if (ASN1_get_object(&content, &length, &tag, &tag_class, length) != kDefinite) return {};
    return der.substr(static_cast<std::size_t>(first - begin), static_cast<std::size_t>(content + length - first));
}

// The sibling elements are measured rather than the first one read: its length may be indefinite.
bool CutToBeSigned(std::string_view der, const X509_ALGOR* algorithm, const ASN1_BIT_STRING* signature,
                   std::string& tbs) {
    const unsigned char* const begin = Data(der);
    const unsigned char* content = begin;
    long content_length = 0;
    int tag = 0;
    int tag_class = 0;
    const int form = ASN1_get_object(&content, &content_length, &tag, &tag_class, static_cast<long>(der.size()));
    const long siblings =
        static_cast<long>(i2d_X509_ALGOR(algorithm, nullptr)) + i2d_ASN1_BIT_STRING(signature, nullptr);
    if (form != V_ASN1_CONSTRUCTED || content_length <= siblings) return false;
    tbs = der.substr(static_cast<std::size_t>(content - begin), static_cast<std::size_t>(content_length - siblings));
    return true;
}

}  // namespace cert_engine
