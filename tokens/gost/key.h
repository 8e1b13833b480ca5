// A key of GOST R 34.10.
//
// Forms are those of PKCS #11: a private key is a number, least significant byte first; a public key is x and y, each
// likewise; a signature is s and r, each most significant byte first, as in certificates (RFC 4491, RFC 9215).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/base.h"
#include "tokens/gost/engine.h"

namespace gost_token {

/// The engine makes each curve at its first use, without a lock, and keeps it as long as it is initialised. Two threads
/// that come first would make it twice: it is made before there are any.
void MakeCurves(const Engine& engine);

/// Never changes; may be used from several threads at once.
class Key {
  public:
    /// Values that are no key of the domain fail with CKR_ATTRIBUTE_VALUE_INVALID.
    static std::shared_ptr<const Key> FromPrivate(const Engine& engine, const Domain& domain, std::string_view value);
    static std::shared_ptr<const Key> FromPublic(const Engine& engine, const Domain& domain, std::string_view value);
    static std::shared_ptr<const Key> Generate(const Engine& engine, const Domain& domain);

    const KeyKind& kind() const { return *domain_.kind; }
    vpnfc::SecretString PrivateValue() const;
    std::string PublicValue() const;

    std::string Sign(std::string_view digest) const;
    bool Verify(std::string_view digest, std::string_view signature) const;

  private:
    Key(const Engine& engine, const Domain& domain, libcrypto::KeyPtr pkey);

    const Engine& engine_;
    Domain domain_;
    libcrypto::KeyPtr pkey_;
};

using KeyPtr = std::shared_ptr<const Key>;

}  // namespace gost_token
