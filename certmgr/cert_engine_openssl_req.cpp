// PKCS #10 requests.
#include <arpa/inet.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"

using cert_engine::ErrorMark;
using cert_engine::Owner;
using libcrypto::AlgorithmPtr;
using libcrypto::BitStringPtr;
using libcrypto::ExtensionsPtr;
using libcrypto::GeneralNamesPtr;
using libcrypto::TypePtr;

namespace {

using RequestPtr = Owner<X509_REQ, X509_REQ_free>;
using ExtensionPtr = Owner<X509_EXTENSION, X509_EXTENSION_free>;
using GeneralNamePtr = Owner<GENERAL_NAME, GENERAL_NAME_free>;
using PurposesPtr = Owner<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>;

using RequestParser = cert_engine::Parser<X509_REQ, X509_REQ_new_ex, d2i_X509_REQ, X509_REQ_free, kMaxCertificateBytes>;

X509_REQ* Request(void* handle) {
    return static_cast<X509_REQ*>(handle);
}

// --- Building ---

bool SetSubject(X509_REQ* request, const std::string& subject) {
    std::string der;
    if (subject.empty() || !printable_to_asn_dn(subject, der, OID_MAP_HANDLE_DEFAULT_FILE)) return false;
    const auto name = libcrypto::Decode<X509_NAME_free>(d2i_X509_NAME, der);
    return name != nullptr && X509_REQ_set_subject_name(request, name.get()) == 1;
}

// libcrypto would silently drop what follows one of these.
bool IsOneLine(const std::string& value) {
    return value.find_first_of(std::string_view("\0\r\n", 3)) == std::string::npos;
}

// In the words of libcrypto's configuration files.
X509_EXTENSION* MakeExtension(int nid, const std::string& words) {
    if (!IsOneLine(words)) return nullptr;
    X509V3_CTX context{};
    X509V3_set_ctx_nodb(&context);
    return X509V3_EXT_nconf_nid(nullptr, &context, nid, words.c_str());
}

// Takes over the extension.
bool Push(STACK_OF(X509_EXTENSION) * extensions, X509_EXTENSION* extension) {
    if (extension != nullptr && sk_X509_EXTENSION_push(extensions, extension) > 0) return true;
    X509_EXTENSION_free(extension);
    return false;
}

// libcrypto takes bytes of any kind for an extension when the words say so.
bool AddExtendedKeyUsage(STACK_OF(X509_EXTENSION) * extensions, const std::string& purposes) {
    X509_EXTENSION* const extension = MakeExtension(NID_ext_key_usage, purposes);
    if (!Push(extensions, extension)) return false;
    const PurposesPtr decoded(static_cast<EXTENDED_KEY_USAGE*>(X509V3_EXT_d2i(extension)));
    return decoded != nullptr && sk_ASN1_OBJECT_num(decoded.get()) > 0;
}

bool AddUpn(GENERAL_NAMES* names, const std::string& upn) {
    TypePtr value(ASN1_TYPE_new());
    ASN1_UTF8STRING* text = nullptr;
    const unsigned char* const bytes = libcrypto::Data(upn);
    if (value == nullptr || !IsOneLine(upn) ||  // and UTF-8, or the copy fails
        ASN1_mbstring_copy(&text, bytes, static_cast<int>(upn.size()), MBSTRING_UTF8, B_ASN1_UTF8STRING) < 0) {
        ASN1_UTF8STRING_free(text);
        return false;
    }
    ASN1_TYPE_set(value.get(), V_ASN1_UTF8STRING, text);
    GeneralNamePtr name(GENERAL_NAME_new());
    if (name == nullptr || GENERAL_NAME_set0_othername(name.get(), OBJ_nid2obj(NID_ms_upn), value.get()) != 1) {
        return false;
    }
    static_cast<void>(value.release());
    return sk_GENERAL_NAME_push(names, name.get()) > 0 && name.release() != nullptr;
}

// The user principal name goes past libcrypto's words, which know neither UTF-8 nor a comma inside a name.
bool AddAlternativeNames(STACK_OF(X509_EXTENSION) * extensions, const CertRequestInfo& info) {
    const std::array<std::pair<const char*, const std::string*>, 3> parts{
        {{"IP:", &info.ipAddress}, {"DNS:", &info.dnsName}, {"email:", &info.email}}};
    std::string words;
    for (const auto& [kind, value] : parts) {
        if (!value->empty()) words.append(words.empty() ? "" : ",").append(kind).append(*value);
    }
    GeneralNamesPtr names(GENERAL_NAMES_new());
    if (!words.empty()) {
        const ExtensionPtr extension(MakeExtension(NID_subject_alt_name, words));
        names.reset(extension != nullptr ? static_cast<GENERAL_NAMES*>(X509V3_EXT_d2i(extension.get())) : nullptr);
    }
    if (names == nullptr || (!info.upn.empty() && !AddUpn(names.get(), info.upn))) return false;
    return sk_GENERAL_NAME_num(names.get()) == 0 ||
           Push(extensions, X509V3_EXT_i2d(NID_subject_alt_name, 0, names.get()));
}

bool AddExtensions(X509_REQ* request, const CertRequestInfo& info) {
    const ExtensionsPtr extensions(sk_X509_EXTENSION_new_null());
    if (extensions == nullptr ||
        !Push(extensions.get(), MakeExtension(NID_key_usage, "critical,digitalSignature,keyEncipherment"))) {
        return false;
    }
    if (!info.extKeyUsage.empty() && !AddExtendedKeyUsage(extensions.get(), info.extKeyUsage)) return false;
    if (!AddAlternativeNames(extensions.get(), info)) return false;
    return X509_REQ_add_extensions(request, extensions.get()) == 1;
}

// --- Reading ---

std::string AddressText(const std::string& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const int family = address.size() == sizeof(in_addr) ? AF_INET : AF_INET6;
    if (family == AF_INET6 && address.size() != sizeof(in6_addr)) return {};
    return inet_ntop(family, address.data(), text.data(), text.size()) != nullptr ? text.data() : std::string();
}

void DescribeExtensions(X509_REQ* request, CertRequestInfo& info) {
    const ExtensionsPtr extensions(X509_REQ_get_extensions(request));
    CertExtentions read;
    cert_engine::ReadExtensions(extensions.get(), read);
    info.ipAddress = AddressText(read.altSubject.ipAddress);
    info.email = std::move(read.altSubject.email);
    info.dnsName = std::move(read.altSubject.dnsName);
    info.upn = std::move(read.altSubject.upn);
    info.extKeyUsage = std::move(read.extKeyUsageOids);
}

void DescribeAlgorithms(X509_REQ* request, const std::string& spki, CertRequestInfo& info) {
    const X509_ALGOR* signature = nullptr;
    X509_REQ_get0_signature(request, nullptr, &signature);
    const pki_alg_t code = cert_engine::SignatureAlgorithm(signature);
    info.keyAlg = code & PKI_NO_HASH_MASK;
    info.hashAlg = code & ~PKI_KEY_MASK;
    X509_ALGOR* key = nullptr;
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &key, X509_REQ_get_X509_PUBKEY(request));
    if (const pki_alg_t key_alg = X509_ALGOR_to_pki_alg_t(key); key_alg != 0) info.keyAlg = key_alg;
    info.keyBits = CertEngine_PubKeyBitLength(info.keyAlg, spki.data(), spki.size());
}

}  // namespace

