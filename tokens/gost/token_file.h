// The file that makes a folder a token: its label, its serial number, and the token's key, locked up once under the
// security officer's PIN and once under the user's.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tokens/gost/object_rules.h"
#include "tokens/gost/sealing.h"

namespace gost_token {

inline constexpr std::size_t kLabelBytes = 32;
inline constexpr std::size_t kSerialBytes = 16;
inline constexpr std::size_t kMinPinBytes = 4;
inline constexpr std::size_t kMaxPinBytes = 255;

class TokenFile {
  public:
    /// A new token with a key of its own. The label is padded with blanks.
    static TokenFile New(std::string_view label, std::string_view officer_pin);
    /// Nothing when it is damaged. Its content stands in it twice, each with a checksum: one that is whole is enough,
    /// since all private objects depend on it.
    static std::optional<TokenFile> Decode(std::string_view content);
    std::string Encode() const;

    const std::string& label() const { return label_; }
    const std::string& serial() const { return serial_; }
    bool HasUserPin() const { return !user_.locked_key.empty(); }

    /// The token's key; false for a wrong PIN. Takes about a tenth of a second, on purpose.
    bool Unlock(Role role, std::string_view pin, vpnfc::SecretString& key) const;
    /// Fails with CKR_PIN_LEN_RANGE.
    void SetPin(Role role, std::string_view pin, const vpnfc::SecretString& key);

  private:
    struct Lock {
        PinCost cost{};
        std::string salt{};
        std::string locked_key{};
    };
    /// The one that the content begins with.
    static std::optional<TokenFile> DecodeCopy(std::string_view content);
    static std::string EncodeLock(const Lock& lock);
    static bool DecodeLock(std::string_view content, Lock& lock);
    const Lock& LockOf(Role role) const { return role == Role::kOfficer ? officer_ : user_; }
    std::string Purpose(Role role) const;

    std::string label_;
    std::string serial_;
    Lock officer_;
    Lock user_;  // empty as long as the user has no PIN
};

}  // namespace gost_token
