// The readers of CRLs, DER and text, and the look-up of entries, against libcrypto.
#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "certmgr/cert_engine.h"
#include "fuzz/crl_property.h"
#include "fuzz/target.h"

namespace {

using Crl = std::unique_ptr<void, decltype(&CertEngine_CloseCRLHandle)>;

std::string Base64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

/// What does not hold of reading the bytes as text, and as text of DER.
std::string TextProblem(const std::string& bytes) {
    const Crl any(CertEngine_ReadPEMCRLData(bytes), CertEngine_CloseCRLHandle);
    const Crl binary(CertEngine_CreateCRLHandle(bytes.data(), static_cast<unsigned>(bytes.size())),
                     CertEngine_CloseCRLHandle);
    const Crl text(CertEngine_ReadPEMCRLData(Base64(bytes)), CertEngine_CloseCRLHandle);
    if (binary == nullptr || text == nullptr) {
        return (binary == nullptr) == (text == nullptr) ? "" : "a CRL is read in one form and not in the other";
    }
    std::string one;
    std::string other;
    CertEngine_RawCRL(binary.get(), one);
    CertEngine_RawCRL(text.get(), other);
    return one == other ? "" : "text of a CRL becomes another one";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool started = (CertEngine_Init(), true);
    static_cast<void>(started);
    const std::string input(reinterpret_cast<const char*>(data), size);
    fuzz::Require(fuzz::CrlProblem(input));
    fuzz::Require(TextProblem(input));
    return 0;
}
