// One transfer of a CRL, and the memory of those that failed.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "certmgr/cert_crlcache.h"

namespace CM {

/// Failures that are remembered at most.
inline constexpr std::size_t kMaxCrlFailures = 1000;

/// What addresses answered that is no use, each until its time is over. Guarded by the cache's lock.
class FailureMemory {
  public:
    /// An address, and the public key of the one issuer that its answer is no use for; empty: for nobody.
    using Key = std::pair<std::string, std::string>;

    void Note(const Key& key, std::string outcome);
    void Forget(const Key& key) { failures_.erase(key); }
    void Clear() { failures_.clear(); }
    /// What the log says of a failure that is not older than that.
    std::optional<std::string> Recall(const Key& key, std::uint32_t seconds) const;

  private:
    struct Failure {
        std::time_t at;
        std::string outcome;
    };
    std::map<Key, Failure> failures_;
};

/// Asks the address, and reads what comes; what is known already is not decoded again. Without the cache's lock.
CrlAnswer Transfer(const CrlRequest& request);

// Pieces of a transfer's log line; they append and return the text.
/// " - " and the address used, with "(modified)" when that is not the certificate's own.
std::string& log_uri_(std::string& text, const std::string& used, const std::string& named);
std::string& log_content_type_(std::string& text, const std::string& content_type);
/// Length and hexadecimal bytes; of twelve and more the first and the last six.
std::string& log_data_(std::string& text, const std::string& data);

}  // namespace CM