void* CertEngine_CreateCertReqHandle(const CertRequestInfo& info) {
    const ErrorMark mark;
    RequestPtr request(X509_REQ_new());
    if (request == nullptr || X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) != 1 ||
        !SetSubject(request.get(), info.subject) || !AddExtensions(request.get(), info)) {
        return nullptr;
    }
    return request.release();
}

void CertEngine_CloseCertReqHandle(void* request) {
    X509_REQ_free(Request(request));
}

// Part by part: libcrypto's own setter wants a key that it knows, and these may be GOST keys.
bool CertEngine_CertReqSetPubKey(void* request, const unsigned char* spki, unsigned int length) {
    const ErrorMark mark;
    if (length > kMaxCertificateBytes) return false;
    const auto key =
        libcrypto::DecodeWhole<X509_PUBKEY_free>(d2i_X509_PUBKEY, {reinterpret_cast<const char*>(spki), length});
    if (key == nullptr) return false;
    const unsigned char* bits = nullptr;
    int bits_length = 0;
    X509_ALGOR* algorithm = nullptr;
    X509_PUBKEY_get0_param(nullptr, &bits, &bits_length, &algorithm, key.get());
    X509_PUBKEY* const own = X509_REQ_get_X509_PUBKEY(Request(request));
    X509_ALGOR* own_algorithm = nullptr;
    auto* const copy = static_cast<unsigned char*>(OPENSSL_memdup(bits, static_cast<std::size_t>(bits_length)));
    if (copy == nullptr) return false;
    if (X509_PUBKEY_set0_param(own, OBJ_nid2obj(NID_undef), V_ASN1_UNDEF, nullptr, copy, bits_length) != 1) {
        OPENSSL_free(copy);
        return false;
    }
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &own_algorithm, own);
    return X509_ALGOR_copy(own_algorithm, algorithm) == 1;
}

