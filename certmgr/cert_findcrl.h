// Finding the CRL of an issuer among those of the store.
#pragma once

#include <string>

#include "certmgr/cert_storage.h"
#include "certmgr/x509cert.h"

namespace CM {

/// The first CRL, in the store's order, that is signed with the issuer's kind of key, bears its name and verifies with
/// its key; null when there is none. `log` (null: nobody reads it) receives the CRLs that were checked and why each was
/// passed over, or with crl_details off and a CRL found that one alone. The caller holds the store's read lock, also
/// while a token verifies a signature: FindStoreCrl does not.
CrlRef cm_crl_search_in_db_unlocked_(const X509Cert* cert, const X509Cert* issuer, std::string* log);

/// The same search on the CRLs that the store holds at the call. Takes the read lock only to look at the list.
CrlRef FindStoreCrl(const X509Cert* cert, const X509Cert* issuer, std::string* log);

}  // namespace CM
