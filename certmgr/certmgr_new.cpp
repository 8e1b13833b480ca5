#include "certmgr/certmgr.h"

#include "certmgr/cert_bridge.h"
#include "certmgr/cert_crlcache.h"
#include "certmgr/cert_engine.h"
#include "certmgr/cert_storage.h"
#include "platform/tokens.h"

namespace {

/// One pattern with no field set.
const std::list<LPCFG::cert_t> any_cert_pattern_list(1);

}  // namespace

namespace CM {

constinit CallbackTable Callbacks;

void Init() {
    PKCS11::Callbacks.tokenInserted = CertStorage_OnTokenInsert;
    PKCS11::Callbacks.tokenRemoved = CertStorage_OnTokenRemove;
    PKCS11::Callbacks.tokenLogin = CertStorage_OnTokenLogin;
    PKCS11::Callbacks.providerInserted = CertStorage_OnProviderInsert;
    CertBridge_Init();
    InitDownloadedCrlDB();
}

int Finit() {
    CertBridge_Finit();  // no command reaches a store that is being emptied
    PKCS11::Callbacks.tokenInserted = nullptr;
    PKCS11::Callbacks.tokenRemoved = nullptr;
    PKCS11::Callbacks.tokenLogin = nullptr;
    PKCS11::Callbacks.providerInserted = nullptr;
    CertStorage::Instance().ClearAll();
    return FiniDownloadedCrlDB();
}

void Reload() {
    CertStorage::Instance().Reload();
}

void CertEngine_Init() {
    ::CertEngine_Init();
}

int CertEngine_Finit() {
    return ::CertEngine_Finit();
}

}  // namespace CM

const std::list<LPCFG::cert_t>* CM_GetAnyCertPatternList() {
    return &any_cert_pattern_list;
}
