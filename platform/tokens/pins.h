// PINs: files that hold them, and which of them failed.
#pragma once

#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "platform/base.h"
#include "platform/tokens/token_host.h"

namespace tokens {

inline constexpr std::size_t kMaxPinBytes = 255;

/// First line of a PIN file. False, and why, unless the file is a regular one of the effective user that nobody else
/// may read or write.
bool ReadPinFile(const std::string& path, vpnfc::SecretString& pin, std::string& error);

/// The PINs that a token refused, as salted digests: none of them is tried on it again.
class FailedPins {
  public:
    bool Contains(unsigned long user, const vpnfc::SecretString& pin) const;
    void Add(unsigned long user, const vpnfc::SecretString& pin);
    /// After a login, or a change of the PIN: what failed before may be right now.
    void Clear();

  private:
    using Digest = std::array<unsigned char, 32>;

    mutable std::mutex mutex_;
    std::vector<Digest> digests_;
};

}  // namespace tokens
