// Certificate requests on tokens.
#include "certmgr/cert_request.h"

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "certmgr/cert_cfg.h"
#include "certmgr/cert_engine.h"
#include "certmgr/cert_storage.h"
#include "certmgr/discarded_keys.h"
#include "certmgr/x509cert.h"
#include "libcrypto/libcrypto.h"

namespace {

using CM::CertStorage;
using PKCS11::TokenSession;

struct CloseRequest {
    void operator()(void* request) const { CertEngine_CloseCertReqHandle(request); }
};
using RequestHandle = std::unique_ptr<void, CloseRequest>;

/// Ed25519 signs the message itself, whatever hash is named.
pki_alg_t HashOf(const CertRequestInfo& info) {
    return info.keyAlg == PKI_KEY_ED25519 ? PKI_HASH_NONE : info.hashAlg;
}

CertRequestResult Sign(TokenSession& session, const CertRequestInfo& info, const std::string& id, void* request,
                       std::string& pem) {
    enum SignResult : int { kDigestFailed = 0, kSigned = 2 };
    std::string body;
    std::string signature;
    if (!CertEngine_CertReqInfoToRaw(request, body)) return CertRequestError;
    const int result = CM::X509Cert_Sign(session, id, info.keyAlg, HashOf(info), body, signature);
    if (result == kDigestFailed) return CertRequestDigestError;
    if (result != kSigned ||
        !CertEngine_CertReqSetSignature(request, info.keyAlg, HashOf(info), libcrypto::Data(signature),
                                        static_cast<unsigned>(signature.size()))) {
        return CertRequestSignatureError;
    }
    return CertEngine_CertReqToPem(request, pem) ? CertRequestMade : CertRequestError;
}

CertRequestResult GenerateAndSign(TokenSession& session, const CertRequestInfo& info, const std::string& id,
                                  void* request, std::string& pem) {
    if (!info.randomSeed.empty() && !session.SeedRandom(info.randomSeed)) return CertRequestSeedError;
    std::string spki;
    if (!session.GenerateKeyPair(info.keyAlg, info.keyBits, id, info.keyGenFlag) ||
        !session.GetRawPubKeyObjectData(info.keyAlg, id, spki)) {
        return CertRequestKeyPairError;
    }
    if (!CertEngine_CertReqSetPubKey(request, libcrypto::Data(spki), static_cast<unsigned>(spki.size())))
        return CertRequestError;
    return Sign(session, info, id, request, pem);
}

// --- What a token can generate ---

bool IsGostHash(pki_alg_t hash) {
    return hash == PKI_HASH_GOST94 || hash == PKI_HASH_GOST2012_256 || hash == PKI_HASH_GOST2012_512;
}

bool HasSignatureIdentifier(pki_alg_t key, pki_alg_t hash) {
    std::string oid;
    bool null_parameter = false;
    return asn_pki_alg_to_identifier(key | hash, oid, null_parameter);
}

bool MaySign(pki_alg_t key, pki_alg_t hash) {
    if (key == PKI_KEY_RSA) return !IsGostHash(hash);
    const pki_alg_t fixed = CM::FixedHashOf(key);
    return fixed != 0 ? hash == fixed : HasSignatureIdentifier(key, hash);
}

std::vector<std::uint32_t> DoublingSizes(const PKCS11::KeyPairGenMechanism& mechanism) {
    constexpr std::uint32_t kFirst = 512;
    if (mechanism.maxBits < kFirst) return {mechanism.minBits, mechanism.maxBits};
    std::vector<std::uint32_t> sizes;
    for (std::uint64_t bits = kFirst; bits <= mechanism.maxBits; bits *= 2) {
        sizes.push_back(static_cast<std::uint32_t>(bits));
    }
    return sizes;
}

std::vector<std::uint32_t> KeySizes(const PKCS11::KeyPairGenMechanism& mechanism) {
    switch (mechanism.keyAlg) {
        case PKI_KEY_RSA:
        case PKI_KEY_DSA:
            return DoublingSizes(mechanism);
        case PKI_KEY_GOST2001:
        case PKI_KEY_GOST2012_256:
            return {512};
        case PKI_KEY_GOST2012_512:
            return {1024};
        default:
            return {mechanism.minBits, mechanism.maxBits};
    }
}

std::vector<pki_alg_t> HashAlgs(pki_alg_t key, const std::vector<pki_alg_t>& digests) {
    if (key == PKI_KEY_ED25519) return {PKI_HASH_NONE};
    std::vector<pki_alg_t> hashes;
    std::copy_if(digests.begin(), digests.end(), std::back_inserter(hashes),
                 [key](pki_alg_t hash) { return MaySign(key, hash); });
    return hashes;
}

}  // namespace

CertRequestResult CMT_MakeCertRequest(const PKCS11::TokenInfo& token, const CertRequestInfo& info, std::string& pem) {
    const RequestHandle request(CertEngine_CreateCertReqHandle(info));
    if (request == nullptr) return CertRequestError;
    {
        TokenSession session(token, TokenSession::kPrivate);
        if (!session) return session.loginFailed() ? CertRequestErrorLogin : CertRequestError;
        std::string id;
        CertStorage::GenNewCertObjectId(id);
        const CertRequestResult result = GenerateAndSign(session, info, id, request.get(), pem);
        if (result != CertRequestMade) {
            const bool began = result != CertRequestSeedError;
            if (began) CM::DiscardKeyPair(token, session, id);
            return result;
        }
    }
    CertStorage::Instance().ReloadCertificates();
    return CertRequestMade;
}

void CMT_EnumCertRequestMechanisms(const PKCS11::TokenInfo& token, std::list<CertRequestKeyInfo>& mechanisms) {
    std::vector<PKCS11::KeyPairGenMechanism> generation;
    std::vector<pki_alg_t> digests;
    PKCS11::Manager::Instance().GetKeyPairGenMechanisms(token, generation, digests);
    for (const PKCS11::KeyPairGenMechanism& mechanism : generation) {
        mechanisms.push_back({mechanism.keyAlg, KeySizes(mechanism), HashAlgs(mechanism.keyAlg, digests)});
    }
}

namespace CM {

bool MakeCertRequest(const PKCS11::TokenInfo& token, const CertRequestInfo& info, std::string& pem) {
    static constexpr std::array kErrors = {
        "GenerateKeyPairError", "MakeCertRequestDigestError", "MakeCertRequestSignatureError",
        "MakeCertRequestError", "MakeCertRequestErrorLogin",  "SetRandomSeedError",
    };
    const CertRequestResult result = CMT_MakeCertRequest(token, info, pem);
    if (result == CertRequestMade) return true;
    const std::size_t error = static_cast<std::size_t>(result) - 1;
    pem = error < kErrors.size() ? kErrors[error] : "Internal error";
    return false;
}

}  // namespace CM
