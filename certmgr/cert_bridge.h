// The commands of the management bridge: the store, certificate files, requests and CRLs for those who manage them.
#pragma once

#include <memory>
#include <string>

#include "certmgr/cert_file.h"
#include "certmgr/cert_storage.h"
#include "platform/base.h"
#include "platform/bridge.h"

namespace CM {

/// Registers the listener / takes it away again, when there is one. By CM::Init and CM::Finit.
void CertBridge_Init();
void CertBridge_Finit();

/// Serves group bridge::kGroupCertificates. Each session keeps the certificate file that it opened last; the mutex of
/// this object guards these files and nothing else. A command whose input is too short throws "CommandStreamError".
class CertListener final : public CommandListener, private vpnfc::ObjectLevelLockable {
  public:
    CertListener();
    ~CertListener() override;

    bool ExecCommand(BridgeSession& session, long number, const std::string& input, std::string& output) override;
    void OnCloseSession(BridgeSession* session) override;

    /// Replaces the session's file. The file stays alive until the session opens another one or closes.
    const X509CertFile& SetCertFile(const BridgeSession* session, std::unique_ptr<X509CertFile> file);
    /// Entries of the session's file; empty when there is none at the index.
    MutableCertRef FileCert(const BridgeSession* session, std::uint32_t index) const;
    CrlRef FileCrl(const BridgeSession* session, std::uint32_t index) const;

  private:
    BridgeSessionCookies<X509CertFile*> files_;  // guarded by this object's mutex
};

// Lists of the store, each a count and that many token and certificate descriptions. They hold the store's read lock.
void BridgeEnumPersonalCerts(CommandStreamOut& out);  // and key pairs without certificate
void BridgeEnumTrustedCerts(CommandStreamOut& out);
void BridgeEnumIntermediateCerts(CommandStreamOut& out);
void BridgeEnumOtherCerts(CommandStreamOut& out);

/// What is in a file, and where its certificates may go. Of an unreadable one the status alone.
void X509CertFile_PutToOutStream_(const X509CertFile& file, CommandStreamOut& out);

}  // namespace CM
