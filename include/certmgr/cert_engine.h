// Certificate engine: reads, describes and writes certificates, CRLs, requests and PKCS #12 files over libcrypto.
//
// Handles are opaque; each is closed exactly once by its close function. Close and duplicate accept null; all other
// functions expect a valid handle. On failure outputs are unchanged. Nothing logs. CertEngine_Init must have run;
// between start and stop every function may be called from any thread, a handle by several threads for reading.
//
// Standard: RFC 5280 (5.2 and 5.3 for CRLs), PKCS #7 / RFC 2315 (certificate bundles), PKCS #8, PKCS #10 / RFC 2986
// (requests), PKCS #12 / RFC 7292.
#pragma once

#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "certmgr/api.h"
#include "certmgr/records.h"
#include "platform/tokens.h"

/// How an object identifier becomes text.
enum StringOidFormat : int {
    kOidName = 0,  // its name when known, else dotted
    kOidNameDotted = 1,  // "name (dotted)" when known, else dotted
    kOidDotted = 2,
};

// --- Start and stop (single-threaded, before the first and after the last use) ---

CM_API void CertEngine_Init();
/// Result of the last lock destruction: 0 (libcrypto 3 keeps its own locks).
CM_API int CertEngine_Finit();

// --- Algorithm identifiers, times, numbers ---

/// Code of an algorithm identifier, 0 when unknown. Ed25519 gives its key code (see CertInfo::signAlg for signatures).
CM_API pki_alg_t X509_ALGOR_to_pki_alg_t(const X509_ALGOR* algorithm);
/// Sets the identifier in place. False, with the algorithm left empty, for a code without an entry.
CM_API bool X509_ALGOR_from_pki_alg_t(X509_ALGOR* algorithm, pki_alg_t code);
/// Appends the dotted identifier.
CM_API bool X509_ALGOR_to_std_string_(const X509_ALGOR* algorithm, std::string* appended);
/// Despite its name the packed time; all ones on any failure. Only forms ending in Z without fractions.
CM_API cert_time64_t ASN1_TIME_to_time_t(const ASN1_TIME* time);
/// Appends the text of an identifier.
CM_API bool ASN1_OBJECT_to_std_string(ASN1_OBJECT* object, std::string& appended, StringOidFormat format);
/// Replaces `text` by upper-case hexadecimal, with a minus sign for a negative number.
CM_API bool ASN1_INTEGER_to_std_string(ASN1_INTEGER* number, std::string& text);
/// Key length in bits of a DER SubjectPublicKeyInfo, 0 when unknown.
CM_API unsigned CertEngine_PubKeyBitLength(pki_alg_t keyAlg, const void* der, unsigned long length);
/// SHA-1 over the bytes, as TO_HEX_STD_STRING(format) writes it.
CM_API bool CertEngine_FingerprintSHA1(const std::string& der, std::string& out, char format);
/// Printable form of a name. Leaves `text` unchanged for null or a name that cannot be encoded.
CM_API void X509_NAME_to_utf8(X509_NAME* name, std::string& text);

// --- Certificates ---

/// Decodes one DER certificate; null when the bytes are not one. Bytes after it are not looked at. At most
/// kMaxCertificateBytes.
CM_API void* CertEngine_CreateCertHandle(const void* der, unsigned length);
CM_API void* CertEngine_DuplicateCertHandle(void* cert);
CM_API void CertEngine_CloseCertHandle(void* cert);

/// Fills everything but `id` and `kind`. Always true.
CM_API bool CertEngine_GetCertInfo(void* cert, CertInfo& info);
/// Fills fingerprints and extensions.
CM_API void CertEngine_GetCertExtentions(void* cert, CertExtentions& out);
/// The parts of it that decisions are made by, at a fraction of the price.
CM_API void CertEngine_GetCertFacts(void* cert, CertFacts& out);
CM_API void CertEngine_GetCertNames(void* cert, CertNames& out);
CM_API CertFingerprints CertEngine_CertFingerprints(const std::string& der);
/// Appends the dotted identifier of the public-key algorithm.
CM_API void CertEngine_CertGetKeyAlgOid(void* cert, std::string* appended);
/// Appends the dotted identifier of the outer signature algorithm.
CM_API bool CertEngine_CertGetSignAlgOid(void* cert, std::string* appended);

