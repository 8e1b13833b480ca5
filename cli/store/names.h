// Which object a person means: any unique beginning of a serial number or fingerprint, or a piece of the subject.
//
// What fits whole goes before a whole value of the subject ("alice" of "CN=alice, O=Example"), that before a piece or a
// beginning. Case and colons do not count. Fingerprints are asked of the daemon unless more than a piece fits. A name that fits
// nothing, or several objects alike, is a Failure that says what there is.
#pragma once

#include <string>
#include <vector>

#include "cli/session.h"
#include "cli/store/records.h"

namespace certmgrctl {

/// The certificates of these lists, on the token of that name; empty: of all.
std::vector<StoredCert> StoredCerts(Context& context, const std::vector<CertSelector>& lists = {},
                                    const std::string& token_name = {});

/// The certificate, or the key pair, of that name; its token may be named, too.
StoredCert FindCert(Context& context, const std::string& name, const std::string& token_name = {});

/// The token whose label, or the beginning of whose serial number, is the name. An empty name means the only one.
TokenInfo FindToken(Context& context, const std::string& name);
/// Likewise, among these.
TokenInfo FindToken(const std::vector<TokenInfo>& tokens, const std::string& name);

/// Likewise a CRL by a piece of its issuer or a beginning of its number, and a preshared key by its whole name.
certmgr_client::ListedCrl FindCrl(Context& context, const std::string& name, const std::string& token_name);
certmgr_client::ListedKey FindKey(Context& context, const std::string& name, const std::string& token_name);

}  // namespace certmgrctl
