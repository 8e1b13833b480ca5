#include "platform/tokens/pins.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <utility>

#include "platform/base/files.h"

namespace tokens {
namespace {

/// Failures remembered of all tokens, the latest: tokens lock after a few.
constexpr std::size_t kMaxFailures = 4096;

}  // namespace

bool ReadPinFile(const std::string& path, vpnfc::SecretString& pin, std::string& error) {
    vpnfc::SecretString line;
    if (!vpnfc::ReadSecretLine(path, vpnfc::SecretFile::kOwn, kMaxPinBytes, line, error)) {
        error.insert(0, "PIN file ");
        return false;
    }
    const bool usable = !line.empty();
    if (usable) {
        pin = std::move(line);
    } else {
        error = "PIN file " + path + " has no PIN of 1 to 255 characters in its first line";
    }
    return usable;
}

FailedPins& FailedPins::Instance() {
    static FailedPins* const failed_pins = new FailedPins;
    return *failed_pins;
}

FailedPins::FailedPins() : salted_(RAND_bytes(salt_.data(), static_cast<int>(salt_.size())) == 1) {}

std::optional<FailedPins::Failure> FailedPins::Describe(std::uint64_t token, unsigned long user,
                                                        const vpnfc::SecretString& pin) const {
    vpnfc::SecretString input;
    input.edit().reserve(salt_.size() + sizeof token + sizeof user + pin.get().size());
    input.edit().append(reinterpret_cast<const char*>(salt_.data()), salt_.size());
    input.edit().append(reinterpret_cast<const char*>(&token), sizeof token);
    input.edit().append(reinterpret_cast<const char*>(&user), sizeof user);
    input.edit().append(pin.get());
    Failure failure{token};
    unsigned length = 0;
    const bool digested =
        EVP_Digest(input.get().data(), input.get().size(), failure.digest.data(), &length, EVP_sha256(), nullptr) == 1;
    return salted_ && digested ? std::optional(failure) : std::nullopt;
}

bool FailedPins::Contains(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) const {
    const std::optional<Failure> failure = Describe(token, user, pin);
    const std::lock_guard lock(mutex_);
    return !failure || std::find(failures_.begin(), failures_.end(), *failure) != failures_.end();
}

void FailedPins::Add(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) {
    const std::optional<Failure> failure = Describe(token, user, pin);
    const std::lock_guard lock(mutex_);
    if (!failure) return;  // no PIN is tried where none can be remembered
    if (failures_.size() >= kMaxFailures) failures_.pop_front();
    failures_.push_back(*failure);
}

void FailedPins::Remove(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) {
    const std::optional<Failure> failure = Describe(token, user, pin);
    const std::lock_guard lock(mutex_);
    if (failure) std::erase(failures_, *failure);
}

void FailedPins::Forget(std::uint64_t token) {
    const std::lock_guard lock(mutex_);
    std::erase_if(failures_, [token](const Failure& failure) { return failure.token == token; });
}

}  // namespace tokens
