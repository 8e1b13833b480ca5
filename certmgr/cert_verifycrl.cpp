#include "certmgr/chain.h"
#include "certmgr/log.h"
#include "platform/event_codes.h"

namespace CM {

bool CertChainVerifyRevocation(const std::vector<X509Cert*>& chain, LPARAMS::CRL_PROC_t mode,
                               const std::string& /*default_crl_server*/, std::string* reason, const TLogIdent& ident) {
    if (mode == LPARAMS::CRL_PROC_DISABLED || chain.empty()) return true;
    // What cannot be decided is never good.
    *reason = "Revocation cannot be checked: no CRL processing is available";
    if (TLogMessage::IsEnabled(kMsgCrlNotFound)) {
        std::string rendering;
        ttt_X509CertToLogString(chain[0], rendering);
        TLogMessage(kMsgCrlNotFound, ident).Attr(rendering).Attr(*reason).Send();
    }
    return false;
}

}  // namespace CM
