// A loaded PKCS #11 module, and the way into it that everything working on its tokens shares.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/tokens/call_runner.h"
#include "platform/tokens/ck_api.h"
#include "platform/tokens/token_host.h"

namespace tokens {

/// Loads a module and initialises it; the destructor finalises and unloads. All of it calls into the module.
class Module {
  public:
    /// Null, and why, when it cannot be loaded or initialised. A module that is still being finalised, after it was left
    /// behind, is not loaded before that is done: the old call would finalise the new user's module.
    static std::shared_ptr<const Module> Load(const Provider& provider, std::string& error);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const Api& api() const { return api_; }

  private:
    Module(std::string path, CK_FUNCTION_LIST* list) : path_(std::move(path)), list_(list), api_(list) {}
    Result Initialize(const std::string& init_args);

    const std::string path_;
    CK_FUNCTION_LIST* const list_;
    const Api api_;
    bool finalize_ = false;
};

/// Shared by a provider, its tokens and their sessions. Closing it keeps everyone out of the module, so that it can be
/// finalised while tokens and sessions of it still exist.
class ModuleLink : public std::enable_shared_from_this<ModuleLink> {
  public:
    /// A stay in the module: while it lasts, the module is there.
    class Entry {
      public:
        Entry() = default;
        explicit Entry(ModuleLink* link) : link_(link) {}
        ~Entry() {
            if (link_ != nullptr) link_->Leave();
        }
        Entry(Entry&& other) noexcept : link_(std::exchange(other.link_, nullptr)) {}
        Entry& operator=(Entry&&) = delete;
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

        explicit operator bool() const { return link_ != nullptr; }

      private:
        ModuleLink* link_ = nullptr;
    };

    /// `on_trouble` is told about slots that ought to be looked at again, because the module answers again or a caller
    /// saw a change; `on_stuck` about a call that did not return. Both run on the thread that met it.
    static std::shared_ptr<ModuleLink> Make(CallRunner::Milliseconds limit, std::function<void()> on_trouble,
                                            std::function<void(const char*)> on_stuck);

    /// Opens the way, once.
    void Open(std::shared_ptr<const Module> module) {
        module_ = std::move(module);
        open_ = true;
    }
    /// Not to be called without an Entry.
    const Api& api() const { return module_->api(); }
    CallRunner& runner() { return *runner_; }

    /// On a worker. Empty when the link is not open.
    Entry Enter();
    /// On any other thread. Empty, too, when the module does not answer.
    Entry EnterHere() { return runner_->Answers() ? Enter() : Entry(); }
    void LookAgain() const { on_trouble_(); }

    /// Lets nobody in any more and waits for those inside. False when some are still there: the last one to leave gives
    /// the module up then.
    bool Close(CallRunner::Milliseconds limit);
    /// Gives the module up after Close succeeded; it is finalised on the thread that drops the last reference.
    std::shared_ptr<const Module> TakeModule() { return std::move(module_); }

  private:
    explicit ModuleLink(std::function<void()> on_trouble) : on_trouble_(std::move(on_trouble)) {}
    void Leave();

    std::shared_ptr<const Module> module_;
    std::function<void()> on_trouble_;
    std::unique_ptr<CallRunner> runner_;
    std::atomic<bool> open_{false};
    std::atomic<int> inside_{0};
    std::mutex empty_mutex_;
    std::condition_variable empty_;
    bool left_behind_ = false;  // guarded by empty_mutex_
};
using ModuleLinkPtr = std::shared_ptr<ModuleLink>;

}  // namespace tokens
