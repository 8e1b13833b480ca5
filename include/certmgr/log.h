// Renderings of certificates, CRLs, tokens and patterns for log lines: continuation text, each item on a line of its
// own that starts with a blank, a backslash, a line feed and two tabs.
#pragma once

#include <string>

#include "certmgr/api.h"
#include "certmgr/x509cert.h"

/// Name of an algorithm code, or "Unknown".
CM_API const char* ttt_pki_alg_to_str(pki_alg_t alg);

// These append.
CM_API void ttt_X509CertToLogString(const CM::X509Cert* cert, std::string& appended);
CM_API void ttt_CertPatternToLogString(const LPCFG::cert_t& pattern, std::string& appended);

// These replace.
CM_API void ttt_CertInfoToLogString(const CertInfo& info, std::string& out);
CM_API void ttt_X509CRLToLogString(const CM::X509CRL* crl, std::string& out);
CM_API void ttt_CRLInfoToLogString(const CRLInfo& info, std::string& out);
CM_API void ttt_TokenInfoToLogString(const PKCS11::TokenInfo* token, std::string& out);
