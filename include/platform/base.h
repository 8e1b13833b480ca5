// Base: lockable bases, secret strings and the clock.
//
// Defaults for every header in include/platform/:
//  - byte strings (DER, digests, signatures, key identifiers) are std::string; text is UTF-8;
//  - pointers passed in are borrowed for the call; a returned object is owned by the caller;
//  - functions are safe to call from any thread unless their comment says otherwise;
//  - nothing throws except where said (only the bridge streams do).
#pragma once

#include <pthread.h>

#include <ctime>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>

#include "platform/api.h"

namespace vpnfc {

/// Base of objects that carry their own recursive mutex. Copying an object does not copy its lock. The mutex is
/// usable from the object's constant initialisation until its storage goes away.
class ObjectLevelLockable {
  public:
    void lock() const { mutex_.lock(); }
    bool try_lock() const { return mutex_.try_lock(); }
    void unlock() const { mutex_.unlock(); }

  protected:
    constexpr ObjectLevelLockable() = default;
    ~ObjectLevelLockable() = default;
    ObjectLevelLockable(const ObjectLevelLockable&) noexcept {}
    // NOLINTNEXTLINE(cert-oop54-cpp): nothing is copied
    ObjectLevelLockable& operator=(const ObjectLevelLockable&) noexcept { return *this; }

    std::recursive_mutex& NativeMutex() const { return mutex_; }

  private:
    mutable std::recursive_mutex mutex_;
};

/// Base of objects guarded by a read-write lock. A waiting writer goes before new readers, so that a steady stream
/// of readers cannot starve a reload; therefore a thread must not take the read side twice.
class ReadWriteLockable {
  public:
    void lock() const { pthread_rwlock_wrlock(&rwlock_); }
    void unlock() const { pthread_rwlock_unlock(&rwlock_); }
    void lock_shared() const { pthread_rwlock_rdlock(&rwlock_); }
    void unlock_shared() const { pthread_rwlock_unlock(&rwlock_); }

  protected:
    constexpr ReadWriteLockable() = default;
    ~ReadWriteLockable() = default;
    ReadWriteLockable(const ReadWriteLockable&) = delete;
    ReadWriteLockable& operator=(const ReadWriteLockable&) = delete;

  private:
    mutable pthread_rwlock_t rwlock_ = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
};

using ObjectLock = std::lock_guard<const ObjectLevelLockable>;
using ReadLock = std::shared_lock<const ReadWriteLockable>;
using WriteLock = std::unique_lock<const ReadWriteLockable>;

/// Overwrites the whole capacity of `text` with zeros, in a way the compiler keeps, and empties it.
PLATFORM_API void SecureWipe(std::string& text) noexcept;

/// A string that is wiped when it goes away (PINs, passwords, preshared keys, private keys). Move-only.
class SecretString {
  public:
    SecretString() = default;
    explicit SecretString(std::string&& text) : text_(std::move(text)) { SecureWipe(text); }
    explicit SecretString(std::string_view text) : text_(text) {}
    ~SecretString() { SecureWipe(text_); }
    SecretString(SecretString&& other) noexcept : text_(std::move(other.text_)) { SecureWipe(other.text_); }
    SecretString& operator=(SecretString&& other) noexcept {
        SecretString taken(std::move(other));
        text_.swap(taken.text_);  // an assignment might keep the old buffer, to be wiped at its full size ever after
        return *this;
    }
    SecretString(const SecretString&) = delete;
    SecretString& operator=(const SecretString&) = delete;

    const std::string& get() const { return text_; }
    std::string& edit() { return text_; }
    bool empty() const { return text_.empty(); }

  private:
    std::string text_;
};

/// The one clock of the system: seconds since the Unix epoch. Decisions read it once and pass the value down.
PLATFORM_API std::time_t CurrentTime() noexcept;

/// Fixes the clock (tests only); nullopt gives the real one back.
PLATFORM_API void SetCurrentTimeForTesting(std::optional<std::time_t> now) noexcept;

}  // namespace vpnfc
