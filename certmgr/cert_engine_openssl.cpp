// Engine start and stop.
//
// The placeholder digest needs the EVP_MD_meth functions, which libcrypto 3 keeps but marks as deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "certmgr/cert_engine_openssl.h"

#include <openssl/core_dispatch.h>
#include <openssl/objects.h>
#include <openssl/provider.h>

#include <array>
#include <atomic>
#include <mutex>
#include <span>

#include "certmgr/cert_engine.h"

namespace {

using cert_engine::ErrorMark;
using cert_engine::Owner;

struct NamedObject {
    const char* dotted;
    const char* short_name;
    const char* long_name;
};

enum GostObject : std::uint8_t { kGost3411_94 = 0, kGost3411_94WithGost3410_2001 = 1 };

constexpr std::array<NamedObject, 9> kGostObjects{{
    {"1.2.643.2.2.9", "gostR3411-94", "GOST R 34.11-94 (Russian hash algorithm)"},
    {"1.2.643.2.2.3", "gostR3411-94-with-gostR3410-2001", "id-GostR3411-94-with-GostR3410-2001"},
    {"1.2.643.2.2.20", "gostR3410-94", "id-GostR3410-94"},
    {"1.2.643.7.1.1.2.2", "id-tc26-gost3411-12-256", "id-tc26-gost3411-12-256"},
    {"1.2.643.7.1.1.2.3", "id-tc26-gost3411-12-512", "id-tc26-gost3411-12-512"},
    {"1.2.643.7.1.1.1.1", "id-tc26-gost3410-12-256", "id-tc26-gost3410-12-256"},
    {"1.2.643.7.1.1.1.2", "id-tc26-gost3410-12-512", "id-tc26-gost3410-12-512"},
    {"1.2.643.7.1.1.3.2", "id-tc26-signwithdigest-gost3410-12-256", "id-tc26-signwithdigest-gost3410-12-256"},
    {"1.2.643.7.1.1.3.3", "id-tc26-signwithdigest-gost3410-12-512", "id-tc26-signwithdigest-gost3410-12-512"},
}};

// libcrypto 3 knows these identifiers under names of its own and then refuses to create them again.
int CreateObject(const NamedObject& object) {
    const int nid = OBJ_create(object.dotted, object.short_name, object.long_name);
    return nid != NID_undef ? nid : OBJ_txt2nid(object.dotted);
}

// Lets libcrypto find a digest by the identifiers and names of GOST R 34.11-94 and its signature: the real one where the
// process has loaded it, else a placeholder that computes nothing, so that containers that name the digest can be
// parsed. Hashing is the tokens' work. A real digest that is loaded later takes the placeholder's place.
class Gost94Digest {
  public:
    Gost94Digest(int digest_nid, int signature_nid)
        : name_(OBJ_nid2sn(digest_nid)),
          own_names_{name_, OBJ_nid2ln(digest_nid), OBJ_nid2sn(signature_nid), OBJ_nid2ln(signature_nid)} {
        if (EVP_get_digestbynid(digest_nid) == nullptr && !AddPlaceholder(digest_nid, signature_nid)) return;
        for (const char* name : own_names_) AddAlias(name);
        for (const auto row : {kGost3411_94, kGost3411_94WithGost3410_2001}) {
            AddAlias(kGostObjects[row].short_name);
            AddAlias(kGostObjects[row].long_name);
        }
    }
    // libcrypto keeps the names' addresses: what was added here must not outlive the engine, what others added stays.
    ~Gost94Digest() {
        const bool in_place = placeholder_ != nullptr && EVP_get_digestbyname(name_) == placeholder_.get();
        for (const char* alias : std::span(aliases_).first(alias_count_)) {
            if (OBJ_NAME_get(alias, kAlias) == name_) OBJ_NAME_remove(alias, OBJ_NAME_TYPE_MD_METH);
        }
        if (!in_place) return;
        for (const char* name : own_names_) OBJ_NAME_remove(name, OBJ_NAME_TYPE_MD_METH);
    }
    Gost94Digest(const Gost94Digest&) = delete;
    Gost94Digest& operator=(const Gost94Digest&) = delete;

  private:
    static constexpr int kAlias = OBJ_NAME_TYPE_MD_METH | OBJ_NAME_ALIAS;
    static constexpr int kDigestBytes = 32;
    static constexpr int kBlockBytes = 256;
    static constexpr int kContextBytes = 8;

    bool AddPlaceholder(int digest_nid, int signature_nid) {
        placeholder_.reset(EVP_MD_meth_new(digest_nid, signature_nid));
        return placeholder_ != nullptr && Describe() && EVP_add_digest(placeholder_.get()) == 1;
    }

