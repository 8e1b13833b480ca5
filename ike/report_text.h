// Steps and outcomes as people and programs read them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "ike/sa/report.h"
#include "platform/eventlog/sinks.h"

namespace ikeauth {

/// "   0.012  received   IKE_SA_INIT response ...", further lines indented.
std::string StepText(const Step& step);
/// A message of the event log as the text of a step.
std::string LogText(const eventlog::Record& record);
/// "verdict: ..." and "advice: ...".
std::string OutcomeText(const Outcome& outcome);
nlohmann::json ToJson(const Outcome& outcome, const Report& report);
/// Stages and exit codes, for --help.
std::string StageHelp();

}  // namespace ikeauth
