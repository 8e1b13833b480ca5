// One side of a Diffie-Hellman exchange: groups 14, 19, 20 (RFC 3526, 5903) and 31 (RFC 8031).
#pragma once

#include <memory>
#include <string>

#include "ike/crypto/suites.h"
#include "libcrypto/libcrypto.h"
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
    KeyExchange(const Algorithm& group, libcrypto::KeyPtr key) : group_(group), key_(std::move(key)) {}
    bool ReadPublicValue();
    libcrypto::KeyPtr MakePeerKey(const std::string& value) const;

    const Algorithm& group_;
    libcrypto::KeyPtr key_;
    std::string public_value_;
};

}  // namespace ikeauth
