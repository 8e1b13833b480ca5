// Questions to the clients that are open, and the threads that wait for their answers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace bridge {

/// Why a question was closed to a client.
enum class CloseReason : std::uint32_t {
    kAnsweredByAnother = 1,
    kGivenUp = 2,  // nobody waits for the answer any more
};

class Questions {
  public:
    /// A frame that is sent to several clients.
    using SharedFrame = std::shared_ptr<const std::string>;

    /// The calling thread's question; null when there is nobody to ask, or no more is asked.
    std::optional<std::uint32_t> Open(std::uint32_t code, const std::string& body);
    /// Waits; `timeout_ms` below 0 without limit. The answer, or nothing. The question is closed after.
    std::optional<std::string> Await(std::uint32_t number, int timeout_ms);

    /// What is sent to the clients of the moment; null when the question is not open any more.
    SharedFrame Announce(std::uint32_t number);
    /// What is sent to a client that comes later.
    std::vector<SharedFrame> Announced() const;
    /// False when it is not open any more.
    bool Answer(std::uint32_t number, std::string answer);

    void ClientJoined();
    /// The last one that leaves makes the open questions fail.
    void ClientLeft();
    /// Fails what is open and refuses what comes.
    void Stop();

  private:
    struct Question {
        SharedFrame frame;
        bool announced = false;
        bool open = true;
        std::optional<std::string> answer;
    };

    void FailAll();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::map<std::uint32_t, Question> questions_;  // until their thread has seen how they ended
    std::uint32_t last_number_ = 0;
    std::size_t clients_ = 0;
    bool stopped_ = false;
};

}  // namespace bridge