CM_API bool CertEngine_RawCert(void* cert, std::string& der);
/// To-be-signed part: the received bytes.
CM_API bool CertEngine_RawCertInfo(void* cert, std::string& der);
/// Bytes of the signature BIT STRING.
CM_API bool CertEngine_RawCertSignature(void* cert, std::string& signature);
CM_API bool CertEngine_RawSubject(void* cert, std::string& der);
/// SubjectPublicKeyInfo and its SHA-1 (20 bytes).
CM_API bool CertEngine_RawPubKey(void* cert, std::string& spki, std::string& sha1);

/// Exports: 1 success, 3 failure.
CM_API int CertEngine_ExportCertToDER(void* cert, std::string& out);
CM_API int CertEngine_ExportCertToPEM(void* cert, std::string& out);
/// A degenerate signed-data PKCS #7, certificates in vector order; null handles are left out.
CM_API int CertEngine_ExportCertsToPKCS7(const std::vector<void*>& certs, std::string& out);

/// First certificate of a text: PEM, or base64 without markers.
CM_API void* CertEngine_ReadPEMCertData(const std::string& text);
/// Certificates (and CRLs) of a PKCS #7, DER or PEM, appended in reverse order of the structure; certificates above
/// kMaxCertificateBytes are left out. 0 handled; 1 not PKCS #7, longer than kMaxBundleBytes, or more than 4096 items of the
/// kinds asked for.
CM_API int CertEngine_ReadP7CCertData(const void* data, unsigned length, std::vector<void*>& certs,
                                      std::vector<void*>* crls);
/// Whether the bytes are a PKCS #12 structure; nothing is decrypted.
CM_API bool CertEngine_IsP12CertData(void* data, int length);

// --- Private keys ---

CM_API void CertEngine_ClosePrivKeyHandle(void* key);
/// Unencrypted PrivateKeyInfo DER; the caller wipes it.
CM_API bool CertEngine_PrivKeyToPKCS8(void* key, std::string& der);

// --- PKCS #12 ---

/// A private key as it stands in a PKCS #12 file, still encrypted, with the password that opens it.
struct PKCS12_PBE_key_iv_t : PKCS11::EncryptedPrivateKey {};

/// A still-encrypted key and its certificate. The holder closes both.
struct PBEPrivKeyHandle {
    void* certHandle = nullptr;
    PKCS12_PBE_key_iv_t* key = nullptr;
};
CM_API void CertEngine_ClosePBEPrivKey(PKCS12_PBE_key_iv_t* key);

/// Results of the PKCS #12 readers.
enum P12ReadResult : int {
    kP12Read = 0,
    kP12NotReadable = 1,  // not PKCS #12, or damaged
    kP12WrongPassword = 2,
    kP12Unsupported = 3,  // beyond the limits, protected in a way that is not known, or not this reader's kind of file
};

namespace cert_engine {
class Pkcs12File;
}

/// What reading one file with one password may cost, in iterations of key derivation: seconds. Writers use some thousands
/// for each part, a million at most.
struct P12Budget {
    std::uint64_t iterations = 5'000'000;
    /// What the first reader made of the file, for those after it.
    std::shared_ptr<cert_engine::Pkcs12File> reading{};
    /// Private keys that no certificate of the file belongs to, or only one that has a key already.
    std::size_t keys_left_out = 0;
};

/// Reads a file with one private key that libcrypto understands: the key in the clear, its certificate, and the other
/// certificates in the order of the file, appended. Fails for any other file. `budget` (null: a fresh one) is for readers
/// that try the same file with the same password one after the other.
CM_API P12ReadResult CertEngine_ReadP12CertData(const void* data, unsigned length, const std::string& password,
                                                void*& cert, void*& key, std::vector<void*>& certs,
                                                P12Budget* budget = nullptr);
/// Reads a file with any number of keys, which stay encrypted: each with its certificate, and the remaining
/// certificates, appended. Keys without a certificate of their own are left out, and counted in the budget.
CM_API P12ReadResult CertEngine_ReadP12CertData_XXX(const void* data, unsigned length, const std::string& password,
                                                    std::vector<PBEPrivKeyHandle>& keys, std::vector<void*>& certs,
                                                    P12Budget* budget = nullptr);
