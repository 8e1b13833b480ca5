// One side of a Diffie-Hellman exchange: groups 14, 19, 20 (RFC 3526, 5903) and 31 (RFC 8031).
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>

#include "ike/crypto/suites.h"
#include "platform/base.h"

namespace ikeauth {

class KeyExchange {
  public:
    /// A fresh key. Null when libcrypto refuses.
    static std::unique_ptr<KeyExchange> Make(const Algorithm& group);

    const Algorithm& group() const { return group_; }
    /// As the KE payload carries it.
    const std::string& public_value() const { return public_value_; }
    /// False when the peer's value is not one of the group.
    bool Agree(const std::string& peer_value, vpnfc::SecretString& shared) const;

  private:
    struct Free {
        void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    };
    using Key = std::unique_ptr<EVP_PKEY, Free>;

    KeyExchange(const Algorithm& group, Key key) : group_(group), key_(std::move(key)) {}
    bool ReadPublicValue();
    Key MakePeerKey(const std::string& value) const;

    const Algorithm& group_;
    Key key_;
    std::string public_value_;
};

}  // namespace ikeauth
