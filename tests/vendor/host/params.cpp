#include <platform/params.h>

#include "reset.h"
#include "vendor_host.h"

namespace LPARAMS {

namespace {
/// Left in place when the process ends: it is read while static objects are being destroyed.
Server& LeakedServer() {
    static Server& instance = *new Server;
    return instance;
}
}  // namespace

Server& server = LeakedServer();

}  // namespace LPARAMS

namespace vendor_host {

namespace {
/// Assignment leaves the block's mutex alone.
template <typename Block>
void BackToDefaults(Block& block) {
    const Block defaults;
    const vpnfc::ObjectLock lock(block);
    block = defaults;
}
}  // namespace

void ResetParams() {
    BackToDefaults(LPARAMS::server.cert);
    BackToDefaults(LPARAMS::server.log);
}

void Reset() {
    ResetEvents();
    ResetTokens();
    ResetBridge();
    ResetParams();
    ResetEventLog();
}

}  // namespace vendor_host
