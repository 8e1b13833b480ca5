#include "platform/tokens/pins.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tokens {
namespace {

/// Failures remembered of all tokens, the latest: tokens lock after a few.
constexpr std::size_t kMaxFailures = 4096;

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

const char* WhyNotPrivate(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return "cannot be examined";
    if (!S_ISREG(status.st_mode)) return "is not a regular file";
    if (status.st_uid != geteuid()) return "belongs to another user";
    if ((status.st_mode & 077) != 0) return "can be read or written by others; its mode must be 0600";
    return nullptr;
}

}  // namespace

bool ReadPinFile(const std::string& path, vpnfc::SecretString& pin, std::string& error) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() < 0) {
        error = "PIN file " + path + ": " + std::strerror(errno);
        return false;
    }
    if (const char* const reason = WhyNotPrivate(file.get()); reason != nullptr) {
        error = "PIN file " + path + " " + reason;
        return false;
    }
    std::array<char, kMaxPinBytes + 2> bytes{};
    const ssize_t count = read(file.get(), bytes.data(), bytes.size());
    const std::string_view text(bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    const std::string_view line = text.substr(0, std::min(text.find_first_of("\r\n"), text.size()));
    const bool usable = !line.empty() && line.size() <= kMaxPinBytes;
    if (usable) pin = vpnfc::SecretString(line);
    OPENSSL_cleanse(bytes.data(), bytes.size());
    if (!usable) error = "PIN file " + path + " has no PIN of 1 to 255 characters in its first line";
    return usable;
}

FailedPins& FailedPins::Instance() {
    static FailedPins* const failed_pins = new FailedPins;
    return *failed_pins;
}

FailedPins::FailedPins() {
    RAND_bytes(salt_.data(), static_cast<int>(salt_.size()));
}

FailedPins::Failure FailedPins::Describe(std::uint64_t token, unsigned long user,
                                         const vpnfc::SecretString& pin) const {
    vpnfc::SecretString input;
    input.edit().reserve(salt_.size() + sizeof token + sizeof user + pin.get().size());
    input.edit().append(reinterpret_cast<const char*>(salt_.data()), salt_.size());
    input.edit().append(reinterpret_cast<const char*>(&token), sizeof token);
    input.edit().append(reinterpret_cast<const char*>(&user), sizeof user);
    input.edit().append(pin.get());
    Failure failure{token};
    unsigned length = 0;
    EVP_Digest(input.get().data(), input.get().size(), failure.digest.data(), &length, EVP_sha256(), nullptr);
    return failure;
}

bool FailedPins::Contains(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) const {
    const Failure failure = Describe(token, user, pin);
    const std::lock_guard lock(mutex_);
    return std::find(failures_.begin(), failures_.end(), failure) != failures_.end();
}

void FailedPins::Add(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) {
    const Failure failure = Describe(token, user, pin);
    const std::lock_guard lock(mutex_);
    if (failures_.size() >= kMaxFailures) failures_.pop_front();
    failures_.push_back(failure);
}

void FailedPins::Remove(std::uint64_t token, unsigned long user, const vpnfc::SecretString& pin) {
    const Failure failure = Describe(token, user, pin);
    const std::lock_guard lock(mutex_);
    std::erase(failures_, failure);
}

void FailedPins::Forget(std::uint64_t token) {
    const std::lock_guard lock(mutex_);
    std::erase_if(failures_, [token](const Failure& failure) { return failure.token == token; });
}

}  // namespace tokens
