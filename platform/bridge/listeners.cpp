#include "platform/bridge/listeners.h"

#include <exception>

#include "platform/event_codes.h"
#include "platform/eventlog.h"

namespace bridge {
namespace {

void LogThrow(const CommandListener& listener, const char* what) {
    TLogMessage(kMsgBridgeCommandFailed).Attr(std::to_string(listener.group()) + ": " + what).Send();
}

}  // namespace

Listeners& Listeners::Instance() {
    static Listeners* const listeners = new Listeners;
    return *listeners;
}

bool Listeners::Add(CommandListener* listener) {
    auto entry = std::make_shared<Entry>();
    entry->listener = listener;
    const std::lock_guard lock(mutex_);
    return entries_.emplace(listener->group(), std::move(entry)).second;
}

void Listeners::Remove(CommandListener* listener) {
    EntryPtr entry;
    {
        const std::lock_guard lock(mutex_);
        const auto found = entries_.find(listener->group());
        if (found == entries_.end() || found->second->listener != listener) return;
        entry = found->second;
        entries_.erase(found);
    }
    const std::lock_guard lock(entry->in_use);
    entry->listener = nullptr;
}

ExecResult Listeners::Execute(BridgeSession& session, std::uint32_t group, std::uint32_t command,
                              const std::string& input, std::string& output) const {
    const EntryPtr entry = Find(group);
    if (entry == nullptr) return ExecResult::kUnknownGroup;
    const std::shared_lock lock(entry->in_use);
    if (entry->listener == nullptr) return ExecResult::kUnknownGroup;
    const bool known = entry->listener->ExecCommand(session, static_cast<long>(command), input, output);
    return known ? ExecResult::kDone : ExecResult::kUnknownCommand;
}

void Listeners::SessionOpened(BridgeSession& session) {
    const std::lock_guard lock(sessions_mutex_);
    const bool first = sessions_of_user_.empty();
    ++sessions_of_user_[session.User()];
    Tell([&](CommandListener& listener) {
        if (first) listener.OnOpenFirstSession();
        listener.OnOpenSession(&session);
    });
}

void Listeners::SessionClosed(BridgeSession& session) {
    const std::lock_guard lock(sessions_mutex_);
    const auto found = sessions_of_user_.find(session.User());
    if (found == sessions_of_user_.end()) return;  // its opening failed
    const bool last_of_user = --found->second == 0;
    if (last_of_user) sessions_of_user_.erase(found);
    Tell([&](CommandListener& listener) {
        listener.OnCloseSession(&session);
        if (last_of_user) listener.OnCloseLastSessionWithUser(&session);
        if (sessions_of_user_.empty()) listener.OnCloseLastSession();
    });
}

Listeners::EntryPtr Listeners::Find(std::uint32_t group) const {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(group);
    return found == entries_.end() ? nullptr : found->second;
}

std::vector<Listeners::EntryPtr> Listeners::All() const {
    const std::lock_guard lock(mutex_);
    std::vector<EntryPtr> all;
    for (const auto& [group, entry] : entries_) all.push_back(entry);
    return all;
}

template <typename Call>
void Listeners::Tell(Call call) const {
    for (const EntryPtr& entry : All()) {
        const std::shared_lock lock(entry->in_use);
        if (entry->listener == nullptr) continue;
        try {
            call(*entry->listener);
        } catch (const char* text) {
            LogThrow(*entry->listener, text);
        } catch (const std::exception& error) {
            LogThrow(*entry->listener, error.what());
        }
    }
}

}  // namespace bridge

bool AddCommandListener(CommandListener* listener) {
    return bridge::Listeners::Instance().Add(listener);
}

void DelCommandListener(CommandListener* listener) {
    bridge::Listeners::Instance().Remove(listener);
}