bool CertEngine_CertReqSetSignature(void* request, pki_alg_t keyAlg, pki_alg_t hashAlg, const unsigned char* signature,
                                    unsigned int length) {
    const ErrorMark mark;
    const AlgorithmPtr algorithm(X509_ALGOR_new());
    BitStringPtr bits(ASN1_BIT_STRING_new());
    if (algorithm == nullptr || bits == nullptr) return true;
    if (X509_ALGOR_from_pki_alg_t(algorithm.get(), (hashAlg & PKI_ALG_MASK) | keyAlg)) {
        X509_REQ_set1_signature_algo(Request(request), algorithm.get());
    }
    if (ASN1_BIT_STRING_set(bits.get(), const_cast<unsigned char*>(signature), static_cast<int>(length)) != 1) {
        return true;
    }
    bits->flags = (bits->flags & ~(ASN1_STRING_FLAG_BITS_LEFT | 0x07)) | ASN1_STRING_FLAG_BITS_LEFT;
    X509_REQ_set0_signature(Request(request), bits.release());
    return true;
}

bool CertEngine_CertReqInfoToRaw(void* request, std::string& der) {
    const ErrorMark mark;
    return cert_engine::EncodeTo<X509_REQ>(Request(request), i2d_re_X509_REQ_tbs, der);
}

bool CertEngine_CertReqToPem(void* request, std::string& pem) {
    const auto write = [request](BIO* stream) { return PEM_write_bio_X509_REQ(stream, Request(request)); };
    return cert_engine::ExportThroughStream(pem, write) == cert_engine::kExported;
}

int CertEngine_ReadP10CertReqInfo(const void* data, unsigned int length, CertRequestInfo& info, std::string& spki) {
    enum Result : int { kRead = 0, kNotRequest = 1 };
    if (data == nullptr || length > kMaxBundleBytes) return kNotRequest;
    const ErrorMark mark;
    const std::string_view bytes(static_cast<const char*>(data), length);
    RequestParser::Ptr request = RequestParser::FromPem(bytes, PEM_STRING_X509_REQ);
    if (request == nullptr) request = RequestParser::FromDer(bytes);
    if (request == nullptr) return kNotRequest;
    std::string key = cert_engine::Encode<const X509_PUBKEY>(X509_REQ_get_X509_PUBKEY(request.get()), i2d_X509_PUBKEY);
    if (key.empty()) return kNotRequest;
    X509_NAME_to_utf8(X509_REQ_get_subject_name(request.get()), info.subject);
    DescribeAlgorithms(request.get(), key, info);
    DescribeExtensions(request.get(), info);
    spki = std::move(key);
    return kRead;
}
