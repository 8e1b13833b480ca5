// Shows that something that takes its time is at work.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace certmgrctl {

/// While it lives, a line on a terminal says what is done and for how long; elsewhere nothing is said. Goes without a
/// trace.
class Progress {
  public:
    explicit Progress(const std::string& what);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

  private:
    void Run(const std::string& what);

    std::mutex mutex_;
    std::condition_variable ended_;
    bool ends_ = false;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace certmgrctl
