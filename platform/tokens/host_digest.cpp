#include "platform/tokens/host_digest.h"

#include <openssl/evp.h>

#include <array>
#include <mutex>

#include "libcrypto/libcrypto.h"
#include "platform/asn1/alg_table.h"

namespace tokens {
namespace {

/// Looked up once: a look-up by name costs more than a short digest. Never freed.
const EVP_MD* FetchOnce(pki_alg_t alg) {
    struct Fetched {
        std::once_flag once;
        const EVP_MD* digest = nullptr;
    };
    static auto& by_code = *new std::array<Fetched, (PKI_HASH_MASK >> 16) + 1>;
    const asn1::AlgRow* const row = asn1::FindHashAlg(alg);
    if (row == nullptr) return nullptr;
    Fetched& fetched = by_code[row->code >> 16];
    std::call_once(fetched.once, [&] {
        std::string dotted;
        if (oid_asn_to_str_(row->oid, &dotted)) fetched.digest = EVP_MD_fetch(nullptr, dotted.c_str(), nullptr);
    });
    return fetched.digest;
}

}  // namespace

bool HostKnowsDigest(pki_alg_t alg) {
    return FetchOnce(alg) != nullptr;
}

bool HostDigest(pki_alg_t alg, std::string_view data, std::string& digest) {
    const EVP_MD* const md = FetchOnce(alg);
    if (md == nullptr) return false;
    digest.resize(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    const bool done = EVP_Digest(data.data(), data.size(), libcrypto::Data(digest), &length, md, nullptr) == 1;
    digest.resize(length);
    return done;
}

}  // namespace tokens
