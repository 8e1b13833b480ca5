// The reader of PKCS #12 with the empty password: bounded work, nothing left in libcrypto's error queue, keys that belong
// to certificates of the file.
#include <openssl/err.h>

#include <cstddef>
#include <cstdint>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_engine_openssl_pfx.h"
#include "fuzz/target.h"

namespace {

/// Less than a file may cost elsewhere, so that each input takes milliseconds.
constexpr std::uint64_t kIterations = 50'000;

std::string Problem(std::string_view bytes) {
    using namespace cert_engine;
    const ErrorMark mark;
    Pkcs12File file("", kIterations);
    file.ReadFile(bytes);
    if (file.result() != kP12Read) return "";
    for (const BagCert& bag : file.certs()) {
        if (bag.cert == nullptr) return "no certificate";
    }
    for (const BagKey& key : file.keys()) {
        if (key.info == nullptr && key.encrypted.empty()) return "a key that is not there";
        if (file.CertOf(key) >= static_cast<int>(file.certs().size())) return "a certificate beyond the last";
    }
    return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool started = (CertEngine_Init(), true);
    static_cast<void>(started);
    fuzz::Require(Problem({reinterpret_cast<const char*>(data), size}));
    if (ERR_peek_error() != 0) fuzz::Require("errors are left behind");
    return 0;
}
