// Finding the CRL of an issuer among those of the store.
#pragma once

#include <cstddef>
#include <string>

#include "certmgr/cert_storage.h"
#include "certmgr/x509cert.h"

namespace CM {

/// The first CRL, in the store's order, that is signed with the issuer's kind of key, bears its name and verifies with
/// its key; null when there is none. `log` (null: nobody reads it) receives the CRLs that were checked and why each was
/// passed over, or with crl_details off and a CRL found that one alone. The caller holds the store's read lock, also
/// while a token verifies a signature: StoreCrls does not.
CrlRef cm_crl_search_in_db_unlocked_(const X509Cert* cert, const X509Cert* issuer, std::string* log);

/// The same search on a copy of the store's list, which needs no lock, and how it goes on behind a CRL that was found and
/// would not do. Used by one thread.
class StoreCrls {
  public:
    /// Takes the read lock for the copy.
    StoreCrls();
    CrlRef Next(const X509Cert* issuer, std::string* log);

  private:
    CrlList crls_;
    std::size_t next_ = 0;
};

/// Whether the log shall tell of searches in detail.
bool LogsCrlDetails();

}  // namespace CM
