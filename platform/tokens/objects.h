// Objects on a token: listing, reading, finding, deleting.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/tokens.h"
#include "platform/tokens/session.h"

namespace tokens {

/// Class of each object by handle. An object keeps its class, so that it need not be asked for at each listing.
using ObjectClasses = std::unordered_map<CK_OBJECT_HANDLE, CK_OBJECT_CLASS>;

/// Handles of everything on the token that is of use, by class, from one search: modules without an index pay for each
/// search with a walk over all objects.
struct ObjectListing {
    std::vector<CK_OBJECT_HANDLE> certificates{};
    std::vector<CK_OBJECT_HANDLE> public_keys{};
    std::vector<CK_OBJECT_HANDLE> private_keys{};
    std::vector<CK_OBJECT_HANDLE> secret_keys{};
    std::vector<CK_OBJECT_HANDLE> data{};
    std::shared_ptr<const ObjectClasses> classes{};
};
using ObjectListingPtr = std::shared_ptr<const ObjectListing>;

struct ListingOutcome {
    Result result{};
    ObjectListingPtr listing{};
};
/// `known`: classes from an earlier listing; may be null.
ListingOutcome ListObjects(Session& session, const std::shared_ptr<const ObjectClasses>& known);

// Reading what was listed. Objects that are gone meanwhile are left out; at other trouble reading ends there.

template <typename Object>
struct ObjectsOutcome {
    Result result{};
    std::list<Object> objects{};
    bool stale = false;  // an object is not of the class remembered: its handle was given anew
};
/// Certificates in the order of the token, then key pairs without one. `private_keys_visible`: else public keys stand in
/// for private ones that the session does not see.
ObjectsOutcome<PKCS11::CertObject> ReadCertificates(Session& session, const ObjectListing& listing,
                                                    bool private_keys_visible);
ObjectsOutcome<PKCS11::CRLObject> ReadCrls(Session& session, const ObjectListing& listing);
ObjectsOutcome<PKCS11::PresharedKeyObject> ReadPresharedKeys(Session& session, const ObjectListing& listing);

/// The public keys of a token, by value and by identifier.
class PublicKeyIndex {
  public:
    struct Key {
        std::string id{};
        pki_alg_t alg = 0;
        std::string spki{};
    };

    void Add(Key key);
    const Key* FindBySpki(const std::string& spki) const;
    const Key* FindById(pki_alg_t alg, const std::string& id) const;

  private:
    std::list<Key> keys_;
    std::unordered_map<std::string_view, const Key*> by_spki_;
    std::unordered_multimap<std::string_view, const Key*> by_id_;
};

struct IndexOutcome {
    Result result{};
    std::shared_ptr<const PublicKeyIndex> index{};
    bool stale = false;
};
/// Of public-key objects, and of those private keys that show their public half.
IndexOutcome IndexPublicKeys(Session& session, const ObjectListing& listing);

// Finding.

struct FoundOutcome {
    Result result{};
    std::vector<CK_OBJECT_HANDLE> objects{};
};
FoundOutcome FindById(Session& session, CK_OBJECT_CLASS object_class, const std::string& id);
/// Private keys of the key type of `alg`.
FoundOutcome FindPrivateKeys(Session& session, pki_alg_t alg, const std::string& id);
/// Certificates that have nothing but their class.
FoundOutcome FindEmptyCertificates(Session& session);
FoundOutcome FindCrls(Session& session, const std::string& id);
FoundOutcome FindPresharedKeys(Session& session, const std::string& name);

struct CertificateAt {
    CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
    std::string value{};
};
struct CertificatesOutcome {
    Result result{};
    std::vector<CertificateAt> certificates{};
};
/// Certificates with that identifier; all of them when it is empty.
CertificatesOutcome FindCertificates(Session& session, const std::string& id);

struct DeleteOutcome {
    Result result{};
    bool deleted = false;
};
DeleteOutcome Delete(Session& session, const FoundOutcome& found);

/// Value of a preshared key.
struct SecretOutcome {
    Result result{};
    std::optional<vpnfc::SecretString> secret{};
};
SecretOutcome ReadPresharedKey(Session& session, const std::string& name);
/// PKCS #8 of a private key that the token lets out.
SecretOutcome ReadPrivateKey(Session& session, const std::string& id);

}  // namespace tokens
