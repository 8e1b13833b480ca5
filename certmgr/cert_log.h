// Pieces shared by the selection reports (local, peer, trusted). Every line of a report continues the message under
// it: it starts with kReportLine, one fact a line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "certmgr/log.h"
#include "certmgr/x509cert.h"

namespace CM {

/// Starts a line of a report.
inline constexpr std::string_view kReportLine = " \\\n\t  ";

/// Bytes of one value that are shown: what a peer puts into a name must not push the other facts out of the entry.
inline constexpr std::size_t kMaxValueBytes = 2U << 10;

/// Appends a value, cut at kMaxValueBytes with a note of how much is missing. Printable names and texts of our own.
void cmprint_Value(std::string& out, std::string_view value);

/// The same for a text that a certificate or a peer chose, such as an alternative name: escaped as the values of printable
/// names are.
void cmprint_Text(std::string& out, std::string_view text);

/// The same for what the user's own token says, such as its label: on one line, otherwise as people wrote it.
void cmprint_Label(std::string& out, std::string_view label);

/// Appends a line made of a label such as "Subject: " and its value.
void cmprint_Fact(std::string& out, std::string_view label, std::string_view value);

/// Appends a certificate: subject, issuer and serial number; with details also its role, algorithms, validity and the
/// token that holds it.
void cmprint_Cert(std::string& out, const X509Cert* cert, bool with_details);

/// Appends ",\t Valid from: ... to: ..." to the line of a certificate that is not valid now.
void cmprint_Validity(std::string& out, const CertInfo& info);

// Why a certificate is not valid; the time follows.
inline constexpr const char* kNotYetValidText = "Will be valid from: ";
inline constexpr const char* kExpiredText = "Not valid after: ";

/// Name of a certificate's role: "personal", "trusted", ...; "undefined" for anything that is not a role.
const char* CertKindText(std::uint32_t kind);

}  // namespace CM
