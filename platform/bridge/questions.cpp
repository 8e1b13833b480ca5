#include "platform/bridge/questions.h"

#include "platform/bridge/frame.h"

namespace bridge {

std::optional<std::uint32_t> Questions::Open(std::uint32_t code, const std::string& body) {
    const std::lock_guard lock(mutex_);
    if (stopped_ || clients_ == 0) return std::nullopt;
    // Wraps after two thousand million; one that is open as long is passed over.
    do {
        last_number_ = (last_number_ + 1) | kQuestionBit;
    } while (questions_.count(last_number_) != 0);
    questions_[last_number_].frame =
        std::make_shared<const std::string>(MakeCodedFrame(FrameType::kQuestion, last_number_, body, code));
    return last_number_;
}

std::optional<std::string> Questions::Await(std::uint32_t number, int timeout_ms) {
    std::unique_lock lock(mutex_);
    const auto found = questions_.find(number);
    const auto closed = [&] { return !found->second.open; };
    if (timeout_ms < 0) {
        changed_.wait(lock, closed);
    } else {
        changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), closed);
    }
    std::optional<std::string> answer = std::move(found->second.answer);
    questions_.erase(found);
    return answer;
}

Questions::SharedFrame Questions::Announce(std::uint32_t number) {
    const std::lock_guard lock(mutex_);
    const auto found = questions_.find(number);
    if (found == questions_.end() || !found->second.open) return nullptr;
    found->second.announced = true;
    return found->second.frame;
}

std::vector<Questions::SharedFrame> Questions::Announced() const {
    const std::lock_guard lock(mutex_);
    std::vector<SharedFrame> frames;
    for (const auto& [number, question] : questions_) {
        if (question.open && question.announced) frames.push_back(question.frame);
    }
    return frames;
}

bool Questions::Answer(std::uint32_t number, std::string answer) {
    const std::lock_guard lock(mutex_);
    const auto found = questions_.find(number);
    if (found == questions_.end() || !found->second.open) return false;
    found->second.open = false;
    found->second.answer = std::move(answer);
    changed_.notify_all();
    return true;
}

void Questions::ClientJoined() {
    const std::lock_guard lock(mutex_);
    ++clients_;
}

void Questions::ClientLeft() {
    const std::lock_guard lock(mutex_);
    if (--clients_ == 0) FailAll();
}

void Questions::Stop() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    FailAll();
}

/// Expects mutex_ held.
void Questions::FailAll() {
    for (auto& [number, question] : questions_) question.open = false;
    changed_.notify_all();
}

}  // namespace bridge
