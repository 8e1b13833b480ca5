// The command listeners, and what they are told.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "platform/bridge.h"

namespace bridge {

enum class ExecResult : std::uint8_t { kDone, kUnknownGroup, kUnknownCommand };

class Listeners {
  public:
    /// Never destroyed: static objects of other libraries take their listeners away late.
    static Listeners& Instance();

    bool Add(CommandListener* listener);
    void Remove(CommandListener* listener);

    /// Throws what the listener throws.
    ExecResult Execute(BridgeSession& session, std::uint32_t group, std::uint32_t command, const std::string& input,
                       std::string& output) const;
    /// A listener that throws does not keep the others from being told; the log says what it threw.
    void SessionOpened(BridgeSession& session);
    void SessionClosed(BridgeSession& session);

  private:
    struct Entry {
        std::shared_mutex in_use;  // shared while the listener is called
        CommandListener* listener = nullptr;  // null when it was removed; guarded by in_use
    };
    using EntryPtr = std::shared_ptr<Entry>;

    Listeners() = default;
    EntryPtr Find(std::uint32_t group) const;
    std::vector<EntryPtr> All() const;
    template <typename Call>
    void Tell(Call call) const;

    std::mutex sessions_mutex_;  // one opening or closing at a time
    std::map<std::uint32_t, std::size_t> sessions_of_user_;  // guarded by sessions_mutex_
    mutable std::mutex mutex_;
    std::map<std::uint32_t, EntryPtr> entries_;  // by group; guarded by mutex_
};

}  // namespace bridge
