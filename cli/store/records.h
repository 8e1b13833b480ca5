// The records as people and programs read them. Texts are not escaped yet; keys of JSON stay as they are.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "cli/client/manager.h"
#include "cli/terminal/console.h"

namespace certmgrctl {

using certmgr_client::CertSelector;
using certmgr_client::ListedCert;
using PKCS11::TokenInfo;

/// The lists, in the order in which they are shown.
inline constexpr CertSelector kAllLists[] = {CertSelector::kPersonal, CertSelector::kTrusted,
                                             CertSelector::kIntermediate, CertSelector::kOther};

/// A certificate, or a key pair without one, and the list that it stands in.
struct StoredCert {
    CertSelector list = CertSelector::kPersonal;
    TokenInfo token;
    CertInfo info;
};

/// "personal", "trusted", "intermediate", "other".
const char* ListName(CertSelector list);
/// "personal", "trusted", "other", "key pair", ...: what the store takes it for.
const char* KindName(std::uint32_t kind);

bool IsKeyPair(const CertInfo& info);
/// The subject; of a key pair what it is.
std::string NameOf(const CertInfo& info);
/// For a table: the common name of the subject, which tells most in little room; without one the same as NameOf.
std::string ShortNameOf(const CertInfo& info);
/// "ECDSA 256".
std::string KeyText(const CertInfo& info);
std::string AlgorithmName(pki_alg_t algorithm);
/// The serial number, of a key pair its identifier, in hexadecimal; cut to the beginning that a table has room for.
std::string NumberOf(const CertInfo& info);
std::string ShortNumberOf(const CertInfo& info);
/// `CN=alice, serial 01AB, on "token"`.
std::string Described(const TokenInfo& token, const CertInfo& info);
std::string Described(const TokenInfo& token, const CRLInfo& info);

/// Those that are not wait for "token init".
bool IsInitialised(const PKCS11::TokenStatus& token);

inline constexpr std::time_t kSecondsPerDay = 86400;
/// Where the clock stands in a validity.
enum class Validity : std::uint8_t { kValid, kEndsSoon, kExpired, kNotYet };
/// What ends within that many days stands out.
inline constexpr int kSoonDays = 30;
Validity ValidityOf(const CertInfo& info, std::time_t now);
/// "2031-02-28", "2026-12-01 (10 days)", "expired 2026-01-01".
Cell ExpiryCell(const CertInfo& info, std::time_t now);
/// "2031-02-28"; "unknown".
std::string Date(cert_time64_t time);

Json ToJson(const TokenInfo& token);
Json ToJson(const StoredCert& cert);
Json ToJson(const TokenInfo& token, const CertInfo& info);
Json ToJson(const CRLInfo& info);
/// "2031-02-28T23:59:59Z", or null.
Json TimeJson(cert_time64_t time);

}  // namespace certmgrctl
