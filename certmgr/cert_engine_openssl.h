// What the engine's units share: the started engine's library context and digests, and small readers of ASN.1 values.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>

#include "certmgr/cert_engine.h"
#include "libcrypto/libcrypto.h"
#include "platform/asn1.h"

namespace cert_engine {

using libcrypto::BioPtr;
using libcrypto::Data;
using libcrypto::Decode;
using libcrypto::Encode;
using libcrypto::Owner;

/// Leaves the calling thread's libcrypto error queue as it was found: the queue belongs to the daemon.
class ErrorMark {
  public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;
};

/// Library context in which certificates are parsed; null (the default context) while the engine is stopped.
OSSL_LIB_CTX* ParseContext();
/// Library context that knows old ciphers, too, as far as libcrypto is installed with them; made at the first use. For files
/// of the user's own alone. Null while the engine is stopped.
OSSL_LIB_CTX* LegacyContext();
/// Digests fetched at start; null while the engine is stopped.
const EVP_MD* Md5();
const EVP_MD* Sha1();

/// Certificates, keys and CRLs that a file may hold.
inline constexpr std::size_t kMaxBundleItems = 4096;

/// Payload of the first PEM block of that kind; empty when there is none or it is bad or encrypted.
std::string PemPayload(std::string_view text, const char* kind);

/// What CertEngine_ReadPEMCRLData decodes: the payload of the first block of a CRL, or of the whole text taken as the
/// inside of one. Empty when there is none.
std::string CrlTextPayload(std::string_view text);

/// Reads one kind of object in the engine's library context. Nothing larger than the limit is decoded.
template <typename T, auto New, auto D2i, auto Free, unsigned Limit>
struct Parser {
    using Ptr = Owner<T, Free>;

    /// The object at the beginning of the bytes; null when there is none.
    static Ptr FromDer(std::string_view der) {
        if (der.empty() || der.size() > Limit) return nullptr;
        const unsigned char* p = Data(der);
        T* object = New(ParseContext(), nullptr);
        if (object == nullptr) return nullptr;
        T* const read = D2i(&object, &p, static_cast<long>(der.size()));
        // A failed read has freed the prepared object and cleared the pointer to it, or has not looked at it yet.
        if (read == nullptr) Free(object);
        return Ptr(read);
    }
    /// The object of the first PEM block of that kind.
    static Ptr FromPem(std::string_view text, const char* kind) { return FromDer(PemPayload(text, kind)); }
};
using CertParser = Parser<X509, X509_new_ex, d2i_X509, X509_free, kMaxCertificateBytes>;

/// What CertEngine_Export* answer.
enum ExportResult : int { kExported = 1, kExportFailed = 3 };

/// Replaces `out` by what `write(stream)` puts into a memory stream.
template <typename Write>
ExportResult ExportThroughStream(std::string& out, Write write) {
    const ErrorMark mark;
    const BioPtr stream(BIO_new(BIO_s_mem()));
    if (stream == nullptr || write(stream.get()) != 1) return kExportFailed;
    char* text = nullptr;
    const long length = BIO_get_mem_data(stream.get(), &text);
    if (length <= 0) return kExportFailed;
    out.assign(text, static_cast<std::size_t>(length));
    return kExported;
}

/// Replaces `digest` by the digest of the bytes.
bool Digest(const EVP_MD* md, std::string_view bytes, std::string& digest);

/// DER of a name as it was received; empty for null or a name that cannot be encoded.
std::string_view NameDer(const X509_NAME* name);

/// Content of an ASN.1 string; empty for null.
std::string_view BytesOf(const ASN1_STRING* string);
/// Content bytes of an identifier; empty for null.
std::string_view BytesOf(const ASN1_OBJECT* object);

/// Replaces `out` by the encoding. False (unchanged) when it fails.
template <typename T>
bool EncodeTo(T* object, int (*i2d)(T*, unsigned char**), std::string& out) {
    std::string der = Encode(object, i2d);
    if (der.empty()) return false;
    out = std::move(der);
    return true;
}

/// Code of a certificate's or CRL's signature algorithm: an algorithm whose key and signature identifiers are one and
/// the same (Ed25519) reads as signature algorithm here.
pki_alg_t SignatureAlgorithm(const X509_ALGOR* algorithm);

/// Whether the algorithm that is signed is the one that is named beside the signature.
bool SignedAlgorithmAgrees(void* cert);

/// The rule of X509_check_ca, by what can be read. libcrypto's own finds no CA where any extension is bad, nor in a
/// self-issued certificate of version 1 whose key it does not know or that names another kind of signature.
bool IsCa(const X509* cert);

/// Reads those extensions of a request that certificates have, too. Unknown and bad ones are left out.
void ReadExtensions(const STACK_OF(X509_EXTENSION) * extensions, CertExtentions& out);

/// Packed time of the content of a UTCTime or GeneralizedTime, as ASN1_TIME_to_time_t reads it.
cert_time64_t PackedTime(int type, std::string_view content);

/// The to-be-signed part of a certificate, cut out of its encoding; empty when a length on the way is indefinite.
std::string_view ToBeSigned(std::string_view der);
/// Replaces `tbs` by the to-be-signed part as it was received: the first element of the whole encoding, which
/// libcrypto keeps byte for byte. `der` is the whole object as libcrypto writes it; algorithm and signature are its
/// other two elements.
bool CutToBeSigned(std::string_view der, const X509_ALGOR* algorithm, const ASN1_BIT_STRING* signature,
                   std::string& tbs);

}  // namespace cert_engine
