#include "certmgr/key_usage.h"

#include <string>

#include "certmgr/log.h"
#include "platform/event_codes.h"
#include "platform/params.h"

namespace CM {

namespace {

LPARAMS::NamedSwitch Tolerance() {
    const vpnfc::ObjectLock lock(LPARAMS::server.cert);
    return LPARAMS::server.cert.ignore_key_usage;
}

void LogMissing(const X509Cert* cert, KeyUsageBit usage, const LPARAMS::NamedSwitch& tolerance,
                const TLogIdent& ident) {
    const EventCode code = tolerance.on ? kMsgKeyUsageTolerated : kMsgKeyUsageMissing;
    if (!TLogMessage::IsEnabled(code)) return;
    TLogMessage message(code, ident);
    message.Attr(KeyUsageName(usage));
    if (tolerance.on) message.Attr(tolerance.name);
    std::string rendering;
    ttt_X509CertToLogString(cert, rendering);
    message.Attr(rendering).Send();
}

}  // namespace

bool HasKeyUsage(const X509Cert* cert, KeyUsageBit usage, const TLogIdent& ident) {
    if ((cert->facts().keyUsageBits[0] & usage) != 0) return true;
    const LPARAMS::NamedSwitch tolerance = Tolerance();
    LogMissing(cert, usage, tolerance, ident);
    return tolerance.on;
}

const char* KeyUsageName(KeyUsageBit usage) {
    switch (usage) {
        case kKeyUsageDigitalSignature:
            return "Digital Signature";
        case kKeyUsageCertSign:
            return "Certificate Signing";
        case kKeyUsageCrlSign:
            return "CRL Signing";
        default:
            return "Unknown";
    }
}

}  // namespace CM
