// The reader of CRLs and the look-up of entries, against libcrypto.
#include <cstddef>
#include <cstdint>

#include "certmgr/cert_engine.h"
#include "fuzz/crl_property.h"
#include "fuzz/target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool started = (CertEngine_Init(), true);
    static_cast<void>(started);
    fuzz::Require(fuzz::CrlProblem({reinterpret_cast<const char*>(data), size}));
    return 0;
}
