// Certificate files.
#include "certmgr/cert_file.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <utility>

#include "certmgr/cert_engine.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"

namespace CM {

namespace {

using PKCS11::TokenInfo;
using PKCS11::TokenSession;

unsigned Length(const std::string& content) {
    return static_cast<unsigned>(std::min<std::size_t>(content.size(), ~0U));
}

MutableCertRef NewCert(void* handle, void* key = nullptr) {
    return MutableCertRef::Adopt(new X509Cert(handle, key));
}

bool HasPrivateKey(const X509Cert& cert) {
    return cert.privKeyHandle != nullptr || cert.pbeKey != nullptr;
}

bool HoldsKeyPair(const TokenInfo& token, const X509Cert& cert) {
    TokenSession session(token);
    return session && session.ContainPubKeyObject(cert.rawPubKey);
}

/// The lines of base64 that may be DER, whose first byte makes an M, as one. False for anything else.
bool JoinBase64(std::string_view lines, std::string& joined) {
    constexpr std::string_view kBlanks = "\r\n\t ";
    constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    std::array<bool, 256> is_base64{};
    for (const char c : kAlphabet) is_base64[static_cast<unsigned char>(c)] = true;
    const std::size_t first = lines.find_first_not_of(kBlanks);
    if (first == std::string_view::npos || lines[first] != 'M') return false;
    for (const char c : lines) {
        if (is_base64[static_cast<unsigned char>(c)]) {
            joined.push_back(c);
        } else if (kBlanks.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

/// Proposes tokens; a session with each is opened when the first key pair is looked for.
class ImportAdviser {
  public:
    explicit ImportAdviser(const std::vector<TokenInfo>& tokens) : tokens_(tokens), sessions_(tokens.size()) {}
    CertImportOption Advise(const X509Cert& cert);

  private:
    /// Positions of the tokens for which `fits` holds.
    template <typename Fits>
    std::vector<std::uint32_t> Positions(Fits fits) const {
        std::vector<std::uint32_t> positions;
        for (std::uint32_t i = 0; i < tokens_.size(); ++i) {
            if (fits(i)) positions.push_back(i);
        }
        return positions;
    }
    bool HoldsKeyPair(std::uint32_t position, const X509Cert& cert) {
        std::unique_ptr<TokenSession>& session = sessions_[position];
        if (session == nullptr) session = std::make_unique<TokenSession>(tokens_[position]);
        return *session && session->ContainPubKeyObject(cert.rawPubKey);
    }

    const std::vector<TokenInfo>& tokens_;
    std::vector<std::unique_ptr<TokenSession>> sessions_;
};

CertImportOption ImportAdviser::Advise(const X509Cert& cert) {
    CertImportOption option;
    option.info = cert.info;
    option.mode = kImportPersonal;
    if (HasPrivateKey(cert)) {
        option.tokens = Positions([&](std::uint32_t i) {
            return PKCS11::Manager::Instance().IsTokenSupportMechanism(tokens_[i], cert.info.keyAlg);
        });
        return option;
    }
    option.tokens = Positions([&](std::uint32_t i) { return HoldsKeyPair(i, cert); });
    if (!option.tokens.empty()) return option;
    option.mode = cert.info.isCA ? kImportTrusted : kImportOther;
    option.tokens = Positions([&](std::uint32_t i) { return tokens_[i].holdsTrusted; });
    return option;
}

/// The token that a certificate of a file is stored on, or null with the reason.
const TokenInfo* FindHome(const std::vector<TokenInfo>& tokens, const X509Cert& cert, std::string& reason) {
    const bool is_ca = cert.info.isCA;
    const auto home = std::find_if(tokens.begin(), tokens.end(), [&](const TokenInfo& token) {
        return is_ca ? token.holdsTrusted : HoldsKeyPair(token, cert);
    });
    if (home != tokens.end()) return &*home;
    reason = (is_ca ? "No Trusted tokens, cert: " : "Key Pair not found for cert: ") + cert.info.subject;
    return nullptr;
}

bool Store(const std::vector<TokenInfo>& tokens, const X509Cert& cert, std::string& reason) {
    const TokenInfo* const home = FindHome(tokens, cert, reason);
    if (home == nullptr) return false;
    const CertImportMode mode = cert.info.isCA ? kImportTrusted : kImportPersonal;
    const CertImportStatus status = CertStorage::Instance().ImportCertificate(*home, cert, mode, false, nullptr);
    if (status == ImportCertOk || status == ImportCertAlreadyExist) return true;
    reason = std::string(CertImportStatusText(status)) + ": " + cert.info.subject;
    return false;
}

/// Stores everything; on failure `reason` says why.
bool StoreFile(const std::string& content, const std::string& password, std::string& reason) {
    const std::vector<TokenInfo> tokens = PKCS11::Manager::Instance().EnumTokens();
    if (tokens.empty()) {
        reason = "no tokens to import";
        return false;
    }
    const X509CertFile file(content, password);
    if (file.status != kP12Read) {
        reason = file.status == kP12WrongPassword ? "wrong password" : "can't parse cert data";
        return false;
    }
    return std::all_of(file.certs.begin(), file.certs.end(),
                       [&](const X509Cert* cert) { return Store(tokens, *cert, reason); });
}

}  // namespace

X509CertFile::X509CertFile(const std::string& content, const std::string& password) {
    P12Budget budget;
    if (ReadCert(content) || ReadCrl(content) || ReadPkcs7(content) || ReadBase64Lines(content) ||
        ReadPkcs12(content, password, budget)) {
        status = kP12Read;
    } else if (status == kP12Unsupported) {  // else the last reader would find the same
        ReadEncryptedPkcs12(content, password, budget);
    }
}

bool X509CertFile::ReadCert(const std::string& content) {
    void* handle = CertEngine_CreateCertHandle(content.data(), Length(content));
    if (handle == nullptr) handle = CertEngine_ReadPEMCertData(content);
    if (handle == nullptr) return false;
    certs.Adopt(NewCert(handle).Detach());
    return true;
}

bool X509CertFile::ReadCrl(const std::string& content) {
    void* handle = CertEngine_CreateCRLHandle(content.data(), Length(content));
    if (handle == nullptr) handle = CertEngine_ReadPEMCRLData(content);
    if (handle == nullptr) return false;
    crls.push_back(std::make_shared<X509CRL>(handle, true));
    return true;
}

bool X509CertFile::ReadPkcs7(const std::string& content) {
    constexpr int kHandled = 0;
    std::vector<void*> cert_handles;
    std::vector<void*> crl_handles;
    if (CertEngine_ReadP7CCertData(content.data(), Length(content), cert_handles, &crl_handles) != kHandled) {
        return false;
    }
    AdoptCerts(cert_handles);
    for (void* handle : crl_handles) crls.push_back(std::make_shared<X509CRL>(handle, true));
    return true;
}

/// The text readers take base64 without markers on one line alone.
bool X509CertFile::ReadBase64Lines(const std::string& content) {
    std::string line;
    if (!JoinBase64(content, line) || line.size() == content.size()) return false;
    return ReadCert(line) || ReadCrl(line);
}

bool X509CertFile::ReadPkcs12(const std::string& content, const std::string& password, P12Budget& budget) {
    void* cert = nullptr;
    void* key = nullptr;
    std::vector<void*> others;
    status = CertEngine_ReadP12CertData(content.data(), Length(content), password, cert, key, others, &budget);
    if (status != kP12Read) return false;
    certs.Adopt(NewCert(cert, key).Detach());
    AdoptCerts(others);
    return true;
}

void X509CertFile::ReadEncryptedPkcs12(const std::string& content, const std::string& password, P12Budget& budget) {
    std::vector<PBEPrivKeyHandle> keys;
    std::vector<void*> others;
    status = CertEngine_ReadP12CertData_XXX(content.data(), Length(content), password, keys, others, &budget);
    if (budget.keys_left_out > 0) TLogMessage(kMsgKeysLeftOut).Attr(std::to_string(budget.keys_left_out)).Send();
    if (status != kP12Read) return;
    for (const PBEPrivKeyHandle& key : keys) certs.Adopt(new X509Cert(key));
    AdoptCerts(others);
}

void X509CertFile::AdoptCerts(const std::vector<void*>& handles) {
    for (void* handle : handles) certs.Adopt(NewCert(handle).Detach());
}

void GetCertImportOption(const std::vector<TokenInfo>& tokens, const X509Cert* cert, CertImportOption& option) {
    option = ImportAdviser(tokens).Advise(*cert);
}

std::vector<CertImportOption> GetCertImportOptions(const std::vector<TokenInfo>& tokens, const CertList& certs) {
    ImportAdviser adviser(tokens);
    std::vector<CertImportOption> options;
    for (const X509Cert* cert : certs) options.push_back(adviser.Advise(*cert));
    return options;
}

bool ImportCertsFromFile(const std::string& content, const std::string& password, std::string* report) {
    std::string reason;
    const bool stored = StoreFile(content, password, reason);
    if (!stored && report != nullptr) report->append(reason);
    return stored;
}

}  // namespace CM
