#include "cli/terminal/progress.h"

#include <unistd.h>

#include <chrono>
#include <iostream>

#include "cli/terminal/text.h"

namespace certmgrctl {

Progress::Progress(const std::string& what) {
    if (isatty(STDERR_FILENO) != 0) thread_ = std::thread([this, what] { Run(Escaped(what)); });
}

Progress::~Progress() {
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    ended_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void Progress::Run(const std::string& what) {
    constexpr std::chrono::milliseconds kStep{150};
    constexpr char kSigns[] = {'|', '/', '-', '\\'};
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    for (std::size_t turn = 0; !ends_; ++turn) {
        const auto passed = std::chrono::steady_clock::now() - start;
        std::cerr << '\r' << kSigns[turn % sizeof kSigns] << ' ' << what << ", "
                  << std::chrono::duration_cast<std::chrono::seconds>(passed).count() << " s" << std::flush;
        ended_.wait_for(lock, kStep, [this] { return ends_; });
    }
    std::cerr << "\r\x1b[K" << std::flush;
}

}  // namespace certmgrctl