    bool Describe() {
        EVP_MD* const md = placeholder_.get();
        return EVP_MD_meth_set_result_size(md, kDigestBytes) == 1 &&
               EVP_MD_meth_set_input_blocksize(md, kBlockBytes) == 1 &&
               EVP_MD_meth_set_app_datasize(md, kContextBytes) == 1 && EVP_MD_meth_set_flags(md, 0) == 1 &&
               EVP_MD_meth_set_init(md, [](EVP_MD_CTX*) { return 1; }) == 1 &&
               EVP_MD_meth_set_update(md, [](EVP_MD_CTX*, const void*, std::size_t) { return 1; }) == 1 &&
               EVP_MD_meth_set_final(md, [](EVP_MD_CTX*, unsigned char*) { return 1; }) == 1;
    }

    // A name that leads to a digest already stays as it is.
    void AddAlias(const char* name) {
        if (EVP_get_digestbyname(name) != nullptr || OBJ_NAME_add(name, kAlias, name_) != 1) return;
        aliases_[alias_count_++] = name;
    }

    Owner<EVP_MD, EVP_MD_meth_free> placeholder_;
    const char* const name_;  // of the digest in libcrypto; what aliases lead to
    const std::array<const char*, 4> own_names_;  // libcrypto's for both identifiers
    std::array<const char*, 8> aliases_{};
    std::size_t alias_count_ = 0;
};

// The two digests that the parsing context offers, borrowed from the default provider. Set while the engine is started.
// The fewer there are, the faster is each parse: libcrypto walks them all when it looks for something to decode a
// public key with.
struct BorrowedDigests {
    OSSL_PROVIDER* source = nullptr;
    std::array<OSSL_ALGORITHM, 3> algorithms{};  // the last one ends the list
};
BorrowedDigests borrowed;

bool HasName(const OSSL_ALGORITHM& algorithm, std::string_view name) {
    const std::string_view names(algorithm.algorithm_names);
    return names.substr(0, names.find(':')) == name;
}

void Borrow(OSSL_PROVIDER* source) {
    borrowed = {source, {}};
    int no_cache = 0;
    const OSSL_ALGORITHM* offered = OSSL_PROVIDER_query_operation(source, OSSL_OP_DIGEST, &no_cache);
    std::size_t count = 0;
    for (; offered != nullptr && offered->algorithm_names != nullptr; ++offered) {
        const bool wanted = HasName(*offered, "SHA1") || HasName(*offered, "MD5");
        if (wanted && count + 1 < borrowed.algorithms.size()) borrowed.algorithms[count++] = *offered;
    }
}

const OSSL_ALGORITHM* QueryDigests(void* /*provider*/, int operation, int* no_cache) {
    *no_cache = 0;
    return operation == OSSL_OP_DIGEST ? borrowed.algorithms.data() : nullptr;
}

int InitDigestProvider(const OSSL_CORE_HANDLE* /*core*/, const OSSL_DISPATCH* /*in*/, const OSSL_DISPATCH** out,
                       void** provider) {
    static const OSSL_DISPATCH functions[] = {
        {OSSL_FUNC_PROVIDER_QUERY_OPERATION, reinterpret_cast<void (*)()>(QueryDigests)},
        {0, nullptr},
    };
    *out = functions;
    *provider = OSSL_PROVIDER_get0_provider_ctx(borrowed.source);
    return 1;
}

// What lends the digests: the default provider, in a context where nobody else's settings reach it.
class DigestSource {
  public:
    DigestSource() : context_(OSSL_LIB_CTX_new()) {
        if (context_ == nullptr) return;
        provider_.reset(OSSL_PROVIDER_load(context_.get(), "default"));
        if (provider_ != nullptr) Borrow(provider_.get());
    }
    ~DigestSource() { borrowed = {}; }
    DigestSource(const DigestSource&) = delete;
    DigestSource& operator=(const DigestSource&) = delete;

  private:
    Owner<OSSL_LIB_CTX, OSSL_LIB_CTX_free> context_;
    Owner<OSSL_PROVIDER, OSSL_PROVIDER_unload> provider_;
};

// Certificates are parsed in library contexts that offer two digests and nothing else. libcrypto decodes the public key
// of each certificate when it can, which costs ten times the rest of the parsing and serialises threads; the keys are
// the tokens' business. The digests make the fingerprints.
class ParsingContext {
  public:
    ParsingContext() : context_(borrowed.source != nullptr ? OSSL_LIB_CTX_new() : nullptr) {
        if (context_ == nullptr) return;
        if (OSSL_PROVIDER_add_builtin(context_.get(), kName, InitDigestProvider) != 1) return;
        digests_.reset(OSSL_PROVIDER_load(context_.get(), kName));
        md5_.reset(EVP_MD_fetch(context_.get(), "MD5", nullptr));
        sha1_.reset(EVP_MD_fetch(context_.get(), "SHA1", nullptr));
    }

