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

/// Failures remembered of one token; a token locks long before.
constexpr std::size_t kMaxFailedPins = 32;

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

using Salt = std::array<unsigned char, 16>;

const Salt& ProcessSalt() {
    static const Salt salt = [] {
        Salt bytes{};
        RAND_bytes(bytes.data(), static_cast<int>(bytes.size()));
        return bytes;
    }();
    return salt;
}

std::array<unsigned char, 32> SaltedDigest(unsigned long user, const std::string& pin) {
    vpnfc::SecretString input;
    input.edit().reserve(sizeof user + sizeof(Salt) + kMaxPinBytes);
    input.edit().append(reinterpret_cast<const char*>(&user), sizeof user);
    input.edit().append(reinterpret_cast<const char*>(ProcessSalt().data()), ProcessSalt().size());
    input.edit().append(pin);
    std::array<unsigned char, 32> digest{};
    unsigned length = 0;
    EVP_Digest(input.get().data(), input.get().size(), digest.data(), &length, EVP_sha256(), nullptr);
    return digest;
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

bool FailedPins::Contains(unsigned long user, const vpnfc::SecretString& pin) const {
    const Digest digest = SaltedDigest(user, pin.get());
    const std::lock_guard lock(mutex_);
    return std::find(digests_.begin(), digests_.end(), digest) != digests_.end();
}

void FailedPins::Add(unsigned long user, const vpnfc::SecretString& pin) {
    const Digest digest = SaltedDigest(user, pin.get());
    const std::lock_guard lock(mutex_);
    if (digests_.size() < kMaxFailedPins) digests_.push_back(digest);
}

void FailedPins::Clear() {
    const std::lock_guard lock(mutex_);
    digests_.clear();
}

}  // namespace tokens
