// Certificate files: what is in one, where it may be stored, and storing it.
#pragma once

#include <string>
#include <vector>

#include "certmgr/api.h"
#include "certmgr/cert_engine.h"
#include "certmgr/cert_storage.h"
#include "certmgr/records.h"
#include "certmgr/x509cert.h"

namespace CM {

/// The content of a file: a certificate or CRL (DER, PEM, base64 without markers), PKCS #7 (DER, PEM) or PKCS #12. Of a
/// text the first certificate or CRL alone. Fixed once constructed.
class CM_API X509CertFile {
  public:
    X509CertFile(const std::string& content, const std::string& password);
    X509CertFile(const X509CertFile&) = delete;
    X509CertFile& operator=(const X509CertFile&) = delete;

    /// 0 read, 2 wrong password of a PKCS #12 file, any other value not readable (P12ReadResult).
    int status = 0;
    CertList certs;  // in the order of the readers
    std::vector<CrlRef> crls;

  private:
    bool ReadCert(const std::string& content);
    bool ReadCrl(const std::string& content);
    bool ReadPkcs7(const std::string& content);
    bool ReadBase64Lines(const std::string& content);
    bool ReadPkcs12(const std::string& content, const std::string& password, P12Budget& budget);
    void ReadEncryptedPkcs12(const std::string& content, const std::string& password, P12Budget& budget);
    void AdoptCerts(const std::vector<void*>& handles);
};

/// Proposes tokens for an import. With a private key: those that know its algorithm. Without: those that hold the key
/// pair; when there are none, those that hold trusted certificates.
CM_API void GetCertImportOption(const std::vector<PKCS11::TokenInfo>& tokens, const X509Cert* cert,
                                CertImportOption& option);
/// The same for each of the certificates, with one session for each token.
CM_API std::vector<CertImportOption> GetCertImportOptions(const std::vector<PKCS11::TokenInfo>& tokens,
                                                          const CertList& certs);

/// Stores the certificates of a file: CAs as trusted, others beside their key pair. Stops at the first that cannot be
/// stored, with one reason appended to the report; earlier ones stay.
CM_API bool ImportCertsFromFile(const std::string& content, const std::string& password, std::string* report);

}  // namespace CM