/// Writes certificates, and the private key of the first one (PrivateKeyInfo DER; empty: none), encrypted with AES-256
/// under the password (UTF-8; null is the empty one). 1 success, 3 failure. Null handles are left out.
CM_API int CertEngine_ExportCertsToPKCS12(const std::vector<void*>& certs, const std::string& pkcs8,
                                          const char* password, std::string& out);

// --- Requests ---

/// Builds the body of a request: subject, key usage, extended key usage and alternative names. Null when one of them is
/// not understood or the subject is empty.
CM_API void* CertEngine_CreateCertReqHandle(const CertRequestInfo& info);
CM_API void CertEngine_CloseCertReqHandle(void* request);
/// Replaces the public key by a SubjectPublicKeyInfo. True when it decodes.
CM_API bool CertEngine_CertReqSetPubKey(void* request, const unsigned char* spki, unsigned int length);
/// Always true; an algorithm without identifier shows when the request is written.
CM_API bool CertEngine_CertReqSetSignature(void* request, pki_alg_t keyAlg, pki_alg_t hashAlg,
                                           const unsigned char* signature, unsigned int length);
/// To-be-signed part, DER.
CM_API bool CertEngine_CertReqInfoToRaw(void* request, std::string& der);
CM_API bool CertEngine_CertReqToPem(void* request, std::string& pem);
/// Describes a request, PEM or DER, of at most kMaxCertificateBytes; `spki` receives its public key. 0 read, 1 not a
/// request.
CM_API int CertEngine_ReadP10CertReqInfo(const void* data, unsigned int length, CertRequestInfo& info,
                                         std::string& spki);

// --- CRLs ---

/// Reads the CRL at the beginning of the bytes, of which the handle keeps a copy; null when there is none. Stricter than
/// for certificates: the frame and every entry must be DER. At most kMaxCrlBytes.
CM_API void* CertEngine_CreateCRLHandle(const void* der, unsigned length);
CM_API void CertEngine_CloseCRLHandle(void* crl);
/// The received bytes.
CM_API bool CertEngine_RawCRL(void* crl, std::string& der);
/// To-be-signed part: the received bytes.
CM_API bool CertEngine_RawCRLInfo(void* crl, std::string& der);
CM_API bool CertEngine_RawCRLSignature(void* crl, std::string& signature);
/// Fills everything but `id`. Always true.
CM_API bool CertEngine_HandleToCRLInfo(void* crl, CRLInfo& info);
/// Appends one record per entry, in the CRL's order. Always true. Records are large: look-ups do without.
CM_API bool CertEngine_CRLRevokedCerts(void* crl, RevokedCertInfoList& entries);
/// First entry with that serial number (byte for byte as CertEngine_CRLRevokedCerts writes it) for a certificate with
/// that issuer name (printable). An entry names its certificates' issuer, or the last entry before it that does; without
/// any it is an entry for every issuer name. False, and `entry` unchanged, when there is none.
CM_API bool CertEngine_CRLFindRevoked(void* crl, const std::string& serial, const std::string& issuer,
                                      RevokedEntry& entry);
CM_API void CertEngine_CRLScope(void* crl, CrlScope& scope);
/// First CRL of a text: PEM, or base64 without markers. At most kMaxCrlTextBytes.
CM_API void* CertEngine_ReadPEMCRLData(const std::string& text);

/// Largest certificate that is decoded: far above any real one, far below what would hurt.
inline constexpr unsigned kMaxCertificateBytes = 1U << 20;
/// Largest PKCS #7 bundle or text of a certificate that is decoded.
inline constexpr unsigned kMaxBundleBytes = 64U << 20;
/// Largest PKCS #12 file that is read: in memory it takes many times its size.
inline constexpr unsigned kMaxPkcs12Bytes = 8U << 20;
/// Largest CRL that is read: some eight million entries, which take a third of its size beside the bytes.
inline constexpr unsigned kMaxCrlBytes = 256U << 20;
/// Largest text of a CRL: base64 makes four bytes of three, and line ends come on top.
inline constexpr unsigned kMaxCrlTextBytes = kMaxCrlBytes / 2 * 3;
