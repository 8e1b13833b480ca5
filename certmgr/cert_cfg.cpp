#include "certmgr/cert_cfg.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_log.h"
#include "certmgr/cert_storage.h"
#include "certmgr/cert_verifychain.h"
#include "certmgr/ike.h"
#include "certmgr/log.h"
#include "platform/event_codes.h"
#include "platform/params.h"

namespace CM {

namespace {

constexpr std::size_t kGost2001SignatureBytes = 64;
constexpr int kEngineExportFailed = 3;

// Results of X509Cert_Sign.
constexpr int kSignDigestError = 0;
constexpr int kSigned = 2;

pki_alg_t KeyCode(pki_alg_t alg) {
    return alg & PKI_ALG_MASK;
}

/// The digest of the certificate's own signature. A certificate signed without one (by an Ed25519 issuer) says nothing
/// of what its key does: then SHA-256, or for a longer elliptic curve the digest of its size.
pki_alg_t HashOfOwnSignature(const X509Cert& cert) {
    const pki_alg_t hash = cert.info.signAlg & PKI_HASH_MASK;
    if (hash != 0 && hash != PKI_HASH_NONE) return hash;
    if (KeyCode(cert.info.keyAlg) != PKI_KEY_EC || cert.info.keyBits <= 256) return PKI_HASH_SHA256;
    return cert.info.keyBits <= 384 ? PKI_HASH_SHA384 : PKI_HASH_SHA512;
}

// --- Log texts ---

/// A text whose further lines each start with a bracketed label.
class LabelledText {
  public:
    explicit LabelledText(std::string_view first_line) : text_(first_line) {}

    LabelledText& Line(std::string_view label, std::string_view value) {
        cmprint_Value(text_.append("\\\n\t[").append(label).append("] "), value);
        return *this;
    }
    LabelledText& Token(const PKCS11::TokenInfo& token) { return Line("token", asn_text_to_line(token.label)); }
    void Send(EventCode code, const TLogIdent& ident) const { TLogMessage(code, ident).Attr(text_).Send(); }

