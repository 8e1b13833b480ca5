// What happened in an exchange: steps as they come, and how it ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ikeauth {

using Time = std::chrono::steady_clock::time_point;
/// Read whenever something is sent or happens; tests set it.
using Clock = std::function<Time()>;

/// How an exchange ended. The order is that of its stages.
enum class Ending : std::uint8_t {
    kAuthenticated,
    kUnreachable,
    kSilent,
    kGarbage,
    kProposalsRefused,
    kInitRefused,
    kInitInvalid,
    kMalformed,
    kNoCertificate,
    kNoPresharedKey,
    kCannotSign,
    kAuthSilent,
    kAuthInvalid,
    kPeerRefused,
    kIdentityRefused,
    kCertificateRefused,
    kMethodRefused,
    kSignatureWrong,
    kPresharedKeyWrong,
};

struct EndingInfo {
    Ending ending;
    std::string_view name;  // for programs
    std::string_view stage;
    int exit_code;
    std::string_view advice;
};
/// Every ending, in order.
const std::vector<EndingInfo>& Endings();
const EndingInfo& Info(Ending ending);

struct Outcome {
    Ending ending = Ending::kSilent;
    std::string reason{};  // one line
    std::string_view advice{};  // where that of the ending does not fit
};
/// What to do about it.
std::string_view Advice(const Outcome& outcome);

struct Step {
    std::chrono::milliseconds at{0};  // since the start
    std::string_view what{};  // "proposed", "sent", "received", "chosen", "judged", ...
    std::string text{};
};

/// More is not kept: a stranger who sends noise, or much in one message, must not fill the memory.
inline constexpr std::size_t kMaxReportBytes = std::size_t{256} * 1024;

/// Collects the steps of one exchange and hands each on as it comes. Used by one thread.
class Report {
  public:
    explicit Report(std::function<void(const Step&)> listener = {}, Clock clock = std::chrono::steady_clock::now)
        : listener_(std::move(listener)), clock_(std::move(clock)) {}

    /// The times of the steps count from here.
    void Start() { start_ = clock_(); }
    void Add(std::string_view what, std::string text) {
        bytes_ += sizeof(Step) + text.size();
        if (bytes_ > kMaxReportBytes) return;
        const Time::duration at = start_ ? clock_() - *start_ : Time::duration{0};
        steps_.push_back({std::chrono::duration_cast<std::chrono::milliseconds>(at), what, std::move(text)});
        if (listener_) listener_(steps_.back());
    }
    const std::vector<Step>& steps() const { return steps_; }

  private:
    std::function<void(const Step&)> listener_;
    Clock clock_;
    std::optional<Time> start_;
    std::vector<Step> steps_;
    std::size_t bytes_ = 0;
};

}  // namespace ikeauth
