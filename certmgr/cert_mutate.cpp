// Changes of the store: each writes to a token and reloads what it changed.
#include <array>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "certmgr/cert_engine.h"
#include "certmgr/cert_log.h"
#include "certmgr/cert_storage.h"
#include "certmgr/chain.h"
#include "certmgr/discarded_keys.h"
#include "platform/event_codes.h"
#include "platform/eventlog.h"

namespace CM {

namespace {

using PKCS11::CertObject;
using PKCS11::TokenInfo;
using PKCS11::TokenSession;

/// Who may write public objects on the token.
TokenSession::OpenType WriteAccess(const TokenInfo& token) {
    return token.loginRequired ? TokenSession::kPrivate : TokenSession::kPublic;
}

void LogChange(EventCode code, std::string_view what, const TokenInfo& token) {
    if (!TLogMessage::IsEnabled(code)) return;
    std::string on_token;
    ttt_TokenInfoToLogString(&token, on_token);
    TLogMessage(code).Attr(what).Attr(on_token).Send();
}

// --- Import ---

struct Import {
    const TokenInfo& token;
    const X509Cert& cert;
    bool exportable;
    const std::string* pin;

    CertObject Object(std::string id, PKCS11::CertCategory category) const {
        return {.id = std::move(id), .value = cert.rawCert, .category = category};
    }
};

std::string NewObjectId() {
    std::string id;
    CertStorage::GenNewCertObjectId(id);
    return id;
}

CertImportStatus NotOpened(const TokenSession& session) {
    return session.loginFailed() ? ImportCertErrorLogin : ImportCertErrorOpenTokenSession;
}

/// The certificate takes the identifier of its key pair, which is on the token.
CertImportStatus ImportBesideKeyPair(const Import& import) {
    TokenSession session(import.token, WriteAccess(import.token), import.pin);
    if (!session) return NotOpened(session);
    std::string id;
    if (!session.ContainPubKeyObject(import.cert.rawPubKey, &id)) return ImportCertErrorNotPersonal;
    return session.CreateCertObject(import.Object(id, PKCS11::kTokenUserCategory), import.cert.rawSubject)
               ? ImportCertOk
               : ImportCertError;
}

bool WritePrivateKey(const Import& import, TokenSession& session, const std::string& id) {
    const X509Cert& cert = import.cert;
    if (cert.privKeyHandle == nullptr) {
        return session.ImportPrivKeyObject(*cert.pbeKey, cert.info.keyAlg, id, import.exportable);
    }
    vpnfc::SecretString pkcs8;
    return CertEngine_PrivKeyToPKCS8(cert.privKeyHandle, pkcs8.edit()) &&
           session.CreatePrivKeyObject(cert.info.keyAlg, id, pkcs8.get(), import.exportable);
}

CertImportStatus WriteWithKey(const Import& import, TokenSession& session, const std::string& id) {
    if (!WritePrivateKey(import, session, id)) return ImportCertErrorPrivKey;
    if (!session.CreatePubKeyObject(import.cert.info.keyAlg, id, import.cert.rawPubKey)) return ImportCertErrorPubKey;
    if (!session.CreateCertObject(import.Object(id, PKCS11::kTokenUserCategory), import.cert.rawSubject))
        return ImportCertError;
    return ImportCertOk;
}

CertImportStatus ImportWithKey(const Import& import) {
    TokenSession session(import.token, TokenSession::kPrivate, import.pin);
    if (!session) return NotOpened(session);
    const std::string id = NewObjectId();
    const CertImportStatus status = WriteWithKey(import, session, id);
    // A certificate that was refused may be there all the same: the answer was lost.
    const CertInfo* const written = status == ImportCertError ? &import.cert.info : nullptr;
    if (status != ImportCertOk) DiscardKeyPair(import.token, session, id, written);
    return status;
}

CertImportStatus ImportPersonal(const Import& import) {
    const bool has_key = import.cert.privKeyHandle != nullptr || import.cert.pbeKey != nullptr;
    return has_key ? ImportWithKey(import) : ImportBesideKeyPair(import);
}

CertImportStatus ImportTrusted(const Import& import) {
    const bool is_ca = import.cert.info.isCA;
    TokenSession session(import.token, TokenSession::kPublic, import.pin);
    if (!session) return ImportCertErrorOpenTokenSession;
    CertObject object = import.Object(NewObjectId(), is_ca ? PKCS11::kAuthorityCategory : PKCS11::kOtherEntityCategory);
    object.trusted = true;
    if (session.CreateCertObject(object, import.cert.rawSubject)) {
        return is_ca ? ImportCertOk : ImportCertWarningTrustedNotCA;
    }
    if (session.securityOfficerRequired()) return ImportCertErrorLoginSO;
    return is_ca ? ImportCertError : ImportCertErrorNotTrusted;
}

CertImportStatus ImportOther(const Import& import) {
    TokenSession session(import.token, WriteAccess(import.token), import.pin);
    if (!session) return NotOpened(session);
    const CertObject object = import.Object(NewObjectId(), PKCS11::kOtherEntityCategory);
    return session.CreateCertObject(object, import.cert.rawSubject) ? ImportCertOk : ImportCertError;
}

CertImportStatus ImportAs(CertImportMode mode, const Import& import, EventCode& success) {
    switch (mode) {
        case kImportPersonal:
            success = kMsgPersonalCertImported;
            return ImportPersonal(import);
        case kImportTrusted:
            success = kMsgTrustedCertImported;
            return ImportTrusted(import);
        default:
            success = kMsgOtherCertImported;
            return ImportOther(import);
    }
}

// --- Export ---

/// The certificate and, when wanted, its issuers; one reference each.
CertList MembersToExport(const MutableCertRef& cert, bool with_chain) {
    std::vector<X509Cert*> chain{MutableCertRef(cert).Detach()};
    if (with_chain) CMT_BuildCertChain(chain, {}, SearchTrusted | SearchOther | SearchPersonal);
    CertList members;
    for (X509Cert* member : chain) members.Adopt(member);
    return members;
}

std::vector<void*> Handles(const CertList& certs) {
    std::vector<void*> handles;
    for (const X509Cert* cert : certs) handles.push_back(cert->certHandle);
    return handles;
}

CertExportResult ReadPrivateKey(const TokenInfo& token, const std::string& id, vpnfc::SecretString& pkcs8) {
    TokenSession session(token, TokenSession::kPrivate);
    if (!session) return session.loginFailed() ? ExportCertErrorLogin : ExportCertError;
    return session.ExportPrivateKey(id, pkcs8.edit()) ? ExportCertOk : ExportCertErrorPrivKey;
}

// --- Deletion ---

struct Deleted {
    bool certificate;
    bool private_key;
};

EventCode DeletionCode(std::uint32_t kind, const Deleted& deleted) {
    switch (kind) {
        case kCertKindPersonal:
            return deleted.certificate ? kMsgPersonalCertDeleted : kMsgPersonalCertNotDeleted;
        case kCertKindTrusted:
            return deleted.certificate ? kMsgTrustedCertDeleted : kMsgTrustedCertNotDeleted;
        case kCertKindKeyPair:  // mostly there is no certificate to delete
            return deleted.private_key ? kMsgKeyPairDeleted : kMsgKeyPairNotDeleted;
        default:
            return deleted.certificate ? kMsgOtherCertDeleted : kMsgOtherCertNotDeleted;
    }
}

std::string DeletionText(const CertInfo& info, const Deleted& deleted) {
    std::string text;
    if (info.kind == kCertKindKeyPair) {
        text = ttt_pki_alg_to_str(info.keyAlg);
        cmprint_Text(text.append(" "), info.serialNumber);
        return text;
    }
    ttt_CertInfoToLogString(info, text);
    if (info.kind == kCertKindPersonal && deleted.certificate && !deleted.private_key) text += " (without key)";
    return text;
}

std::string CrlText(const CRLInfo& info) {
    std::string text;
    ttt_CRLInfoToLogString(info, text);
    return text;
}

}  // namespace

const char* CertImportStatusText(std::uint32_t status) {
    static constexpr std::array kNames = {
        "ImportCertOk",
        "ImportCertAlreadyExist",
        "ImportCertUnsupportedKeyLen",
        "ImportCertError",
        "ImportCertErrorPrivKey",
        "ImportCertErrorPubKey",
        "ImportCertErrorLogin",
        "ImportCertErrorLoginSO",
        "ImportCertErrorOpenTokenSession",
        "ImportCertErrorNotPersonal",
        "ImportCertErrorNotTrusted",
        "ImportCertErrorUnknownCriticalExtension",
        "ImportCertErrorUnknownKeyAlg",
        "ImportCertErrorUnknownSignAlg",
        "ImportCertErrorInvalidTime",
        "ImportCertErrorInvalidValidFrom",
        "ImportCertErrorInvalidValidTo",
        "ImportCertErrorEmptySubject",
        "ImportCertErrorEmptyIssuer",
        "ImportCertWarningTrustedNotCA",
    };
    return status < kNames.size() ? kNames[status] : "ImportCertErrorUnknown";
}

MutableCertRef CertStorage::FindCertificate(const TokenInfo& token, const CertInfo& info) const {
    const vpnfc::ReadLock lock(*this);
    for (const X509CertsDB* list : {&otherCerts, &trustedCerts, &personalCerts, &keyPairCerts}) {
        if (X509Cert* const found = list->Find(token, info)) return MutableCertRef::Adopt(found);
    }
    return {};
}

void CertStorage::GenNewCertObjectId(std::string& id) {
    static std::mutex mutex;
    static std::uint64_t imports = 0;
    const std::lock_guard lock(mutex);
    const std::uint64_t value = static_cast<std::uint64_t>(vpnfc::CurrentTime()) << 16 | (++imports & 0xFFFF);
    id.resize(sizeof value);
    std::memcpy(id.data(), &value, sizeof value);
}

CertImportStatus CertStorage::ImportCertificate(const TokenInfo& token, const X509Cert& cert, CertImportMode mode,
                                                bool exportable, const std::string* pin) {
    if (FindCertificate(token, cert.info)) return ImportCertAlreadyExist;
    if (const CertImportStatus unusable = cert.CanBeUsed(); unusable != ImportCertOk) return unusable;
    EventCode success{};
    const CertImportStatus status = ImportAs(mode, {token, cert, exportable, pin}, success);
    if (status != ImportCertOk) return status;
    std::string text;
    ttt_X509CertToLogString(&cert, text);
    LogChange(success, text, token);
    ReloadCertificates();
    return ImportCertOk;
}

CertExportResult CertStorage::ExportCertificate(const TokenInfo& token, const CertInfo& info, CertExportFormat format,
                                                const char* password, bool with_chain, bool with_private_key,
                                                std::string& out) {
    const MutableCertRef cert = FindCertificate(token, info);
    if (!cert) return ExportCertNotFound;
    if (format > kExportPkcs12) return ExportCertUnknownFormat;
    if (cert->certHandle == nullptr) return ExportCertError;
    if (format == kExportDer) return CertExportResult(CertEngine_ExportCertToDER(cert->certHandle, out));
    if (format == kExportPem) return CertExportResult(CertEngine_ExportCertToPEM(cert->certHandle, out));
    vpnfc::SecretString pkcs8;
    if (format == kExportPkcs12 && with_private_key) {
        const CertExportResult result = ReadPrivateKey(cert->token, cert->info.id, pkcs8);
        if (result != ExportCertOk) return result;
    }
    const CertList members = MembersToExport(cert, with_chain);
    if (format == kExportPkcs7) return CertExportResult(CertEngine_ExportCertsToPKCS7(Handles(members), out));
    return CertExportResult(CertEngine_ExportCertsToPKCS12(Handles(members), pkcs8.get(), password, out));
}

void CertStorage::DeleteCertificate(const TokenInfo& token, const CertInfo& info) {
    Deleted deleted{};
    {
        TokenSession session(token, TokenSession::kPrivate);
        if (!session) return;
        deleted.certificate = session.DeleteCertObject(info);
        deleted.private_key = session.DeletePrivKeyObject(info);
        session.DeletePubKeyObject(info);
    }
    LogChange(DeletionCode(info.kind, deleted), DeletionText(info, deleted), token);
    ReloadCertificates();
}

CrlImportResult CertStorage::ImportCRL(const TokenInfo& token, const X509CRL& crl) {
    {
        TokenSession session(token, WriteAccess(token));
        if (!session) return session.loginFailed() ? ImportCrlErrorLogin : ImportCrlError;
        if (!session.CreateCRLObject(NewObjectId(), crl.rawCrl())) return ImportCrlError;
    }
    LogChange(kMsgCrlImported, CrlText(crl.info), token);
    ReloadCRLs();
    return ImportCrlOk;
}

void CertStorage::DeleteCRL(const TokenInfo& token, const CRLInfo& info) {
    {
        TokenSession session(token, TokenSession::kPublic);
        if (!session) return;
        session.DeleteCRLObject(info);
    }
    LogChange(kMsgCrlDeleted, CrlText(info), token);
    ReloadCRLs();
}

bool CertStorage::CreatePresharedKey(const TokenInfo& token, const PresharedKeyInfo& info, const std::string& value) {
    {
        TokenSession session(token, TokenSession::kPrivate);
        if (!session || !session.CreatePresharedKeyObject(info.name, value)) return false;
    }
    LogChange(kMsgPresharedKeyCreated, asn_text_to_line(info.name), token);
    ReloadPresharedKeys();
    return true;
}

void CertStorage::DeletePresharedKey(const TokenInfo& token, const PresharedKeyInfo& info) {
    {
        TokenSession session(token, TokenSession::kPrivate);
        if (!session) return;
        session.DeletePresharedKeyObject(info);
    }
    LogChange(kMsgPresharedKeyDeleted, asn_text_to_line(info.name), token);
    ReloadPresharedKeys();
}

}  // namespace CM
