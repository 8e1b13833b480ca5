// Module lifecycle: how the daemon starts, reloads and stops the certificate manager.
//
// Order: load the library, CM::CertEngine_Init, CM::Init, CM::Reload and token events, services, CM::Finit,
// CM::CertEngine_Finit, unload. Init, Finit and the engine calls run while no other service runs.
#pragma once

#include <list>
#include <string>

#include "certmgr/api.h"
#include "certmgr/x509cert.h"

namespace CM {

/// Hooks of the daemon. All null after loading; filled before CM::Init. Called from the event manager's and the
/// token manager's threads, without any lock of the module but the one that serialises reloads. A certificate
/// passed in is alive for the call; a hook that keeps it takes a reference. What a hook throws is logged.
struct CallbackTable {
    void (*PersonalCertAppeared)(X509Cert* cert, const CertInfo& info) = nullptr;
    void (*PersonalCertDisappeared)(X509Cert* cert, const CertInfo& info) = nullptr;
    void (*PresharedKeyAppeared)(const std::string& name) = nullptr;
    void (*PresharedKeyDisappeared)(const std::string& name) = nullptr;
    void (*TokenInserted)(const PKCS11::TokenInfo& token) = nullptr;
    void (*ProviderInserted)(const PKCS11::ProviderInfo& provider) = nullptr;
};
extern CM_API CallbackTable Callbacks;

/// Installs the store's token handlers, registers the bridge listener, opens the downloaded-CRL cache.
CM_API void Init();
/// Undoes Init, empties the store and the downloaded-CRL cache. Callbacks stay as they are. The result is the cache's:
/// always 0.
CM_API int Finit();
/// Starts the store with a full reload, or reloads everything, on the calling thread.
CM_API void Reload();

CM_API void CertEngine_Init();
CM_API int CertEngine_Finit();

/// Engine and module, started while this object lives. The host libraries must outlive it.
class RunningModule {
  public:
    RunningModule() {
        CertEngine_Init();
        Init();
    }
    ~RunningModule() {
        Finit();
        CertEngine_Finit();
    }
    RunningModule(const RunningModule&) = delete;
    RunningModule& operator=(const RunningModule&) = delete;
};

}  // namespace CM

/// The list of one pattern that matches every certificate. Never changes; lives as long as the library.
CM_API const std::list<LPCFG::cert_t>* CM_GetAnyCertPatternList();
