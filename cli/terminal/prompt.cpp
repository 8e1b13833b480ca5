#include "cli/terminal/prompt.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>

#include "cli/failure.h"
#include "cli/terminal/text.h"
#include "platform/base/files.h"

namespace certmgrctl {
namespace {

using vpnfc::SecretString;

constexpr std::size_t kMaxSecretBytes = 64U << 10;
constexpr char kInterrupt = 3;
constexpr char kEndOfInput = 4;
constexpr char kBackspace = 8;
constexpr char kClearLine = 21;
constexpr char kDelete = 127;

/// Keys come one by one and unseen while it lives; an interrupt is a key, so that the echo always comes back.
class QuietTerminal {
  public:
    QuietTerminal() {
        tcgetattr(STDIN_FILENO, &before_);
        termios quiet = before_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG);
        quiet.c_cc[VMIN] = 1;
        quiet.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSADRAIN, &quiet);
    }
    ~QuietTerminal() {
        tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
        std::cerr << std::endl;
    }
    QuietTerminal(const QuietTerminal&) = delete;
    QuietTerminal& operator=(const QuietTerminal&) = delete;

  private:
    termios before_{};
};

/// The next key; false when the terminal is gone.
bool ReadKey(char& key) {
    ssize_t count = 0;
    do {
        count = read(STDIN_FILENO, &key, 1);
    } while (count < 0 && errno == EINTR);
    return count == 1;
}

[[noreturn]] void Cancelled() {
    throw Failure(kExitCancelled, "cancelled");
}

/// A line of standard input; nothing when it had ended already.
std::optional<SecretString> LineOfInput() {
    SecretString line;
    bool any = false;
    switch (vpnfc::ReadLine(STDIN_FILENO, kMaxSecretBytes, line, any)) {
        case vpnfc::ReadResult::kRead:
            return any ? std::optional(std::move(line)) : std::nullopt;
        case vpnfc::ReadResult::kTooLong:
            throw Failure(kExitUsage, "a line of the input is too long");
        case vpnfc::ReadResult::kFailed:
            break;
    }
    throw Failure(kExitUsage, std::string("standard input cannot be read: ") + std::strerror(errno));
}

/// What is deleted with the backspace key is a character, not a byte.
void DropLastCharacter(std::string& text) {
    constexpr unsigned char kContinuationMask = 0xC0;
    constexpr unsigned char kContinuation = 0x80;
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text.back());
        text.pop_back();
        if ((byte & kContinuationMask) != kContinuation) return;
    }
}

/// Waits for a key. False when the interruption happened.
bool AwaitKey(const Interruption& interruption) {
    pollfd waiting[] = {{STDIN_FILENO, POLLIN, 0}, {interruption.fd, POLLIN, 0}};
    while (true) {
        const bool polled = poll(waiting, std::size(waiting), -1) > 0;
        if (polled && waiting[1].revents != 0 && interruption.happened()) return false;
        if (polled && waiting[0].revents != 0) return true;
    }
}

/// `next_key` gives false when no more shall be typed: nothing.
template <typename NextKey>
std::optional<SecretString> TypedSecret(const std::string& question, NextKey next_key) {
    SecretString secret;
    secret.edit().reserve(kMaxSecretBytes);
    const QuietTerminal quiet;
    std::cerr << Escaped(question) << ": " << std::flush;
    char key = 0;
    while (true) {
        if (!next_key()) return std::nullopt;
        if (!ReadKey(key) || key == '\n' || key == '\r') return secret;
        if (key == kInterrupt || key == kEndOfInput) Cancelled();
        if (key == kBackspace || key == kDelete) {
            DropLastCharacter(secret.edit());
        } else if (key == kClearLine) {
            secret.edit().clear();
        } else if (secret.get().size() < kMaxSecretBytes) {
            secret.edit().push_back(key);
        }
    }
}

SecretString TypedSecret(const std::string& question) {
    return *TypedSecret(question, [] { return true; });
}

SecretString SecretOfFile(const std::string& path) {
    SecretString secret;
    std::string error;
    if (vpnfc::ReadSecretLine(path, vpnfc::SecretFile::kAny, kMaxSecretBytes, secret, error)) return secret;
    throw Failure(kExitUsage, error);
}

SecretString SecretOfInput() {
    auto secret = LineOfInput();
    if (!secret) throw Failure(kExitUsage, "standard input ended before a secret came");
    return std::move(*secret);
}

void RequirePerson(const std::string& question, const std::string& otherwise) {
    if (!CanAsk()) throw Failure(kExitUsage, "nobody to ask: " + question, {otherwise});
}

}  // namespace

bool CanAsk() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
}

std::optional<std::string> ReadLine() {
    const auto line = LineOfInput();
    return line ? std::optional(line->get()) : std::nullopt;
}

std::string Ask(const std::string& question, const std::string& otherwise) {
    RequirePerson(question, otherwise);
    std::cerr << Escaped(question) << " " << std::flush;
    const auto line = ReadLine();
    if (!line) {
        std::cerr << "\n";
        Cancelled();
    }
    return *line;
}

bool Confirmed(const std::string& question, const std::string& otherwise) {
    while (true) {
        const std::string answer = Folded(Ask(question + " [y/N]", otherwise));
        if (answer == "y" || answer == "yes") return true;
        if (answer.empty() || answer == "n" || answer == "no") return false;
    }
}

SecretString ReadSecret(const std::string& file, const std::string& question, const std::string& otherwise) {
    if (file == "-") return SecretOfInput();
    if (!file.empty()) return SecretOfFile(file);
    RequirePerson(question, otherwise);
    return TypedSecret(question);
}

std::optional<SecretString> TypeSecret(const std::string& question, const Interruption& interruption) {
    if (interruption.happened()) return std::nullopt;
    return TypedSecret(question, [&] { return AwaitKey(interruption); });
}

SecretString ReadNewSecret(const std::string& file, const std::string& question, const std::string& otherwise) {
    while (true) {
        SecretString secret = ReadSecret(file, question, otherwise);
        if (!file.empty() && secret.empty()) throw Failure(kExitUsage, "the first line of " + file + " is empty");
        if (!file.empty()) return secret;
        if (secret.empty()) {
            std::cerr << "It cannot be empty.\n";
        } else if (TypedSecret(question + " again").get() == secret.get()) {
            return secret;
        } else {
            std::cerr << "The two are not the same; once more.\n";
        }
    }
}

}  // namespace certmgrctl
