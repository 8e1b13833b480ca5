#include "ike/report_text.h"

#include <cstdio>
#include <map>

namespace ikeauth {
namespace {

constexpr std::size_t kWhatWidth = 11;
constexpr std::size_t kTextColumn = 22;

std::string Seconds(std::chrono::milliseconds time) {
    char text[32];
    std::snprintf(text, sizeof text, "%8.3f  ", static_cast<double>(time.count()) / 1000.0);
    return text;
}

std::string Indented(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c;
        if (c == '\n') out.append(kTextColumn, ' ');
    }
    return out;
}

}  // namespace

std::string StepText(const Step& step) {
    std::string what(step.what);
    what.resize(std::max(what.size() + 1, kWhatWidth), ' ');
    return Seconds(step.at) + what + Indented(step.text) + "\n";
}

std::string LogText(const eventlog::Record& record) {
    return std::string(eventlog::SeverityName(record.severity)) + " " + std::to_string(record.code) + " " + record.text;
}

std::string OutcomeText(const Outcome& outcome) {
    const EndingInfo& info = Info(outcome.ending);
    return "verdict: " + std::string(info.name) + " (stage " + std::string(info.stage) + "): " + outcome.reason +
           "\nadvice:  " + std::string(Advice(outcome)) + "\n";
}

nlohmann::json ToJson(const Outcome& outcome, const Report& report) {
    const EndingInfo& info = Info(outcome.ending);
    nlohmann::json steps = nlohmann::json::array();
    for (const Step& step : report.steps()) {
        steps.push_back({{"milliseconds", step.at.count()}, {"what", step.what}, {"text", step.text}});
    }
    return {{"steps", std::move(steps)},
            {"verdict", info.name},
            {"stage", info.stage},
            {"reason", outcome.reason},
            {"advice", Advice(outcome)},
            {"exit_code", info.exit_code},
            {"authenticated", info.exit_code == 0}};
}

std::string StageHelp() {
    std::map<int, std::string> by_code;
    for (const EndingInfo& info : Endings()) {
        std::string& names = by_code[info.exit_code];
        names += names.empty() ? std::string(info.stage) + ": " : ", ";
        names += info.name;
    }
    std::string text = "Exit codes, by stage:\n";
    for (const auto& [code, names] : by_code) {
        const std::string number = std::to_string(code);
        text.append("  ").append(number).append(4 - number.size(), ' ').append(names).append("\n");
    }
    return text + "  2   could not run: wrong arguments or settings, or files or tokens that cannot be used\n";
}

}  // namespace ikeauth
