// Readers of certificate and CRL texts and of PKCS #7 bundles.
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <iterator>
#include <utility>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl.h"
#include "certmgr/cert_engine_openssl_crl.h"

using cert_engine::BioPtr;
using cert_engine::CertParser;
using cert_engine::ErrorMark;

namespace {

using Pkcs7Parser = cert_engine::Parser<PKCS7, PKCS7_new_ex, d2i_PKCS7, PKCS7_free, kMaxBundleBytes>;

static_assert(kMaxBundleBytes <= INT_MAX / 2 && kMaxCrlTextBytes <= INT_MAX / 2,
              "memory streams count their bytes in an int");

constexpr std::string_view kCertBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kCertEnd = "-----END CERTIFICATE-----";
constexpr std::string_view kCrlBegin = "-----BEGIN X509 CRL-----";
constexpr std::string_view kCrlEnd = "-----END X509 CRL-----";

bool BeginsWithMarker(std::string_view text, std::string_view marker) {
    return text.size() >= marker.size() && strncasecmp(text.data(), marker.data(), marker.size()) == 0;
}

std::string_view Trim(std::string_view text) {
    constexpr std::string_view kBlanks = "\n \t\r";
    constexpr std::string_view kBlanksAndNul("\n \t\r\0", 5);
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanksAndNul) + 1);
}

/// Longer is no certificate without markers, not even with the end of a line behind each character.
constexpr std::size_t kMaxBareCertificateBytes = std::size_t{4} * kMaxCertificateBytes;

/// Whether what libcrypto would decode between markers cannot be DER: the first byte of a sequence makes an M. Lines with
/// a colon may be headers.
bool IsNoSequence(std::string_view text) {
    const std::string_view trimmed = Trim(text);
    return !trimmed.starts_with('M') && trimmed.find(':') == std::string_view::npos;
}

// Base64 on one line; empty when it is none or longer than a certificate may be.
std::string DecodeBase64(std::string_view text) {
    const BioPtr stream(BIO_new(BIO_f_base64()));
    BIO* const source = BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
    if (stream == nullptr || source == nullptr) {
        BIO_free(source);
        return {};
    }
    BIO_set_flags(stream.get(), BIO_FLAGS_BASE64_NO_NL);
    BIO_push(stream.get(), source);
    std::string decoded;
    std::array<char, 1024> chunk{};
    for (;;) {
        const int length = BIO_read(stream.get(), chunk.data(), static_cast<int>(chunk.size()));
        if (length <= 0) return decoded;
        decoded.append(chunk.data(), static_cast<std::size_t>(length));
        if (decoded.size() > kMaxCertificateBytes) return {};
    }
}

// A text with line feeds keeps its own lines.
std::string WrapAsPem(std::string_view text) {
    constexpr std::size_t kLineLength = 64;
    std::string pem(kCertBegin);
    pem += '\n';
    if (text.find('\n') != std::string_view::npos) {
        pem += text;
    } else {
        for (std::size_t at = 0; at < text.size(); at += kLineLength) {
            pem.append(text.substr(at, kLineLength)).append("\n");
        }
    }
    return pem.append(kCertEnd);
}

void MoveCerts(STACK_OF(X509) * stack, std::vector<void*>& handles) {
    while (X509* const cert = sk_X509_pop(stack)) {
        if (i2d_X509(cert, nullptr) > static_cast<int>(kMaxCertificateBytes)) {
            X509_free(cert);
        } else {
            handles.push_back(cert);
        }
    }
}

// More would stay in memory with the file.
bool IsTooMany(const STACK_OF(X509) * certs, const STACK_OF(X509_CRL) * crls) {
    const int count = std::max(sk_X509_num(certs), 0) + std::max(sk_X509_CRL_num(crls), 0);
    return static_cast<std::size_t>(count) > cert_engine::kMaxBundleItems;
}

void* CrlHandle(std::string der) {
    return cert_engine::CreateCrlHandle(std::make_shared<const std::string>(std::move(der)));
}

void MoveCrls(STACK_OF(X509_CRL) * stack, std::vector<void*>& handles) {
    while (X509_CRL* const popped = sk_X509_CRL_pop(stack)) {
        const libcrypto::CrlPtr crl(popped);
        if (void* const handle = CrlHandle(cert_engine::Encode<const X509_CRL>(popped, i2d_X509_CRL))) {
            handles.push_back(handle);
        }
    }
}

}  // namespace

void* CertEngine_ReadPEMCertData(const std::string& text) {
    if (text.empty() || text.size() > kMaxBundleBytes) return nullptr;
    const ErrorMark mark;
    if (auto cert = CertParser::FromPem(text, PEM_STRING_X509)) return cert.release();
    const std::string_view trimmed = Trim(text);
    if (BeginsWithMarker(trimmed, kCertBegin) || trimmed.size() > kMaxBareCertificateBytes) return nullptr;
    const std::string der = DecodeBase64(trimmed);
    if (!der.empty()) {
        if (auto cert = CertParser::FromDer(der)) return cert.release();
    }
    return CertParser::FromPem(WrapAsPem(trimmed), PEM_STRING_X509).release();
}

