// The reader of certificate files: what it finds reads the same when it is written anew, and can be described.
#include <openssl/err.h>

#include <cstddef>
#include <cstdint>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_file.h"
#include "fuzz/target.h"

namespace {

std::string Problem(const CM::X509Cert& cert) {
    std::string pem;
    std::string signed_part;
    CertEngine_RawCertInfo(cert.certHandle, signed_part);
    if (signed_part.size() > cert.rawCert.size()) return "a part that is larger than the whole";
    if (cert.ext().sha1.size() != 40) return "a certificate without fingerprint";
    if (CertEngine_ExportCertToPEM(cert.certHandle, pem) != 1) return "a certificate that cannot be written";
    const CM::X509CertFile again(pem, "");
    if (again.certs.size() != 1) return "a certificate that is not read again";
    if (again.certs[0]->rawCert != cert.rawCert) return "a certificate that changes when it is written";
    return again.certs[0]->info.subject == cert.info.subject ? "" : "another subject";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool started = (CertEngine_Init(), true);
    static_cast<void>(started);
    const CM::X509CertFile file(std::string(reinterpret_cast<const char*>(data), size), "");
    if (file.status != 0 && !(file.certs.empty() && file.crls.empty())) fuzz::Require("content beside a failure");
    for (const CM::X509Cert* cert : file.certs) fuzz::Require(Problem(*cert));
    for (const CM::CrlRef& crl : file.crls) {
        if (crl->crlHandle == nullptr || crl->rawCrl().empty()) fuzz::Require("a CRL that is none");
    }
    if (ERR_peek_error() != 0) fuzz::Require("errors are left behind");
    return 0;
}
