#include "platform/eventlog/sinks.h"

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <syslog.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/eventlog/deliver.h"

namespace eventlog {

namespace {

struct SeverityForms {
    spdlog::level::level_enum level;
    int syslog_priority;
};
constexpr std::array<SeverityForms, 5> kSeverities{{{spdlog::level::debug, LOG_DEBUG},
                                                    {spdlog::level::info, LOG_INFO},
                                                    {spdlog::level::warn, LOG_WARNING},
                                                    {spdlog::level::err, LOG_ERR},
                                                    {spdlog::level::off, LOG_DEBUG}}};

const SeverityForms& FormsOf(Severity severity) {
    return kSeverities.at(static_cast<std::size_t>(severity));
}

constexpr mode_t kFileMode = 0640;

std::atomic<Severity> g_level{Severity::kWarning};

// syslog records end at a line feed: each line becomes one.
class SyslogSink : public spdlog::sinks::base_sink<std::mutex> {
  public:
    SyslogSink() { openlog(nullptr, LOG_PID, LOG_DAEMON); }

  protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        int priority = LOG_INFO;
        for (const SeverityForms& forms : kSeverities) {
            if (forms.level == message.level) priority = forms.syslog_priority;
        }
        std::string_view rest(message.payload.data(), message.payload.size());
        while (!rest.empty()) {
            const std::size_t length = std::min(rest.find('\n'), rest.size());
            syslog(priority, "%.*s", static_cast<int>(length), rest.data());
            rest.remove_prefix(std::min(length + 1, rest.size()));
        }
    }
    void flush_() override {}
};

// What messages are sent to; replaced as a whole.
struct Route {
    std::shared_ptr<spdlog::logger> logger;
    std::function<void(const Record&)> callback;
};

spdlog::sink_ptr MakeFileSink(const Sinks& sinks) {
    spdlog::file_event_handlers handlers;
    handlers.after_open = [](const spdlog::filename_t& /*name*/, std::FILE* file) { fchmod(fileno(file), kFileMode); };
    return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(sinks.file, sinks.file_max_bytes, sinks.file_count,
                                                                  false, handlers);
}

spdlog::color_mode ColourMode(Colour colour) {
    if (colour == Colour::kAlways) return spdlog::color_mode::always;
    return colour == Colour::kNever ? spdlog::color_mode::never : spdlog::color_mode::automatic;
}

Route MakeRoute(const Sinks& sinks) {
    std::vector<spdlog::sink_ptr> targets;
    if (sinks.to_stderr) {
        targets.push_back(std::make_shared<spdlog::sinks::ansicolor_stderr_sink_mt>(ColourMode(sinks.colour)));
    }
    if (!sinks.file.empty()) targets.push_back(MakeFileSink(sinks));
    if (sinks.to_syslog) targets.push_back(std::make_shared<SyslogSink>());
    auto logger = std::make_shared<spdlog::logger>("certmgr", targets.begin(), targets.end());
    logger->set_level(spdlog::level::trace);  // filtered before it comes here
    logger->flush_on(spdlog::level::trace);
    logger->set_formatter(std::make_unique<spdlog::pattern_formatter>("%Y-%m-%d %H:%M:%S.%eZ %^%-7l%$ %v",
                                                                      spdlog::pattern_time_type::utc));
    return {std::move(logger), sinks.callback};
}

class Router {
  public:
    std::shared_ptr<const Route> Get() {
        const std::lock_guard lock(mutex_);
        return route_;
    }
    void Set(Route route) {
        auto replaced = std::make_shared<const Route>(std::move(route));
        const std::lock_guard lock(mutex_);
        route_.swap(replaced);
    }

  private:
    std::mutex mutex_;
    std::shared_ptr<const Route> route_ = std::make_shared<const Route>(MakeRoute(Sinks{}));
};

// Never destroyed: static destructors of other libraries still log.
Router& TheRouter() {
    static Router& router = *new Router;
    return router;
}

}  // namespace

std::string_view SeverityName(Severity severity) noexcept {
    return kSeverityNames.at(static_cast<std::size_t>(severity));
}

bool SetSinks(const Sinks& sinks, std::string& error) {
    try {
        TheRouter().Set(MakeRoute(sinks));
    } catch (const spdlog::spdlog_ex& failure) {
        error = failure.what();
        return false;
    }
    g_level.store(sinks.level, std::memory_order_relaxed);
    return true;
}

Severity Level() noexcept {
    return g_level.load(std::memory_order_relaxed);
}

void Deliver(const Record& record) {
    const std::shared_ptr<const Route> route = TheRouter().Get();
    if (route->callback) route->callback(record);
    std::string line = std::to_string(record.code);
    line.insert(0, 3 - std::min<std::size_t>(line.size(), 3), ' ');
    if (!record.ident.empty()) line += " [" + record.ident + "]";
    line += " " + record.text;
    route->logger->log(FormsOf(record.severity).level, line);
}

}  // namespace eventlog