  private:
    std::string text_;
};

const char* AlgName(pki_alg_t alg) {
    return I2S_PKI_ALG_T.getString(alg, "unknown");
}

// --- DER ---

constexpr char kDerInteger = 0x02;
constexpr char kDerSequence = 0x30;

std::string DerElement(char tag, std::string_view content) {
    std::string element(1, tag);
    const std::size_t length = content.size();
    if (length < 0x80) {
        element.push_back(static_cast<char>(length));
    } else {
        std::string digits;
        for (std::size_t rest = length; rest != 0; rest >>= 8) digits.insert(digits.begin(), static_cast<char>(rest));
        element.push_back(static_cast<char>(0x80 | digits.size()));
        element.append(digits);
    }
    return element.append(content);
}

/// Swaps byte i with byte 63 - i. A shorter string is no signature of that kind: it is left alone, and the token
/// refuses it.
void ReverseGost2001(std::string& signature) {
    if (signature.size() < kGost2001SignatureBytes) return;
    std::reverse(signature.begin(), signature.begin() + kGost2001SignatureBytes);
}

}  // namespace

pki_alg_t FixedHashOf(pki_alg_t key_code) {
    switch (key_code) {
        case PKI_KEY_GOST2001:
            return PKI_HASH_GOST94;
        case PKI_KEY_GOST2012_256:
            return PKI_HASH_GOST2012_256;
        case PKI_KEY_GOST2012_512:
            return PKI_HASH_GOST2012_512;
        case PKI_KEY_DSA:
            return PKI_HASH_SHA1;
        case PKI_KEY_ED25519:
            return PKI_HASH_NONE;
        default:
            return 0;
    }
}

bool ike_signature_from_token_(pki_alg_t key_alg, std::string& signature) {
    if (KeyCode(key_alg) == PKI_KEY_DSA) {
        std::string r;
        std::string s;
        if (!asn_read_dsa_certsign(signature, r, s)) return false;
        signature = r + s;
    } else if (KeyCode(key_alg) == PKI_KEY_GOST2001) {
        ReverseGost2001(signature);
    }
    return true;
}

void ike_signature_to_token_(pki_alg_t key_alg, std::string& signature) {
    if (KeyCode(key_alg) == PKI_KEY_DSA) {
        const std::string_view halves = signature;
        const std::size_t length = halves.size() / 2;
        signature = DerElement(kDerSequence, DerElement(kDerInteger, halves.substr(0, length)) +
                                                 DerElement(kDerInteger, halves.substr(length, length)));
    } else if (KeyCode(key_alg) == PKI_KEY_GOST2001) {
        ReverseGost2001(signature);
    }
}

// --- Signing ---

bool IkeSign(const X509Cert* cert, const std::string& hash, std::string& signature, const TLogIdent& ident) {
    PKCS11::TokenSession session(cert->token, PKCS11::TokenSession::kPrivate);
    if (!session.opened()) {
        LabelledText("Can't open private session on token")
            .Token(cert->token)
            .Line("cert", cert->info.subject)
            .Send(kMsgIkeSignOrVerifyFailed, ident);
        return false;
    }
    const pki_alg_t key_alg = cert->info.keyAlg;
    if (!session.Sign(key_alg, cert->info.id, hash, signature)) {
        LabelledText("Can't ike sign on token")
            .Token(cert->token)
            .Line("private key", AlgName(key_alg))
            .Send(kMsgIkeSignOrVerifyFailed, ident);
        return false;
    }
    return ike_signature_from_token_(key_alg, signature);
}

bool Ike2Sign(const X509Cert* cert, pki_alg_t sign_alg, const std::string& data, std::string& signature,
              const TLogIdent& ident) {
    PKCS11::TokenSession session(cert->token, PKCS11::TokenSession::kPrivate);
    if (!session.opened()) {
        LabelledText("Ike2Sign: Can't open private session on token")
            .Token(cert->token)
            .Line("cert", cert->info.subject)
            .Line("key alg", AlgName(cert->info.keyAlg))
            .Send(kMsgIke2SignFailed, ident);
        return false;
    }
    // The signature stays as the token gives it.
    const pki_alg_t digest_alg = sign_alg & ~PKI_KEY_MASK;
    const int result = X509Cert_Sign(session, cert->info.id, sign_alg & PKI_NO_HASH_MASK, digest_alg, data, signature);
    if (result == kSigned) return true;
    LabelledText(result == kSignDigestError ? "Ike2Sign: can't form digest" : "Ike2Sign: can't form sign")
        .Token(cert->token)
        .Line("cert", cert->info.subject)
        .Line("sign alg", AlgName(sign_alg))
        .Line("digest alg", AlgName(digest_alg))
        .Send(kMsgIke2SignFailed, ident);
    return false;
}

pki_alg_t Ike2GetSignAlg(const X509Cert* cert) {
    const pki_alg_t key_alg = cert->info.keyAlg;
    const pki_alg_t fixed = FixedHashOf(KeyCode(key_alg));
    return key_alg | (fixed != 0 ? fixed : HashOfOwnSignature(*cert));
}

bool Ike2CheckHashAlg(const X509Cert* cert, pki_alg_t alg) {
    return PKCS11::Manager::Instance().IsTokenSupportMechanism(cert->token, alg);
}

// --- Verifying, IKEv1 ---

bool IkeVerify(const X509Cert* peer, const std::string& hash, std::string& signature, const TLogIdent& ident) {
    const pki_alg_t key_alg = peer->info.keyAlg;
    const auto tokens = PKCS11::Manager::Instance().EnumTokensShared(key_alg);
    if (tokens->empty()) {
        LabelledText("Can't find tokens for ike verify")
            .Line("peer cert key alg", AlgName(key_alg))
            .Send(kMsgIkeSignOrVerifyFailed, ident);
        return false;
    }
    ike_signature_to_token_(key_alg, signature);
    // The first token with a session decides.
    for (const PKCS11::TokenInfo& token : *tokens) {
        PKCS11::TokenSession session(token, PKCS11::TokenSession::kPublic);
        if (!session.opened()) {
            LabelledText("Can't open public session on token").Token(token).Send(kMsgIkeSignOrVerifyFailed, ident);
            continue;
        }
        if (session.Verify(key_alg, peer->rawPubKey, hash, signature)) return true;
        LabelledText("Can't ike verify on token")
            .Token(token)
            .Line("public key", std::to_string(key_alg))
            .Send(kMsgIkeSignOrVerifyFailed, ident);
        return false;
    }
    LabelledText("Can't open public session for ike verify")
        .Line("peer cert key alg", AlgName(key_alg))
        .Send(kMsgIkeSignOrVerifyFailed, ident);
    return false;
}

// --- Verifying, IKEv2 ---

namespace {

/// One verification: what every log line of it needs.
struct Ike2Verification {
    const X509Cert& peer;
    const std::string& data;
    const std::string& signature;
    const TLogIdent& ident;

