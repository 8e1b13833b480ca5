// PINs: files that hold them, and which of them failed.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "platform/base.h"
#include "platform/tokens/token_host.h"

namespace tokens {

inline constexpr std::size_t kMaxPinBytes = 255;

/// The PINs that tokens refused, as salted digests by token identifier: none of them is tried on its token again, taken
/// out and put back or not, as long as the process lives.
class FailedPins {
  public:
    /// Never destroyed: a call that was left behind may come back when the process ends.
    static FailedPins& Instance();

    /// True as well when libcrypto fails: a PIN whose failure could not be remembered is not tried.
    bool Contains(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) const;
    void Add(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin);
    /// The PIN was made the right one.
    void Remove(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin);
    /// The token was initialised, so that all its PINs are new.
    void Forget(std::uint64_t token);

  private:
    struct Failure {
        std::uint64_t token = 0;
        std::array<unsigned char, 32> digest{};

        bool operator==(const Failure&) const = default;
    };

    FailedPins();
    std::optional<Failure> Describe(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) const;

    std::array<unsigned char, 16> salt_{};
    const bool salted_;
    mutable std::mutex mutex_;
    std::deque<Failure> failures_;  // guarded by mutex_; the latest last
};

}  // namespace tokens