    OSSL_LIB_CTX* context() const { return digests_ != nullptr ? context_.get() : nullptr; }
    const EVP_MD* md5() const { return md5_.get(); }
    const EVP_MD* sha1() const { return sha1_.get(); }

  private:
    static constexpr const char* kName = "certmgr-digests";

    // Destroyed from the last to the first.
    Owner<OSSL_LIB_CTX, OSSL_LIB_CTX_free> context_;
    Owner<OSSL_PROVIDER, OSSL_PROVIDER_unload> digests_;
    Owner<EVP_MD, EVP_MD_free> md5_;
    Owner<EVP_MD, EVP_MD_free> sha1_;
};

// Each parse looks, under the context's locks, for a decoder of the public key: threads that share a context wait for each
// other's cache lines. So many threads parse side by side without.
constexpr std::size_t kLanes = 4;

std::size_t Lane() {
    static std::atomic<std::size_t> threads{0};
    thread_local const std::size_t lane = threads.fetch_add(1, std::memory_order_relaxed) % kLanes;
    return lane;
}

// Files are opened with what was good once. The ciphers that are not any more stay out of every other context.
class LazyLegacyContext {
  public:
    OSSL_LIB_CTX* Get() {
        std::call_once(made_, [this] {
            const ErrorMark mark;
            context_.reset(OSSL_LIB_CTX_new());
            if (context_ == nullptr) return;
            default_.reset(OSSL_PROVIDER_load(context_.get(), "default"));
            legacy_.reset(OSSL_PROVIDER_load(context_.get(), "legacy"));
        });
        return context_.get();
    }

  private:
    std::once_flag made_;
    Owner<OSSL_LIB_CTX, OSSL_LIB_CTX_free> context_;
    Owner<OSSL_PROVIDER, OSSL_PROVIDER_unload> default_;
    Owner<OSSL_PROVIDER, OSSL_PROVIDER_unload> legacy_;
};

struct Engine {
    Engine()
        : gost_nids(CreateObjects()), gost_digest(gost_nids[kGost3411_94], gost_nids[kGost3411_94WithGost3410_2001]) {}

    static std::array<int, kGostObjects.size()> CreateObjects() {
        std::array<int, kGostObjects.size()> nids{};
        for (std::size_t i = 0; i < nids.size(); ++i) nids[i] = CreateObject(kGostObjects[i]);
        return nids;
    }

    std::array<int, kGostObjects.size()> gost_nids;
    Gost94Digest gost_digest;
    DigestSource digest_source;
    std::array<ParsingContext, kLanes> parsing;
    LazyLegacyContext legacy;
};

// Leaked on purpose when the process ends without a stop: handles may still be closed after that.
constinit Engine* engine = nullptr;

}  // namespace

void CertEngine_Init() {
    if (engine != nullptr) return;
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS,
                        nullptr);
    const cert_engine::ErrorMark mark;
    engine = std::make_unique<Engine>().release();
}

// Gives back what the start added, and only that: libcrypto itself is shared with the daemon, and cannot be started
// again once it has been cleaned up.
int CertEngine_Finit() {
    const cert_engine::ErrorMark mark;
    const std::unique_ptr<Engine> stopped(std::exchange(engine, nullptr));
    return 0;
}

namespace cert_engine {

OSSL_LIB_CTX* ParseContext() {
    return engine != nullptr ? engine->parsing[Lane()].context() : nullptr;
}

OSSL_LIB_CTX* LegacyContext() {
    return engine != nullptr ? engine->legacy.Get() : nullptr;
}

const EVP_MD* Md5() {
    return engine != nullptr ? engine->parsing[Lane()].md5() : nullptr;
}

const EVP_MD* Sha1() {
    return engine != nullptr ? engine->parsing[Lane()].sha1() : nullptr;
}

bool Digest(const EVP_MD* md, std::string_view bytes, std::string& digest) {
    if (md == nullptr) return false;
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
    unsigned length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), value.data(), &length, md, nullptr) != 1) return false;
    digest.assign(reinterpret_cast<const char*>(value.data()), length);
    return true;
}

std::string_view BytesOf(const ASN1_STRING* string) {
    if (string == nullptr || ASN1_STRING_length(string) <= 0) return {};
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
            static_cast<std::size_t>(ASN1_STRING_length(string))};
}

std::string_view BytesOf(const ASN1_OBJECT* object) {
    if (object == nullptr) return {};
    return {reinterpret_cast<const char*>(OBJ_get0_data(object)), OBJ_length(object)};
}

}  // namespace cert_engine