    bool Enabled() const { return TLogMessage::IsEnabled(kMsgIke2Verify); }
    void Log(const std::string& text) const { TLogMessage(kMsgIke2Verify, ident).Attr(text).Send(); }
    /// Logs the text, the peer's certificate and the tail.
    void LogWithPeer(std::string text, std::string_view tail = {}) const {
        if (!Enabled()) return;
        text.append(", peer cert: ");
        ttt_X509CertToLogString(&peer, text);
        Log(text.append(tail));
    }
};

/// Name and code: an algorithm that does not fit often has no name.
std::string AlgNameAndCode(pki_alg_t alg) {
    return std::string(AlgName(alg)).append(" (").append(std::to_string(alg)).append(")");
}

/// The block that the peer's RSA key signed, from the first token that can tell; empty if none.
std::string DecryptOnAnyToken(const Ike2Verification& v) {
    const auto tokens = PKCS11::Manager::Instance().EnumTokensShared(PKI_KEY_RSA);
    std::string block;
    for (const PKCS11::TokenInfo& token : *tokens) {
        PKCS11::TokenSession session(token, PKCS11::TokenSession::kPublic);
        if (session.opened() && session.VerifyDecrypt(v.peer.rawPubKey, v.signature, block)) return block;
    }
    return {};
}

/// The hash that the peer's RSA signature names; 0, logged, when it cannot be learned.
pki_alg_t HashOfRsaSignature(const Ike2Verification& v) {
    std::string oid;
    if (!asn_read_alg_from_digest(DecryptOnAnyToken(v), oid)) {
        v.LogWithPeer("CM::Ike2Verify: can't parse rsa sign buffer");
        return 0;
    }
    const pki_alg_t hash = PKI_OID_TO_HASH_ALG(oid.data(), oid.size()) & PKI_ALG_MASK;
    if (hash == 0) {
        std::string dotted;
        oid_asn_to_str_(oid, &dotted);
        v.Log("CM::Ike2Verify: undefined digest oid: " + dotted);
    }
    return hash;
}

/// Adds the hash to a bare key algorithm. False, logged, when it is not known. A bare RSA for another key needs no token
/// to be refused.
bool AddHash(const Ike2Verification& v, pki_alg_t& alg) {
    pki_alg_t hash = FixedHashOf(alg);
    const bool rsa = alg == PKI_KEY_RSA && KeyCode(v.peer.info.keyAlg) == PKI_KEY_RSA;
    if (hash == 0) hash = rsa ? HashOfRsaSignature(v) : HashOfOwnSignature(v.peer);
    alg |= hash;
    return hash != 0;
}

/// Ed25519 signs the message itself, nothing else does: a signature of an undigested message proves nothing for the
/// other algorithms.
bool IsSignatureAlgorithm(pki_alg_t alg) {
    const pki_alg_t hash = alg & PKI_HASH_MASK;
    const bool undigested = hash == PKI_HASH_NONE;
    const bool signs_undigested = (alg & PKI_KEY_MASK) == PKI_KEY_ED25519;
    return (alg & 0xFF) != 0 && hash != 0 && undigested == signs_undigested;
}

bool FitsKey(pki_alg_t alg, pki_alg_t key_alg) {
    pki_alg_t key = KeyCode(alg & PKI_NO_HASH_MASK);
    if (key == PKI_KEY_RSA_PSS) key = PKI_KEY_RSA;
    return key == KeyCode(key_alg);
}

bool LogsSuccess() {
    const vpnfc::ObjectLock lock(LPARAMS::server.log);
    return LPARAMS::server.log.ike_verify_success;
}

std::string KeyAndSignAlg(const X509Cert& peer, pki_alg_t alg) {
    return std::string(", key alg: ").append(AlgName(peer.info.keyAlg)).append(", sign alg: ").append(AlgName(alg));
}

}  // namespace

bool Ike2Verify(const X509Cert* peer, pki_alg_t auth_alg, const std::string& data, const std::string& signature,
                const TLogIdent& ident) {
    const Ike2Verification v{*peer, data, signature, ident};
    pki_alg_t alg = auth_alg;
    // A bare key algorithm gets its hash.
    if (auth_alg <= PKI_KEY_MASK && !AddHash(v, alg)) return false;
    if (!IsSignatureAlgorithm(alg)) {
        v.Log("CM::Ike2Verify: not sign alg:" + AlgNameAndCode(alg));
        return false;
    }
    if (!FitsKey(alg, peer->info.keyAlg)) {
        v.LogWithPeer("CM::Ike2Verify: incompatible sign alg:" + AlgNameAndCode(alg) +
                      ", key alg: " + AlgName(peer->info.keyAlg) + ", auth alg: " + AlgNameAndCode(auth_alg));
        return false;
    }
    const SignatureCheck result = X509Cert_Verify(alg, peer->rawPubKey, data, signature);
    if (result != kSignatureRight) {
        v.LogWithPeer(std::string("CM::Ike2Verify failed: ") + SignatureCheckText(result), KeyAndSignAlg(*peer, alg));
        return false;
    }
    if (LogsSuccess()) v.LogWithPeer("CM::Ike2Verify ok", KeyAndSignAlg(*peer, alg));
    return true;
}

// --- Certificate payloads ---

namespace {

void LogSentCert(EventCode code, const X509Cert* cert, const TLogIdent& ident) {
    if (!TLogMessage::IsEnabled(code)) return;
    std::string rendering;
    ttt_X509CertToLogString(cert, rendering);
    TLogMessage(code, ident).Attr(rendering).Send();
}

bool ExportBundle(const std::vector<void*>& handles, std::string& out) {
    return CertEngine_ExportCertsToPKCS7(handles, out) != kEngineExportFailed;
}

}  // namespace

bool VCertHandleToRawX509(const X509Cert* cert, std::string& out, const TLogIdent& ident) {
    if (cert == nullptr) return false;
    out = cert->rawCert;
    LogSentCert(kMsgCertSentX509, cert, ident);
    return true;
}

bool VCertsListToRawPKCS7(const std::vector<const X509Cert*>& chain, std::uint32_t count, std::string& out,
                          const TLogIdent& ident) {
    std::vector<void*> handles;
    for (const X509Cert* cert : std::span(chain).first(std::min<std::size_t>(count, chain.size()))) {
        LogSentCert(kMsgCertSentPkcs7, cert, ident);
        handles.push_back(cert->certHandle);
    }
    return ExportBundle(handles, out);
}

std::uint32_t CutCertChainLength(const std::vector<const X509Cert*>& chain, CertDataFormat format,
                                 const void* authority, std::uint32_t length) {
    const std::string_view requested(static_cast<const char*>(authority), length);
    // Nearest the root first.
    for (std::size_t i = chain.size(); i > 0; --i) {
        const X509Cert& cert = *chain[i - 1];
        if (requested == (format == kPublicKeySha1 ? cert.pubKeyHash : cert.rawSubject)) {
            return static_cast<std::uint32_t>(i);
        }
    }
    return 0;
}

bool LocalCertsExportToRawPKCS7(std::string& out, const TLogIdent& /*ident*/) {
    const auto& storage = CertStorage::Instance();
    const vpnfc::ReadLock lock(storage);
    std::vector<void*> handles;
    for (const X509Cert* cert : storage.personalCerts) handles.push_back(cert->certHandle);
    return ExportBundle(handles, out);
}

// --- Handles ---

void VCertHandleClose(const X509Cert* cert) {
    if (cert != nullptr) cert->Release();
}

pki_alg_t GetCertKeyAlg(const X509Cert* cert) {
    return cert->info.keyAlg;
}

std::time_t GetCertExpireTime(const X509Cert* cert) {
    return CertTimeTo_time_t(cert->info.validTo);
}

std::time_t GetCertPrivKeyExpireTime(const X509Cert* cert) {
    // A key without an end of usage carries the latest possible time.
    return CertTimeTo_time_t(std::min(cert->info.validTo, cert->privKeyNotAfter));
}

const PKCS11::TokenInfo& GetCertToken(const X509Cert* cert) {
    return cert->token;
}

const CertInfo& GetCertInfo(const X509Cert* cert) {
    return cert->info;
}

}  // namespace CM