void* CertEngine_ReadPEMCRLData(const std::string& text) {
    const ErrorMark mark;
    return CrlHandle(cert_engine::CrlTextPayload(text));
}

int CertEngine_ReadP7CCertData(const void* data, unsigned length, std::vector<void*>& certs, std::vector<void*>* crls) {
    enum Result : int { kHandled = 0, kNotPkcs7 = 1 };
    if (data == nullptr || length > kMaxBundleBytes) return kNotPkcs7;
    const ErrorMark mark;
    const std::string_view bytes(static_cast<const char*>(data), length);
    auto bundle = Pkcs7Parser::FromDer(bytes);
    if (bundle == nullptr) bundle = Pkcs7Parser::FromPem(bytes, PEM_STRING_PKCS7);
    if (bundle == nullptr) return kNotPkcs7;

    STACK_OF(X509)* bundled_certs = nullptr;
    STACK_OF(X509_CRL)* bundled_crls = nullptr;
    // The content of either type may be absent.
    if (PKCS7_type_is_signed(bundle.get()) && bundle->d.sign != nullptr) {
        bundled_certs = bundle->d.sign->cert;
        bundled_crls = bundle->d.sign->crl;
    } else if (PKCS7_type_is_signedAndEnveloped(bundle.get()) && bundle->d.signed_and_enveloped != nullptr) {
        bundled_certs = bundle->d.signed_and_enveloped->cert;
        bundled_crls = bundle->d.signed_and_enveloped->crl;
    }
    if (crls == nullptr) bundled_crls = nullptr;
    if (IsTooMany(bundled_certs, bundled_crls)) return kNotPkcs7;
    MoveCerts(bundled_certs, certs);
    if (bundled_crls != nullptr) MoveCrls(bundled_crls, *crls);
    return kHandled;
}

bool CertEngine_IsP12CertData(void* data, int length) {
    if (data == nullptr || length <= 0 || static_cast<unsigned>(length) > kMaxPkcs12Bytes) return false;
    const ErrorMark mark;
    const std::string_view bytes(static_cast<const char*>(data), static_cast<std::size_t>(length));
    return libcrypto::Decode<PKCS12_free>(d2i_PKCS12, bytes) != nullptr;
}

namespace cert_engine {

namespace {

/// Names of blocks that libcrypto reads as another kind.
constexpr std::pair<std::string_view, std::string_view> kOtherNames[] = {{PEM_STRING_X509, PEM_STRING_X509_OLD},
                                                                         {PEM_STRING_X509_REQ, PEM_STRING_X509_REQ_OLD},
                                                                         {PEM_STRING_PKCS7, PEM_STRING_X509},
                                                                         {PEM_STRING_PKCS7, PEM_STRING_PKCS7_SIGNED}};

/// Looked for before libcrypto decodes all that stands before such a block.
bool HasBlock(std::string_view text, std::string_view kind) {
    const auto has = [text](std::string_view name) {
        const std::string marker = "BEGIN " + std::string(name);
        return memmem(text.data(), text.size(), marker.data(), marker.size()) != nullptr;
    };
    return has(kind) || std::any_of(std::begin(kOtherNames), std::end(kOtherNames),
                                    [&](const auto& other) { return other.first == kind && has(other.second); });
}

}  // namespace

std::string CrlTextPayload(std::string_view text) {
    if (text.empty() || text.size() > kMaxCrlTextBytes) return {};
    const ErrorMark mark;
    std::string der = PemPayload(text, PEM_STRING_X509_CRL);
    if (!der.empty() || BeginsWithMarker(text, kCrlBegin)) return der;
    if (IsNoSequence(text)) return {};
    if (text.back() == '\0') text.remove_suffix(1);
    std::string pem(kCrlBegin);
    pem.append("\n").append(text).append("\n").append(kCrlEnd);
    return PemPayload(pem, PEM_STRING_X509_CRL);
}

std::string PemPayload(std::string_view text, const char* kind) {
    if (!HasBlock(text, kind)) return {};
    const BioPtr stream(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (stream == nullptr) return {};
    // libcrypto's own password callback would ask on the terminal.
    const auto refuse_password = [](char*, int, int, void*) { return -1; };
    unsigned char* payload = nullptr;
    long length = 0;
    if (PEM_bytes_read_bio(&payload, &length, nullptr, kind, stream.get(), refuse_password, nullptr) != 1) return {};
    std::string der(reinterpret_cast<const char*>(payload), static_cast<std::size_t>(length));
    OPENSSL_free(payload);
    return der;
}

}  // namespace cert_engine
