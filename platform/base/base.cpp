#include "platform/base.h"

#include <string.h>  // explicit_bzero

#include <atomic>
#include <limits>

namespace vpnfc {
namespace {

using Seconds = std::time_t;

/// The fixed time of a test; kRealClock when the real clock is in use. The smallest time_t is no date that gmtime_r
/// can break down, so no test loses it.
constexpr Seconds kRealClock = std::numeric_limits<Seconds>::min();
constinit std::atomic<Seconds> g_fixed_time{kRealClock};

}  // namespace

void SecureWipe(std::string& text) noexcept {
    // The bytes past the size may still hold an older, longer secret. Growing to the capacity allocates nothing.
    text.resize(text.capacity());
    explicit_bzero(text.data(), text.size());
    text.clear();
}

std::time_t CurrentTime() noexcept {
    const Seconds fixed = g_fixed_time.load(std::memory_order_relaxed);
    return fixed == kRealClock ? std::time(nullptr) : fixed;
}

void SetCurrentTimeForTesting(std::optional<std::time_t> now) noexcept {
    g_fixed_time.store(now.value_or(kRealClock), std::memory_order_relaxed);
}

}  // namespace vpnfc
